#ifndef SNMPD_PLUGIN_UDP_SOCKET_H
#define SNMPD_PLUGIN_UDP_SOCKET_H

#include <memory>
#include <string>

#include "NetSnmp.h"

namespace SnmpdPlugin {

/** A socket of the library's own UDP transports (with the agent's settings for such), for one peer or to listen at. */
class UdpSocket {
 public:
  /** Throws std::runtime_error when there is no such socket to be had. */
  UdpSocket(const netsnmp_ep& endpoint, bool listens);

  int descriptor() const { return _transport->sock; }
  const netsnmp_transport& transport() const { return *_transport; }

  /** Has the system keep so many octets of what was not received yet, as far as it lets the agent. */
  void setReceiveBuffer(int octets);

  /** False: it failed, with errno set. */
  bool send(const void* data, size_t size, const netsnmp_indexed_addr_pair& addresses);
  bool send(const void* data, size_t size);
  /** Octets received; -1: none, with errno set. */
  int receive(void* buffer, size_t capacity, netsnmp_indexed_addr_pair& addresses);

 private:
  struct TransportDeleter {
    void operator()(netsnmp_transport* transport) const;
  };
  std::unique_ptr<netsnmp_transport, TransportDeleter> _transport;
};

/** "[address]:port", as it stands in the agent's log. */
std::string addressText(const netsnmp_sockaddr_storage& address);
/** The address as a map's key: family, address and port. */
std::string addressKey(const netsnmp_sockaddr_storage& address);
/** Whose the address is, as far as one can tell: the IPv4 address, or the IPv6 network (of 64 bits) that a host is in.
 */
std::string sourceKey(const netsnmp_sockaddr_storage& address);
/** The address as it stands in snmpTargetAddrTAddress: the octets of the address and two of the port. */
std::string targetAddress(const netsnmp_sockaddr_storage& address);

}  // namespace SnmpdPlugin
#endif
