#include "LateReceivers.h"

#include <utility>

#include "ConfigurationFault.h"
#include "SnmpTypes.h"
#include "SnmpUtil.h"

namespace VelaFmSnmp {

void LateReceivers::add(const SnmpBaseTarget& target) { _unresolved.insert(target.name); }

void LateReceivers::onResolved(const SnmpBaseTarget& target) {
  if (_unresolved.count(target.name) == 0) return;
  const unsigned long long now = SnmpUtil::getNow();
  if (!_isRestartWanted && _lastRestart != 0 && now - _lastRestart < restartInterval)
    throw ConfigurationFault("The master agent was started when %s had no address", target.address.c_str());
  _unresolved.erase(target.name);
  _isRestartWanted = true;
  _lastRestart = now;
}

bool LateReceivers::takeRestartWanted() { return std::exchange(_isRestartWanted, false); }

}  // namespace VelaFmSnmp
