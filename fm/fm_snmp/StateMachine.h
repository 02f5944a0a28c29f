#ifndef VELA_FM_SNMP_STATE_MACHINE_H
#define VELA_FM_SNMP_STATE_MACHINE_H

#include <Poco/Mutex.h>
#include <Poco/ScopedLock.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "LoggingWrapper.h"

namespace VelaFmSnmp {

/** What happens to the adaptor from outside its states. */
enum SnmpEvent {
  SnmpEventImmChange = 0,         /**< the configuration in the managed objects changed */
  SnmpEventReserved = 1,          /**< nobody posts it, nobody handles it */
  SnmpEventTrapReceived = 2,      /**< the adaptor's own notification came back through the master agent */
  SnmpEventTerminate = 3,         /**< the adaptor shall stop */
  SnmpEventBootCountMismatch = 4, /**< the master agent restarted since it was configured */
  SnmpEventNoContact = 5,         /**< the master agent does not answer */
  SnmpEventRestart = 6            /**< a restart of the master agent is asked for */
};

/** The adaptor's states; 12 is not assigned. */
enum FmStateId {
  FmStateIdOneTimeInit = 0,
  FmStateIdIMMUpdating = 1,
  FmStateIdLoadConfigurationData = 2,
  FmStateIdStartMasterAgent = 3,
  FmStateIdCreateSession = 4,
  FmStateIdConfigureAgentX = 5,
  FmStateIdConfigureTargets = 6,
  FmStateIdRetryConfigureTargets = 7,
  FmStateIdPostConfigure = 8,
  FmStateIdIdleDisabled = 9,
  FmStateIdIdleEnabled = 10,
  FmStateIdIdleError = 11,
  FmStateIdShutdown = 13
};

enum TransitionType {
  TransitionUnhandled = 0, /**< the handler has no use for it */
  TransitionHandled = 1,   /**< done, the state stays */
  TransitionChange = 2     /**< change to the state of the transition */
};

/** What a state's handler wants: nothing, staying, or a change of state; and when the machine is stepped next. */
struct StateTransition {
  static constexpr int DefaultDelay = 100;

  std::string reason; /**< free text for the log line of a change */
  int nextState = 0;
  TransitionType type = TransitionUnhandled;
  int delay = DefaultDelay; /**< milliseconds until the next step */

  static StateTransition handled(int delay = DefaultDelay) { return {{}, 0, TransitionHandled, delay}; }
  static StateTransition change(int nextState, std::string reason, int delay = DefaultDelay) {
    return {std::move(reason), nextState, TransitionChange, delay};
  }
};

/** A state. Its constructor, which may take the owner by reference, is the entry action, its destructor the exit
 * action. */
template <class Owner, class Event>
class StateBase {
 public:
  StateBase() = default;
  virtual ~StateBase() = default;
  StateBase(const StateBase&) = delete;
  StateBase& operator=(const StateBase&) = delete;

  /** Runs with the machine's event mutex held: it must not call emitEvent. */
  virtual StateTransition onEvent(Owner&, Event) { return {}; }
  /** The periodic step. */
  virtual StateTransition onUpdate(Owner&) { return {}; }
};

template <class Owner, class Event>
class StateMachine;
template <class Owner, class Event>
struct StaticStateInfo;

/** The running state. Both null before the first change of state and after a state that could not be constructed. */
template <class Owner, class Event>
struct DynStateInfo {
  std::unique_ptr<StateBase<Owner, Event>> state;
  const StaticStateInfo<Owner, Event>* info = nullptr;
};

/** A registered state. */
template <class Owner, class Event>
struct StaticStateInfo {
  using Factory = void (StateMachine<Owner, Event>::*)(DynStateInfo<Owner, Event>*,
                                                       const StaticStateInfo<Owner, Event>*);
  Factory factory = nullptr;
  int id = 0;
  std::string name;
};

/**
 * A machine of states that belong to an owner, which derives from it and steps it. Everything but emitEvent,
 * discardEvents and replaceEvents is for the owner's thread only.
 */
template <class Owner, class Event>
class StateMachine {
 public:
  using State = StateBase<Owner, Event>;
  using StaticInfo = StaticStateInfo<Owner, Event>;
  using DynInfo = DynStateInfo<Owner, Event>;
  using Factory = typename StaticInfo::Factory;

  /** The owner outlives the machine. */
  explicit StateMachine(Owner& owner) : _owner(owner) {}
  virtual ~StateMachine() = default;
  StateMachine(const StateMachine&) = delete;
  StateMachine& operator=(const StateMachine&) = delete;

  /** Makes a state known, replacing an earlier one of the same id (not the running one). Always true. */
  template <class ConcreteState>
  bool registerState(int id, const char* name,
                     Factory factory = &StateMachine::template createInstance<ConcreteState>) {
    _registry[id] = StaticInfo{factory, id, name};
    return true;
  }

