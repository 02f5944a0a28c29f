#include "SnmpStateMachine.h"

#include <Poco/Net/IPAddress.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <set>
#include <utility>

#include "AgentAddresses.h"
#include "CertificateManager.h"
#include "Listener.h"
#include "LoggingWrapper.h"
#include "MoConnector.h"
#include "SnmpAdaptorRunnable.h"
#include "SnmpConfigHandler.h"
#include "SnmpDscpRuleHandler.h"
#include "SnmpMaConfigurator.h"
#include "SnmpMaSession.h"
#include "SnmpTarnWrapper.h"
#include "SnmpTypes.h"
#include "SnmpUtil.h"
#include "TargetDiff.h"
#include "TarnSpi.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

/** Times in milliseconds. "After" is meant strictly: a millisecond more than the value. */
constexpr unsigned long long ConfigurationSettledAfter = 1000;
constexpr unsigned long long PortsGivenUpAfter = 19999;
constexpr int PortRetryDelay = 1000;
constexpr int ConfigureTimeout = 30000;
constexpr unsigned long long DeliveryGivenUpAfter = 24999;
constexpr unsigned long long NextAlarmAfter = 1249;
constexpr int TrapReceivedDelay = 6000;
constexpr unsigned long long TargetCheckAfter = 30000;
constexpr unsigned long long SessionRetryDelay = 100;
/** A configured poll interval of 0 would keep the master agent busy with nothing else. */
constexpr unsigned long long MinPollInterval = 100;
constexpr unsigned long long MaxPollInterval = std::numeric_limits<int>::max();
constexpr unsigned long long FirstRetryInterval = 2000;
constexpr unsigned int MaxRetryIntervalShift = 5;

constexpr int ExactEngineIdAttempts = 3;
constexpr int DtlsProbeAttempts = 4;
constexpr int SupervisionSessionAttempts = 3;
constexpr int QueuedAlarmsPerUpdate = 10;
constexpr unsigned int AttemptsUntilQueueIsDropped = 10;

/** In the order in which they are written. */
constexpr TarnConfigureOption ConfigureOptions[] = {TarnConfigureAgentAddress, TarnConfigureCommunities,
                                                    TarnConfigureTrapSess,     TarnConfigureDtlsNodeCredential,
                                                    TarnConfigureCipherString, TarnConfigureEngineId};

constexpr const char* LoopbackV4 = "127.0.0.1";
constexpr const char* LoopbackV6 = "::1";

/** How often a state tries what it does, and its texts when it gives up. */
struct RetryPolicy {
  int attempts;
  const char* logText;
  const char* reasonText;
};
constexpr RetryPolicy ReadConfiguration = {4, "Failed to read configuration", "Failed to read configuration: "};
constexpr RetryPolicy StartAgent = {3, "Failed to start master agent", "Failed to start master agent: "};
constexpr RetryPolicy RegisterAgentX = {3, "Failed to register agentx", "Failed to register agentx: "};
constexpr RetryPolicy OpenSession = {2, "Failed to create snmp session", "failed to create snmp session: "};
constexpr RetryPolicy Configure = {3, "Failed to configure targets", "Failed to configure targets: "};

constexpr const char* ReloadReason = "got IMM change event, reload configuration";
constexpr const char* RestartReason = "got a triggered restart event";
constexpr const char* AllTargetsReason = "successfully configured all targets";
constexpr const char* NotAllTargetsReason = "not all targets operational";

bool hasPassed(unsigned long long since, unsigned long long milliseconds) {
  return SnmpUtil::getNow() - since > milliseconds;
}

StateTransition afterFailure(const RetryPolicy& policy, int& retries, const Vela::VelaException& ex) {
  if (++retries < policy.attempts) return StateTransition::handled();
  VELA_LOG(Vela::LogError, "%s after %d retries: %s", policy.logText, policy.attempts - 1, ex.what());
  return StateTransition::change(FmStateIdIdleError, policy.reasonText + std::string(ex.what()));
}

/** Does something of a state's entry that must not keep the state from being entered. */
template <class Action>
void guardedEntry(const char* state, Action&& action) {
  try {
    action();
  } catch (const Vela::VelaException& ex) {
    VELA_LOG(Vela::LogError, "%s caught exception: %s", state, ex.what());
  }
}

