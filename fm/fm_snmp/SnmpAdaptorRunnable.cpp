#include "SnmpAdaptorRunnable.h"

#include <Poco/Exception.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "AlarmScalars.h"
#include "LoggingWrapper.h"
#include "NetSnmpLock.h"
#include "SecApi.h"
#include "SnmpAlarmSnapshot.h"
#include "SnmpConfigHandler.h"
#include "SnmpStateMachine.h"
#include "SnmpTarnWrapper.h"
#include "SnmpUtil.h"
#include "TarnSpi.h"
#include "VelaException.h"
#include "kavrelAlarmMIB.h"

namespace VelaFmSnmp {

namespace {

/** Milliseconds. */
constexpr int StopMasterAgentTimeout = 15000;
/** A master agent that goes away again and again while it is being verified is not restarted more often. */
constexpr unsigned long long RestartRequestInterval = 30000;

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

void initSubAgentHandlers() {
  AlarmScalars::getInstance().initHandlers();
  init_kavrelAlarmMIB();
}

/** Writing to a closed AgentX connection raises SIGPIPE, which would end the host; without the signal it is an error.
 */
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

/** A set of descriptors of any number, and the count that select wants. */
struct SnmpAdaptorRunnable::Descriptors {
  Descriptors() { netsnmp_large_fd_set_init(&set, FD_SETSIZE); }
  ~Descriptors() { netsnmp_large_fd_set_cleanup(&set); }
  Descriptors(const Descriptors&) = delete;
  Descriptors& operator=(const Descriptors&) = delete;

  void clear() {
    NETSNMP_LARGE_FD_ZERO(&set);
    count = 0;
  }
  void add(int descriptor) {
    if (descriptor < 0) return;
    NETSNMP_LARGE_FD_SET(descriptor, &set);
    count = std::max(count, descriptor + 1);
  }
  bool contains(int descriptor) { return descriptor >= 0 && NETSNMP_LARGE_FD_ISSET(descriptor, &set); }

