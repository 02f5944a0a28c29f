#include "AddressResolver.h"

#include <LoggingWrapper.h>

#include <Poco/String.h>

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <utility>

#include "ConfigurationFault.h"

namespace VelaFmSnmp {

namespace {

/** Whether a text can be a host name. Digits and dots alone are a mistyped IPv4 address, which the resolver would take
 *  for one of its short forms. */
bool canBeName(const std::string& host) {
  const auto isNumeric = [](unsigned char c) { return (c >= '0' && c <= '9') || c == '.'; };
  const auto isPartOfName = [](unsigned char c) { return c > 0x20 && c < 0x7f && c != ':' && c != '/'; };
  return !host.empty() && std::all_of(host.begin(), host.end(), isPartOfName) &&
         !std::all_of(host.begin(), host.end(), isNumeric);
}

}  // namespace

/** A question to the name servers, which a thread of the C library's waits for. */
class AddressResolver::LookUp {
 public:
  explicit LookUp(std::string host) : _host(std::move(host)) {
    _hints.ai_family = AF_UNSPEC;
    _hints.ai_socktype = SOCK_DGRAM;
    _request.ar_name = _host.c_str();
    _request.ar_request = &_hints;
    gaicb* requests[] = {&_request};
    _beginError = ::getaddrinfo_a(GAI_NOWAIT, requests, 1, nullptr);
  }
  ~LookUp() {
    if (_request.ar_result != nullptr) ::freeaddrinfo(_request.ar_result);
  }
  LookUp(const LookUp&) = delete;
  LookUp& operator=(const LookUp&) = delete;

  const std::string& getHost() const { return _host; }
  const addrinfo* getResult() const { return _request.ar_result; }
  /** As of getaddrinfo; EAI_INPROGRESS before the end. */
  int getError() const { return _beginError != 0 ? _beginError : ::gai_error(&_request); }
  bool isUnderWay() const { return getError() == EAI_INPROGRESS; }
  /** Whether it ends without having begun. */
  bool cancel() { return ::gai_cancel(&_request) == EAI_CANCELED; }

  /** Waits for the end. */
  void wait(std::chrono::milliseconds timeout) const {
    const timespec limit = {timeout.count() / 1000, timeout.count() % 1000 * 1000000};
    const gaicb* requests[] = {&_request};
    if (isUnderWay()) ::gai_suspend(requests, 1, &limit);
  }

 private:
  const std::string _host;
  addrinfo _hints{};
  mutable gaicb _request{};
  int _beginError = 0;
};

AddressResolver::AddressResolver(std::chrono::milliseconds wait) : _maxWait(wait), _family(AF_UNSPEC) {}

AddressResolver::~AddressResolver() {
  for (auto& entry : _lookUps) {
    LookUp* lookUp = entry.second.get();
    // The library's thread still writes to one that is under way.
    if (lookUp->isUnderWay() && !lookUp->cancel()) static_cast<void>(entry.second.release());
  }
}

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

void AddressResolver::forget() {
  _answers.clear();
  _waited = std::chrono::milliseconds(0);
  // A failure may have passed meanwhile; an address came too late for the last pass and is fresh enough for this one.
  for (auto entry = _lookUps.begin(); entry != _lookUps.end();) {
    const int error = entry->second->getError();
    entry = error == 0 || error == EAI_INPROGRESS ? std::next(entry) : _lookUps.erase(entry);
  }
}

void AddressResolver::prepare(const std::string& host) {
  Poco::Net::IPAddress literal;
  if (parse(literal, host) || !canBeName(host) || _answers.count(host) != 0 || _lookUps.count(host) != 0) return;
  _lookUps.emplace(host, std::make_unique<LookUp>(host));
}

AddressResolver::Answer AddressResolver::lookUp(const std::string& host) {
  prepare(host);
  const auto entry = _lookUps.find(host);
  const auto begin = std::chrono::steady_clock::now();
  if (_waited < _maxWait) entry->second->wait(_maxWait - _waited);
  _waited += std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  if (entry->second->isUnderWay()) {
    VELA_LOG(Vela::LogError, "error in getaddrinfo: %s, could not resolve host <%s>", "no answer yet", host.c_str());
    return {{}, "Could not resolve IP host: " + host};
  }
  Answer answer = choose(*entry->second);
  _lookUps.erase(entry);
  return answer;
}

AddressResolver::Answer AddressResolver::choose(const LookUp& lookUp) const {
  const char* host = lookUp.getHost().c_str();
  if (lookUp.getError() != 0) {
    VELA_LOG(Vela::LogError, "error in getaddrinfo: %s, could not resolve host <%s>", ::gai_strerror(lookUp.getError()),
             host);
    return {{}, "Could not resolve IP host: " + lookUp.getHost()};
  }
  bool isOtherFamily = false;
  for (const addrinfo* entry = lookUp.getResult(); entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    if (_family != AF_UNSPEC && entry->ai_family != _family) {
      isOtherFamily = true;
      continue;
    }
    const Poco::Net::IPAddress address(*entry->ai_addr);
    VELA_LOG(Vela::LogInfo, "resolved: %s => %s", host, address.toString().c_str());
    return {address, std::string()};
  }
  if (isOtherFamily) return {{}, "Faulty Configuration due to mismatch between DNS response and ipVersion tag"};
  return {{}, "Could not resolve IP host: " + lookUp.getHost()};
}

}  // namespace VelaFmSnmp