  /** The factory of every state: constructs it with the owner, or by default when it does not take one. */
  template <class ConcreteState>
  void createInstance(DynInfo* running, const StaticInfo* info) {
    if constexpr (std::is_constructible_v<ConcreteState, Owner&>) {
      running->state = std::make_unique<ConcreteState>(_owner);
    } else {
      running->state = std::make_unique<ConcreteState>();
    }
    running->info = info;
  }

  /** Posts an event; one that is pending already is not posted again. Any thread, but not from onEvent. */
  void emitEvent(Event event) {
    Poco::ScopedLock<Poco::FastMutex> lock(_mutex);
    if (std::find(_events.begin(), _events.end(), event) == _events.end()) _events.push_back(event);
  }

  /** Discards what is pending. Any thread, but not from onEvent. */
  void discardEvents() {
    Poco::ScopedLock<Poco::FastMutex> lock(_mutex);
    _events.clear();
  }

  /** Discards what is pending and posts one event instead. Any thread, but not from onEvent. */
  void replaceEvents(Event event) {
    Poco::ScopedLock<Poco::FastMutex> lock(_mutex);
    _events.assign(1, event);
  }

  /** One step: delivers the pending events, else updates the state, then changes the state if that is wanted. Returns
      the milliseconds until the next step. What a state throws passes to the caller. */
  int updateStateMachine() {
    StateTransition result;
    {
      Poco::ScopedLock<Poco::FastMutex> lock(_mutex);
      result = deliverEvents();
    }
    if (result.type != TransitionChange && _running.state) result = _running.state->onUpdate(_owner);
    apply(result);
    return result.delay;
  }

  /** Leaves the current state and enters another at once. An unregistered id is logged and changes nothing. When the
      new state's constructor throws, that passes to the caller and the machine is without a state, which the next
      changeState ends. */
  void changeState(int id) {
    const auto found = _registry.find(id);
    if (found == _registry.end()) {
      const char* name = getStateName(id);
      VELA_LOG(Vela::LogError, "Unregistered state %d => %s", id, name);
      VELA_TRACE("Unregistered state %d => %s", id, name);
      return;
    }
    leaveState();
    (this->*found->second.factory)(&_running, &found->second);
  }

  /** Leaves the current state and enters none. The owner's destructor begins with it, since a state's exit action needs
      the owner whole; the machine's own destructor is too late for that. */
  void leaveState() {
    _running.state.reset();
    _running.info = nullptr;
  }

  /** Carries out a transition of type TransitionChange; others do nothing. */
  void apply(const StateTransition& transition) {
    if (transition.type != TransitionChange) return;
    const char* from = _running.info ? _running.info->name.c_str() : UnknownState;
    const char* to = getStateName(transition.nextState);
    VELA_LOG(Vela::LogInfo, "Changing state from %s to %s : %s", from, to, transition.reason.c_str());
    VELA_TRACE("Changing state from %s to %s : %s", from, to, transition.reason.c_str());
    changeState(transition.nextState);
  }

  /** The registered name, valid until the state is registered anew; "unknown state" (and a log line) for other ids. */
  const char* getStateName(int id) const {
    const auto found = _registry.find(id);
    if (found != _registry.end()) return found->second.name.c_str();
    VELA_LOG(Vela::LogError, "Unregistered state %d", id);
    return UnknownState;
  }

  /** Id of the current state, -1 when there is none. */
  int getStateId() const { return _running.info ? _running.info->id : -1; }

  /** The fallback for an event that the current state does not handle. Runs with the event mutex held. */
  virtual StateTransition onUnhandledEvent(Event) { return {}; }

 private:
  static constexpr const char* UnknownState = "unknown state";

  /** Called with the mutex held. Events that nobody handles stay pending, behind those not yet delivered. */
  StateTransition deliverEvents() {
    if (!_running.state) {
      _events.clear();
      return {};
    }
    StateTransition result;
    std::vector<Event> deferred;
    while (!_events.empty() && result.type != TransitionChange) {
      const Event event = _events.front();
      _events.erase(_events.begin());
      result = _running.state->onEvent(_owner, event);
      if (result.type == TransitionUnhandled) {
        result = _owner.onUnhandledEvent(event);
        if (result.type == TransitionUnhandled) deferred.push_back(event);
      }
    }
    _events.insert(_events.end(), deferred.begin(), deferred.end());
    return result;
  }

  Owner& _owner;
  std::map<int, StaticInfo> _registry;
  DynInfo _running;
  std::vector<Event> _events;
  Poco::FastMutex _mutex;
};

}  // namespace VelaFmSnmp
#endif
