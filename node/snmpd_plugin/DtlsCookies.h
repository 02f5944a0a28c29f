#ifndef SNMPD_PLUGIN_DTLS_COOKIES_H
#define SNMPD_PLUGIN_DTLS_COOKIES_H

#include <array>
#include <chrono>
#include <string>
#include <string_view>

namespace SnmpdPlugin {

/**
 * The cookies by which clients show that they receive what is sent to their address (RFC 6347, 4.2.1). Nothing is kept
 * of a client: a cookie is a keyed hash of its address. The key changes every minute; a cookie counts for one to two.
 */
class DtlsCookies {
 public:
  using Clock = std::chrono::steady_clock;

  /** Throws std::runtime_error when no random numbers are to be had. */
  explicit DtlsCookies(Clock::time_point now = Clock::now());

  std::string make(std::string_view address, Clock::time_point now = Clock::now());
  bool isValid(std::string_view address, std::string_view cookie, Clock::time_point now = Clock::now());

 private:
  static constexpr std::size_t SecretOctets = 32;
  using Secret = std::array<unsigned char, SecretOctets>;

  static Secret makeSecret();
  static std::string cookieOf(const Secret& secret, std::string_view address);
  void renew(Clock::time_point now);

  Secret _current = makeSecret();
  Secret _former = makeSecret();
  Clock::time_point _made; /**< the current one */
};

}  // namespace SnmpdPlugin
#endif