void updateDscpRules(SnmpAdaptorRunnable& owner) {
  const SnmpDscpRuleHandler& handler = owner.getDscpRuleHandler();
  handler.setCmRule(owner.getNewConfig());
  handler.setFmRule(owner.getNewConfig());
}

/** The family of the agent address that the component itself uses, IPv4 when there is none. */
int getIpFamily(const SnmpConfig& config) {
  const std::vector<AgentAddress> addresses = usableAddresses(config.agentAddress);
  const bool isIpv6 = !addresses.empty() && addresses.front().host.family() == Poco::Net::IPAddress::IPv6;
  return isIpv6 ? AF_INET6 : AF_INET;
}

bool isDeliveryVerified(SnmpAdaptorRunnable& owner, const SnmpConfig& config) {
  const SnmpConfigHandler* handler = owner.getConfigurationHandler();
  return handler && handler->isInternalTrapListenerEnabled() && !config.getTargets().empty();
}

void addInternalTarget(SnmpAdaptorRunnable& owner, const SnmpConfig& config) {
  owner.agreeOnInternalCommunity();
  owner.getConfigurator().configureTrapTarget(owner.getMaSession(), owner.getInternalTrapTarget(getIpFamily(config)),
                                              true);
}

}  // namespace

void registerAdaptorStates(StateMachine<SnmpAdaptorRunnable, SnmpEvent>& machine) {
  machine.registerState<FmStateOneTimeInit>(FmStateIdOneTimeInit, "OneTimeInit");
  machine.registerState<FmStateIMMUpdating>(FmStateIdIMMUpdating, "IMMUpdating");
  machine.registerState<FmStateLoadConfigurationData>(FmStateIdLoadConfigurationData, "LoadConfigurationData");
  machine.registerState<FmStateStartMasterAgent>(FmStateIdStartMasterAgent, "StartMasterAgent");
  machine.registerState<FmStateCreateSession>(FmStateIdCreateSession, "CreateSession");
  machine.registerState<FmStateConfigureAgentX>(FmStateIdConfigureAgentX, "ConfigureAgentX");
  machine.registerState<FmStateConfigureTargets>(FmStateIdConfigureTargets, "ConfigureTargets");
  machine.registerState<FmStateRetryConfigureTargets>(FmStateIdRetryConfigureTargets, "RetryConfigureTargets");
  machine.registerState<FmStatePostConfigure>(FmStateIdPostConfigure, "PostConfigure");
  machine.registerState<FmStateIdleDisabled>(FmStateIdIdleDisabled, "IdleDisabled");
  machine.registerState<FmStateIdleEnabled>(FmStateIdIdleEnabled, "IdleEnabled");
  machine.registerState<FmStateIdleError>(FmStateIdIdleError, "IdleError");
  machine.registerState<FmStateShutdown>(FmStateIdShutdown, "Shutdown");
}

void FmStateOneTimeInit::checkExactEngineIdSupported(SnmpAdaptorRunnable& owner) {
  for (int attempt = 0; attempt < ExactEngineIdAttempts; ++attempt) {
    try {
      owner.setExactEngineIdSupported(owner.getTarnWrapper().isExactEngineIdSupported());
      return;
    } catch (const Vela::VelaException& ex) {
      owner.setExactEngineIdSupported(false);
      VELA_LOG(Vela::LogError, "Failed to check for exactEngineID support: %s", ex.what());
    }
  }
}

StateTransition FmStateOneTimeInit::onUpdate(SnmpAdaptorRunnable& owner) {
  checkExactEngineIdSupported(owner);
  Vela::CertificateManager& certificates = Vela::CertificateManager::getInstance();
  try {
    const bool isDtlsSupported = owner.getTarnWrapper().isDtlsSupported();
    owner.setDtlsSupported(isDtlsSupported);
    if (isDtlsSupported) {
      const std::string directory = owner.getTarnWrapper().getTarnNoBackupDir();
      VELA_LOG(Vela::LogInfo, "Using pso no-backup dir: '%s'", directory.c_str());
      certificates.setTarnConfigDir(directory + "/etc/snmp");
    } else {
      certificates.setTarnConfigDir("");
    }
  } catch (const Vela::VelaException& ex) {
    if (++_retries < DtlsProbeAttempts) return StateTransition::handled();
    owner.setDtlsSupported(false);
    certificates.setTarnConfigDir("");
    VELA_LOG(Vela::LogError, "Failed to check for dtls support: %s", ex.what());
    return StateTransition::change(FmStateIdIMMUpdating, "Failed to check for dtls support, assuming no");
  }
  return StateTransition::change(FmStateIdIMMUpdating, "FmStateOneTimeInit completed");
}

