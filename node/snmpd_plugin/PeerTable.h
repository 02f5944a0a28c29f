#ifndef SNMPD_PLUGIN_PEER_TABLE_H
#define SNMPD_PLUGIN_PEER_TABLE_H

#include <algorithm>
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

  /** Takes a peer, in place of what is there of it. Where a bound is reached, the one goes that was used least
   * recently: of the same source if that is full, else of the source that has most. Null: there is no room. */
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

  /** What the table has of one source. */
  struct Holding {
    size_t count = 0;
    typename Peers::iterator oldest;
  };

  bool makeRoom(const std::string& source) {
    std::unordered_map<std::string, Holding> holdings;
    for (auto peer = _peers.begin(); peer != _peers.end(); ++peer) {
      Holding& holding = holdings[sourceKey(peer->second.addresses.remote_addr)];
      if (holding.count++ == 0 || peer->second.lastUse < holding.oldest->second.lastUse) holding.oldest = peer;
    }
    const Holding own = holdings[source];
    if (own.count >= _maxOfSource) return giveWay(own);
    if (_peers.size() < _maxPeers) return true;
    const Holding& largest = std::max_element(holdings.begin(), holdings.end(), [](const auto& one, const auto& other) {
                               return one.second.count < other.second.count;
                             })->second;
    // A crowd makes room for who has less, however busy it keeps itself.
    if (largest.count <= own.count + 1) return giveWay(largest);
    _peers.erase(largest.oldest);
    return true;
  }

  bool giveWay(const Holding& holding) {
    if (Clock::now() - holding.oldest->second.lastUse < _keptFor) return false;
    _peers.erase(holding.oldest);
    return true;
  }

  const size_t _maxPeers;
  const size_t _maxOfSource;
  const Clock::duration _keptFor;
  Peers _peers;
};

}  // namespace SnmpdPlugin
#endif
