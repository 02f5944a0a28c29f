#include "Listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "LoggingWrapper.h"

namespace VelaFmSnmp {

namespace {

/** An IPv4 or IPv6 socket address, in the forms that the socket calls and the texts want. */
union SocketAddress {
  sockaddr base;
  sockaddr_in ipv4;
  sockaddr_in6 ipv6;

  bool isIpv6() const { return base.sa_family == AF_INET6; }
  socklen_t length() const { return isIpv6() ? sizeof ipv6 : sizeof ipv4; }
  int port() const { return ntohs(isIpv6() ? ipv6.sin6_port : ipv4.sin_port); }
  const char* host(char (&text)[INET6_ADDRSTRLEN]) const {
    const void* const address =
        isIpv6() ? static_cast<const void*>(&ipv6.sin6_addr) : static_cast<const void*>(&ipv4.sin_addr);
    return inet_ntop(base.sa_family, address, text, sizeof text);
  }
};

SocketAddress parseAddress(const char* text, int family, int port) {
  SocketAddress address = {};
  switch (family) {
    case AF_INET:
      if (inet_pton(AF_INET, text, &address.ipv4.sin_addr) != 1)
        throw Vela::VelaException("%s is not a valid ipv4 address.", text);
      address.ipv4.sin_port = htons(static_cast<std::uint16_t>(port));
      break;
    case AF_INET6:
      if (inet_pton(AF_INET6, text, &address.ipv6.sin6_addr) != 1)
        throw Vela::VelaException("%s is not a valid ipv6 address.", text);
      address.ipv6.sin6_port = htons(static_cast<std::uint16_t>(port));
      break;
    default:
      throw Vela::VelaException("%d does not contain a valid address family.", family);
  }
  address.base.sa_family = static_cast<sa_family_t>(family);
  return address;
}

SocketAddress boundAddress(int fd) {
  SocketAddress address = {};
  socklen_t length = sizeof address;
  if (getsockname(fd, &address.base, &length) != 0) throw Vela::VelaException("getsockname failed");
  return address;
}

}  // namespace

void Listener::open(const char* address, int family, int port) { open(address, family, port, true); }

void Listener::open(const char* address, int family, int port, bool isShared) {
  close();
  try {
    // Descriptor 0 stands for "closed" with the users of getFD.
    _fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (_fd == 0) {
      _fd = fcntl(0, F_DUPFD_CLOEXEC, 1);
      ::close(0);
    }
    if (_fd < 0) throw Vela::VelaException("failed to create socket");
    const int on = 1;
    const int reuse = isShared ? 1 : 0;
    if (setsockopt(_fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0)
      throw Vela::VelaException("setsockopt(SO_REUSEADDR) failed");
    const SocketAddress wanted = parseAddress(address, family, port);
    // An IPv6 port is free or taken whatever happens on the IPv4 port of the same number.
    if (wanted.isIpv6()) setsockopt(_fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (bind(_fd, &wanted.base, wanted.length()) == 0) {
      // While the option stays, another socket that has it, whoever's, may take the port over.
      const int off = 0;
      setsockopt(_fd, SOL_SOCKET, SO_REUSEADDR, &off, sizeof off);
      return;
    }
    if (errno == EACCES) {
      VELA_LOG(Vela::LogError, "failed to bind socket %s/%d - no access", address, port);
      throw NoAccessException("failed to bind socket (no access)");
    }
    VELA_LOG(Vela::LogError, "failed to bind socket %s/%d", address, port);
    throw Vela::VelaException("failed to bind socket");
  } catch (...) {
    close();
    throw;
  }
}

void Listener::open(int family, int port) {
  if (family == AF_INET6)
    open("::1", AF_INET6, port);
  else
    open("127.0.0.1", AF_INET, port);
}

void Listener::open(const std::string& address, int port) {
  // The master agent binds without sharing, so a port whose holder would share it is taken all the same.
  open(address.c_str(), address.find(':') == std::string::npos ? AF_INET : AF_INET6, port, false);
}

void Listener::close() noexcept {
  if (_fd >= 0) ::close(_fd);
  _fd = -1;
}

int Listener::read(unsigned char* buffer, unsigned int size) const {
  SocketAddress sender = {};
  socklen_t length = sizeof sender;
  const ssize_t received = recvfrom(_fd, buffer, size, MSG_DONTWAIT, &sender.base, &length);
  if (received < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    throw Vela::VelaException("recvfrom failed.");
  }
  char text[INET6_ADDRSTRLEN];
  const char* const host = sender.host(text);
  VELA_TRACE("Got %d bytes of data from %s:%d!\n", static_cast<int>(received), host == nullptr ? "?" : host,
             sender.port());
  return static_cast<int>(received);
}

int Listener::getPort() const { return boundAddress(_fd).port(); }

std::string Listener::getAddress() const {
  char text[INET6_ADDRSTRLEN];
  const char* const host = boundAddress(_fd).host(text);
  if (host == nullptr) throw Vela::VelaException("inet_ntop failed");
  return host;
}

}  // namespace VelaFmSnmp