FmStateIMMUpdating::FmStateIMMUpdating(SnmpAdaptorRunnable&) : _lastChange(SnmpUtil::getNow()) {}

StateTransition FmStateIMMUpdating::onEvent(SnmpAdaptorRunnable&, SnmpEvent event) {
  if (event != SnmpEventImmChange) return {};
  _lastChange = SnmpUtil::getNow();
  return StateTransition::handled();
}

StateTransition FmStateIMMUpdating::onUpdate(SnmpAdaptorRunnable&) {
  if (!hasPassed(_lastChange, ConfigurationSettledAfter)) return StateTransition::handled();
  return StateTransition::change(FmStateIdLoadConfigurationData, "no updates in one second");
}

StateTransition FmStateLoadConfigurationData::onUpdate(SnmpAdaptorRunnable& owner) {
  SnmpConfig& next = owner.getNewConfig();
  try {
    owner.getMoConnector().getSnmpConfig(next, owner.isDtlsSupported());
    owner.getStaticTlsConfiguration();
  } catch (const Vela::VelaException& ex) {
    return afterFailure(ReadConfiguration, _retries, ex);
  }
  if (next.isEnabled() && !owner.isExactEngineIdSupported() && !next.engineId.empty()) {
    VELA_LOG(Vela::LogInfo, "Configuration of engineID not supported. Setting 'engineId' to empty value.");
    next.engineId.clear();
    owner.getMoConnector().setEngineId(next.engineId);
  }
  StateTransition transition = decide(owner);
  updateDscpRules(owner);
  return transition;
}

StateTransition FmStateLoadConfigurationData::decide(SnmpAdaptorRunnable& owner) {
  SnmpMaConfigurator& configurator = owner.getConfigurator();
  const SnmpConfig& current = configurator.getCurrentConfig();
  const SnmpConfig& next = owner.getNewConfig();

  if (!next.isEnabled()) {
    const bool wasEnabled = current.isEnabled();
    configurator.setCurrentConfig(next);
    return StateTransition::change(FmStateIdIdleDisabled, wasEnabled ? "configuration loaded, fm disabled"
                                                                     : "configuration loaded, fm already disabled");
  }
  const bool isUp =
      current.isEnabled() && configurator.isConfigured() && owner.getMaSession().isOpen() && owner.isSubAgentActive();
  if (!isUp) return StateTransition::change(FmStateIdStartMasterAgent, "configuration loaded, fm enabled");
  if (current == next && current.allTargetsOperational()) {
    return StateTransition::change(FmStateIdPostConfigure, "nothing changed");
  }
  if (!isMasterAgentRestartNeeded(current, next)) {
    return StateTransition::change(FmStateIdConfigureTargets, "configuration loaded, some changes");
  }
  return StateTransition::change(FmStateIdStartMasterAgent, "configuration loaded, restart required");
}

bool FmStateLoadConfigurationData::isMasterAgentRestartNeeded(const SnmpConfig& current, const SnmpConfig& next) {
  return VelaFmSnmp::isMasterAgentRestartNeeded(current, next);
}

FmStateStartMasterAgent::FmStateStartMasterAgent(SnmpAdaptorRunnable& owner) : _entered(SnmpUtil::getNow()) {
  owner.stopMasterAgent();
}

