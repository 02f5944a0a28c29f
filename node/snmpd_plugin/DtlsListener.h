#ifndef SNMPD_PLUGIN_DTLS_LISTENER_H
#define SNMPD_PLUGIN_DTLS_LISTENER_H

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "DtlsCookies.h"
#include "DtlsOpening.h"
#include "DtlsRecords.h"
#include "DtlsSession.h"
#include "DtlsTransport.h"
#include "PeerTable.h"
#include "StrangerLog.h"
#include "Timer.h"
#include "UdpSocket.h"

namespace SnmpdPlugin {

/**
 * An address at which the agent listens for managers. Who may speak is told by CertificateMap, at once when it changes.
 *
 * Nothing is kept of a client before it has shown, by a cookie, to receive what is sent to its address. Then it has ten
 * seconds to show who it is. Openings and associations are bounded apart from each other, in all and by source, so that
 * who opens much displaces neither those who are established nor openings of others.
 */
class DtlsListener : public DtlsTransport {
 public:
  DtlsListener(netsnmp_transport* face, const netsnmp_ep& endpoint);

  Received receive(void* buffer, size_t capacity) override;
  bool send(const void* message, size_t size, const netsnmp_tmStateReference* state) override;
  const netsnmp_sockaddr_storage& address() const override { return _address; }

 private:
  using Clock = std::chrono::steady_clock;

  /** An association with a manager who has shown who it is. */
  struct Peer {
    netsnmp_indexed_addr_pair addresses{};
    Clock::time_point lastUse;
    std::unique_ptr<DtlsSession> session;
    std::string securityName;
    unsigned mapGeneration = 0; /**< of CertificateMap, when the name was found */
  };
  /** A handshake. The association with the same address, if there is one, goes on until it is through: whoever opens
   * may be somebody else there. */
  struct Newcomer {
    netsnmp_indexed_addr_pair addresses{};
    Clock::time_point lastUse; /**< when something of it came in last */
    Clock::time_point begin;
    std::unique_ptr<DtlsOpening> opening;
  };

  void take(std::string_view datagram, Received& received, void* buffer, size_t capacity);
  void takeHello(std::string_view datagram, const ClientHello& hello, const netsnmp_indexed_addr_pair& from);
  Newcomer* open(const ClientHello& hello, const netsnmp_indexed_addr_pair& from);
  size_t takeFromPeer(Peer& peer, std::string_view datagram, void* buffer, size_t capacity);
  size_t takeFromNewcomer(Newcomer& newcomer, std::string_view datagram, void* buffer, size_t capacity);
  bool admit(Newcomer& newcomer);
  bool isStillAdmitted(Peer& peer);
  void onTimer();
  void schedule();
  void report(const netsnmp_indexed_addr_pair& addresses, const std::string& kind, const std::string& fault);

  netsnmp_sockaddr_storage _address{};
  UdpSocket _socket;
  std::vector<char> _datagram;
  DtlsCookies _cookies;
  PeerTable<Newcomer> _newcomers; /**< go before the socket */
  PeerTable<Peer> _peers;         /**< go before the socket */
  Clock::time_point _noContextUntil;
  StrangerLog _log;
  Timer _timer;
};

}  // namespace SnmpdPlugin
#endif
