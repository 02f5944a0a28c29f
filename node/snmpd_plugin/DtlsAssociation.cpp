#include "DtlsAssociation.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

#include "MessageParts.h"

namespace SnmpdPlugin {

namespace {

using namespace std::chrono_literals;

/** How long a session is used without a sign of the receiver. */
constexpr auto TrustedFor = 2s;
/** What follows within this time belongs to a burst. A receiver that is going down is noticed in one. */
constexpr auto BurstGap = 300ms;
/** How long a handshake takes before it is told that the receiver is silent. It goes on for longer. */
constexpr auto SilentFor = 3s;
constexpr const char* NoAnswer = "it does not answer";
/** How long the agent's end is put off for handshakes under way. */
constexpr auto MaxShutdown = 300ms;
/** How long a new association waits for the agent to be told whom it trusts, and how often it looks. */
constexpr auto MaxTrustWait = 10s;
constexpr auto TrustRetryDelay = 100ms;
/** Between two attempts to reach a receiver for which messages wait. */
constexpr auto RetryDelay = 1s;
/** How long it stays when nobody uses it. */
constexpr auto Linger = 2s;
constexpr auto MaxWait = 60s;
/** The oldest is dropped for a further one. */
constexpr size_t MaxWaiting = 1000;
constexpr size_t MaxReported = 10;
constexpr size_t MaxDatagram = 65536;
/** Datagrams that are taken before others have their turn. */
constexpr int MaxAtOnce = 100;

netsnmp_sockaddr_storage addressOf(const netsnmp_ep& endpoint) {
  netsnmp_sockaddr_storage address{};
  std::memcpy(&address, &endpoint.a, std::min(sizeof(address), sizeof(endpoint.a)));
  return address;
}

}  // namespace

DtlsAssociation::Registry& DtlsAssociation::registry() {
  // Never destroyed: snmpd closes its sessions while it exits.
  static auto* const associations = new Registry;
  return *associations;
}

std::string DtlsAssociation::keyOf(const netsnmp_ep& receiver, const std::string& certificate) {
  return addressKey(addressOf(receiver)) + certificate;
}

std::shared_ptr<DtlsAssociation> DtlsAssociation::to(const netsnmp_ep& receiver, const std::string& certificate) {
  auto& association = registry()[keyOf(receiver, certificate)];
  if (!association) association = std::make_shared<DtlsAssociation>(receiver, certificate);
  return association;
}

void DtlsAssociation::closeAll() {
  // The agent's last notification is on its way, and a handshake that is broken off leaves its receiver with half of
  // it.
  const auto isOpening = [](const auto& entry) {
    return entry.second->_session && !entry.second->_session->isEstablished();
  };
  const auto end = Clock::now() + MaxShutdown;
  while (Clock::now() < end && std::any_of(registry().begin(), registry().end(), isOpening))
    SocketWatch::serve(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()));
  for (const auto& [key, association] : registry()) {
    association->_isClosed = true;
    association->_timer.stop();
    association->_session.reset();
    association->_former.reset();
  }
}

DtlsAssociation::DtlsAssociation(const netsnmp_ep& receiver, const std::string& certificate)
    : _endpoint(receiver), _address(addressOf(receiver)), _certificate(certificate), _timer([this] { onTimer(); }) {}

void DtlsAssociation::attach(User& user) {
  _users.push_back(&user);
  // Nobody goes away any more.
  if (!_session && _waiting.empty()) _timer.stop();
  // The new user may want another peer than the others.
  if (_session && !_session->expect(expectation())) lost("it is not the expected one");
}

void DtlsAssociation::detach(User& user) {
  std::erase(_users, &user);
  _lastDetached = Clock::now();
  if (_users.empty() && !_isClosed && !_timer.isRunning()) _timer.start(Linger);
}

PeerExpectation DtlsAssociation::expectation() const {
  PeerExpectation all;
  const auto append = [](std::vector<std::string>& list, const std::vector<std::string>& more) {
    list.insert(list.end(), more.begin(), more.end());
  };
  for (const User* user : _users) {
    append(all.trusted, user->expectation().trusted);
    append(all.required, user->expectation().required);
    append(all.hosts, user->expectation().hosts);
    append(all.names, user->expectation().names);
  }
  return all;
}

void DtlsAssociation::dropExpired() {
  const auto now = Clock::now();
  while (!_waiting.empty() && _waiting.front().deadline < now) _waiting.pop_front();
}

void DtlsAssociation::send(std::string message) {
  if (_isClosed) return;
  if (isUsable()) {
    _lastSent = Clock::now();
    if (_session->send(message.data(), message.size())) return;
    check();
  }
  keep(std::move(message));
  if (_session ? _session->isEstablished() : !_timer.isRunning()) connect();
}

bool DtlsAssociation::isUsable() const {
  if (!_session || !_session->isEstablished()) return false;
  if (!_session->lapse().empty() || _mapGeneration != CertificateMap::generation()) return false;
  const auto now = Clock::now();
  return now - _lastHeard < TrustedFor || now - _lastSent < BurstGap;
}

