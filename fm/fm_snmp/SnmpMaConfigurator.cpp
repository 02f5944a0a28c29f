// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "SnmpMaConfigurator.h"

#include <LoggingWrapper.h>

#include "ConfigurationFault.h"
#include "HexMask.h"
#include "MoConnector.h"
#include "SnmpConfigHandler.h"
#include "SnmpMaSession.h"
#include "SnmpPdu.h"
#include "SnmpTarnWrapper.h"
#include "SnmpUtil.h"
#include "TargetDiff.h"

namespace VelaFmSnmp {

namespace {

/** Prefix of the names of notify, address and parameter rows. */
const char* const notificationPrefix = "ntf";
/** Milliseconds at least between two starts of the agent for the sake of receivers that were found late. */
constexpr unsigned long long sessionRestartInterval = 10ULL * 60 * 1000;

const char* stateName(bool isEnabled) { return isEnabled ? "ENABLED" : "DISABLED"; }

}  // namespace

void SnmpMaConfigurator::setCurrentConfig(const SnmpConfig& config) { _current = config; }

void SnmpMaConfigurator::clear() {
  _current = SnmpConfig();
  _configured = false;
  _views.clear();
  _access.clear();
  _users.clear();
  _tls.clear();
  _names.clear();
  _writtenTargets.clear();
  _rows.clear();
  _operational.clear();
}

void SnmpMaConfigurator::reconfigure(SnmpMaSession& session, const SnmpConfig& config) {
  const SnmpConfig next = config;  // which may be the current one
  _isReversedPort.reset();
  _resolver.forget();
  try {
    VELA_TRACE("securityEngineID: 0x%s", SnmpUtil::toHex(session.securityEngineID()).c_str());
    VELA_TRACE("contextEngineID: 0x%s", SnmpUtil::toHex(session.contextEngineID()).c_str());
    const int boots = getEngineBoots(session);
    const bool isRestarted = boots != _engineBoots;
    if (isRestarted) _unresolvedSessions.clear();
    _knowsRows = _configured || isRestarted;
    const ConfigurationPass pass{session, !_configured || isRestarted, _knowsRows};
    _engineBoots = boots;
    _tls.setOptions(next.tlsOptions);
    _views.reconfigureViews(pass, next.getViews());
    _tls.reconfigureTrustCategory(session, pass.writesAnew);
    reconfigureTargets(pass, next);
  } catch (...) {
    finish(next, false);
    throw;
  }
  finish(next, true);
}

void SnmpMaConfigurator::finish(const SnmpConfig& config, bool isConfigured) {
  _configured = isConfigured;
  _users.forgetKeys();
  _current = config;
  setOperationalStates();
}

void SnmpMaConfigurator::reconfigureTargets(const ConfigurationPass& pass, const SnmpConfig& config) {
  static const SnmpConfig::TargetMap none;
  SnmpMaSession& session = pass.session;
  const SnmpConfig::TargetMap& targets = config.isEnabled() ? config.getTargets() : none;
  if (_handler) _resolver.setIpVersion(_handler->getIpVersion());
  const ConfigurationDiff diff = calcDiffTargets(_writtenTargets, targets, pass.writesAnew);
  for (const std::vector<std::string>* names : {&diff.added, &diff.changed}) {
    for (const std::string& name : *names) _resolver.prepare(targets.at(name)->address);
  }
  Faults faults = findFaults(targets);
  const std::map<std::string, UsmUser> users = planUsers(targets, faults);
  createUsers(session, users, pass.writesAnew, targets, faults);
  const std::set<std::string> withoutAccess = configureEffectiveAccess(pass, targets, faults);

  for (const std::string& name : diff.removed) removeTarget(session, name);
  for (const std::vector<std::string>* names : {&diff.added, &diff.changed}) {
    for (const std::string& name : *names) applyTarget(pass, targets.at(name), faults);
  }
  // What did not change may have got into conflict with what did.
  for (const auto& fault : faults) updateTargetOperationalState(fault.first, false);
  for (const std::string& name : withoutAccess) updateTargetOperationalState(name, false);
  deleteUnusedUsers(session, users);
  _writtenTargets = targets;
}

bool SnmpMaConfigurator::isConfigurable(const SnmpBaseTarget& target) const {
  return target.administrativeState && target.isComplete &&
         (target.getSecurityModel() != SecurityModelTls || _tls.isEnabled());
}

SnmpMaConfigurator::Faults SnmpMaConfigurator::findFaults(const SnmpConfig::TargetMap& targets) const {
  Faults faults;
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

std::map<std::string, UsmUser> SnmpMaConfigurator::planUsers(const SnmpConfig::TargetMap& targets,
                                                             Faults& faults) const {
  std::map<std::string, UsmUser> users;
  for (const auto& [name, target] : targets) {
    if (!isConfigurable(*target) || faults.count(name) != 0) continue;
    std::optional<UsmUser> user = target->usmUser();
    if (!user) continue;
    const auto [planned, isNew] = users.emplace(user->name, *user);
    if (isNew || planned->second.covers(*user)) continue;
    // The agent knows a user once, so targets that share one must agree on it.
    if (user->covers(planned->second))
      planned->second = std::move(*user);
    else
      faults.emplace(name, "another target has user " + user->name + " with other protocols or pass phrases");
  }
  return users;
}

void SnmpMaConfigurator::createUsers(SnmpMaSession& session, const std::map<std::string, UsmUser>& users, bool force,
                                     const SnmpConfig::TargetMap& targets, Faults& faults) {
  std::map<std::string, std::string> failed;
  for (const auto& [userName, user] : users) {
    if (!force && _users.isWritten(user)) continue;
    try {
      _users.usmCreateUser(session, user);
    } catch (const ConfigurationFault& fault) {
      failed.emplace(userName, fault.what());
    }
  }
  if (failed.empty()) return;
  for (const auto& [name, target] : targets) {
    const auto fault = failed.find(target->getSecurityName());
    if (fault != failed.end() && target->getSecurityModel() == SecurityModelUsm) faults.emplace(name, fault->second);
  }
}

void SnmpMaConfigurator::deleteUnusedUsers(SnmpMaSession& session, const std::map<std::string, UsmUser>& users) {
  for (const std::string& name : _users.getWrittenNames()) {
    if (users.count(name) != 0) continue;
    try {
      _users.usmDeleteUser(session, name);
    } catch (const ConfigurationFault& fault) {
      VELA_LOG(Vela::LogError, "Failed to delete USM user %s: %s", name.c_str(), fault.what());
    }
  }
}

std::set<std::string> SnmpMaConfigurator::configureEffectiveAccess(const ConfigurationPass& pass,
                                                                   const SnmpConfig::TargetMap& targets,
                                                                   const Faults& faults) {
  std::vector<const SnmpBaseTarget*> admitted;
  for (const auto& [name, target] : targets) {
    if (isConfigurable(*target) && faults.count(name) == 0) admitted.push_back(target.get());
  }
  return _access.configureEffectiveAccess(pass, admitted, _views);
}

void SnmpMaConfigurator::removeTarget(SnmpMaSession& session, const std::string& name) {
  const Poco::AutoPtr<SnmpBaseTarget> target = _writtenTargets.at(name);
  updateTargetOperationalState(name, false);
  try {
    configureTrapTarget(session, *target, false);
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "Failed to configure snmp target %s: %s", name.c_str(), fault.what());
  }
  _names.eraseNotificationNames(*target);
  _writtenTargets.erase(name);
}

void SnmpMaConfigurator::applyTarget(const ConfigurationPass& pass, const Poco::AutoPtr<SnmpBaseTarget>& target,
                                     const Faults& faults) {
  const std::string& name = target->name;
  updateTargetOperationalState(name, false);
  _writtenTargets[name] = target;
  try {
    const auto fault = faults.find(name);
    const bool add = isConfigurable(*target) && fault == faults.end();
    if (pass.writesAnew || !add || !hasRows(*target)) configureTrapTarget(pass.session, *target, add);
    if (fault != faults.end()) throw ConfigurationFault("%s", fault->second.c_str());
    updateTargetOperationalState(name, add);
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "Failed to configure snmp target %s: %s", name.c_str(), fault.what());
  }
}

