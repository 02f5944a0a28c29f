#ifndef VELA_FM_SNMP_NET_SNMP_LOCK_H
#define VELA_FM_SNMP_NET_SNMP_LOCK_H

namespace VelaFmSnmp {

/**
 * The lock on net-snmp, for a scope. The library keeps its users, engines, alarms, callbacks, settings and counters in
 * the process and guards none of them, so nobody calls it without this lock. The adaptor thread owns the library and
 * holds the lock always, except while it waits.
 *
 * A thread that has the lock may take it again. Threads get it in the order in which they came. Any thread, also while
 * the process exits.
 */
class NetSnmpLock {
 public:
  NetSnmpLock();
  ~NetSnmpLock();
  /** Whether this thread has it. */
  static bool isHeld();
  NetSnmpLock(const NetSnmpLock&) = delete;
  NetSnmpLock& operator=(const NetSnmpLock&) = delete;
};

/** Gives the lock up for a scope in which the thread waits, however often the thread has taken it. */
class NetSnmpUnlock {
 public:
  NetSnmpUnlock();
  ~NetSnmpUnlock();
  NetSnmpUnlock(const NetSnmpUnlock&) = delete;
  NetSnmpUnlock& operator=(const NetSnmpUnlock&) = delete;

 private:
  const unsigned int _depth;
};

}  // namespace VelaFmSnmp
#endif
