// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "SnmpMaConfigurator.h"

#include <LoggingWrapper.h>

#include <set>
#include <utility>

#include "AddressResolver.h"
#include "ConfigurationFault.h"
#include "HexMask.h"
#include "MasterAgentTables.h"
#include "SnmpMaSession.h"
#include "SnmpUtil.h"
#include "TargetDiff.h"

namespace VelaFmSnmp {

namespace {

/** A configuration whose targets no other one shares. */
SnmpConfig copyOf(const SnmpConfig& config) {
  SnmpConfig copy = config;
  for (auto& [name, target] : copy.targets) target = target->clone();
  return copy;
}

}  // namespace

void SnmpMaConfigurator::setCurrentConfig(const SnmpConfig& config) { _current = copyOf(config); }

void SnmpMaConfigurator::clear() {
  _current = SnmpConfig();
  _configured = false;
  _views.clear();
  _access.clear();
  _users.clear();
  _tls.clear();
  _rows.clear();
  _states.clear();
  _writtenTargets.clear();
}

void SnmpMaConfigurator::reconfigure(SnmpMaSession& session, const SnmpConfig& config) {
  SnmpConfig next = copyOf(config);
  try {
    const ConfigurationPass pass = beginPass(session);
    _tls.setOptions(next.tlsOptions);
    _views.reconfigureViews(pass, next.getViews());
    _tls.reconfigureTrustCategory(pass);
    reconfigureTargets(pass, next);
  } catch (...) {
    finish(std::move(next), false);
    throw;
  }
  finish(std::move(next), true);
}

ConfigurationPass SnmpMaConfigurator::beginPass(SnmpMaSession& session) {
  VELA_TRACE("securityEngineID: 0x%s", SnmpUtil::toHex(session.securityEngineID()).c_str());
  VELA_TRACE("contextEngineID: 0x%s", SnmpUtil::toHex(session.contextEngineID()).c_str());
  const int boots = getEngineBoots(session);
  const bool isRestarted = boots != _engineBoots;
  _engineBoots = boots;
  _knowsRows = _configured || isRestarted;
  if (isRestarted) _rows.getLateReceivers().onAgentStarted();
  _rows.beginPass();
  return {session, !_configured || isRestarted, _knowsRows};
}

void SnmpMaConfigurator::finish(SnmpConfig&& config, bool isConfigured) {
  _configured = isConfigured;
  _users.endPass();
  _current = std::move(config);
  setOperationalStates();
}

void SnmpMaConfigurator::reconfigureTargets(const ConfigurationPass& pass, const SnmpConfig& config) {
  static const SnmpConfig::TargetMap none;
  const SnmpConfig::TargetMap& targets = config.isEnabled() ? config.getTargets() : none;
  const ConfigurationDiff diff = calcDiffTargets(_writtenTargets, targets, _states.getOperational(), pass.writesAnew);
  std::vector<Poco::AutoPtr<SnmpBaseTarget>> toWrite;
  for (const std::vector<std::string>* names : {&diff.added, &diff.changed}) {
    for (const std::string& name : *names) toWrite.push_back(targets.at(name));
  }
  for (const auto& target : toWrite) _rows.prepare(*target);
  TargetFaults faults = findFaults(targets);
  _users.planUsers(findAdmitted(targets, faults), faults);
  _users.createUsers(pass, findAdmitted(targets, faults), faults);
  const std::set<std::string> withoutAccess =
      _access.configureEffectiveAccess(pass, findAdmitted(targets, faults), _views);

  for (const std::string& name : diff.removed) removeTarget(pass, name);
  for (const auto& target : toWrite) applyTarget(pass, target, faults);
  // What did not change may have got into conflict with what did.
  for (const auto& fault : faults) _states.set(fault.first, false);
  for (const std::string& name : withoutAccess) _states.set(name, false);
  _users.deleteUnusedUsers(pass);
  _writtenTargets = targets;
}

bool SnmpMaConfigurator::isConfigurable(const SnmpBaseTarget& target) const {
  return target.administrativeState && target.isComplete &&
         (target.getSecurityModel() != SecurityModelTls || _tls.isEnabled());
}

TargetFaults SnmpMaConfigurator::findFaults(const SnmpConfig::TargetMap& targets) const {
  TargetFaults faults;
  for (const auto& [name, target] : targets) {
    if (!target->administrativeState) continue;
    if (!target->isComplete) {
      faults.emplace(name, "mandatory attributes could not be read");
      continue;
    }
    if (!isConfigurable(*target)) continue;
    try {
      target->check();
    } catch (const ConfigurationFault& fault) {
      faults.emplace(name, fault.what());
    }
  }
  return faults;
}

std::vector<const SnmpBaseTarget*> SnmpMaConfigurator::findAdmitted(const SnmpConfig::TargetMap& targets,
                                                                    const TargetFaults& faults) const {
  std::vector<const SnmpBaseTarget*> admitted;
  for (const auto& [name, target] : targets) {
    if (isConfigurable(*target) && faults.count(name) == 0) admitted.push_back(target.get());
  }
  return admitted;
}

void SnmpMaConfigurator::removeTarget(const ConfigurationPass& pass, const std::string& name) {
  const Poco::AutoPtr<SnmpBaseTarget> target = _writtenTargets.at(name);
  _states.set(name, false);
  try {
    _rows.configureTrapTarget(pass, *target, false);
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "Failed to configure snmp target %s: %s", name.c_str(), fault.what());
  }
  _rows.eraseNotificationNames(*target);
  _writtenTargets.erase(name);
}