void SnmpMaConfigurator::configureTrapTarget(SnmpMaSession& session, const SnmpBaseTarget& target, bool add) {
  const std::string rowName = _names.getUniqueName(notificationPrefix, target);
  const auto present = _rows.find(rowName);
  if (present != _rows.end() || !_knowsRows) {
    const bool isTls = target.getSecurityModel() == SecurityModelTls && _tls.isEnabled();
    deleteRows(session, rowName, isTls || (present != _rows.end() && present->second.isTls));
  }
  if (!add) return;
  const bool isTls = target.getSecurityModel() == SecurityModelTls;
  createRows(session, target, target.trapRows(isTls ? _tls.getLocalFingerPrint() : std::string()));
}

bool SnmpMaConfigurator::hasRows(const SnmpBaseTarget& target) {
  const auto rows = _rows.find(_names.getUniqueName(notificationPrefix, target));
  return rows != _rows.end() && rows->second.holder && equalTarget(*rows->second.holder, target);
}

void SnmpMaConfigurator::createRows(SnmpMaSession& session, const SnmpBaseTarget& target, const TrapRows& rows) {
  const std::string name = _names.getUniqueName(notificationPrefix, target);
  const bool isTls = !rows.tlsFingerprint.empty();
  TargetTransport transport{resolve(target, !rows.notifyType), target.port, isTls, false};
  if (transport.address.family() == Poco::Net::IPAddress::IPv6) transport.isReversedPort = isReversedIpv6Port();

  SnmpPdu pdu(SNMP_MSG_SET);
  MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::snmpTargetSpinLock);
  if (rows.notifyType) MasterAgentTables::createNotify(pdu, name, name, *rows.notifyType);
  MasterAgentTables::createTargetAddr(pdu, name, transport, name, name, target.getInformTimeout(),
                                      target.getInformRetryCount());
  MasterAgentTables::createTargetParams(pdu, name, rows.mpModel, static_cast<unsigned>(target.getSecurityModel()),
                                        target.getSecurityName(), static_cast<unsigned>(rows.securityLevel));
  if (isTls) {
    TlsConfigurator::tlsCreateParamsEntry(pdu, name, rows.tlsFingerprint);
    TlsConfigurator::tlsCreateAddrEntry(pdu, name);
  }
  Rows& written = _rows[name];
  written.isTls = isTls;
  MasterAgentTables::send(session, "configureTrapTarget(" + target.name + ")", pdu);
  const auto holder = _writtenTargets.find(target.name);
  if (holder != _writtenTargets.end() && holder->second.get() == &target) written.holder = holder->second;
}

