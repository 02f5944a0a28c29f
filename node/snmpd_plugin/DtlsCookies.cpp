#include "DtlsCookies.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <stdexcept>

namespace SnmpdPlugin {

namespace {

constexpr std::chrono::seconds SecretLife{60};

}  // namespace

DtlsCookies::DtlsCookies(Clock::time_point now) : _made(now) {}

DtlsCookies::Secret DtlsCookies::makeSecret() {
  Secret octets{};
  if (RAND_bytes(octets.data(), static_cast<int>(octets.size())) != 1)
    throw std::runtime_error("no random numbers are to be had");
  return octets;
}

std::string DtlsCookies::cookieOf(const Secret& secret, std::string_view address) {
  unsigned char cookie[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
       reinterpret_cast<const unsigned char*>(address.data()), address.size(), cookie, &length);
  return {cookie, cookie + length};
}

void DtlsCookies::renew(Clock::time_point now) {
  const auto age = now - _made;
  if (age < SecretLife) return;
  _former = age < 2 * SecretLife ? _current : makeSecret();
  _current = makeSecret();
  _made = now;
}

std::string DtlsCookies::make(std::string_view address, Clock::time_point now) {
  renew(now);
  return cookieOf(_current, address);
}

bool DtlsCookies::isValid(std::string_view address, std::string_view cookie, Clock::time_point now) {
  if (cookie.empty()) return false;
  renew(now);
  for (const Secret& secret : {_current, _former}) {
    const std::string wanted = cookieOf(secret, address);
    if (wanted.size() == cookie.size() && CRYPTO_memcmp(wanted.data(), cookie.data(), cookie.size()) == 0) return true;
  }
  return false;
}

}  // namespace SnmpdPlugin
