#ifndef VELA_FM_SNMP_SNMP_ADAPTOR_RUNNABLE_H
#define VELA_FM_SNMP_SNMP_ADAPTOR_RUNNABLE_H

#include <Poco/AutoPtr.h>
#include <Poco/Runnable.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "AdaptorLoop.h"
#include "InternalCommunity.h"
#include "Listener.h"
#include "MasterAgentControl.h"
#include "MoConnector.h"
#include "NotificationQueue.h"
#include "SnmpDscpRuleHandler.h"
#include "SnmpMaConfigurator.h"
#include "SnmpMessages.h"
#include "SnmpTypes.h"
#include "StateMachine.h"
#include "ThreadWPipes.h"
#include "VelaMgmtSpi.h"

namespace VelaFmSnmp {

class SnmpConfigHandler;
class SnmpTarnWrapper;

/**
 * Body of the adaptor thread, on which all SNMP work happens. It conducts: the loop waits for messages, requests of the
 * master agent and the internal listener, and steps the adaptor's states; the queue keeps notifications until the
 * master agent has acknowledged them; the control starts, stops and reaches the master agent, and the configurator
 * writes its tables.
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
  virtual void masterAgentStarted() { _master.noteStarted(); }
  /** Attaches the sub-agent anew; before a master agent was started in this run, or without a socket path, it is only
      closed. Throws Vela::VelaException (code 1) when it cannot attach. */
  virtual void initSubAgentAfterRestart();
  virtual void closeAgentxSession();
  /** Whether the sub-agent's connection is open. */
  virtual bool isSubAgentActive() const { return _master.getSubAgent().isAttached(); }
  /** Closes everything towards the master agent and stops it. A failure is logged only. */
  virtual void stopMasterAgent();
  /** Lets tools run again after stop has ended them. */
  virtual void resetToolCancellation() { _master.resetToolCancellation(); }
  virtual void onReconfigSuccess();
  virtual void onReconfigFail();
  /** The notification target that is the adaptor's own listener, which is opened if it is not (address family of the
      system: AF_INET6, everything else IPv4). Throws Vela::VelaException. Valid until the next call. */
  virtual const SnmpBaseTarget& getInternalTrapTarget(int ipFamily);
  /** Before the internal target is written to the agent; see InternalCommunity. */
  void agreeOnInternalCommunity() { _internalCommunity.agreeOn(getMaSession()); }
  virtual void closeListener() { _listener.close(); }

  // What the states work with.
  /** Throws Vela::VelaException without a configuration handler. */
  virtual SnmpTarnWrapper& getTarnWrapper() { return _master.getTarnWrapper(); }
  virtual SnmpMaSession& getMaSession() { return _master.getSession(); }
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
  void serveDescriptors();
  void selectLoop();
  /** One pass of the loop. */
  void runPass();
  /** Takes a step of the states; yields the milliseconds until the next one. */
  int step();
  void watchSecurityLibrary();
  void superviseSubAgent();

  void handleMessage(std::unique_ptr<Vela::PipeMessage> message);
  void handleAlarm(std::unique_ptr<Vela::PipeMessage> message);
  void handleHeartbeat(std::unique_ptr<Vela::PipeMessage> message);
  void handleAlarmListRebuilt(std::unique_ptr<Vela::PipeMessage> message);
  void handleStateChange(VelaStateChangeReason reason);
  void handleTraplistener();

  /** Hands a notification over if the current configuration has a target. */
  void send(std::unique_ptr<Vela::PipeMessage> message);
  void leaveSnapshot();

  Vela::ThreadWPipes& _input;
  std::atomic<bool> _running{false};
  std::atomic<bool> _stopping{false};
  std::atomic<bool> _inLoop{false};

  SnmpConfigHandler* _configurationHandler = nullptr;
  VelaMgmtSpiInterfacePortal_1T* _portal = nullptr;
  std::string _fmBaseDn;
  std::string _snmpBaseDn;
  bool _dtlsSupported = false;
  bool _exactEngineIdSupported = false;
  bool _securityLibraryInUse = false; /**< its descriptor is watched */
  bool _isSnapshotProvider = false;

  AdaptorLoop _loop;
  MasterAgentControl _master;
  std::unique_ptr<NotificationQueue> _queue;
  MoConnector _connector;
  SnmpMaConfigurator _configurator;
  SnmpDscpRuleHandler _dscpRuleHandler;
  SnmpConfig _newConfig;
  Listener _listener;
  InternalCommunity _internalCommunity;
  Poco::AutoPtr<SnmpTargetV2C> _internalTarget;
};

}  // namespace VelaFmSnmp
#endif
