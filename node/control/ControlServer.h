#ifndef VELA_NODE_CONTROL_SERVER_H
#define VELA_NODE_CONTROL_SERVER_H

#include <Poco/JSON/Object.h>

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "support/FileDescriptor.h"

namespace VelaNode {

/** The client's end of a request that is being handled. */
class ControlReply {
 public:
  virtual ~ControlReply() = default;
  /** Sends one item of a long answer ahead of the result, so that no list is ever built whole. */
  virtual void sendItem(const Poco::JSON::Object& item) = 0;
  /** Waits, at most so many milliseconds, for the client to go away or the server to stop; true when one happened. */
  virtual bool isAbandoned(int waitMs) = 0;
};

/**
 * The node's control socket: clients send one JSON object per line and get, per request, any number of lines
 * {"item":...} and one line {"ok":true,"result":...} or {"ok":false,"error":TEXT}. Each client has a thread of its own,
 * so a long request holds nobody else up. The socket belongs to the user that runs the node alone (mode 600).
 */
class ControlServer {
 public:
  /** Handles one request on its client's thread. Throws ControlError (or another exception) with the reason. */
  using Handler = std::function<Poco::JSON::Object::Ptr(const Poco::JSON::Object& request, ControlReply& reply)>;

  /** Longest request line, in octets; a client that sends a longer one is told so and disconnected. */
  static constexpr std::size_t maxRequestLength = 4UL * 1024 * 1024;

  /** How long a client may take to send a request, from the last one on. */
  static constexpr int defaultIdleTimeoutMs = 30000;
  /** Clients served at a time; one more is told so and disconnected. */
  static constexpr std::size_t maxClients = 64;
  /** Descriptors of the process that clients leave to everybody else in it. */
  static constexpr std::size_t reservedDescriptors = 64;

  explicit ControlServer(Handler handler, int idleTimeoutMs = defaultIdleTimeoutMs);
  ~ControlServer(); /**< stops */
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  /** Listens; what stood at the path is replaced. Throws Vela::VelaException. */
  void start(const std::string& socketPath);
  /** Ends all clients, waits for their threads and removes the socket. Not from within a handler. */
  void stop();

 private:
  class Client;

  void acceptClients();

  /** Why a new client cannot be served; empty when it can. */
  std::string refusalOf(const FileDescriptor& socket) const;

  const Handler _handler;
  const int _idleTimeoutMs;
  std::string _path;
  FileDescriptor _listener;
  FileDescriptor _stop; /**< readable once the server is to stop */
  std::thread _acceptor;
  std::list<Client> _clients; /**< the acceptor's own while it runs */
};

}  // namespace VelaNode
#endif