FmStateStartMasterAgent::Ports FmStateStartMasterAgent::checkPorts(SnmpAdaptorRunnable& owner,
                                                                   StateTransition& whenTaken) const {
  for (const AgentAddress& address : usableAddresses(owner.getNewConfig().agentAddress)) {
    const int port = static_cast<int>(address.port);
    try {
      Listener probe;
      probe.open(address.host.toString(), port);
    } catch (const Listener::NoAccessException&) {
      VELA_TRACE("bind returned EACCES - assuming snmpd can bind it anyway.");
      return Ports::Available;
    } catch (const Vela::VelaException& ex) {
      if (hasPassed(_entered, PortsGivenUpAfter)) {
        VELA_LOG(Vela::LogError, "Port %d is not available to start SNMP agent.", port);
        whenTaken = StateTransition::change(FmStateIdIdleError, std::string("Port is not available: ") + ex.what());
      } else {
        VELA_TRACE("Port %d is not available, will retry", port);
        owner.stopMasterAgent();
        whenTaken = StateTransition::handled(PortRetryDelay);
      }
      return Ports::Taken;
    }
  }
  VELA_TRACE("all ports available.");
  return Ports::Available;
}

StateTransition FmStateStartMasterAgent::onUpdate(SnmpAdaptorRunnable& owner) {
  StateTransition whenTaken;
  if (checkPorts(owner, whenTaken) == Ports::Taken) return whenTaken;

  try {
    SnmpTarnWrapper& tarn = owner.getTarnWrapper();
    for (const TarnConfigureOption option : ConfigureOptions) {
      if (option == TarnConfigureDtlsNodeCredential && !owner.isDtlsSupported()) continue;
      tarn.configure(option, owner.getNewConfig(), ConfigureTimeout);
    }
    tarn.manage(TarnManageStart, Vela::TarnSpi::StartTimeoutMs);
  } catch (const Vela::VelaException& ex) {
    return afterFailure(StartAgent, _retries, ex);
  }
  owner.masterAgentStarted();
  updateDscpRules(owner);
  return StateTransition::change(FmStateIdConfigureAgentX, "master agent started");
}

StateTransition FmStateConfigureAgentX::onUpdate(SnmpAdaptorRunnable& owner) {
  try {
    owner.initSubAgentAfterRestart();
  } catch (const Vela::VelaException& ex) {
    return afterFailure(RegisterAgentX, _retries, ex);
  }
  return StateTransition::change(FmStateIdCreateSession, "success");
}

FmStateCreateSession::FmStateCreateSession(SnmpAdaptorRunnable& owner) { owner.getMaSession().close(); }

StateTransition FmStateCreateSession::onUpdate(SnmpAdaptorRunnable& owner) {
  try {
    open(owner, owner.getMaSession());
  } catch (const Vela::VelaException& ex) {
    return afterFailure(OpenSession, _retries, ex);
  }
  return StateTransition::change(FmStateIdConfigureTargets, "successfully connected to master agent");
}

void FmStateCreateSession::open(SnmpAdaptorRunnable& owner, SnmpMaSession& session) {
  const SnmpConfigHandler* handler = owner.getConfigurationHandler();
  if (!handler) throw Vela::VelaException("no component configuration");
  const SnmpConfig& config = owner.getNewConfig();
  const std::vector<AgentAddress> addresses = usableAddresses(config.agentAddress);
  if (addresses.empty()) throw Vela::VelaException("no agent address configured");
  SnmpConfig reachable;
  reachable.agentAddress.emplace_back(addresses.front().host.toString(), addresses.front().port);
  session.initSessionWithPwdFile(getMasterAgentAddress(reachable), static_cast<int>(addresses.front().port),
                                 Vela::TarnSpi::NodeUser, handler->getSnmpMasterAgentPwdFile());
}

std::string FmStateCreateSession::getMasterAgentAddress(const SnmpConfig& config) {
  Poco::Net::IPAddress address;
  if (config.agentAddress.empty() ||
      !SnmpMaConfigurator::parseTargetAddrUDP(address, config.agentAddress.front().first)) {
    return LoopbackV4;
  }
  if (address.family() == Poco::Net::IPAddress::IPv4) return address.isWildcard() ? LoopbackV4 : address.toString();
  return "udp6:[" + (address.isWildcard() ? LoopbackV6 : address.toString()) + "]";
}

