#ifndef VELA_FM_SNMP_SNMP_ADAPTOR_RUNNABLE_H
#define VELA_FM_SNMP_SNMP_ADAPTOR_RUNNABLE_H

#include <Poco/AutoPtr.h>
#include <Poco/Runnable.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "AgentXSubAgent.h"
#include "InternalCommunity.h"
#include "Listener.h"
#include "MoConnector.h"
#include "NotificationQueue.h"
#include "ScriptWrapper.h"
#include "SnmpDscpRuleHandler.h"
#include "SnmpMaConfigurator.h"
#include "SnmpMaSession.h"
#include "SnmpMessages.h"
#include "SnmpTypes.h"
#include "StateMachine.h"
#include "ThreadWPipes.h"
#include "VelaMgmtSpi.h"

namespace VelaFmSnmp {

class SnmpConfigHandler;
class SnmpTarnWrapper;

/**
 * Body of the adaptor thread, on which all SNMP work happens: it waits for messages, requests of the master agent and
 * the internal listener, steps the adaptor's states, and hands notifications to the master agent or keeps them while
 * that one is not ready.
 *
 * Everything is for the adaptor thread, except where said: before the thread runs, the component prepares the object on
 * the framework's life-cycle thread; stop, isRunning, isStopping, reconfigureSnmpMaster, triggerMasterAgentRestart,
 * handleCmEvent and emitEvent are for any thread.
 */
class SnmpAdaptorRunnable : public Poco::Runnable, public StateMachine<SnmpAdaptorRunnable, SnmpEvent> {
 public:
  /** Registers the states and enters the first. The thread whose input is read outlives this object. */
  explicit SnmpAdaptorRunnable(Vela::ThreadWPipes& input);
  ~SnmpAdaptorRunnable() override;

  /** Before the thread starts. */
  void setFmBaseDn(const std::string& dn) { _fmBaseDn = dn; }
  void setSnmpBaseDn(const std::string& dn) { _snmpBaseDn = dn; }
  void setConfigurationHandler(SnmpConfigHandler* handler); /**< not owned; may be null */
  /** Makes the object ready for a run of the thread. A failure is logged and thrown on. */
  void prepareForStart(VelaMgmtSpiInterfacePortal_1T* portal);
  /** Replaces the sub-agent, the edge to the agent library. For tests, before the thread starts. */
  void setSubAgent(std::unique_ptr<AgentXSubAgent> subAgent);

  /** The thread's body: returns when the shutdown state has cleared the running flag. */
  void run() override;

  bool isRunning() const { return _running; }
  virtual void setRunning(bool running) { _running = running; }
  bool isStopping() const { return _stopping; }
  /** Asks the adaptor to shut down and ends what it is waiting for: a tool, or the master agent. Returns at once. */
  void stop();

  /** Each posts "the configuration changed". */
  void reconfigureSnmpMaster() { triggerMasterAgentRestart(); }
  void triggerMasterAgentRestart() { emitEvent(SnmpEventImmChange); }
  void handleCmEvent() { emitEvent(SnmpEventImmChange); }

  /** Whether notifications may go out: the adaptor is in "IdleEnabled". */
  bool isOperational() const { return getStateId() == FmStateIdIdleEnabled; }

  // The queue of notifications that wait for the master agent.
  virtual bool hasQueuedAlarms() const { return _queue->hasHeld(); }
  /** While operational, hands at most so many over, oldest first. */
  virtual void sendQueuedAlarms(int count);
  /** Sends the oldest as a probe, once everything older is on its way; it stays queued until the internal listener
      receives it. False when there was nothing to send. What has no form on the wire leaves the queue. */
  virtual bool trySendOneQueuedAlarm() { return _queue->sendProbe(); }
  /** Drops what waits for the adaptor to become operational. */
  virtual void clearQueuedAlarms() { _queue->dropHeld(); }
  /** Drops what was handed over: what is due, and what would become due again. */
  virtual void clearHandover() { _queue->dropDue(); }

  // The master agent.
  /** From now on in this run there is a master agent for the sub-agent to attach to. */
  virtual void masterAgentStarted() { _masterAgentStarted = true; }
  /** Attaches the sub-agent anew; before a master agent was started in this run, or without a socket path, it is only
      closed. Throws Vela::VelaException (code 1) when it cannot attach. */
  virtual void initSubAgentAfterRestart();
  virtual void closeAgentxSession();
  /** Whether the sub-agent's connection is open. */
  virtual bool isSubAgentActive() const;
  /** Closes everything towards the master agent and stops it. A failure is logged only. */
  virtual void stopMasterAgent();
  /** Lets tools run again after stop has ended them. */
  virtual void resetToolCancellation() { _toolCancellation.reset(); }
  virtual void onReconfigSuccess();
  virtual void onReconfigFail();
  /** The notification target that is the adaptor's own listener, which is opened if it is not (address family of the
      system: AF_INET6, everything else IPv4). Throws Vela::VelaException. Valid until the next call. */
  virtual const SnmpBaseTarget& getInternalTrapTarget(int ipFamily);
  /** Before the internal target is written to the agent; see InternalCommunity. */
  void agreeOnInternalCommunity() { _internalCommunity.agreeOn(getMaSession()); }
  virtual void closeListener() { _listener.close(); }

