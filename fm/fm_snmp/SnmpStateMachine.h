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

/** Finds out what the installed management tool supports, since that decides what can be configured. Entered once. Ends
 * when the tool has answered, or has failed often enough to be taken for one without. */
class FmStateOneTimeInit : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

  /** Sets the owner's flag; a tool that fails to answer three times counts as not supporting it. */
  static void checkExactEngineIdSupported(SnmpAdaptorRunnable& owner);

 private:
  int _retries = 0;
};

/** Waits for an operator's changes to settle, so that many of them cost one reload. Ends when there was none for more
 * than a second. */
class FmStateIMMUpdating : public FmState {
 public:
  explicit FmStateIMMUpdating(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  unsigned long long _lastChange;
};

/** Reads the configuration and decides what it takes: a restart of the master agent, SET requests, nothing, or no
 * master agent at all. Ends with that decision, or when the model cannot be read. */
class FmStateLoadConfigurationData : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

  /** True when SET requests to a running master agent cannot bring it from the one configuration to the other. */
  static bool isMasterAgentRestartNeeded(const SnmpConfig& current, const SnmpConfig& next);

 private:
  static StateTransition decide(SnmpAdaptorRunnable& owner);

  int _retries = 0;
};

/** Starts the master agent, because what only its configuration files say has changed, or because it is not there.
 * Stops it first and waits for its ports, which others may hold for a while. Ends when it is started, or cannot be. */
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

/** Attaches the sub-agent, without which the master agent serves no alarm table and sends no notification. Ends when it
 * is attached, or the master agent does not answer. */
class FmStateConfigureAgentX : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  int _retries = 0;
};

/** Opens the session by which the master agent's tables are written; also where contact was lost, which a session that
 * opens proves wrong. Ends when it is open, or the master agent does not answer. */
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

/** Brings the master agent's tables in line with the new configuration. Ends when all is written, whatever became of
 * single targets, or the master agent does not answer. */
class FmStateConfigureTargets : public FmState {
 public:
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  static StateTransition configure(SnmpAdaptorRunnable& owner);

  int _retries = 0;
};

/** Applies the current configuration again, because targets that are not operational may have become possible (a name
 * that resolves by now). Ends after one pass, helpful or not. */
class FmStateRetryConfigureTargets : public FmState {
 public:
  explicit FmStateRetryConfigureTargets(SnmpAdaptorRunnable& owner);
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;

 private:
  int _retries = 0;
};

/** Makes sure that notifications leave the master agent before all that wait are entrusted to it: sends queued alarms
 * one by one to the adaptor's own listener, too. Ends when one has come back, or after 25 seconds, which are a failure
 * if one was sent. */
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

/** Rests because the operator has switched SNMP off; there is no master agent. A change of the configuration ends it.
 */
class FmStateIdleDisabled : public FmState {
 public:
  explicit FmStateIdleDisabled(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
};

/** The service itself: the master agent is up and configured, and notifications go out as they come. A thread with a
 * session of its own watches that it stays so. A change of the configuration ends it, a master agent that is gone,
 * another or silent, and targets that are due for another attempt. */
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

/** Rests after a failure, without a master agent, so that a fault that lasts is not answered with restarts without
 * pause. Ends after a wait that grows with every failure in a row, or with a change of the configuration. */
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

/** Leaves nothing behind: no master agent, no packet-marking rule. Swallows every event; the loop ends in it. */
class FmStateShutdown : public FmState {
 public:
  explicit FmStateShutdown(SnmpAdaptorRunnable& owner);
  StateTransition onEvent(SnmpAdaptorRunnable& owner, SnmpEvent event) override;
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override;
};

}  // namespace VelaFmSnmp
#endif