void SnmpMaConfigurator::applyTarget(const ConfigurationPass& pass, const Poco::AutoPtr<SnmpBaseTarget>& target,
                                     const TargetFaults& faults) {
  const std::string& name = target->name;
  _states.set(name, false);
  _writtenTargets[name] = target;
  try {
    const auto fault = faults.find(name);
    const bool add = isConfigurable(*target) && fault == faults.end();
    if (pass.writesAnew || !add || !_rows.isWritten(*target)) _rows.configureTrapTarget(pass, *target, add);
    if (fault != faults.end()) throw ConfigurationFault("%s", fault->second.c_str());
    _states.set(name, add);
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "Failed to configure snmp target %s: %s", name.c_str(), fault.what());
  }
}

void SnmpMaConfigurator::configureTrapTarget(SnmpMaSession& session, const SnmpBaseTarget& target, bool add) {
  _rows.configureTrapTarget({session, false, _knowsRows}, target, add);
}

void SnmpMaConfigurator::setOperationalStates() { _states.setOperationalStates(_current); }

void SnmpMaConfigurator::updateAllOperationalStates(const MoConnector& connector) {
  _states.updateAllOperationalStates(connector, _current, _configured && _current.isEnabled());
}

bool SnmpMaConfigurator::checkEngineBootCount(SnmpMaSession& session) const {
  if (getEngineBoots(session) == _engineBoots) return false;
  VELA_LOG(Vela::LogWarning, "Boot count indicates a restarted master agent");
  return true;
}

int SnmpMaConfigurator::getEngineBoots(SnmpMaSession& session) {
  long long boots = 0;
  if (!session.getInt(MasterAgentTables::snmpEngineBoots, &boots, "snmpEngineBoots"))
    throw Vela::VelaException("Failed to read snmpEngineBoots.0");
  VELA_LOG(Vela::LogInfo, "snmpEngineBoots.0: %d (EngineId: %s)", static_cast<int>(boots),
           SnmpUtil::toHex(getEngineId(session)).c_str());
  return static_cast<int>(boots);
}

std::string SnmpMaConfigurator::getEngineId(SnmpMaSession& session) {
  std::string engineId;
  session.getString(MasterAgentTables::snmpEngineId, engineId);
  return engineId;
}

bool SnmpMaConfigurator::parseTargetAddrUDP(Poco::Net::IPAddress& result, const std::string& host) {
  return AddressResolver::parse(result, host);
}

bool SnmpMaConfigurator::convertHexMask(unsigned char* buffer, int* length, int size, const char* text) {
  return VelaFmSnmp::convertHexMask(buffer, length, size, text);
}

}  // namespace VelaFmSnmp