  netsnmp_large_fd_set set;
  int count = 0;
};

SnmpAdaptorRunnable::SnmpAdaptorRunnable(Vela::ThreadWPipes& input)
    : StateMachine(*this), _input(input), _wakeFD(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (_wakeFD < 0) throw Vela::VelaException("eventfd failed: %s", std::strerror(errno));
  setSubAgent(std::make_unique<AgentXSubAgent>());
  _dscpRuleHandler.setCancellation(&_toolCancellation);
  registerAdaptorStates(*this);
  changeState(FmStateIdOneTimeInit);
}

SnmpAdaptorRunnable::~SnmpAdaptorRunnable() {
  if (!_inLoop) leaveState();
  leaveSnapshot();
  setConfigurationHandler(nullptr);
  ::close(_wakeFD);
}

void SnmpAdaptorRunnable::setSubAgent(std::unique_ptr<AgentXSubAgent> subAgent) {
  _queue.reset();
  _subAgent = std::move(subAgent);
  _queue = std::make_unique<NotificationQueue>(*_subAgent);
}

void SnmpAdaptorRunnable::setConfigurationHandler(SnmpConfigHandler* handler) {
  if (_configurationHandler) _configurationHandler->getTarnWrapper().setCancellation(nullptr);
  _configurationHandler = handler;
  if (_configurationHandler) _configurationHandler->getTarnWrapper().setCancellation(&_toolCancellation);
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
    _subAgent->presetLibrary();
    getMoConnector().init(portal);
    _masterAgentStarted = false;
    initSubAgentAfterRestart();
    // A stop that met the end of the previous run left its event behind.
    discardEvents();
    _toolCancellation.reset();
    _subAgent->resume();
    std::uint64_t wakeUps = 0;
    static_cast<void>(!::read(_wakeFD, &wakeUps, sizeof wakeUps));
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
    selectLoop(_input.getInputReadFD());
    _inLoop = false;
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Caught exception during fm-snmp comp run: %s.", ex.what());
    std::abort();
  } catch (...) {
    VELA_LOG(Vela::LogError, "Caught exception ... during fm-snmp comp run");
    std::abort();
  }
}

void SnmpAdaptorRunnable::selectLoop(int pipeFD) {
  VELA_TRACE("Starting the select loop.");
  int stepTimeout = 0;
  unsigned long long lastUpdate = SnmpUtil::getNow();
  initSubAgentAfterRestart();
  changeState(FmStateIdOneTimeInit);
  try {
    Descriptors descriptors;
    while (_running) runPass(pipeFD, descriptors, lastUpdate, stepTimeout);
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

void SnmpAdaptorRunnable::runPass(int pipeFD, Descriptors& descriptors, unsigned long long& lastUpdate,
                                  int& stepTimeout) {
  timeval timeout = {stepTimeout / 1000, (stepTimeout % 1000) * 1000L};
  descriptors.clear();
  if (isSubAgentActive()) _subAgent->addDescriptors(descriptors.count, descriptors.set, timeout);
  descriptors.add(pipeFD);
  descriptors.add(_wakeFD);
  if (_listener.isOpen()) descriptors.add(_listener.getFD());
  const int securityFD = _securityLibraryInUse ? Vela::SecApi::getInstance().getDescriptor() : -1;
  descriptors.add(securityFD);

  int ready = 0;
  if (_stopping) {
    leaveSnapshot();
  } else {
    const NetSnmpUnlock unlock;
    ready = netsnmp_large_fd_set_select(descriptors.count, &descriptors.set, nullptr, nullptr, &timeout);
    if (ready < 0) {
      VELA_LOG(Vela::LogError, "select() returned an error: %s", std::strerror(errno));
      return;
    }
  }
  if (ready > 0) handleReadyDescriptors(pipeFD, securityFD, descriptors);
  if (ready == 0 || isStepDue(lastUpdate, stepTimeout)) handleSelectTimeout(lastUpdate, stepTimeout);
  if (isSubAgentActive() && !_stopping) _subAgent->checkOutstandingRequests();
  pumpNotifications();
  noticeStateChange();
  superviseSubAgent(stepTimeout);
}

void SnmpAdaptorRunnable::handleReadyDescriptors(int pipeFD, int securityFD, Descriptors& descriptors) {
  if (descriptors.contains(pipeFD)) handleMessages(_input.popFromInput());
  if (_listener.isOpen() && descriptors.contains(_listener.getFD())) handleTraplistener();
  if (descriptors.contains(securityFD) && Vela::SecApi::getInstance().dispatch()) emitEvent(SnmpEventImmChange);
  if (isSubAgentActive()) _subAgent->read(descriptors.set);
}

bool SnmpAdaptorRunnable::isStepDue(unsigned long long lastUpdate, int stepTimeout) const {
  const unsigned long long now = SnmpUtil::getNow();
  return _stopping || now < lastUpdate || now - lastUpdate >= static_cast<unsigned long long>(stepTimeout);
}

void SnmpAdaptorRunnable::handleSelectTimeout(unsigned long long& lastUpdate, int& stepTimeout) {
  if (isSubAgentActive() && !_stopping) _subAgent->runTimers();
  const unsigned long long now = SnmpUtil::getNow();
  if (now < lastUpdate) {
    VELA_LOG(Vela::LogInfo, "Detected change in the system time resetting the stateMachine update time");
    lastUpdate = now - static_cast<unsigned long long>(stepTimeout);
  }
  if (!isStepDue(lastUpdate, stepTimeout)) return;
  lastUpdate = now;
  stepTimeout = updateStateMachine();
  if (!_stopping && _configurator.areStatesOverdue()) _configurator.updateAllOperationalStates(getMoConnector());
}

void SnmpAdaptorRunnable::noticeStateChange() {
  if (getStateId() == _supervisedState) return;
  _supervisedState = getStateId();
  _lossReported = false;
  // The library may become usable while the adaptor runs; it matters when the configuration is read.
  if (!_securityLibraryInUse && _supervisedState == FmStateIdLoadConfigurationData) {
    _securityLibraryInUse = Vela::SecApi::getInstance().isAvailable();
  }
}

void SnmpAdaptorRunnable::superviseSubAgent(int& stepTimeout) {
  const bool isResting = isOperational() || getStateId() == FmStateIdPostConfigure;
  if (!isResting || !isSubAgentWanted() || isSubAgentActive() || _lossReported || _stopping) return;
  _lossReported = true;
  VELA_LOG(Vela::LogWarning, "[state %s] the AgentX connection to the master agent is closed",
           getStateName(getStateId()));
  const unsigned long long now = SnmpUtil::getNow();
  // One that hangs would only be waited for again when the adaptor attached to it anew.
  const bool isMute = _subAgent->takeMute();
  if (isOperational()) {
    emitEvent(isMute ? SnmpEventNoContact : SnmpEventBootCountMismatch);
  } else if (_lastRestartRequest == 0 || now - _lastRestartRequest >= RestartRequestInterval) {
    emitEvent(SnmpEventRestart);
    _lastRestartRequest = now;
  }
  stepTimeout = 0;
}

void SnmpAdaptorRunnable::leaveSnapshot() {
  if (_isSnapshotProvider) SnmpAlarmSnapshot::getInstance().setDataProvider(nullptr);
  _isSnapshotProvider = false;
}

void SnmpAdaptorRunnable::stop() {
  if (_stopping.exchange(true)) return;
  // Before the event, because the state that it leads to lets tools run again.
  _toolCancellation.cancel();
  replaceEvents(SnmpEventTerminate);
  _subAgent->interrupt();
  const std::uint64_t wakeUp = 1;
  static_cast<void>(!::write(_wakeFD, &wakeUp, sizeof wakeUp));
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
  if (alarm.isStateful()) SnmpAlarmSnapshot::getInstance().invalidateSnapshot();
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

bool SnmpAdaptorRunnable::isSubAgentWanted() const {
  return _masterAgentStarted && _configurationHandler &&
         !_configurationHandler->getSnmpMasterAgentAgentxSocket().empty();
}

bool SnmpAdaptorRunnable::isSubAgentActive() const { return _subAgent->isAttached(); }

void SnmpAdaptorRunnable::initSubAgentAfterRestart() {
  closeAgentxSession();
  if (!isSubAgentWanted()) return;
  AgentXSubAgent::Settings settings;
  settings.socket = _configurationHandler->getSnmpMasterAgentAgentxSocket();
  settings.pingInterval = _configurationHandler->getAgentxPingInterval();
  settings.timeout = _configurationHandler->getAgentxTimeout();
  settings.retries = _configurationHandler->getAgentxRetries();
  const bool isAttached = _subAgent->attach(settings, initSubAgentHandlers);
  getConfigurator().invalidate();
  if (!isAttached) throw Vela::VelaException(1, "Failed to initialize netsnmp");
}

void SnmpAdaptorRunnable::closeAgentxSession() {
  _subAgent->close();
  _queue->onConnectionLost();
}

void SnmpAdaptorRunnable::stopMasterAgent() {
  try {
    closeAgentxSession();
    getMaSession().close();
    getConfigurator().invalidate();
    getTarnWrapper().manage(TarnManageStop, StopMasterAgentTimeout);
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

SnmpTarnWrapper& SnmpAdaptorRunnable::getTarnWrapper() {
  if (!_configurationHandler) throw Vela::VelaException("there is no component configuration");
  return _configurationHandler->getTarnWrapper();
}

SnmpMaSession& SnmpAdaptorRunnable::getMaSession() {
  if (!_session) {
    _session = SnmpMaSession::create();
    _session->setInterrupt(_wakeFD);
  }
  return *_session;
}

void SnmpAdaptorRunnable::getStaticTlsConfiguration() {
  if (_configurationHandler) _configurationHandler->getStaticTlsConfig(_newConfig);
}

}  // namespace VelaFmSnmp
