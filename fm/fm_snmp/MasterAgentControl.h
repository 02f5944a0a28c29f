#ifndef VELA_FM_SNMP_MASTER_AGENT_CONTROL_H
#define VELA_FM_SNMP_MASTER_AGENT_CONTROL_H

#include <memory>
#include <optional>

#include "AgentXSubAgent.h"
#include "ScriptWrapper.h"
#include "SnmpMaSession.h"
#include "StateMachine.h"

namespace VelaFmSnmp {

class SnmpConfigHandler;
class SnmpTarnWrapper;

/**
 * The adaptor's ways to the master agent: the tool that starts and stops it, the session that configures it, and the
 * sub-agent that serves it. The adaptor thread only, but for what ends its waits.
 */
class MasterAgentControl {
 public:
  /** The session gives up its waits while the descriptor is readable. */
  explicit MasterAgentControl(int interruptFD);
  ~MasterAgentControl();
  MasterAgentControl(const MasterAgentControl&) = delete;
  MasterAgentControl& operator=(const MasterAgentControl&) = delete;

  /** Before the thread starts; not owned, may be null. */
  void setConfigurationHandler(SnmpConfigHandler* handler);
  /** Replaces the edge to the agent library, before the thread starts. */
  void setSubAgent(std::unique_ptr<AgentXSubAgent> subAgent) { _subAgent = std::move(subAgent); }
  AgentXSubAgent& getSubAgent() const { return *_subAgent; }
  /** Forgets the previous run: there is no master agent yet, and nothing is interrupted. */
  void beginRun();

  /** Throws Vela::VelaException without a configuration handler. */
  SnmpTarnWrapper& getTarnWrapper() const;
  SnmpMaSession& getSession();
  /** Ends the tool that runs, and those to come until resetToolCancellation. Any thread. */
  void cancelTools() { _toolCancellation.cancel(); }
  void resetToolCancellation() { _toolCancellation.reset(); }
  /** Ends what the sub-agent waits for, and makes it fail to attach until the next run. Any thread. */
  void interruptSubAgent() { _subAgent->interrupt(); }
  const Vela::ScriptCancellation& getToolCancellation() const { return _toolCancellation; }

  /** From now on in this run there is a master agent to attach to. */
  void noteStarted() { _isStarted = true; }
  /** Whether there is one, and a path to it. */
  bool isSubAgentWanted() const;
  /** Attaches the sub-agent to the master agent. Throws Vela::VelaException (code 1) when that fails. */
  void attachSubAgent();
  /** Stops the master agent. Throws Vela::VelaException. */
  void stop();

  /** Looks whether the connection of a sub-agent that should be attached has ended. Yields, and logs, once per stay in
      a state what the adaptor is to do about it. */
  std::optional<SnmpEvent> superviseSubAgent(int state, const char* stateName);

 private:
  const int _interruptFD;
  SnmpConfigHandler* _configurationHandler = nullptr;
  Vela::ScriptCancellation _toolCancellation;
  std::unique_ptr<SnmpMaSession> _session;
  std::unique_ptr<AgentXSubAgent> _subAgent;
  bool _isStarted = false;

  int _supervisedState = -1;
  bool _lossReported = false; /**< in the present stay in a state */
  unsigned long long _lastRestartRequest = 0;
};

}  // namespace VelaFmSnmp
#endif
