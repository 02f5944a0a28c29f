#include "DtlsListener.h"

#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

namespace SnmpdPlugin {

namespace {

using namespace std::chrono_literals;

constexpr size_t MaxDatagram = 65536;
/** Datagrams that are taken before others have their turn. */
constexpr int MaxAtOnce = 100;
/** Of a burst of hellos, those that come while the agent does something else. */
constexpr int ReceiveBuffer = 1 << 20;

constexpr size_t MaxPeers = 1000;
constexpr size_t MaxPeersOfSource = 100;
constexpr size_t MaxNewcomers = 384;
constexpr size_t MaxNewcomersOfSource = 32;
constexpr auto MaxHandshake = 10s;
/** A newcomer that is silent for longer may make room for another. */
constexpr auto MaxSilence = 2s;
constexpr auto MaxIdle = 300s;
constexpr auto BetweenIdleChecks = 60s;
/** Without a credential there is nothing to be had from a second look at the files at once. */
constexpr auto BetweenContextAttempts = 1s;

constexpr const char* Refused = "is refused";

}  // namespace

DtlsListener::DtlsListener(netsnmp_transport* face, const netsnmp_ep& endpoint)
    : DtlsTransport(face),
      _socket(endpoint, true),
      _datagram(MaxDatagram),
      _newcomers(MaxNewcomers, MaxNewcomersOfSource, MaxSilence),
      _peers(MaxPeers, MaxPeersOfSource, 0s),
      _timer([this] { onTimer(); }) {
  std::memcpy(&_address, &endpoint.a, std::min(sizeof(_address), sizeof(endpoint.a)));
  _socket.setReceiveBuffer(ReceiveBuffer);
  useSocket(_socket.descriptor());
}

DtlsTransport::Received DtlsListener::receive(void* buffer, size_t capacity) {
  for (int count = 0; count < MaxAtOnce; ++count) {
    Received received;
    const int size = _socket.receive(_datagram.data(), _datagram.size(), received.addresses);
    if (size < 0) break;
    take({_datagram.data(), static_cast<size_t>(size)}, received, buffer, capacity);
    if (received.length != 0) return received;
  }
  return {};
}

void DtlsListener::take(std::string_view datagram, Received& received, void* buffer, size_t capacity) {
  if (const auto hello = clientHelloOf(datagram)) {
    takeHello(datagram, *hello, received.addresses);
    return;
  }
  const std::string key = addressKey(received.addresses.remote_addr);
  Peer* peer = _peers.find(key);
  if (peer != nullptr) {
    received.length = takeFromPeer(*peer, datagram, buffer, capacity);
    received.securityName = peer->securityName;
    if (peer->session->isDead()) _peers.erase(key);
  }
  Newcomer* newcomer = _newcomers.find(key);
  if (received.length != 0 || newcomer == nullptr) return;
  received.length = takeFromNewcomer(*newcomer, datagram, buffer, capacity);
  if (received.length != 0) received.securityName = _peers.find(key)->securityName;
}

void DtlsListener::takeHello(std::string_view datagram, const ClientHello& hello,
                             const netsnmp_indexed_addr_pair& from) {
  const std::string key = addressKey(from.remote_addr);
  if (!_cookies.isValid(key, hello.cookie)) {
    const std::string request = helloVerifyRequest(hello, _cookies.make(key));
    _socket.send(request.data(), request.size(), from);
    return;
  }
  Newcomer* newcomer = _newcomers.find(key);
  if (newcomer == nullptr || !newcomer->opening->isOf(hello.random)) newcomer = open(hello, from);
  if (newcomer != nullptr) takeFromNewcomer(*newcomer, datagram, nullptr, 0);
}

DtlsListener::Newcomer* DtlsListener::open(const ClientHello& hello, const netsnmp_indexed_addr_pair& from) {
  const auto now = Clock::now();
  if (now < _noContextUntil) return nullptr;
  try {
    const auto context = DtlsContext::get({});
    auto session = std::make_unique<DtlsSession>(
        context, DtlsSession::Role::Server,
        [this, from](const void* data, size_t size) { return _socket.send(data, size, from); });
    return _newcomers.insert({from, now, now, std::make_unique<DtlsOpening>(std::move(session), hello.random)});
  } catch (const std::exception& fault) {
    _noContextUntil = now + BetweenContextAttempts;
    report(from, Refused, fault.what());
    return nullptr;
  }
}

size_t DtlsListener::takeFromPeer(Peer& peer, std::string_view datagram, void* buffer, size_t capacity) {
  const size_t length = peer.session->receive(datagram.data(), datagram.size(), buffer, capacity);
  if (length != 0) peer.lastUse = Clock::now();
  if (peer.session->isDead() || isStillAdmitted(peer)) return length;
  peer.session->close();
  return 0;
}

bool DtlsListener::isStillAdmitted(Peer& peer) {
  std::string fault = peer.session->lapse();
  const unsigned generation = CertificateMap::generation();
  if (fault.empty() && peer.mapGeneration != generation) {
    peer.mapGeneration = generation;
    peer.securityName = peer.session->securityName();
    if (peer.securityName.empty()) fault = "is trusted no more";
  }
  if (!fault.empty()) report(peer.addresses, "is cut off", "its certificate " + fault);
  return fault.empty();
}

size_t DtlsListener::takeFromNewcomer(Newcomer& newcomer, std::string_view datagram, void* buffer, size_t capacity) {
  const std::string key = addressKey(newcomer.addresses.remote_addr);
  newcomer.lastUse = Clock::now();
  size_t length = newcomer.opening->receive(datagram, buffer, capacity);
  DtlsSession& session = newcomer.opening->session();
  const bool isOver = session.isDead() || session.isEstablished();
  if (session.isDead())
    report(newcomer.addresses, Refused, session.fault());
  else if (session.isEstablished() && !admit(newcomer))
    length = 0;
  if (isOver) _newcomers.erase(key);
  schedule();
  return length;
}

bool DtlsListener::admit(Newcomer& newcomer) {
  const std::string name = newcomer.opening->session().securityName();
  if (name.empty()) {
    report(newcomer.addresses, Refused, "its certificate gives no security name, or somebody else's");
    return false;
  }
  Peer peer;
  peer.addresses = newcomer.addresses;
  peer.lastUse = Clock::now();
  peer.session = newcomer.opening->take();
  peer.securityName = name;
  peer.mapGeneration = CertificateMap::generation();
  return _peers.insert(std::move(peer)) != nullptr;
}

bool DtlsListener::send(const void* message, size_t size, const netsnmp_tmStateReference* state) {
  if (state == nullptr || state->have_addresses == 0) return false;
  const Peer* peer = _peers.find(addressKey(state->addresses.remote_addr));
  return peer != nullptr && peer->session->send(message, size);
}

void DtlsListener::onTimer() {
  const auto now = Clock::now();
  const bool hadNewcomers = !_newcomers.isEmpty();
  _newcomers.eraseIf([now](const Newcomer& newcomer) {
    newcomer.opening->session().onTimer();
    return newcomer.opening->session().isDead() || now - newcomer.begin >= MaxHandshake;
  });
  _peers.eraseIf([now](const Peer& peer) { return now - peer.lastUse >= MaxIdle; });
  // What a crowd that is gone took is not kept for the next one.
  if (hadNewcomers && _newcomers.isEmpty()) malloc_trim(0);
  schedule();
}

void DtlsListener::schedule() {
  const auto now = Clock::now();
  std::optional<std::chrono::milliseconds> next;
  const auto consider = [&next](std::chrono::milliseconds delay) { next = std::min(next.value_or(delay), delay); };
  _newcomers.forEach([&](Newcomer& newcomer) {
    if (const auto timer = newcomer.opening->session().timer()) consider(*timer);
    consider(std::chrono::ceil<std::chrono::milliseconds>(newcomer.begin + MaxHandshake - now));
  });
  if (!_peers.isEmpty()) consider(BetweenIdleChecks);
  if (next)
    _timer.start(*next);
  else
    _timer.stop();
}

void DtlsListener::report(const netsnmp_indexed_addr_pair& addresses, const std::string& kind,
                          const std::string& fault) {
  if (fault.empty()) return;
  const auto& address = addresses.remote_addr;
  _log.tell(sourceKey(address), kind, "manager " + addressText(address) + " " + kind + ": " + cutForLog(fault));
}

}  // namespace SnmpdPlugin
