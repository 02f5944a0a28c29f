#include "SnmpAdaptorRunnable.h"

#include <Poco/Exception.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "AlarmScalars.h"
#include "LoggingWrapper.h"
#include "NetSnmpLock.h"
#include "SecApi.h"
#include "SnmpAlarmSnapshot.h"
#include "SnmpConfigHandler.h"
#include "SnmpStateMachine.h"
#include "TarnSpi.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

constexpr const char* InternalTargetName = "DummyTarget";
constexpr const char* InternalSecurityName = Vela::TarnSpi::InternalSecurityName;

/** The adaptor's own listener as a notification target; it belongs to no object of the model. */
class InternalTarget : public SnmpTargetV2C {
 public:
  using SnmpTargetV2C::operator=;
  std::string getSecurityName() const override { return InternalSecurityName; }

 protected:
  ~InternalTarget() override = default;
};

/** Writing to a closed AgentX connection raises SIGPIPE, which would end the host; without the signal it is an error.
 */
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

SnmpAdaptorRunnable::SnmpAdaptorRunnable(Vela::ThreadWPipes& input)
    : StateMachine(*this),
      _input(input),
      _loop([this] { return step(); }),
      _master(_loop.getWakeFD()),
      _queue(std::make_unique<NotificationQueue>(_master.getSubAgent())) {
  _dscpRuleHandler.setCancellation(&_master.getToolCancellation());
  serveDescriptors();
  registerAdaptorStates(*this);
  changeState(FmStateIdOneTimeInit);
}

SnmpAdaptorRunnable::~SnmpAdaptorRunnable() {
  if (!_inLoop) leaveState();
  leaveSnapshot();
}

void SnmpAdaptorRunnable::serveDescriptors() {
  _loop.serve([this] { return _input.getInputReadFD(); }, [this] { handleMessages(_input.popFromInput()); });
  _loop.serve([this] { return _listener.getFD(); }, [this] { handleTraplistener(); });
  _loop.serve([this] { return _securityLibraryInUse ? Vela::SecApi::getInstance().getDescriptor() : -1; },
              [this] {
                if (Vela::SecApi::getInstance().dispatch()) emitEvent(SnmpEventImmChange);
              });
}

void SnmpAdaptorRunnable::setSubAgent(std::unique_ptr<AgentXSubAgent> subAgent) {
  _queue.reset();
  _master.setSubAgent(std::move(subAgent));
  _queue = std::make_unique<NotificationQueue>(_master.getSubAgent());
}

void SnmpAdaptorRunnable::setConfigurationHandler(SnmpConfigHandler* handler) {
  _configurationHandler = handler;
  _master.setConfigurationHandler(handler);
  _configurator.setConfigurationHandler(handler);
}

void SnmpAdaptorRunnable::prepareForStart(VelaMgmtSpiInterfacePortal_1T* portal) {
  try {
    if (_inLoop) throw Vela::VelaException("the adaptor thread of the previous run has not ended");
    if (!_configurationHandler) throw Vela::VelaException("there is no component configuration");
    _portal = portal;
    const NetSnmpLock lock;
    SnmpAlarmSnapshot::getInstance().setDataProvider(&getMoConnector());
    _isSnapshotProvider = true;
    AlarmScalars::getInstance().init(&getMoConnector());
    _master.getSubAgent().presetLibrary();
    getMoConnector().init(portal);
    _master.beginRun();
    initSubAgentAfterRestart();
    // A stop that met the end of the previous run left its event behind.
    discardEvents();
    _loop.begin();
    _stopping = false;
    _running = true;
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Caught exception during fm comp start: %s.", ex.what());
    throw;
  }
}

// --- The thread and its loop ---------------------------------------------------------------------------------------

void SnmpAdaptorRunnable::run() {
  blockBrokenPipeSignal();
  const NetSnmpLock lock;
  try {
    _inLoop = true;
    selectLoop();
    _inLoop = false;
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Caught exception during fm-snmp comp run: %s.", ex.what());
    std::abort();
  } catch (...) {
    VELA_LOG(Vela::LogError, "Caught exception ... during fm-snmp comp run");
    std::abort();
  }
}

void SnmpAdaptorRunnable::selectLoop() {
  VELA_TRACE("Starting the select loop.");
  initSubAgentAfterRestart();
  changeState(FmStateIdOneTimeInit);
  try {
    while (_running) runPass();
  } catch (const Vela::VelaException& ex) {
    VELA_LOG(Vela::LogError, "FATAL VelaException: %s", ex.what());
  } catch (const Poco::Exception& ex) {
    VELA_LOG(Vela::LogError, "FATAL Poco Exception: %s", ex.displayText().c_str());
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "FATAL Std Exception: %s", ex.what());
  } catch (...) {
    VELA_LOG(Vela::LogError, "FATAL unknown exception!");
  }
  VELA_TRACE("Select loop terminated.");
  // An exception leaves a state behind, whose supervision would go on.
  leaveState();
  getMaSession().close();
  closeAgentxSession();
  _connector.endTemporarySubscriptions();
  leaveSnapshot();
  const std::size_t unsent = _queue->size();
  if (unsent > 0)
    VELA_LOG(Vela::LogWarning, "stopped with %zu notifications that were not sent or not acknowledged", unsent);
}

