#include "control/ControlServer.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <system_error>

#include "LoggingWrapper.h"
#include "VelaException.h"
#include "control/ControlProtocol.h"

namespace VelaNode {

namespace {

/** How long a client may leave what it is sent unread before it is given up. */
constexpr int sendTimeoutMs = 60000;
constexpr int listenBacklog = 64;
/** Pause after a connection could not be accepted (no descriptors left, for one). */
constexpr int acceptPauseMs = 100;

std::string errorLine(const std::string& text) {
  Poco::JSON::Object reply;
  reply.set("ok", false);
  reply.set("error", text);
  std::ostringstream stream;
  reply.stringify(stream);
  return stream.str() + "\n";
}

/** Tells a client that is not served why; its socket has room for that. */
void refuse(const FileDescriptor& socket, const std::string& reason) {
  const std::string line = errorLine(reason);
  if (::send(socket.get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
    VELA_LOG(Vela::LogWarning, "A control connection was refused: %s", reason.c_str());
}

}  // namespace

/** One connection and its thread. */
class ControlServer::Client : public ControlReply {
 public:
  Client(FileDescriptor socket, int stopFd, const Handler& handler, int idleTimeoutMs)
      : _socket(std::move(socket)), _stopFd(stopFd), _handler(handler), _idleTimeoutMs(idleTimeoutMs), _thread([this] {
          run();
        }) {}
  ~Client() override { _thread.join(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool hasEnded() const { return _hasEnded; }

  void sendItem(const Poco::JSON::Object& item) override {
    Poco::JSON::Object line;
    line.set("item", item);
    send(line);
  }

  bool isAbandoned(int waitMs) override {
    std::array<pollfd, 2> watched{pollfd{_stopFd, POLLIN, 0}, pollfd{_socket.get(), POLLRDHUP, 0}};
    return ::poll(watched.data(), watched.size(), waitMs) > 0;
  }

 private:
  /** The client has gone, or the server is stopping. */
  class Ended {};

  void run() {
    try {
      for (std::string line; readLine(line);) answer(line);
    } catch (const Ended&) {
    } catch (const std::exception& ex) {
      VELA_LOG(Vela::LogWarning, "Control connection failed: %s", ex.what());
    }
    _socket.reset();
    _hasEnded = true;
  }

  /** False at the end of what the client sends. */
  bool readLine(std::string& line) {
    std::size_t searched = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (;;) {
      const std::size_t end = _received.find('\n', searched);
      if (end != std::string::npos) {
        line.assign(_received, 0, end);
        _received.erase(0, end + 1);
        return true;
      }
      searched = _received.size();
      if (searched > maxRequestLength) {
        sendError("request is longer than " + std::to_string(maxRequestLength) + " octets");
        return false;
      }
      const auto waited = std::chrono::steady_clock::now() - begin;
      const auto left = std::chrono::milliseconds(_idleTimeoutMs) - waited;
      waitFor(POLLIN, std::max(0, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count())));
      std::array<char, 16384> buffer;
      const ssize_t count = ::recv(_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (count <= 0) return false;
      _received.append(buffer.data(), static_cast<std::size_t>(count));
    }
  }

  void answer(const std::string& line) {
    try {
      Poco::JSON::Parser parser;
      const auto request = parser.parse(line).extract<Poco::JSON::Object::Ptr>();
      const Poco::JSON::Object::Ptr result = _handler(*request, *this);
      Poco::JSON::Object reply;
      reply.set("ok", true);
      reply.set("result", result ? *result : Poco::JSON::Object());
      send(reply);
    } catch (const Poco::JSON::JSONException& ex) {
      sendError("request is not JSON: " + ex.message());
    } catch (const Poco::BadCastException&) {
      sendError("request is not a JSON object");
    } catch (const Poco::Exception& ex) {
      sendError(ex.displayText());
    } catch (const std::exception& ex) {
      sendError(ex.what());
    }
  }

  void sendError(const std::string& text) { send(errorLine(text)); }

  void send(const Poco::JSON::Object& object) {
    std::ostringstream stream;
    object.stringify(stream);
    stream << '\n';
    send(stream.str());
  }

  void send(const std::string& text) {
    for (std::size_t sent = 0; sent < text.size();) {
      const ssize_t count = ::send(_socket.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count >= 0) {
        sent += static_cast<std::size_t>(count);
      } else if (errno == EAGAIN) {
        waitFor(POLLOUT, sendTimeoutMs);
      } else if (errno != EINTR) {
        throw Ended();
      }
    }
  }

  void waitFor(short events, int timeoutMs) {
    std::array<pollfd, 2> watched{pollfd{_stopFd, POLLIN, 0}, pollfd{_socket.get(), events, 0}};
    int ready = 0;
    do {
      ready = ::poll(watched.data(), watched.size(), timeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0 || watched[0].revents != 0) throw Ended();
  }

  FileDescriptor _socket;
  const int _stopFd;
  const Handler& _handler;
  const int _idleTimeoutMs;
  std::string _received;
  std::atomic<bool> _hasEnded{false};
  std::thread _thread;
};

ControlServer::ControlServer(Handler handler, int idleTimeoutMs)
    : _handler(std::move(handler)), _idleTimeoutMs(idleTimeoutMs) {}

ControlServer::~ControlServer() { stop(); }

void ControlServer::start(const std::string& socketPath) {
  if (socketPath.size() > maxSocketPathLength) {
    throw Vela::VelaException("%s: a socket's path has at most %zu octets, this has %zu", socketPath.c_str(),
                              maxSocketPathLength, socketPath.size());
  }
  const auto check = [&](bool isDone) {
    if (!isDone) throw Vela::VelaException("%s: %s", socketPath.c_str(), std::strerror(errno));
  };
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
  FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  check(listener.isOpen());
  ::unlink(socketPath.c_str());
  check(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
  check(::chmod(socketPath.c_str(), S_IRUSR | S_IWUSR) == 0);
  check(::listen(listener.get(), listenBacklog) == 0);
  FileDescriptor stop(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  check(stop.isOpen());

  _path = socketPath;
  _listener = std::move(listener);
  _stop = std::move(stop);
  _acceptor = std::thread([this] { acceptClients(); });
}

void ControlServer::stop() {
  if (!_acceptor.joinable()) return;
  const std::uint64_t one = 1;
  while (::write(_stop.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  _acceptor.join();
  _clients.clear();
  _listener.reset();
  _stop.reset();
  ::unlink(_path.c_str());
}

std::string ControlServer::refusalOf(const FileDescriptor& socket) const {
  if (_clients.size() >= maxClients) return "the node has " + std::to_string(maxClients) + " clients already";
  rlimit limit{};
  // Descriptors are given out from the lowest on.
  const bool isReserved = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
                          static_cast<rlim_t>(socket.get()) + reservedDescriptors >= limit.rlim_cur;
  return isReserved ? "the node needs its last descriptors for itself" : "";
}

void ControlServer::acceptClients() {
  std::array<pollfd, 2> watched{pollfd{_stop.get(), POLLIN, 0}, pollfd{_listener.get(), POLLIN, 0}};
  for (;;) {
    if (::poll(watched.data(), watched.size(), -1) < 0) continue;
    if (watched[0].revents != 0) return;
    _clients.remove_if([](const Client& client) { return client.hasEnded(); });
    try {
      FileDescriptor socket(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!socket.isOpen()) throw std::system_error(errno, std::generic_category());
      const std::string refusal = refusalOf(socket);
      if (refusal.empty())
        _clients.emplace_back(std::move(socket), _stop.get(), _handler, _idleTimeoutMs);
      else
        refuse(socket, refusal);
    } catch (const std::exception& ex) {
      VELA_LOG(Vela::LogWarning, "Could not accept a control connection: %s", ex.what());
      ::poll(watched.data(), 1, acceptPauseMs);
    }
  }
}

}  // namespace VelaNode
