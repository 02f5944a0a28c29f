#ifndef SNMPD_PLUGIN_DTLS_OPENING_H
#define SNMPD_PLUGIN_DTLS_OPENING_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "DtlsSession.h"

namespace SnmpdPlugin {

/**
 * The handshake of a client whose address is proven, and who is nobody yet. What it can make the node keep is bounded:
 * the library sees only records that belong to a handshake, and protected ones only when it has the keys for them.
 */
class DtlsOpening {
 public:
  /** `random`: of the client's hello, which tells a hello that comes again from a client that begins anew. */
  DtlsOpening(std::unique_ptr<DtlsSession> session, std::string_view random)
      : _session(std::move(session)), _random(random) {}

  bool isOf(std::string_view random) const { return random == _random; }
  /** Takes a datagram; as DtlsSession::receive. */
  size_t receive(std::string_view datagram, void* message, size_t capacity);
  DtlsSession& session() { return *_session; }
  /** Gives the session away, to be used without the opening. */
  std::unique_ptr<DtlsSession> take() { return std::move(_session); }

 private:
  void hold(std::string_view record);

  std::unique_ptr<DtlsSession> _session;
  std::string _random;
  std::vector<std::string> _held; /**< protected records that came before the keys */
};

}  // namespace SnmpdPlugin
#endif