void SnmpAdaptorRunnable::runPass() {
  if (_stopping) leaveSnapshot();
  if (!_loop.pass(_master.getSubAgent(), _stopping)) return;
  pumpNotifications();
  watchSecurityLibrary();
  superviseSubAgent();
}

int SnmpAdaptorRunnable::step() {
  const int delay = updateStateMachine();
  if (!_stopping && _configurator.areStatesOverdue()) _configurator.updateAllOperationalStates(getMoConnector());
  return delay;
}

void SnmpAdaptorRunnable::watchSecurityLibrary() {
  // It may become usable while the adaptor runs; it matters when the configuration is read.
  if (!_securityLibraryInUse && getStateId() == FmStateIdLoadConfigurationData) {
    _securityLibraryInUse = Vela::SecApi::getInstance().isAvailable();
  }
}

void SnmpAdaptorRunnable::superviseSubAgent() {
  if (_stopping) return;
  const int state = getStateId();
  if (const auto event = _master.superviseSubAgent(state, state < 0 ? "" : getStateName(state))) {
    emitEvent(*event);
    _loop.stepSoon();
  }
}

void SnmpAdaptorRunnable::leaveSnapshot() {
  if (_isSnapshotProvider) SnmpAlarmSnapshot::getInstance().setDataProvider(nullptr);
  _isSnapshotProvider = false;
}

void SnmpAdaptorRunnable::stop() {
  if (_stopping.exchange(true)) return;
  // Before the event, because the state that it leads to lets tools run again.
  _master.cancelTools();
  replaceEvents(SnmpEventTerminate);
  _master.interruptSubAgent();
  _loop.wake();
}

StateTransition SnmpAdaptorRunnable::onUnhandledEvent(SnmpEvent event) {
  if (event == SnmpEventTerminate) return StateTransition::change(FmStateIdShutdown, "got terminate event!");
  if (event == SnmpEventTrapReceived) return StateTransition::handled();
  return {};
}

// --- Messages ------------------------------------------------------------------------------------------------------

void SnmpAdaptorRunnable::handleMessages(std::vector<std::unique_ptr<Vela::PipeMessage>> messages) {
  VELA_TRACE(" >> ");
  for (std::unique_ptr<Vela::PipeMessage>& message : messages) {
    const int type = message->getMessageType();
    try {
      handleMessage(std::move(message));
    } catch (const std::exception& ex) {
      VELA_LOG(Vela::LogError, "exception caught while handling incoming message type %d, %s", type, ex.what());
    }
  }
  VELA_TRACE(" << ");
}

void SnmpAdaptorRunnable::handleMessage(std::unique_ptr<Vela::PipeMessage> message) {
  switch (message->getMessageType()) {
    case SnmpMessageStateChange:
      handleStateChange(static_cast<const SnmpStateChangeMessage&>(*message).getReason());
      break;
    case SnmpMessageCmEvent:
      handleCmEvent();
      break;
    case SnmpMessageAlarm:
      handleAlarm(std::move(message));
      break;
    case SnmpMessageHeartbeat:
      handleHeartbeat(std::move(message));
      break;
    case SnmpMessageAlarmListRebuilt:
      handleAlarmListRebuilt(std::move(message));
      break;
    default:
      VELA_LOG(Vela::LogWarning, "[libfm.so] -- FmCompRunnable::unknown message received");
  }
}

void SnmpAdaptorRunnable::handleAlarm(std::unique_ptr<Vela::PipeMessage> message) {
  const SnmpAlarm& alarm = static_cast<const SnmpAlarmMessage&>(*message).getAlarm();
  if (alarm.isStateful()) {
    constexpr DaxOamSpiNotificationFmSeverityT cleared = 0;
    SnmpAlarmSnapshot::getInstance().invalidateAlarm(alarm.getIndex(), alarm.getSeverity() == cleared);
  }
  if (!_queue->hasHeld() && isOperational()) {
    send(std::move(message));
    return;
  }
  if (getStateId() == FmStateIdIdleDisabled) return;
  VELA_LOG(Vela::LogWarning, "[state %s] queueing trap for %s: %s , QueueSize: %d", getStateName(getStateId()),
           alarm.isStateful() ? "alarm" : "alert", alarm.toString().c_str(), static_cast<int>(_queue->heldCount()));
  _queue->hold(std::move(message));
}

