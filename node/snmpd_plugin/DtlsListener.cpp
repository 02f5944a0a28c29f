#include "DtlsListener.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>

namespace SnmpdPlugin {

namespace {

using namespace std::chrono_literals;

constexpr size_t MaxDatagram = 65536;
constexpr size_t MaxPeers = 1000;
/** Of those, peers of whom nothing is known but a first message. */
constexpr size_t MaxUnproven = 100;
constexpr auto MaxHandshake = 10s;
constexpr auto MaxIdle = 300s;
/** What goes wrong with strangers must not fill the log. */
constexpr auto BetweenReports = 1s;

/** Places in a datagram's first record (RFC 6347, 4.1) and in the handshake message in it (4.2.2). */
constexpr size_t RecordHeaderLength = 13;
constexpr size_t EpochAt = 3;
constexpr size_t HandshakeTypeAt = RecordHeaderLength;
constexpr char HandshakeRecord = 22;
constexpr char ClientHello = 1;

/** Whether it is protected by keys that a handshake has agreed on. */
bool isProtected(const std::vector<char>& datagram) { return datagram[EpochAt] != 0 || datagram[EpochAt + 1] != 0; }

bool isClientHello(const std::vector<char>& datagram) {
  return !isProtected(datagram) && datagram.front() == HandshakeRecord && datagram[HandshakeTypeAt] == ClientHello;
}

}  // namespace

DtlsListener::DtlsListener(netsnmp_transport* face, const netsnmp_ep& endpoint)
    : DtlsTransport(face), _socket(endpoint, true), _datagram(MaxDatagram), _timer([this] { onTimer(); }) {
  std::memcpy(&_address, &endpoint.a, std::min(sizeof(_address), sizeof(endpoint.a)));
  useSocket(_socket.descriptor());
}

DtlsTransport::Received DtlsListener::receive(void* buffer, size_t capacity) {
  Received received;
  const int size = _socket.receive(_datagram.data(), _datagram.size(), received.addresses);
  if (size <= static_cast<int>(RecordHeaderLength)) return received;
  Peer* peer = findPeer(received.addresses, isClientHello(_datagram));
  if (peer == nullptr) return received;
  peer->lastUse = Clock::now();
  // The last message of a handshake is protected already.
  const bool isForOpening =
      peer->opening && (!isProtected(_datagram) || !peer->established || peer->opening->isAddressProven());
  if (isForOpening) {
    received.length = receiveOpening(*peer, static_cast<size_t>(size), buffer, capacity);
    schedule();
  } else if (peer->established) {
    received.length = receiveEstablished(*peer, static_cast<size_t>(size), buffer, capacity);
  }
  received.securityName = peer->securityName;
  if (!peer->opening && !peer->established) _peers.erase(addressKey(received.addresses.remote_addr));
  return received;
}

DtlsListener::Peer* DtlsListener::findPeer(const netsnmp_indexed_addr_pair& from, bool isHello) {
  const std::string key = addressKey(from.remote_addr);
  const auto found = _peers.find(key);
  if (found != _peers.end()) {
    Peer& peer = found->second;
    const bool isUnderWay = peer.opening && Clock::now() - peer.begin < MaxHandshake;
    if (isHello && !isUnderWay) begin(peer);
    return &peer;
  }
  if (!isHello) return nullptr;
  makeRoom();
  Peer peer;
  peer.addresses = from;
  if (!begin(peer)) return nullptr;
  return &_peers.emplace(key, std::move(peer)).first->second;
}

bool DtlsListener::begin(Peer& peer) {
  try {
    peer.opening = std::make_unique<DtlsSession>(DtlsContext::get({}), DtlsSession::Role::Server,
                                                 addressKey(peer.addresses.remote_addr),
                                                 [this, addresses = peer.addresses](const void* data, size_t size) {
                                                   return _socket.send(data, size, addresses);
                                                 });
    peer.begin = Clock::now();
    return true;
  } catch (const std::exception& fault) {
    report(peer, fault.what());
    return false;
  }
}

size_t DtlsListener::receiveOpening(Peer& peer, size_t size, void* buffer, size_t capacity) {
  const size_t length = peer.opening->receive(_datagram.data(), size, buffer, capacity);
  if (peer.opening->isEstablished()) return admit(peer) ? length : 0;
  if (peer.opening->isDead()) {
    report(peer, peer.opening->fault());
    peer.opening.reset();
  }
  return 0;
}

bool DtlsListener::admit(Peer& peer) {
  const std::string name = peer.opening->securityName();
  if (name.empty()) {
    report(peer, "its certificate gives no security name, or somebody else's");
    peer.opening.reset();
    return false;
  }
  peer.securityName = name;
  peer.mapGeneration = CertificateMap::generation();
  peer.established = std::move(peer.opening);
  return true;
}

size_t DtlsListener::receiveEstablished(Peer& peer, size_t size, void* buffer, size_t capacity) {
  const size_t length = peer.established->receive(_datagram.data(), size, buffer, capacity);
  if (peer.established->isDead() || !isStillAdmitted(peer)) {
    peer.established.reset();
    return 0;
  }
  return length;
}

bool DtlsListener::isStillAdmitted(Peer& peer) {
  const unsigned generation = CertificateMap::generation();
  if (peer.mapGeneration == generation) return true;
  peer.mapGeneration = generation;
  peer.securityName = peer.established->securityName();
  if (peer.securityName.empty()) report(peer, "its certificate is trusted no more");
  return !peer.securityName.empty();
}

bool DtlsListener::send(const void* message, size_t size, const netsnmp_tmStateReference* state) {
  if (state == nullptr || state->have_addresses == 0) return false;
  const auto peer = _peers.find(addressKey(state->addresses.remote_addr));
  return peer != _peers.end() && peer->second.established && peer->second.established->send(message, size);
}

void DtlsListener::makeRoom() {
  const auto now = Clock::now();
  size_t unproven = 0;
  std::erase_if(_peers, [&](const auto& entry) {
    const Peer& peer = entry.second;
    const bool isNew = !peer.established;
    if (isNew && !peer.opening->isAddressProven()) ++unproven;
    return now - peer.lastUse > (isNew ? std::chrono::seconds(MaxHandshake) : std::chrono::seconds(MaxIdle));
  });
  const auto dropOldest = [this](const auto& isCandidate) {
    auto oldest = _peers.end();
    for (auto peer = _peers.begin(); peer != _peers.end(); ++peer)
      if (isCandidate(peer->second) && (oldest == _peers.end() || peer->second.lastUse < oldest->second.lastUse))
        oldest = peer;
    if (oldest != _peers.end()) _peers.erase(oldest);
  };
  if (unproven >= MaxUnproven)
    dropOldest([](const Peer& peer) { return !peer.established && !peer.opening->isAddressProven(); });
  else if (_peers.size() >= MaxPeers)
    dropOldest([](const Peer&) { return true; });
}

void DtlsListener::onTimer() {
  for (auto& entry : _peers) {
    auto& opening = entry.second.opening;
    if (!opening) continue;
    opening->onTimer();
    if (opening->isDead()) opening.reset();
  }
  std::erase_if(_peers, [](const auto& entry) { return !entry.second.established && !entry.second.opening; });
  schedule();
}

void DtlsListener::schedule() {
  std::optional<std::chrono::milliseconds> next;
  for (const auto& entry : _peers) {
    const auto timer = entry.second.opening ? entry.second.opening->timer() : std::nullopt;
    if (timer && (!next || *timer < *next)) next = timer;
  }
  if (next)
    _timer.start(*next);
  else
    _timer.stop();
}

void DtlsListener::report(const Peer& peer, const std::string& fault) {
  const auto now = Clock::now();
  if (fault.empty() || now - _lastReport < BetweenReports) return;
  _lastReport = now;
  snmp_log(LOG_NOTICE, "vela_snmpd_plugin: manager %s is refused: %s\n",
           addressText(peer.addresses.remote_addr).c_str(), fault.c_str());
}

}  // namespace SnmpdPlugin
