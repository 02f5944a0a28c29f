#include "StateMachine.h"

#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <stdexcept>
#include <thread>

#include "StateTestSupport.h"

using namespace VelaFmSnmp;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** Does what its tables say, and writes a journal of what its states are told. */
class Owner : public StateMachine<Owner, int> {
 public:
  Owner();
  ~Owner() override { leaveState(); }

  StateTransition onUnhandledEvent(int event) override {
    journal.push_back("fallback " + std::to_string(event));
    return fallback[event];
  }
  std::vector<std::string> takeJournal() { return std::exchange(journal, {}); }

  std::vector<std::string> journal;
  std::map<std::pair<int, int>, StateTransition> onEvents; /**< by state and event */
  std::map<int, StateTransition> onUpdates;
  std::map<int, StateTransition> fallback;
  int throwingConstructor = -1;
  int throwingEvent = -1;
};

template <int Id>
class Probe : public StateBase<Owner, int> {
 public:
  explicit Probe(Owner& owner) : _owner(owner) {
    owner.journal.push_back("enter " + std::to_string(Id));
    if (owner.throwingConstructor == Id) throw std::runtime_error("no entry");
  }
  ~Probe() override { _owner.journal.push_back("leave " + std::to_string(Id)); }
  StateTransition onEvent(Owner& owner, int event) override {
    owner.journal.push_back("event " + std::to_string(event));
    if (owner.throwingEvent == event) throw std::runtime_error("no event");
    return owner.onEvents[{Id, event}];
  }
  StateTransition onUpdate(Owner& owner) override {
    owner.journal.push_back("update");
    return owner.onUpdates[Id];
  }

 private:
  Owner& _owner;
};

class OwnerlessProbe : public StateBase<Owner, int> {};

Owner::Owner() : StateMachine<Owner, int>(*this) {
  registerState<Probe<0>>(0, "Zero");
  registerState<Probe<1>>(1, "One");
  registerState<OwnerlessProbe>(2, "Two");
}

class StateMachineTest : public testing::Test {
 protected:
  void start() {
    owner.changeState(0);
    owner.takeJournal();
  }

  StateTest::CapturedLog log;
  Owner owner;
};

TEST_F(StateMachineTest, deliversAnEventOnceHoweverOftenItWasPosted) {
  start();
  owner.onEvents[{0, 5}] = StateTransition::handled();
  for (int i = 0; i < 3; ++i) owner.emitEvent(5);
  EXPECT_EQ(owner.updateStateMachine(), 100);
  EXPECT_THAT(owner.takeJournal(), ElementsAre("event 5", "update"));
  owner.updateStateMachine();
  EXPECT_THAT(owner.takeJournal(), ElementsAre("update"));
}

TEST_F(StateMachineTest, discardsEventsWhileThereIsNoState) {
  owner.emitEvent(5);
  EXPECT_EQ(owner.updateStateMachine(), 100);
  start();
  owner.updateStateMachine();
  EXPECT_THAT(owner.takeJournal(), ElementsAre("update"));
}

TEST_F(StateMachineTest, changeByAnEventSkipsTheUpdateAndCarriesItsDelay) {
  start();
  owner.onEvents[{0, 5}] = StateTransition::change(1, "because", 6000);
  owner.emitEvent(5);
  EXPECT_EQ(owner.updateStateMachine(), 6000);
  EXPECT_THAT(owner.takeJournal(), ElementsAre("event 5", "leave 0", "enter 1"));
  EXPECT_EQ(owner.getStateId(), 1);
  EXPECT_EQ(log.count(Vela::LogInfo, "Changing state from Zero to One : because"), 1);
  EXPECT_TRUE(log.hasTrace("Changing state from Zero to One : because"));
}

TEST_F(StateMachineTest, returnsTheDelayOfTheUpdate) {
  start();
  owner.onUpdates[0] = StateTransition::handled(1000);
  EXPECT_EQ(owner.updateStateMachine(), 1000);
  owner.onUpdates[0] = StateTransition::change(2, "x", 70);
  EXPECT_EQ(owner.updateStateMachine(), 70);
  EXPECT_EQ(owner.getStateId(), 2);
}