void SnmpAdaptorRunnable::handleHeartbeat(std::unique_ptr<Vela::PipeMessage> message) {
  const int state = getStateId();
  if (isOperational() || state == FmStateIdPostConfigure) {
    send(std::move(message));
  } else if (state != FmStateIdIdleDisabled && state != FmStateIdIdleError) {
    VELA_LOG(Vela::LogWarning, "[state %s] Not sending heartbeat", getStateName(state));
  }
}

void SnmpAdaptorRunnable::handleAlarmListRebuilt(std::unique_ptr<Vela::PipeMessage> message) {
  SnmpAlarmSnapshot::getInstance().invalidateSnapshot();
  const int state = getStateId();
  if (isOperational()) {
    send(std::move(message));
  } else if (state != FmStateIdIdleDisabled && state != FmStateIdIdleError) {
    VELA_LOG(Vela::LogWarning, "[state %s] queueing trap for alarmlistrebuilt", getStateName(state));
    _queue->hold(std::move(message));
  }
}

void SnmpAdaptorRunnable::handleStateChange(VelaStateChangeReason reason) {
  VELA_TRACE("Handling state change: %d", static_cast<int>(reason));
  switch (reason) {
    case VelaStateChangeActivate:
      VELA_TRACE("Activating SnmpAdaptorRunnable while it is active -- ignoring.");
      return;
    case VelaStateChangeDeactivate:
      VELA_TRACE("Deactivating SnmpAdaptorRunnable while it is active -- stopping.");
      break;
    case VelaStateChangeFailover:
      VELA_TRACE("Failing over SnmpAdaptorRunnable while it is active -- stopping.");
      break;
    case VelaStateChangeSwitchover:
      VELA_TRACE("Switching over SnmpAdaptorRunnable while it is active -- stopping.");
      break;
    default:
      return;
  }
  stop();
}

void SnmpAdaptorRunnable::handleTraplistener() {
  std::vector<unsigned char> datagram(Listener::maxDatagram);
  const int length = _listener.read(datagram.data(), static_cast<unsigned int>(datagram.size()));
  if (length <= 0 || getStateId() != FmStateIdPostConfigure) return;
  if (!_internalCommunity.isIn(datagram.data(), static_cast<std::size_t>(length))) return;
  if (_queue->confirmProbe(datagram.data(), static_cast<std::size_t>(length))) emitEvent(SnmpEventTrapReceived);
}

// --- Notifications -------------------------------------------------------------------------------------------------

void SnmpAdaptorRunnable::send(std::unique_ptr<Vela::PipeMessage> message) {
  if (!getConfigurator().getCurrentConfig().getTargets().empty()) _queue->add(std::move(message));
}

void SnmpAdaptorRunnable::pumpNotifications() {
  // What a master agent takes before its targets are written goes to nobody.
  if (getConfigurator().isConfigured()) {
    _queue->pump();
  } else {
    _queue->collect();
  }
}

void SnmpAdaptorRunnable::sendQueuedAlarms(int count) {
  if (isOperational()) _queue->release(count);
}

// --- The master agent ----------------------------------------------------------------------------------------------

void SnmpAdaptorRunnable::initSubAgentAfterRestart() {
  closeAgentxSession();
  if (!_master.isSubAgentWanted()) return;
  getConfigurator().invalidate();
  _master.attachSubAgent();
}

void SnmpAdaptorRunnable::closeAgentxSession() {
  _master.getSubAgent().close();
  _queue->onConnectionLost();
}

void SnmpAdaptorRunnable::stopMasterAgent() {
  try {
    closeAgentxSession();
    getMaSession().close();
    getConfigurator().invalidate();
    _master.stop();
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "stopMasterAgent caught exception: %s", ex.what());
  }
}

void SnmpAdaptorRunnable::onReconfigSuccess() {
  VELA_TRACE("Successfully reconfigured master agent");
  getConfigurator().updateAllOperationalStates(getMoConnector());
  if (getConfigurator().takeRestartWanted()) emitEvent(SnmpEventRestart);
}

void SnmpAdaptorRunnable::onReconfigFail() { getConfigurator().updateAllOperationalStates(getMoConnector()); }

const SnmpBaseTarget& SnmpAdaptorRunnable::getInternalTrapTarget(int ipFamily) {
  if (!_listener.isOpen()) _listener.open(ipFamily, 0);
  Poco::AutoPtr<SnmpTargetV2C> target(new InternalTarget);
  target->name = InternalTargetName;
  target->community = InternalSecurityName;
  target->address = _listener.getAddress();
  target->port = static_cast<std::uint32_t>(_listener.getPort());
  target->administrativeState = true;
  VELA_TRACE("dummy trap target: %s/%u", target->address.c_str(), target->port);
  _internalTarget = target;
  return *_internalTarget;
}

void SnmpAdaptorRunnable::getStaticTlsConfiguration() {
  if (_configurationHandler) _configurationHandler->getStaticTlsConfig(_newConfig);
}

}  // namespace VelaFmSnmp
