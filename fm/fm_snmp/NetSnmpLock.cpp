#include "NetSnmpLock.h"

#include <condition_variable>
#include <mutex>
#include <utility>

namespace VelaFmSnmp {

namespace {

/** A lock whose waiters cannot be overtaken: the adaptor thread gives it up for moments only, thousands of them a
 * second. */
class TicketLock {
 public:
  void lock() {
    std::unique_lock<std::mutex> lock(_mutex);
    const unsigned long long ticket = _nextTicket++;
    _changed.wait(lock, [&] { return _serving == ticket; });
  }
  void unlock() {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      ++_serving;
    }
    _changed.notify_all();
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  unsigned long long _nextTicket = 0;
  unsigned long long _serving = 0;
};

TicketLock& libraryLock() {
  // Never destroyed, because a thread may outlive the end of main.
  static TicketLock& lock = *new TicketLock;
  return lock;
}

/** How often this thread has taken the lock. */
thread_local unsigned int depth = 0;

}  // namespace

NetSnmpLock::NetSnmpLock() {
  if (depth++ == 0) libraryLock().lock();
}

NetSnmpLock::~NetSnmpLock() {
  if (--depth == 0) libraryLock().unlock();
}

bool NetSnmpLock::isHeld() { return depth > 0; }

NetSnmpUnlock::NetSnmpUnlock() : _depth(std::exchange(depth, 0)) {
  if (_depth > 0) libraryLock().unlock();
}

NetSnmpUnlock::~NetSnmpUnlock() {
  if (_depth > 0) libraryLock().lock();
  depth = _depth;
}

}  // namespace VelaFmSnmp