void DtlsAssociation::keep(std::string message) {
  dropExpired();
  const std::string_view pdu = scopedPduOf(message);
  if (isInform(pdu)) {
    const auto earlier = std::find_if(_waiting.begin(), _waiting.end(),
                                      [pdu](const Waiting& waiting) { return scopedPduOf(waiting.message) == pdu; });
    if (earlier != _waiting.end()) {
      // A repetition: one of them is enough, and it is the later whose answer is waited for.
      earlier->message = std::move(message);
      return;
    }
  }
  if (_waiting.size() >= MaxWaiting) _waiting.pop_front();
  _waiting.push_back({std::move(message), Clock::now() + MaxWait});
}

bool DtlsAssociation::isTrustKnown() const {
  return CertificateMap::isSettled() || !expectation().required.empty() || Clock::now() - _created > MaxTrustWait;
}

void DtlsAssociation::connect() {
  if (!isTrustKnown()) {
    _timer.start(TrustRetryDelay);
    return;
  }
  const bool isRenewal = _session && _session->isEstablished();
  _former.reset();
  if (isRenewal) {
    _former = std::move(_session);
    _former->close();
  }
  _session.reset();
  _wasEstablished = false;
  try {
    if (!isRenewal) {
      // From another port: whatever the receiver still has of a failed attempt does not meet the next one. A session
      // that was closed in good order left nothing behind; and if its receiver was another, it is rid of it that way.
      auto socket = std::make_unique<UdpSocket>(_endpoint, false);
      _watch.reset();
      _socket = std::move(socket);
      _watch = std::make_unique<SocketWatch>(_socket->descriptor(), [this] { onReadable(); });
    }
    _session =
        std::make_unique<DtlsSession>(DtlsContext::get(_certificate), DtlsSession::Role::Client,
                                      [this](const void* data, size_t size) { return _socket->send(data, size); });
  } catch (const std::exception& fault) {
    lost(fault.what());
    return;
  }
  _begin = Clock::now();
  _session->expect(expectation());
  _session->connect();
  check();
}

void DtlsAssociation::onReadable() {
  // snmpd has one thread.
  static std::vector<char> datagram(MaxDatagram);
  static std::vector<char> message(MaxDatagram);
  for (int count = 0; count < MaxAtOnce; ++count) {
    netsnmp_indexed_addr_pair from{};
    const int size = _socket->receive(datagram.data(), datagram.size(), from);
    if (size < 0) {
      // The network's word that nobody listens there.
      if (errno != EAGAIN && errno != EINTR && _session) lost(std::strerror(errno));
      return;
    }
    if (!_session) continue;
    const size_t length = _session->receive(datagram.data(), static_cast<size_t>(size), message.data(), message.size());
    if (length != 0) {
      _lastHeard = Clock::now();
      for (User* user : _users) user->deliver({message.data(), length});
    }
    check();
  }
}

void DtlsAssociation::onTimer() {
  dropExpired();
  if (_users.empty() && Clock::now() - _lastDetached >= Linger) {
    registry().erase(keyOf(_endpoint, _certificate));
    return;
  }
  if (_session && !_session->isEstablished()) {
    if (Clock::now() - _begin > SilentFor) report(NoAnswer);
    // A receiver that missed the end of the former session takes no other from here.
    if (_former) _former->close();
    _session->onTimer();
    check();
  } else if (!_waiting.empty()) {
    connect();
  } else if (_users.empty()) {
    _timer.start(Linger);
  }
}

void DtlsAssociation::check() {
  if (!_session) return;
  if (_session->isEstablished()) {
    if (!std::exchange(_wasEstablished, true)) established();
  } else if (_session->isDead()) {
    lost(_session->fault());
  } else if (const auto next = _session->timer()) {
    _timer.start(*next);
  }
}

void DtlsAssociation::established() {
  _timer.stop();
  _former.reset();
  _mapGeneration = CertificateMap::generation();
  _lastHeard = Clock::now();
  _lastSent = _lastHeard;
  if (!_reported.empty())
    snmp_log(LOG_NOTICE, "vela_snmpd_plugin: DTLS receiver %s is reached\n", addressText(_address).c_str());
  _reported.clear();
  dropExpired();
  while (!_waiting.empty()) {
    const std::string& message = _waiting.front().message;
    if (!_session->send(message.data(), message.size())) {
      lost(_session->fault());
      return;
    }
    _waiting.pop_front();
  }
  if (_users.empty()) _timer.start(Linger);
}

void DtlsAssociation::lost(const std::string& fault) {
  if (!fault.empty()) report(fault);
  _session.reset();
  _former.reset();
  dropExpired();
  if (!_waiting.empty() || _users.empty())
    _timer.start(RetryDelay);
  else
    _timer.stop();
}

void DtlsAssociation::report(const std::string& fault) {
  // Once each for as long as the receiver is not reached.
  if (_reported.size() >= MaxReported || !_reported.insert(fault).second) return;
  snmp_log(LOG_WARNING, "vela_snmpd_plugin: DTLS receiver %s is not reached: %s\n", addressText(_address).c_str(),
           fault.c_str());
}

}  // namespace SnmpdPlugin
