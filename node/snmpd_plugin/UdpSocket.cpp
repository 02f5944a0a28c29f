#include "UdpSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace SnmpdPlugin {

namespace {

bool isIpv6(const netsnmp_sockaddr_storage& address) { return address.sa.sa_family == AF_INET6; }

template <class Value>
std::string octetsOf(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

}  // namespace

void UdpSocket::TransportDeleter::operator()(netsnmp_transport* transport) const {
  transport->f_close(transport);
  netsnmp_transport_free(transport);
}

UdpSocket::UdpSocket(const netsnmp_ep& endpoint, bool listens)
    : _transport(endpoint.a.sin.sin_family == AF_INET6 ? netsnmp_udp6_transport(&endpoint, listens)
                                                       : netsnmp_udp_transport(&endpoint, listens)) {
  if (!_transport) throw std::runtime_error("no UDP socket is to be had");
  fcntl(descriptor(), F_SETFL, fcntl(descriptor(), F_GETFL) | O_NONBLOCK);
  // A connected socket is told when nobody listens at the peer's port.
  const auto* peer = reinterpret_cast<const sockaddr*>(&endpoint.a);
  if (!listens && connect(descriptor(), peer, static_cast<socklen_t>(netsnmp_sockaddr_size(peer))) != 0)
    throw std::runtime_error(std::strerror(errno));
}

void UdpSocket::setReceiveBuffer(int octets) {
  // Beyond the limit of the system only with the privilege for it.
  if (setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &octets, sizeof octets) != 0)
    setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &octets, sizeof octets);
}

bool UdpSocket::send(const void* data, size_t size, const netsnmp_indexed_addr_pair& addresses) {
  netsnmp_indexed_addr_pair copy = addresses;
  void* opaque = &copy;
  // The library's transport for IPv6 takes the peer's address alone.
  int length = isIpv6(copy.remote_addr) ? sizeof(sockaddr_in6) : sizeof(copy);
  return _transport->f_send(_transport.get(), data, static_cast<int>(size), &opaque, &length) >= 0;
}

bool UdpSocket::send(const void* data, size_t size) { return ::send(descriptor(), data, size, MSG_NOSIGNAL) >= 0; }

int UdpSocket::receive(void* buffer, size_t capacity, netsnmp_indexed_addr_pair& addresses) {
  void* opaque = nullptr;
  int length = 0;
  const int received = _transport->f_recv(_transport.get(), buffer, static_cast<int>(capacity), &opaque, &length);
  const int error = errno;
  const std::unique_ptr<void, decltype(&std::free)> owner(opaque, &std::free);
  if (opaque != nullptr) std::memcpy(&addresses, opaque, std::min(static_cast<size_t>(length), sizeof(addresses)));
  errno = error;
  return received;
}

std::string addressText(const netsnmp_sockaddr_storage& address) {
  char host[INET6_ADDRSTRLEN] = "?";
  const void* octets = isIpv6(address) ? static_cast<const void*>(&address.sin6.sin6_addr) : &address.sin.sin_addr;
  inet_ntop(address.sa.sa_family, octets, host, sizeof(host));
  const in_port_t port = isIpv6(address) ? address.sin6.sin6_port : address.sin.sin_port;
  return "[" + std::string(host) + "]:" + std::to_string(ntohs(port));
}

std::string addressKey(const netsnmp_sockaddr_storage& address) {
  return isIpv6(address) ? targetAddress(address) + octetsOf(address.sin6.sin6_scope_id) : targetAddress(address);
}

std::string sourceKey(const netsnmp_sockaddr_storage& address) {
  constexpr size_t NetworkOctets = 8;
  return isIpv6(address) ? octetsOf(address.sin6.sin6_addr).substr(0, NetworkOctets) : octetsOf(address.sin.sin_addr);
}

std::string targetAddress(const netsnmp_sockaddr_storage& address) {
  if (isIpv6(address)) return octetsOf(address.sin6.sin6_addr) + octetsOf(address.sin6.sin6_port);
  return octetsOf(address.sin.sin_addr) + octetsOf(address.sin.sin_port);
}

}  // namespace SnmpdPlugin
