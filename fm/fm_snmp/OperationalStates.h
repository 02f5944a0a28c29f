#ifndef VELA_FM_SNMP_OPERATIONAL_STATES_H
#define VELA_FM_SNMP_OPERATIONAL_STATES_H

#include <set>
#include <string>

#include "SnmpTypes.h"

namespace VelaFmSnmp {

class MoConnector;

/**
 * What a configuration has come to: which targets work, and whether the service does. Kept apart from the targets,
 * which configurations share, and written to the model in one transaction, so that a model that is busy is waited for
 * once.
 */
class OperationalStates {
 public:
  /** Milliseconds after which states that could not be written are tried again. */
  static constexpr unsigned long long retryInterval = 30ULL * 1000;

  void clear() { _operational.clear(); }
  void set(const std::string& targetName, bool isOperational);
  /** Names of the targets that work. */
  const std::set<std::string>& getOperational() const { return _operational; }

  /** Fills the states into a configuration whose targets belong to the caller alone, and derives the service's own
   *  state: it works when one of the unlocked targets does, or none is there. */
  void setOperationalStates(SnmpConfig& config);
  /** Writes the states of all targets and of the service to the model; unless `isActive` all of them are DISABLED. A
   *  failed write is logged. */
  void updateAllOperationalStates(const MoConnector& connector, const SnmpConfig& config, bool isActive);
  /** Whether states could not be written, and it is time to try again. */
  bool areOverdue() const;

 private:
  std::set<std::string> _operational;
  bool _isServiceOperational = false;
  bool _isUnwritten = false;
  unsigned long long _lastTry = 0;
};

}  // namespace VelaFmSnmp
#endif