  // What the states work with.
  virtual SnmpTarnWrapper& getTarnWrapper(); /**< throws Vela::VelaException without a configuration handler */
  virtual SnmpMaSession& getMaSession();
  virtual SnmpMaConfigurator& getConfigurator() { return _configurator; }
  virtual MoConnector& getMoConnector() { return _connector; }
  virtual SnmpDscpRuleHandler& getDscpRuleHandler() { return _dscpRuleHandler; }
  virtual SnmpConfigHandler* getConfigurationHandler() { return _configurationHandler; }
  Listener& getListener() { return _listener; }
  SnmpConfig& getNewConfig() { return _newConfig; }
  /** Completes the new configuration with the static TLS settings. */
  virtual void getStaticTlsConfiguration();
  bool isDtlsSupported() const { return _dtlsSupported; }
  void setDtlsSupported(bool supported) { _dtlsSupported = supported; }
  bool isExactEngineIdSupported() const { return _exactEngineIdSupported; }
  void setExactEngineIdSupported(bool supported) { _exactEngineIdSupported = supported; }
  const std::string& getFmBaseDn() const { return _fmBaseDn; }
  const std::string& getSnmpBaseDn() const { return _snmpBaseDn; }

  StateTransition onUnhandledEvent(SnmpEvent event) override;

  /** Sends what is due and has room, if the master agent is configured, and takes the acknowledgements that arrived. */
  void pumpNotifications();

  /** Handles messages in their order; an exception concerns its own message only and is logged. */
  void handleMessages(std::vector<std::unique_ptr<Vela::PipeMessage>> messages);

 private:
  struct Descriptors;

  void selectLoop(int pipeFD);
  /** One pass of the loop. */
  void runPass(int pipeFD, Descriptors& descriptors, unsigned long long& lastUpdate, int& stepTimeout);
  void handleReadyDescriptors(int pipeFD, int securityFD, Descriptors& descriptors);
  bool isStepDue(unsigned long long lastUpdate, int stepTimeout) const;
  void handleSelectTimeout(unsigned long long& lastUpdate, int& stepTimeout);

  void handleMessage(std::unique_ptr<Vela::PipeMessage> message);
  void handleAlarm(std::unique_ptr<Vela::PipeMessage> message);
  void handleHeartbeat(std::unique_ptr<Vela::PipeMessage> message);
  void handleAlarmListRebuilt(std::unique_ptr<Vela::PipeMessage> message);
  void handleStateChange(VelaStateChangeReason reason);
  void handleTraplistener();

  /** Hands a notification over if the current configuration has a target. */
  void send(std::unique_ptr<Vela::PipeMessage> message);
  bool isSubAgentWanted() const;
  void noticeStateChange();
  /** Reports a connection that is gone, once per stay in a state, and makes the next step due. */
  void superviseSubAgent(int& stepTimeout);
  void leaveSnapshot();

  Vela::ThreadWPipes& _input;
  std::atomic<bool> _running{false};
  std::atomic<bool> _stopping{false};
  std::atomic<bool> _inLoop{false};
  int _wakeFD = -1; /**< readable once stop was called */

  SnmpConfigHandler* _configurationHandler = nullptr;
  VelaMgmtSpiInterfacePortal_1T* _portal = nullptr;
  std::string _fmBaseDn;
  std::string _snmpBaseDn;
  bool _dtlsSupported = false;
  bool _exactEngineIdSupported = false;
  bool _securityLibraryInUse = false; /**< its descriptor is watched */
  bool _masterAgentStarted = false;
  bool _isSnapshotProvider = false;

  Vela::ScriptCancellation _toolCancellation;
  MoConnector _connector;
  SnmpMaConfigurator _configurator;
  std::unique_ptr<SnmpMaSession> _session;
  SnmpDscpRuleHandler _dscpRuleHandler;
  SnmpConfig _newConfig;
  Listener _listener;
  InternalCommunity _internalCommunity;
  Poco::AutoPtr<SnmpTargetV2C> _internalTarget;

  std::unique_ptr<AgentXSubAgent> _subAgent;
  std::unique_ptr<NotificationQueue> _queue;

  int _supervisedState = -1;
  bool _lossReported = false; /**< in the present stay in a state */
  unsigned long long _lastRestartRequest = 0;
};

}  // namespace VelaFmSnmp
#endif
