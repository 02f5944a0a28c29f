#ifndef VELA_TEST_CONTROL_CLIENT_H
#define VELA_TEST_CONTROL_CLIENT_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "support/FileDescriptor.h"

/** A raw client of a control socket. */
class ControlClient {
 public:
  explicit ControlClient(const std::string& path) : _socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ::connect(_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    // A server that never answers fails the test instead of hanging it.
    const timeval timeout{20, 0};
    ::setsockopt(_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }

  void send(const std::string& octets) { ::send(_socket.get(), octets.data(), octets.size(), MSG_NOSIGNAL); }
  /** The next line without its end; "(end)" when the server has closed the connection. */
  std::string readLine() {
    std::string line;
    for (char c = 0;;) {
      const ssize_t count = ::recv(_socket.get(), &c, 1, 0);
      if (count == 0 || (count < 0 && errno == ECONNRESET)) return "(end)";
      if (count < 0) return std::string("(") + std::strerror(errno) + ")";
      if (c == '\n') return line;
      line += c;
    }
  }
  std::string ask(const std::string& line) {
    send(line + "\n");
    return readLine();
  }

 private:
  VelaNode::FileDescriptor _socket;
};

#endif
