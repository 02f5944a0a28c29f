#include "SocketWatch.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>

#include "NetSnmp.h"

#include <net-snmp/library/fd_event_manager.h>

namespace SnmpdPlugin {

namespace {

std::map<int, std::function<void()>>& watched() {
  // Never destroyed: snmpd closes its sessions while it exits.
  static auto* const functions = new std::map<int, std::function<void()>>;
  return *functions;
}

}  // namespace

int SocketWatch::poller() {
  static const int descriptor = [] {
    const int made = epoll_create1(EPOLL_CLOEXEC);
    if (made >= 0) register_readfd(made, onReadable, nullptr);
    return made;
  }();
  return descriptor;
}

SocketWatch::SocketWatch(int descriptor, std::function<void()> onReadable) : _descriptor(descriptor) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  if (epoll_ctl(poller(), EPOLL_CTL_ADD, descriptor, &event) != 0)
    throw std::runtime_error(std::string("cannot watch a socket: ") + std::strerror(errno));
  watched()[descriptor] = std::move(onReadable);
}

SocketWatch::~SocketWatch() {
  epoll_ctl(poller(), EPOLL_CTL_DEL, _descriptor, nullptr);
  watched().erase(_descriptor);
}

void SocketWatch::onReadable(int, void*) { serve(std::chrono::milliseconds::zero()); }

void SocketWatch::serve(std::chrono::milliseconds timeout) {
  constexpr int AtOnce = 32;
  epoll_event events[AtOnce];
  const int count = epoll_wait(poller(), events, AtOnce, static_cast<int>(timeout.count()));
  for (int i = 0; i < count; ++i) {
    const auto found = watched().find(events[i].data.fd);
    if (found == watched().end()) continue;
    // A copy: what it does may end the watch.
    const std::function<void()> function = found->second;
    function();
  }
}

}  // namespace SnmpdPlugin
