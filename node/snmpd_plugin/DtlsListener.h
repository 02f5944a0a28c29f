#ifndef SNMPD_PLUGIN_DTLS_LISTENER_H
#define SNMPD_PLUGIN_DTLS_LISTENER_H

#include <chrono>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "DtlsSession.h"
#include "DtlsTransport.h"
#include "Timer.h"
#include "UdpSocket.h"

namespace SnmpdPlugin {

/**
 * An address at which the agent listens for managers. Who may speak is told by CertificateMap, at once when it changes.
 * A handshake costs memory of its own only for a while, and the number of associations is bounded.
 */
class DtlsListener : public DtlsTransport {
 public:
  DtlsListener(netsnmp_transport* face, const netsnmp_ep& endpoint);

  Received receive(void* buffer, size_t capacity) override;
  bool send(const void* message, size_t size, const netsnmp_tmStateReference* state) override;
  const netsnmp_sockaddr_storage& address() const override { return _address; }

 private:
  using Clock = std::chrono::steady_clock;

  /** Who speaks from one address and port. */
  struct Peer {
    netsnmp_indexed_addr_pair addresses{};
    std::unique_ptr<DtlsSession> established;
    /** A handshake under way. It replaces the other association once it is through, and not before: whoever begins one
     * may be somebody else who only says to be there. */
    std::unique_ptr<DtlsSession> opening;
    std::string securityName;
    unsigned mapGeneration = 0; /**< of CertificateMap, when the name was found */
    Clock::time_point begin;    /**< of the handshake */
    Clock::time_point lastUse;
  };
  using Peers = std::unordered_map<std::string, Peer>;

  Peer* findPeer(const netsnmp_indexed_addr_pair& from, bool isHello);
  bool begin(Peer& peer);
  size_t receiveOpening(Peer& peer, size_t size, void* buffer, size_t capacity);
  size_t receiveEstablished(Peer& peer, size_t size, void* buffer, size_t capacity);
  bool admit(Peer& peer);
  bool isStillAdmitted(Peer& peer);
  void makeRoom();
  void onTimer();
  void schedule();
  void report(const Peer& peer, const std::string& fault);

  netsnmp_sockaddr_storage _address{};
  UdpSocket _socket;
  std::vector<char> _datagram;
  Peers _peers; /**< by address; goes before the socket */
  Clock::time_point _lastReport;
  Timer _timer;
};

}  // namespace SnmpdPlugin
#endif
