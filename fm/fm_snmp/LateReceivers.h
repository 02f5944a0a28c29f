#ifndef VELA_FM_SNMP_LATE_RECEIVERS_H
#define VELA_FM_SNMP_LATE_RECEIVERS_H

#include <set>
#include <string>

namespace VelaFmSnmp {

class SnmpBaseTarget;

/**
 * Receivers to which the master agent sends by a session of its own, and whose names had no address when it started.
 *
 * The agent looks such names up at its start and never again. So a receiver that is found later costs a restart of the
 * agent, for the sake of which everybody else waits: it is asked for rarely.
 */
class LateReceivers {
 public:
  /** Milliseconds at least between two restarts. */
  static constexpr unsigned long long restartInterval = 10ULL * 60 * 1000;

  /** The agent was started anew, and has looked up all names that it could. */
  void onAgentStarted() { _unresolved.clear(); }
  /** The agent has no session to this target. */
  void add(const SnmpBaseTarget& target);
  /** A target's name has an address now: asks for a restart if it was missing. Throws ConfigurationFault when it was,
      and the last restart is too recent. */
  void onResolved(const SnmpBaseTarget& target);
  /** Whether the agent has to be started again; true once. */
  bool takeRestartWanted();

 private:
  std::set<std::string> _unresolved; /**< names of the targets */
  bool _isRestartWanted = false;
  unsigned long long _lastRestart = 0; /**< when a restart was last asked for; 0: never */
};

}  // namespace VelaFmSnmp
#endif
