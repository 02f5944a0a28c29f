#include "ctl/NodeClient.h"

#include <Poco/Exception.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "control/ControlProtocol.h"

namespace VelaNode {

namespace {

/** A node that was told to stop waits for its component, and that for the master agent. */
constexpr int endTimeoutMs = 60000;

FileDescriptor connectTo(const std::string& folder) {
  const std::string path = folder + "/" + controlSocketName;
  if (path.size() > maxSocketPathLength) throw CommandError(path + ": longer than a socket's path can be");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) throw CommandError(std::strerror(errno));
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const bool isAbsent = errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR;
    throw CommandError(isAbsent ? folder + ": no node is running on this folder" : path + ": " + std::strerror(errno));
  }
  return socket;
}

}  // namespace

NodeClient::NodeClient(const std::string& nodeFolder) : _folder(nodeFolder), _socket(connectTo(nodeFolder)) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(_socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0) {
    _process.reset(static_cast<int>(::syscall(SYS_pidfd_open, peer.pid, 0)));
  }
}

Poco::JSON::Object::Ptr NodeClient::call(const Poco::JSON::Object& request, const ItemHandler& onItem) {
  std::ostringstream stream;
  request.stringify(stream);
  stream << '\n';
  const std::string text = stream.str();
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t count = ::send(_socket.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EPIPE) break;  // it may have said why it closed
    if (count < 0 && errno != EINTR) throw CommandError(_folder + ": the node has gone: " + std::strerror(errno));
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
  try {
    for (;;) {
      Poco::JSON::Parser parser(new Poco::JSON::ParseHandler(true));
      const auto reply = parser.parse(readLine()).extract<Poco::JSON::Object::Ptr>();
      if (reply->has("item")) {
        if (onItem) onItem(*reply->getObject("item"));
        continue;
      }
      if (!reply->getValue<bool>("ok")) throw CommandError(reply->getValue<std::string>("error"));
      return reply->getObject("result");
    }
  } catch (const Poco::Exception& ex) {
    throw CommandError(_folder + ": the node's answer is not understood: " + ex.displayText());
  }
}

void NodeClient::waitForEnd() {
  pollfd watched{_process.get(), POLLIN, 0};
  if (!_process.isOpen() || ::poll(&watched, 1, endTimeoutMs) <= 0) {
    throw CommandError(_folder + ": the node was told to stop, but did not end");
  }
}

std::string NodeClient::readLine() {
  std::size_t searched = _position;
  for (;;) {
    const std::size_t end = _received.find('\n', searched);
    if (end != std::string::npos) {
      std::string line = _received.substr(_position, end - _position);
      _position = end + 1;
      return line;
    }
    _received.erase(0, _position);
    _position = 0;
    searched = _received.size();
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(_socket.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw CommandError(_folder + ": the node has gone");
    _received.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace VelaNode
