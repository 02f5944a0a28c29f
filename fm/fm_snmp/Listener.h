#ifndef VELA_FM_SNMP_LISTENER_H
#define VELA_FM_SNMP_LISTENER_H

#include <string>

#include "VelaException.h"

namespace VelaFmSnmp {

/**
 * A bound UDP socket: the adaptor's own notification target, and the probe of the master agent's ports. Closed at
 * destruction. One thread at a time. Every failure is a Vela::VelaException.
 */
class Listener {
 public:
  /** Binding was refused for lack of permission. */
  class NoAccessException : public Vela::VelaException {
   public:
    explicit NoAccessException(const char* reason) : VelaException("%s", reason) {}
  };

  /** No datagram is longer: a buffer of this size reads every one whole. */
  static constexpr unsigned int maxDatagram = 65535;

  Listener() = default;
  ~Listener() { close(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /** Closes what is open and binds a socket. Family AF_INET or AF_INET6, literal address, port 0: any free one. */
  void open(const char* address, int family, int port);
  /** On the loopback interface, IPv6 if the family is AF_INET6, else IPv4. */
  void open(int family, int port);
  /** On a literal address whose form tells the family, and only if no other socket has the port: the probe. */
  void open(const std::string& address, int port);
  void close() noexcept;

  bool isOpen() const { return _fd > 0; }
  /** The descriptor (greater than 0), -1 while closed. */
  int getFD() const { return _fd; }

  /** Receives one datagram, cut to the buffer's size, and returns its length in octets. Never waits: 0 when there is
      none. */
  int read(unsigned char* buffer, unsigned int size) const;

  int getPort() const;
  std::string getAddress() const;

 private:
  void open(const char* address, int family, int port, bool isShared);

  int _fd = -1;
};

}  // namespace VelaFmSnmp
#endif
