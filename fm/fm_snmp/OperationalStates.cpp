#include "OperationalStates.h"

#include <LoggingWrapper.h>
#include <VelaException.h>

#include <map>
#include <vector>

#include "MoConnector.h"
#include "SnmpUtil.h"

namespace VelaFmSnmp {

namespace {

const char* stateName(bool isEnabled) { return isEnabled ? "ENABLED" : "DISABLED"; }

}  // namespace

void OperationalStates::set(const std::string& targetName, bool isOperational) {
  if (isOperational)
    _operational.insert(targetName);
  else
    _operational.erase(targetName);
}

void OperationalStates::setOperationalStates(SnmpConfig& config) {
  int enabled = 0;
  int operational = 0;
  for (auto& [name, target] : config.targets) {
    target->operational = _operational.count(name) != 0;
    // A DTLS target cannot be operational without DTLS, which is not held against the service.
    const bool isWithoutDtls = target->getSecurityModel() == SecurityModelTls && !config.tlsOptions.isEnabled();
    if (!target->administrativeState || isWithoutDtls) continue;
    ++enabled;
    if (target->operational) ++operational;
  }
  VELA_LOG(Vela::LogInfo, "Number of operational targets %d of %d enabled", operational, enabled);
  _isServiceOperational = enabled == 0 || operational > 0;
}

void OperationalStates::updateAllOperationalStates(const MoConnector& connector, const SnmpConfig& config,
                                                   bool isActive) {
  std::map<std::string, bool> states;
  for (const auto& [name, target] : config.getTargets()) {
    const bool isOperational = isActive && target->operational;
    VELA_LOG(Vela::LogInfo, "Setting target %s operationalState=%s", name.c_str(), stateName(isOperational));
    states[target->moName] = isOperational;
  }
  for (const std::string& dn : config.leftOut) states[dn] = false;
  const bool isServiceOperational = isActive && _isServiceOperational;
  VELA_LOG(Vela::LogInfo, "Setting FmSnmp operationalState=%s", stateName(isServiceOperational));
  _lastTry = SnmpUtil::getNow();
  std::vector<std::string> failures;
  try {
    failures = connector.setOperationalStates(states, isServiceOperational);
  } catch (const Vela::VelaException& ex) {
    failures.emplace_back(ex.what());
  }
  for (const std::string& failure : failures)
    VELA_LOG(Vela::LogError, "Failed to set operationalState! (%s)", failure.c_str());
  _isUnwritten = !failures.empty();
}

bool OperationalStates::areOverdue() const { return _isUnwritten && SnmpUtil::getNow() - _lastTry >= retryInterval; }

}  // namespace VelaFmSnmp