TEST_F(StateMachineTest, keepsWhatAChangeLeftUndeliveredBeforeWhatNobodyHandled) {
  start();
  owner.onEvents[{0, 2}] = StateTransition::change(1, "x");
  for (const int event : {1, 2, 3, 4}) owner.emitEvent(event);
  owner.updateStateMachine();
  EXPECT_THAT(owner.takeJournal(), ElementsAre("event 1", "fallback 1", "event 2", "leave 0", "enter 1"));
  for (const int event : {1, 3, 4}) owner.onEvents[{1, event}] = StateTransition::handled();
  owner.updateStateMachine();
  EXPECT_THAT(owner.takeJournal(), ElementsAre("event 3", "event 4", "event 1", "update"));
}

TEST_F(StateMachineTest, fallbackHandlesOrChanges) {
  start();
  owner.fallback[3] = StateTransition::handled();
  owner.fallback[4] = StateTransition::change(1, "fallback");
  for (const int event : {3, 4, 5}) owner.emitEvent(event);
  owner.updateStateMachine();
  EXPECT_THAT(owner.takeJournal(), ElementsAre("event 3", "fallback 3", "event 4", "fallback 4", "leave 0", "enter 1"));
}

TEST_F(StateMachineTest, unregisteredStateIsLoggedAndTheStateStays) {
  start();
  owner.changeState(12);
  EXPECT_EQ(owner.getStateId(), 0);
  EXPECT_THAT(owner.takeJournal(), IsEmpty());
  EXPECT_EQ(log.count(Vela::LogError, "Unregistered state 12 => unknown state"), 1);
  EXPECT_TRUE(log.hasTrace("Unregistered state 12 => unknown state"));
  EXPECT_STREQ(owner.getStateName(12), "unknown state");
  EXPECT_EQ(log.count(Vela::LogError, "Unregistered state 12"), 2);
}

TEST_F(StateMachineTest, replacedEventsAreTheOnlyOnesPending) {
  start();
  for (const int event : {1, 2}) owner.emitEvent(event);
  owner.replaceEvents(3);
  owner.fallback[3] = StateTransition::handled();
  owner.updateStateMachine();
  EXPECT_THAT(owner.takeJournal(), ElementsAre("event 3", "fallback 3", "update"));
}

TEST_F(StateMachineTest, constructorThatThrowsLeavesAMachineThatGoesOn) {
  start();
  owner.throwingConstructor = 1;
  owner.onUpdates[0] = StateTransition::change(1, "x");
  EXPECT_THROW(owner.updateStateMachine(), std::runtime_error);
  EXPECT_EQ(owner.getStateId(), -1);
  EXPECT_EQ(owner.updateStateMachine(), 100);
  owner.throwingConstructor = -1;
  owner.changeState(1);
  EXPECT_EQ(owner.getStateId(), 1);
}

TEST_F(StateMachineTest, handlerThatThrowsReleasesTheMutex) {
  start();
  owner.throwingEvent = 7;
  owner.emitEvent(7);
  EXPECT_THROW(owner.updateStateMachine(), std::runtime_error);
  owner.emitEvent(8);
  owner.updateStateMachine();
  EXPECT_THAT(owner.takeJournal(), ElementsAre("event 7", "event 8", "fallback 8", "update"));
}

TEST_F(StateMachineTest, takesEventsFromManyThreads) {
  start();
  constexpr int Threads = 4;
  constexpr int Rounds = 2000;
  std::vector<std::thread> posters;
  std::atomic<int> running{Threads};
  for (int id = 0; id < Threads; ++id) owner.onEvents[{0, id}] = StateTransition::handled();
  for (int id = 0; id < Threads; ++id) {
    posters.emplace_back([&, id] {
      for (int i = 0; i < Rounds; ++i) owner.emitEvent(id);
      --running;
    });
  }
  while (running > 0) owner.updateStateMachine();
  for (std::thread& poster : posters) poster.join();
  owner.updateStateMachine();
  const std::vector<std::string> journal = owner.takeJournal();
  for (int id = 0; id < Threads; ++id) EXPECT_THAT(journal, testing::Contains("event " + std::to_string(id)));
}

}  // namespace