namespace {

/** Opens the adaptor's session again if the attempt before has closed it. */
void reopenSession(SnmpAdaptorRunnable& owner) {
  if (!owner.getMaSession().isOpen()) FmStateCreateSession::open(owner, owner.getMaSession());
}

/** Has the configuration loaded anew when more of it can be read now, without a change of the model. */
void requestReloadIfReadable(SnmpAdaptorRunnable& owner) {
  const std::size_t unread = owner.getConfigurator().getCurrentConfig().countReadableLater();
  if (unread == 0) return;
  SnmpConfig read;
  try {
    owner.getMoConnector().getSnmpConfig(read, owner.isDtlsSupported());
  } catch (const Vela::VelaException& ex) {
    VELA_LOG(Vela::LogWarning, "The configuration could not be read again: %s", ex.what());
    return;
  }
  if (read.countReadableLater() < unread) owner.handleCmEvent();
}

}  // namespace

StateTransition FmStateConfigureTargets::onUpdate(SnmpAdaptorRunnable& owner) {
  try {
    if (_retries > 0) reopenSession(owner);
    return configure(owner);
  } catch (const Vela::VelaException& ex) {
    return afterFailure(Configure, _retries, ex);
  }
}

StateTransition FmStateConfigureTargets::configure(SnmpAdaptorRunnable& owner) {
  SnmpMaConfigurator& configurator = owner.getConfigurator();
  const SnmpConfig& config = owner.getNewConfig();
  configurator.reconfigure(owner.getMaSession(), config);

  if (!config.isEnabled()) {
    if (owner.getListener().isOpen()) {
      configurator.configureTrapTarget(owner.getMaSession(), owner.getInternalTrapTarget(getIpFamily(config)), false);
      owner.closeListener();
    }
    return StateTransition::change(FmStateIdIdleDisabled, "successfully de-configured targets");
  }
  if (isDeliveryVerified(owner, config)) addInternalTarget(owner, config);
  if (!configurator.getCurrentConfig().allTargetsOperational()) {
    return StateTransition::change(FmStateIdRetryConfigureTargets, NotAllTargetsReason);
  }
  return StateTransition::change(FmStateIdPostConfigure, AllTargetsReason);
}

FmStateRetryConfigureTargets::FmStateRetryConfigureTargets(SnmpAdaptorRunnable& owner) { owner.onReconfigSuccess(); }

StateTransition FmStateRetryConfigureTargets::onUpdate(SnmpAdaptorRunnable& owner) {
  SnmpMaConfigurator& configurator = owner.getConfigurator();
  try {
    if (_retries > 0) reopenSession(owner);
    requestReloadIfReadable(owner);
    // A copy, because the configurator replaces its current configuration while it applies one.
    const SnmpConfig current = configurator.getCurrentConfig();
    configurator.reconfigure(owner.getMaSession(), current);
  } catch (const Vela::VelaException& ex) {
    return afterFailure(Configure, _retries, ex);
  }
  const bool allOperational = configurator.getCurrentConfig().allTargetsOperational();
  return StateTransition::change(FmStateIdPostConfigure, allOperational ? AllTargetsReason : NotAllTargetsReason);
}

FmStatePostConfigure::FmStatePostConfigure(SnmpAdaptorRunnable& owner) : _entered(SnmpUtil::getNow()) {
  owner.onReconfigSuccess();
}

StateTransition FmStatePostConfigure::onEvent(SnmpAdaptorRunnable&, SnmpEvent event) {
  switch (event) {
    case SnmpEventImmChange:
      return StateTransition::change(FmStateIdIMMUpdating, ReloadReason);
    case SnmpEventTrapReceived:
      return StateTransition::change(FmStateIdIdleEnabled, "trap received", TrapReceivedDelay);
    case SnmpEventRestart:
      return StateTransition::change(FmStateIdStartMasterAgent, RestartReason);
    default:
      return {};
  }
}

StateTransition FmStatePostConfigure::onUpdate(SnmpAdaptorRunnable& owner) {
  if (!hasPassed(_entered, DeliveryGivenUpAfter)) {
    if (isDeliveryVerified(owner, owner.getConfigurator().getCurrentConfig())) verifyDelivery(owner);
    return StateTransition::handled();
  }
  if (_lastSent != 0) return StateTransition::change(FmStateIdIdleError, "trap not received");
  return StateTransition::change(FmStateIdIdleEnabled, "delay after config complete");
}

