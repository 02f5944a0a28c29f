#ifndef SNMPD_PLUGIN_SOCKET_WATCH_H
#define SNMPD_PLUGIN_SOCKET_WATCH_H

#include <chrono>
#include <functional>

namespace SnmpdPlugin {

/**
 * Calls a function from snmpd's main loop whenever a socket is readable, for as long as the object lives. Any number of
 * them takes one place among the few that the library has for such sockets.
 */
class SocketWatch {
 public:
  SocketWatch(int descriptor, std::function<void()> onReadable);
  SocketWatch(const SocketWatch&) = delete;
  SocketWatch& operator=(const SocketWatch&) = delete;
  ~SocketWatch();

  /** Waits for a readable socket and makes the calls that are due; for when the main loop has ended. */
  static void serve(std::chrono::milliseconds timeout);

 private:
  static int poller();
  static void onReadable(int poller, void*);

  const int _descriptor;
};

}  // namespace SnmpdPlugin
#endif
