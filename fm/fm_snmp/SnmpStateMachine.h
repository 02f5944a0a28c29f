#ifndef VELA_FM_SNMP_SNMP_STATE_MACHINE_H
#define VELA_FM_SNMP_SNMP_STATE_MACHINE_H

#include <string>

#include "FmStateThread.h"
#include "StateMachine.h"

namespace VelaFmSnmp {

class SnmpAdaptorRunnable;
class SnmpConfig;
class SnmpMaSession;

/**
 * The adaptor's states. All run on the adaptor thread, and each is made anew when it is entered. Times are milliseconds
 * of SnmpUtil::getNow. Only Vela::VelaException is a failure that a state deals with; others pass to the caller.
 */
using FmState = StateBase<SnmpAdaptorRunnable, SnmpEvent>;

/** Registers every state of the adaptor under its id and name. */
void registerAdaptorStates(StateMachine<SnmpAdaptorRunnable, SnmpEvent>& machine);

/** Finds out what the installed management tool supports. */
class FmStateOneTimeInit : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

  /** Sets the owner's flag; a tool that fails to answer three times counts as not supporting it. */
  static void checkExactEngineIdSupported(SnmpAdaptorRunnable& owner);

 private:
  int _retries = 0;
};

/** Waits until the configuration has not changed for more than a second. */
class FmStateIMMUpdating : public FmState {
 public:
  explicit FmStateIMMUpdating(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  unsigned long long _lastChange;
};

/** Reads the configuration and decides whether the master agent is restarted, reconfigured, stopped or left alone. */
class FmStateLoadConfigurationData : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

  /** True when SET requests to a running master agent cannot bring it from the one configuration to the other. */
  static bool isMasterAgentRestartNeeded(const SnmpConfig& current, const SnmpConfig& next);

 private:
  static StateTransition decide(SnmpAdaptorRunnable& owner);

  int _retries = 0;
};

/** Stops the master agent, waits for its ports, writes its configuration and starts it. */
class FmStateStartMasterAgent : public FmState {
 public:
  explicit FmStateStartMasterAgent(SnmpAdaptorRunnable& owner);
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  enum class Ports { Available, Taken };
  Ports checkPorts(SnmpAdaptorRunnable& owner, StateTransition& whenTaken) const;

  unsigned long long _entered;
  int _retries = 0;
};

/** Attaches the sub-agent to the master agent. */
class FmStateConfigureAgentX : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  int _retries = 0;
};

/** Opens the session to the master agent. */
class FmStateCreateSession : public FmState {
 public:
  explicit FmStateCreateSession(SnmpAdaptorRunnable& owner);
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

  /** The peer name, without port, at which the component reaches an agent with this configuration: the first agent
      address, or the loop-back address of its family when it is the wildcard or no literal address. */
  static std::string getMasterAgentAddress(const SnmpConfig& config);
  /** Opens a session as the configuration user. Throws Vela::VelaException. Also for the supervision thread. */
  static void open(SnmpAdaptorRunnable& owner, SnmpMaSession& session);

 private:
  int _retries = 0;
};

/** Brings the master agent's tables in line with the new configuration. */
class FmStateConfigureTargets : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  static StateTransition configure(SnmpAdaptorRunnable& owner);

  int _retries = 0;
};

/** Applies the current configuration again because of targets that are not operational. */
class FmStateRetryConfigureTargets : public FmState {
 public:
  explicit FmStateRetryConfigureTargets(SnmpAdaptorRunnable& owner);
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  int _retries = 0;
};

/** Sends queued alarms one by one until one comes back through the master agent; without any it is a plain delay. */
class FmStatePostConfigure : public FmState {
 public:
  explicit FmStatePostConfigure(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  void verifyDelivery(SnmpAdaptorRunnable& owner);

  unsigned long long _entered;
  unsigned long long _lastSent = 0; /**< 0: nothing was sent */
};

/** Alarms over SNMP are switched off. */
class FmStateIdleDisabled : public FmState {
 public:
  explicit FmStateIdleDisabled(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
};

/** The master agent is up and configured. A thread with a session of its own watches whether it still is. */
class FmStateIdleEnabled : public FmState, public FmStateThread {
 public:
  explicit FmStateIdleEnabled(SnmpAdaptorRunnable& owner);
  ~FmStateIdleEnabled() override { stopThread(); }
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

  /** The supervision: ends with an event to the machine, or when it is told to stop. */
  void run() override;

 private:
  bool createSession(SnmpMaSession& session) const;
  void report(SnmpEvent event) const;
  /** Marks packets to targets whose names had no address before. */
  void completeMarking(SnmpAdaptorRunnable& owner);
  /** Waits so many milliseconds; true when the thread shall end. */
  bool checkIfSocketClosed(unsigned long long timeoutMs) const;

  unsigned long long _pollInterval; /**< milliseconds */
  unsigned long long _lastTargetCheck;
  unsigned long long _lastMarking;
};

/** Something failed. The configuration is loaded again, after a wait that grows with every failure in a row. */
class FmStateIdleError : public FmState {
 public:
  explicit FmStateIdleError(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

  /** Milliseconds to wait before the next attempt. */
  unsigned long long getRetryInterval() const;

  /** Attempts since the last success, over all instances. */
  static unsigned int numReconfigAttempts;

 private:
  static unsigned long long _lastAttemptedTime;
};

/** The end: the master agent is stopped, and the adaptor's loop is told to leave. Swallows every event. */
class FmStateShutdown : public FmState {
 public:
  explicit FmStateShutdown(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;
};

}  // namespace VelaFmSnmp
#endif