void FmStatePostConfigure::verifyDelivery(SnmpAdaptorRunnable& owner) {
  if (_lastSent != 0 && !hasPassed(_lastSent, NextAlarmAfter)) return;
  try {
    if (!owner.getListener().isOpen()) {
      addInternalTarget(owner, owner.getConfigurator().getCurrentConfig());
      _lastSent = 0;
    }
    if (!owner.hasQueuedAlarms()) return;
    if (owner.trySendOneQueuedAlarm()) _lastSent = SnmpUtil::getNow();
  } catch (const Vela::VelaException& ex) {
    VELA_LOG(Vela::LogError, "PostConfigure caught exception: %s", ex.what());
    owner.closeListener();
  }
}

FmStateIdleDisabled::FmStateIdleDisabled(SnmpAdaptorRunnable& owner) {
  constexpr const char* State = "StateIdleDisabled";
  owner.closeListener();
  if (owner.getMaSession().isOpen()) {
    guardedEntry(State, [&] { owner.getConfigurator().reconfigure(owner.getMaSession(), owner.getNewConfig()); });
  }
  guardedEntry(State, [&] { owner.onReconfigFail(); });
  owner.clearQueuedAlarms();
  owner.clearHandover();
  guardedEntry(State, [&] { owner.stopMasterAgent(); });
  FmStateIdleError::numReconfigAttempts = 0;
}

StateTransition FmStateIdleDisabled::onEvent(SnmpAdaptorRunnable&, SnmpEvent event) {
  switch (event) {
    case SnmpEventImmChange:
      return StateTransition::change(FmStateIdIMMUpdating, ReloadReason);
    case SnmpEventTrapReceived:
    case SnmpEventRestart:
      return StateTransition::handled();
    default:
      return {};
  }
}

FmStateIdleEnabled::FmStateIdleEnabled(SnmpAdaptorRunnable& owner) : FmStateThread(owner) {
  owner.closeListener();
  const SnmpConfigHandler* handler = owner.getConfigurationHandler();
  _pollInterval = std::max(handler ? handler->getPollInterval() : 0, MinPollInterval);
  FmStateIdleError::numReconfigAttempts = 0;
  _lastTargetCheck = _lastMarking = SnmpUtil::getNow();
  startThread();
}

StateTransition FmStateIdleEnabled::onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) {
  switch (event) {
    case SnmpEventImmChange:
      return StateTransition::change(FmStateIdIMMUpdating, ReloadReason);
    case SnmpEventTrapReceived:
      return StateTransition::handled();
    case SnmpEventBootCountMismatch:
      owner.getConfigurator().invalidate();
      return StateTransition::change(FmStateIdConfigureAgentX, "Boot count missmatch, will reconfigure...");
    case SnmpEventNoContact:
      return StateTransition::change(FmStateIdCreateSession, "No contact to the master agent");
    case SnmpEventRestart:
      return StateTransition::change(FmStateIdStartMasterAgent, RestartReason);
    default:
      return {};
  }
}

StateTransition FmStateIdleEnabled::onUpdate(SnmpAdaptorRunnable& owner) {
  StateTransition transition;
  if (hasPassed(_lastTargetCheck, TargetCheckAfter) &&
      !owner.getConfigurator().getCurrentConfig().allTargetsOperational()) {
    _lastTargetCheck = SnmpUtil::getNow();
    transition = StateTransition::change(FmStateIdRetryConfigureTargets, NotAllTargetsReason);
  }
  completeMarking(owner);
  owner.sendQueuedAlarms(QueuedAlarmsPerUpdate);
  return transition;
}

void FmStateIdleEnabled::completeMarking(SnmpAdaptorRunnable& owner) {
  if (!owner.getDscpRuleHandler().isNameMissing() || !hasPassed(_lastMarking, TargetCheckAfter)) return;
  _lastMarking = SnmpUtil::getNow();
  owner.getDscpRuleHandler().setFmRule(owner.getConfigurator().getCurrentConfig());
}

