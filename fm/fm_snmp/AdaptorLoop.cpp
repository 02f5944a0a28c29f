#include "AdaptorLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "LoggingWrapper.h"
#include "NetSnmpLock.h"
#include "SnmpUtil.h"
#include "VelaException.h"

namespace VelaFmSnmp {

void AdaptorLoop::Descriptors::clear() {
  NETSNMP_LARGE_FD_ZERO(&set);
  count = 0;
}

void AdaptorLoop::Descriptors::add(int descriptor) {
  if (descriptor <= 0) return;
  NETSNMP_LARGE_FD_SET(descriptor, &set);
  count = std::max(count, descriptor + 1);
}

AdaptorLoop::AdaptorLoop(Step step) : _step(std::move(step)), _wakeFD(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (_wakeFD < 0) throw Vela::VelaException("eventfd failed: %s", std::strerror(errno));
}

AdaptorLoop::~AdaptorLoop() { ::close(_wakeFD); }

void AdaptorLoop::serve(std::function<int()> descriptor, std::function<void()> onReadable) {
  _sources.push_back({std::move(descriptor), std::move(onReadable)});
}

void AdaptorLoop::begin() {
  std::uint64_t wakeUps = 0;
  static_cast<void>(!::read(_wakeFD, &wakeUps, sizeof wakeUps));
  _stepTimeout = 0;
  _lastUpdate = SnmpUtil::getNow();
}

void AdaptorLoop::wake() {
  const std::uint64_t wakeUp = 1;
  static_cast<void>(!::write(_wakeFD, &wakeUp, sizeof wakeUp));
}

bool AdaptorLoop::pass(AgentXSubAgent& subAgent, bool isStopping) {
  timeval timeout = {_stepTimeout / 1000, (_stepTimeout % 1000) * 1000L};
  collect(subAgent, timeout);
  int ready = 0;
  if (!isStopping) {
    const NetSnmpUnlock unlock;
    ready = netsnmp_large_fd_set_select(_descriptors.count, &_descriptors.set, nullptr, nullptr, &timeout);
    if (ready < 0) {
      VELA_LOG(Vela::LogError, "select() returned an error: %s", std::strerror(errno));
      return false;
    }
  }
  if (ready > 0) {
    for (const Source& source : _sources) {
      if (_descriptors.contains(source.descriptor())) source.onReadable();
    }
    if (subAgent.isAttached()) subAgent.read(_descriptors.set);
  }
  if (ready == 0 || isStepDue(isStopping)) handleSelectTimeout(subAgent, isStopping);
  if (subAgent.isAttached() && !isStopping) subAgent.checkOutstandingRequests();
  return true;
}

void AdaptorLoop::collect(AgentXSubAgent& subAgent, timeval& timeout) {
  _descriptors.clear();
  if (subAgent.isAttached()) subAgent.addDescriptors(_descriptors.count, _descriptors.set, timeout);
  for (const Source& source : _sources) _descriptors.add(source.descriptor());
  _descriptors.add(_wakeFD);
}

bool AdaptorLoop::isStepDue(bool isStopping) const {
  const unsigned long long now = SnmpUtil::getNow();
  return isStopping || now < _lastUpdate || now - _lastUpdate >= static_cast<unsigned long long>(_stepTimeout);
}

void AdaptorLoop::handleSelectTimeout(AgentXSubAgent& subAgent, bool isStopping) {
  if (subAgent.isAttached() && !isStopping) subAgent.runTimers();
  const unsigned long long now = SnmpUtil::getNow();
  if (now < _lastUpdate) {
    VELA_LOG(Vela::LogInfo, "Detected change in the system time resetting the stateMachine update time");
    _lastUpdate = now - static_cast<unsigned long long>(_stepTimeout);
  }
  if (!isStepDue(isStopping)) return;
  _lastUpdate = now;
  _stepTimeout = _step();
}

}  // namespace VelaFmSnmp
