#include "AddressResolver.h"

#include <LoggingWrapper.h>

#include <Poco/String.h>

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <memory>

#include "ConfigurationFault.h"

namespace VelaFmSnmp {

namespace {

struct FreeAddrInfo {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

/** Whether a text can be a host name. Digits and dots alone are a mistyped IPv4 address, which the resolver would take
 *  for one of its short forms. */
bool canBeName(const std::string& host) {
  const auto isNumeric = [](unsigned char c) { return (c >= '0' && c <= '9') || c == '.'; };
  const auto isPartOfName = [](unsigned char c) { return c > 0x20 && c < 0x7f && c != ':' && c != '/'; };
  return !host.empty() && std::all_of(host.begin(), host.end(), isPartOfName) &&
         !std::all_of(host.begin(), host.end(), isNumeric);
}

}  // namespace

AddressResolver::AddressResolver() : _family(AF_UNSPEC) {}

bool AddressResolver::parse(Poco::Net::IPAddress& result, const std::string& host) {
  // Poco's own parser refuses "::", and takes short forms of IPv4 and scopes, which no address row has a place for.
  in6_addr octets{};
  if (::inet_pton(AF_INET, host.c_str(), &octets) == 1)
    result = Poco::Net::IPAddress(&octets, sizeof(in_addr));
  else if (::inet_pton(AF_INET6, host.c_str(), &octets) == 1)
    result = Poco::Net::IPAddress(&octets, sizeof(in6_addr));
  else
    return false;
  return true;
}

void AddressResolver::setIpVersion(const std::string& ipVersion) {
  _family = AF_UNSPEC;
  if (Poco::icompare(ipVersion, "IPv4") == 0) _family = AF_INET;
  if (Poco::icompare(ipVersion, "IPv6") == 0) _family = AF_INET6;
}

Poco::Net::IPAddress AddressResolver::resolve(const std::string& host) {
  Poco::Net::IPAddress literal;
  if (parse(literal, host)) return literal;
  if (!canBeName(host)) throw ConfigurationFault("targetAddress is not correct :<%s>", host.c_str());
  auto answer = _answers.find(host);
  if (answer == _answers.end()) answer = _answers.emplace(host, lookUp(host)).first;
  if (!answer->second.failure.empty()) throw ConfigurationFault("%s", answer->second.failure.c_str());
  return answer->second.address;
}

AddressResolver::Answer AddressResolver::lookUp(const std::string& host) const {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
  const std::unique_ptr<addrinfo, FreeAddrInfo> list(found);
  if (error != 0) {
    VELA_LOG(Vela::LogError, "error in getaddrinfo: %s, could not resolve host <%s>", ::gai_strerror(error),
             host.c_str());
    return {{}, "Could not resolve IP host: " + host};
  }
  bool isOtherFamily = false;
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    if (_family != AF_UNSPEC && entry->ai_family != _family) {
      isOtherFamily = true;
      continue;
    }
    const Poco::Net::IPAddress address(*entry->ai_addr);
    VELA_LOG(Vela::LogInfo, "resolved: %s => %s", host.c_str(), address.toString().c_str());
    return {address, std::string()};
  }
  if (isOtherFamily) return {{}, "Faulty Configuration due to mismatch between DNS response and ipVersion tag"};
  return {{}, "Could not resolve IP host: " + host};
}

}  // namespace VelaFmSnmp