void FmStateIdleEnabled::run() {
  const std::unique_ptr<SnmpMaSession> session = SnmpMaSession::create();
  session->setInterrupt(getReadFD());
  if (!createSession(*session)) return;
  bool hasFailed = false;
  while (!checkIfSocketClosed(_pollInterval)) {
    try {
      if (getOwner().getConfigurator().checkEngineBootCount(*session)) {
        report(SnmpEventBootCountMismatch);
        return;
      }
      hasFailed = false;
    } catch (const Vela::VelaException& ex) {
      if (hasFailed) {
        VELA_LOG(Vela::LogWarning, "Exception thrown :%s (probably no contact to the master agent)", ex.what());
        report(SnmpEventNoContact);
        return;
      }
      hasFailed = true;
    }
  }
}

void FmStateIdleEnabled::report(SnmpEvent event) const {
  // Once the state is left, the event would concern a master agent that is being configured anew already.
  if (!checkIfSocketClosed(0)) getOwner().emitEvent(event);
}

bool FmStateIdleEnabled::createSession(SnmpMaSession& session) const {
  for (int attempt = 1;; ++attempt) {
    try {
      FmStateCreateSession::open(getOwner(), session);
      return true;
    } catch (const Vela::VelaException& ex) {
      if (attempt == SupervisionSessionAttempts) {
        VELA_LOG(Vela::LogError, "Failed to create snmp session: %s", ex.what());
        report(SnmpEventNoContact);
        return false;
      }
    }
    if (checkIfSocketClosed(SessionRetryDelay)) return false;
  }
}

bool FmStateIdleEnabled::checkIfSocketClosed(unsigned long long timeoutMs) const {
  pollfd pipe = {getReadFD(), POLLIN, 0};
  const int result = poll(&pipe, 1, static_cast<int>(std::min(timeoutMs, MaxPollInterval)));
  if (result == 0) return false;
  VELA_TRACE("socket closed (%d), will exit thread", result);
  return true;
}

unsigned int FmStateIdleError::numReconfigAttempts = 0;
unsigned long long FmStateIdleError::_lastAttemptedTime = 0;

FmStateIdleError::FmStateIdleError(SnmpAdaptorRunnable& owner) {
  constexpr const char* State = "StateIdleError";
  _lastAttemptedTime = SnmpUtil::getNow();
  owner.closeListener();
  guardedEntry(State, [&] { owner.stopMasterAgent(); });
  guardedEntry(State, [&] { owner.onReconfigFail(); });
}

StateTransition FmStateIdleError::onEvent(SnmpAdaptorRunnable&, SnmpEvent event) {
  switch (event) {
    case SnmpEventImmChange:
      return StateTransition::change(FmStateIdIMMUpdating, ReloadReason);
    case SnmpEventTrapReceived:
      return StateTransition::handled();
    case SnmpEventRestart:
      return StateTransition::change(FmStateIdStartMasterAgent, RestartReason);
    default:
      return {};
  }
}

unsigned long long FmStateIdleError::getRetryInterval() const {
  return FirstRetryInterval << std::min(numReconfigAttempts, MaxRetryIntervalShift);
}

StateTransition FmStateIdleError::onUpdate(SnmpAdaptorRunnable& owner) {
  if (hasPassed(_lastAttemptedTime, getRetryInterval())) {
    ++numReconfigAttempts;
    _lastAttemptedTime = SnmpUtil::getNow();
    return StateTransition::change(FmStateIdLoadConfigurationData, "retrying");
  }
  if (numReconfigAttempts > AttemptsUntilQueueIsDropped) owner.clearQueuedAlarms();
  return StateTransition::handled();
}

FmStateShutdown::FmStateShutdown(SnmpAdaptorRunnable& owner) {
  // The stop has ended the tool that was running; the one that stops the master agent has to run.
  owner.resetToolCancellation();
  owner.stopMasterAgent();
  owner.getDscpRuleHandler().removeCmRule();
  owner.getDscpRuleHandler().removeFmRule();
  owner.setRunning(false);
}

StateTransition FmStateShutdown::onEvent(SnmpAdaptorRunnable&, SnmpEvent) { return StateTransition::handled(); }

StateTransition FmStateShutdown::onUpdate(SnmpAdaptorRunnable&) { return StateTransition::handled(); }

}  // namespace VelaFmSnmp