Poco::Net::IPAddress SnmpMaConfigurator::resolve(const SnmpBaseTarget& target, bool isSentByAgent) {
  Poco::Net::IPAddress address;
  try {
    address = _resolver.resolve(target.address);
  } catch (const ConfigurationFault&) {
    if (isSentByAgent) _unresolvedSessions.insert(target.name);
    throw;
  }
  if (isSentByAgent && _handler && _handler->getTarnWrapper().isReceiverLeftOut(target.address))
    _unresolvedSessions.insert(target.name);
  if (_unresolvedSessions.count(target.name) == 0) return address;
  // The names of the agent's own sessions are looked up when it starts, and only then.
  const unsigned long long now = SnmpUtil::getNow();
  if (!_isRestartWanted && _lastSessionRestart != 0 && now - _lastSessionRestart < sessionRestartInterval)
    throw ConfigurationFault("The master agent was started when %s had no address", target.address.c_str());
  _unresolvedSessions.erase(target.name);
  _isRestartWanted = true;
  _lastSessionRestart = now;
  return address;
}

void SnmpMaConfigurator::deleteRows(SnmpMaSession& session, const std::string& rowName, bool hasTlsRows) {
  SnmpPdu pdu(SNMP_MSG_SET);
  MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::snmpTargetSpinLock);
  MasterAgentTables::deleteNotify(pdu, rowName);
  MasterAgentTables::deleteTargetAddr(pdu, rowName);
  MasterAgentTables::deleteTargetParams(pdu, rowName);
  if (hasTlsRows) {
    TlsConfigurator::tlsDeleteParamsEntry(pdu, rowName);
    TlsConfigurator::tlsDeleteAddrEntry(pdu, rowName);
  }
  const auto written = _rows.find(rowName);
  if (written != _rows.end()) written->second.holder.reset();
  MasterAgentTables::send(session, "deleteTrapTarget(" + rowName + ")", pdu);
  _rows.erase(rowName);
}

