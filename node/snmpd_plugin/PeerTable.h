#ifndef SNMPD_PLUGIN_PEER_TABLE_H
#define SNMPD_PLUGIN_PEER_TABLE_H

#include <chrono>
#include <string>
#include <unordered_map>
#include <utility>

#include "UdpSocket.h"

namespace SnmpdPlugin {

/**
 * What is kept of peers, by address and port. Bounds how many there are, in all and of one source (sourceKey), so that
 * none of them can take the places of the others. A Peer has `addresses` and `lastUse`.
 */
template <class Peer>
class PeerTable {
 public:
  using Clock = std::chrono::steady_clock;

  /** `keptFor`: how long after its last use a peer makes room for no other. */
  PeerTable(size_t maxPeers, size_t maxOfSource, Clock::duration keptFor)
      : _maxPeers(maxPeers), _maxOfSource(maxOfSource), _keptFor(keptFor) {}

  Peer* find(const std::string& key) {
    const auto found = _peers.find(key);
    return found == _peers.end() ? nullptr : &found->second;
  }

  /** Takes a peer, in place of what is there of it. Where a bound is reached the one that was used least recently goes,
   * of the same source if that is full. Null: there is no room. */
  Peer* insert(Peer peer) {
    const std::string key = addressKey(peer.addresses.remote_addr);
    const auto present = _peers.find(key);
    if (present == _peers.end() && !makeRoom(sourceKey(peer.addresses.remote_addr))) return nullptr;
    return &_peers.insert_or_assign(key, std::move(peer)).first->second;
  }

  void erase(const std::string& key) { _peers.erase(key); }
  template <class Predicate>
  void eraseIf(Predicate predicate) {
    std::erase_if(_peers, [&predicate](const auto& entry) { return predicate(entry.second); });
  }
  bool isEmpty() const { return _peers.empty(); }
  template <class Function>
  void forEach(Function function) {
    for (auto& entry : _peers) function(entry.second);
  }

 private:
  using Peers = std::unordered_map<std::string, Peer>;

  bool makeRoom(const std::string& source) {
    size_t ofSource = 0;
    auto oldest = _peers.end();
    auto oldestOfSource = _peers.end();
    const auto isOlder = [this](auto peer, auto other) {
      return other == _peers.end() || peer->second.lastUse < other->second.lastUse;
    };
    for (auto peer = _peers.begin(); peer != _peers.end(); ++peer) {
      if (isOlder(peer, oldest)) oldest = peer;
      if (sourceKey(peer->second.addresses.remote_addr) != source) continue;
      ++ofSource;
      if (isOlder(peer, oldestOfSource)) oldestOfSource = peer;
    }
    if (ofSource < _maxOfSource && _peers.size() < _maxPeers) return true;
    const auto victim = ofSource < _maxOfSource ? oldest : oldestOfSource;
    if (Clock::now() - victim->second.lastUse < _keptFor) return false;
    _peers.erase(victim);
    return true;
  }

  const size_t _maxPeers;
  const size_t _maxOfSource;
  const Clock::duration _keptFor;
  Peers _peers;
};

}  // namespace SnmpdPlugin
#endif
