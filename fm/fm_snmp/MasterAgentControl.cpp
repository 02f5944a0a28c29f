#include "MasterAgentControl.h"

#include <utility>

#include "AlarmScalars.h"
#include "LoggingWrapper.h"
#include "SnmpConfigHandler.h"
#include "SnmpTarnWrapper.h"
#include "SnmpUtil.h"
#include "VelaException.h"
#include "kavrelAlarmMIB.h"

namespace VelaFmSnmp {

namespace {

/** Milliseconds. */
constexpr int StopTimeout = 15000;
/** A master agent that goes away again and again while it is being verified is not restarted more often. */
constexpr unsigned long long RestartRequestInterval = 30000;

void initSubAgentHandlers() {
  AlarmScalars::getInstance().initHandlers();
  init_kavrelAlarmMIB();
}

}  // namespace

MasterAgentControl::MasterAgentControl(int interruptFD)
    : _interruptFD(interruptFD), _subAgent(std::make_unique<AgentXSubAgent>()) {}

MasterAgentControl::~MasterAgentControl() { setConfigurationHandler(nullptr); }

void MasterAgentControl::setConfigurationHandler(SnmpConfigHandler* handler) {
  if (_configurationHandler) _configurationHandler->getTarnWrapper().setCancellation(nullptr);
  _configurationHandler = handler;
  if (_configurationHandler) _configurationHandler->getTarnWrapper().setCancellation(&_toolCancellation);
}

void MasterAgentControl::beginRun() {
  _isStarted = false;
  _toolCancellation.reset();
  _subAgent->resume();
}

SnmpTarnWrapper& MasterAgentControl::getTarnWrapper() const {
  if (!_configurationHandler) throw Vela::VelaException("there is no component configuration");
  return _configurationHandler->getTarnWrapper();
}

SnmpMaSession& MasterAgentControl::getSession() {
  if (!_session) {
    _session = SnmpMaSession::create();
    _session->setInterrupt(_interruptFD);
  }
  return *_session;
}

bool MasterAgentControl::isSubAgentWanted() const {
  return _isStarted && _configurationHandler && !_configurationHandler->getSnmpMasterAgentAgentxSocket().empty();
}

void MasterAgentControl::attachSubAgent() {
  AgentXSubAgent::Settings settings;
  settings.socket = _configurationHandler->getSnmpMasterAgentAgentxSocket();
  settings.pingInterval = _configurationHandler->getAgentxPingInterval();
  settings.timeout = _configurationHandler->getAgentxTimeout();
  settings.retries = _configurationHandler->getAgentxRetries();
  if (!_subAgent->attach(settings, initSubAgentHandlers)) throw Vela::VelaException(1, "Failed to initialize netsnmp");
}

void MasterAgentControl::stop() { getTarnWrapper().manage(TarnManageStop, StopTimeout); }

std::optional<SnmpEvent> MasterAgentControl::superviseSubAgent(int state, const char* stateName) {
  if (state != _supervisedState) _lossReported = false;
  _supervisedState = state;
  const bool isResting = state == FmStateIdIdleEnabled || state == FmStateIdPostConfigure;
  if (!isResting || !isSubAgentWanted() || _subAgent->isAttached() || _lossReported) return std::nullopt;
  _lossReported = true;
  VELA_LOG(Vela::LogWarning, "[state %s] the AgentX connection to the master agent is closed", stateName);
  // One that hangs would only be waited for again when the adaptor attached to it anew. That it hangs is remembered
  // until something is done about it.
  if (state == FmStateIdIdleEnabled) return _subAgent->takeMute() ? SnmpEventNoContact : SnmpEventBootCountMismatch;
  const unsigned long long now = SnmpUtil::getNow();
  if (_lastRestartRequest != 0 && now - _lastRestartRequest < RestartRequestInterval) return std::nullopt;
  _subAgent->takeMute();
  _lastRestartRequest = now;
  return SnmpEventRestart;
}

}  // namespace VelaFmSnmp