bool SnmpMaConfigurator::isReversedIpv6Port() {
  if (_handler == nullptr || !_handler->isIpv6PortWorkaroudEnabled()) return false;
  if (!_isReversedPort) {
    try {
      bool isReversed = false;
      const bool isAnswered = _handler->getTarnWrapper().isIpv6PortReverseByteOrder(isReversed);
      _isReversedPort = !isAnswered || isReversed;
    } catch (const Vela::VelaException& ex) {
      VELA_LOG(Vela::LogError, "exception while checking ipv6PortReverseByteOrder support: %s", ex.what());
      _isReversedPort = true;
    }
  }
  return *_isReversedPort;
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

void SnmpMaConfigurator::updateTargetOperationalState(const std::string& name, bool isOperational) {
  if (isOperational)
    _operational.insert(name);
  else
    _operational.erase(name);
}

void SnmpMaConfigurator::setOperationalStates() {
  int enabled = 0;
  int operational = 0;
  for (auto& [name, target] : _current.targets) {
    target->operational = _operational.count(name) != 0;
    // A DTLS target cannot be operational without DTLS, which is not held against the service.
    if (!target->administrativeState || (target->getSecurityModel() == SecurityModelTls && !_tls.isEnabled())) continue;
    ++enabled;
    if (target->operational) ++operational;
  }
  VELA_LOG(Vela::LogInfo, "Number of operational targets %d of %d enabled", operational, enabled);
  _isServiceOperational = enabled == 0 || operational > 0;
}

void SnmpMaConfigurator::updateAllOperationalStates(const MoConnector& connector) const {
  const bool isActive = _configured && _current.isEnabled();
  const auto write = [](const auto& request) {
    try {
      request();
    } catch (const Vela::VelaException& ex) {
      VELA_LOG(Vela::LogError, "Failed to set operationalState! (%s)", ex.what());
    }
  };
  for (const auto& [name, target] : _current.getTargets()) {
    const bool isOperational = isActive && target->operational;
    VELA_LOG(Vela::LogInfo, "Setting target %s operationalState=%s", name.c_str(), stateName(isOperational));
    write([&, &dn = target->moName] { connector.setTargetOperationalState(dn.c_str(), isOperational); });
  }
  for (const std::string& dn : _current.leftOut) {
    write([&] { connector.setTargetOperationalState(dn.c_str(), false); });
  }
  const bool isServiceOperational = isActive && _isServiceOperational;
  VELA_LOG(Vela::LogInfo, "Setting FmSnmp operationalState=%s", stateName(isServiceOperational));
  write([&] { connector.setSnmpOperationalState(isServiceOperational); });
}

bool SnmpMaConfigurator::parseTargetAddrUDP(Poco::Net::IPAddress& result, const std::string& host) {
  return AddressResolver::parse(result, host);
}

bool SnmpMaConfigurator::convertHexMask(unsigned char* buffer, int* length, int size, const char* text) {
  return VelaFmSnmp::convertHexMask(buffer, length, size, text);
}

}  // namespace VelaFmSnmp
