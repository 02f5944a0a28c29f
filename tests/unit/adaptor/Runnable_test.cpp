#include <Poco/Exception.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "SnmpAlarmSnapshot.h"
#include "SnmpMessages.h"
#include "StateFixture.h"
#include "SubAgentStandIn.h"
#include "TrapSender.h"

namespace {

using namespace VelaFmSnmp;
using StateTest::CapturedLog;
using StateTest::eventually;

/** What the states of these tests do, and what they saw. Filled by the adaptor thread, where there is one. */
struct StateScript {
  std::function<StateTransition(SnmpAdaptorRunnable&)> onUpdate;
  std::atomic<int> updates{0};
  std::atomic<int> events[7] = {};
  std::atomic<int> entries{0};
};
StateScript* script = nullptr;

class PlainState : public FmState {
 public:
  PlainState() { ++script->entries; }
  StateTransition onEvent(SnmpAdaptorRunnable&, SnmpEvent event) override {
    ++script->events[event];
    return event == SnmpEventTerminate ? StateTransition() : StateTransition::handled();
  }
  StateTransition onUpdate(SnmpAdaptorRunnable& owner) override {
    ++script->updates;
    return script->onUpdate ? script->onUpdate(owner) : StateTransition::handled();
  }
};

class LastState : public FmState {
 public:
  explicit LastState(SnmpAdaptorRunnable& owner) { owner.setRunning(false); }
};

/** An empty alarm list, whose reads are counted. */
class Model : public StateTest::ModelStandIn {
 public:
  void init(VelaMgmtSpiInterfacePortal_1T*) override {}
  bool visit(ISnmpXmodDataProviderAlarmVisitor& visitor) override {
    ++visits;
    visitor.beginAlarms();
    visitor.endAlarms();
    return true;
  }
  std::vector<std::string> setOperationalStates(const std::map<std::string, bool>&, bool) const override {
    if (stateWrites++ == 0) throw Vela::VelaException("no lock");
    return {};
  }
  int visits = 0;
  mutable std::atomic<int> stateWrites{0};
};

/** The adaptor with states that do what the test wants, no model and no master agent. */
class TestAdaptor : public SnmpAdaptorRunnable {
 public:
  explicit TestAdaptor(Vela::ThreadWPipes& input) : SnmpAdaptorRunnable(input) {
    for (int id = FmStateIdOneTimeInit; id <= FmStateIdIdleError; ++id) registerState<PlainState>(id, getStateName(id));
    registerState<LastState>(FmStateIdShutdown, "Shutdown");
    auto agent = std::make_unique<AdaptorTest::SubAgentStandIn>();
    subAgent = agent.get();
    setSubAgent(std::move(agent));
  }
  ~TestAdaptor() override { leaveState(); }

  MoConnector& getMoConnector() override { return model; }
  SnmpMaConfigurator& getConfigurator() override {
    if (isConfiguratorBroken) throw Vela::VelaException("boom");
    return SnmpAdaptorRunnable::getConfigurator();
  }
  void masterAgentStarted() override { SnmpAdaptorRunnable::masterAgentStarted(); }

  Model model;
  AdaptorTest::SubAgentStandIn* subAgent;
  bool isConfiguratorBroken = false;
};

class RunnableTest : public testing::Test {
 protected:
  RunnableTest() {
    script = &states;
    adaptor = std::make_unique<TestAdaptor>(input);
    adaptor->setConfigurationHandler(&handler);
    current = adaptor.get();
    SnmpMaSession::setFactory([this] { return std::make_unique<StateTest::SessionStandIn>(agent, "adaptor"); });
  }
  ~RunnableTest() override {
    if (!input.join(0)) stopThread();
    adaptor.reset();
    SnmpMaSession::setFactory({});
  }

  /** A master agent that is configured with one target. */
  void configure() {
    SnmpConfig config;
    config.agentAddress = {{"127.0.0.1", 1161}};
    StateTest::addTarget(config, "nms");
    StateTest::SessionStandIn session(agent, "test");
    session.initSessionWithPwdFile("", 0, "", "");
    adaptor->getConfigurator().reconfigure(session, config);
    ASSERT_TRUE(adaptor->getConfigurator().isConfigured());
  }

  static std::unique_ptr<Vela::PipeMessage> alarm(bool isStateful = true, int severity = 4) {
    SnmpAlarm value;
    value.setStateful(isStateful);
    value.setSeverity(severity);
    value.setManagedObject("ManagedElement=1");
    value.setMajorType(193);
    return std::make_unique<SnmpAlarmMessage>(value);
  }
  static std::unique_ptr<Vela::PipeMessage> make(int type) {
    switch (type) {
      case SnmpMessageAlarm:
        return alarm();
      case SnmpMessageHeartbeat:
        return std::make_unique<SnmpHeartbeatMessage>(SnmpHeartbeat());
      case SnmpMessageAlarmListRebuilt:
        return std::make_unique<SnmpAlarmListRebuiltMessage>();
      default:
        return std::make_unique<CmEventMessage>(DaxOamSpiCmEvent_Notification_1T{});
    }
  }
  void handle(std::unique_ptr<Vela::PipeMessage> message) {
    std::vector<std::unique_ptr<Vela::PipeMessage>> messages;
    messages.push_back(std::move(message));
    adaptor->handleMessages(std::move(messages));
  }
  /** What is sent at the end of a pass: notification numbers. */
  std::vector<int> takeSent() {
    adaptor->pumpNotifications();
    return std::exchange(adaptor->subAgent->sent, {});
  }

  void startThread() {
    adaptor->prepareForStart(nullptr);
    input.start(*adaptor);
  }
  void stopThread() {
    adaptor->stop();
    ASSERT_TRUE(input.join(20000));
  }

  long countQueued() const {
    const std::vector<std::string> lines = log.lines(Vela::LogWarning);
    return std::count_if(lines.begin(), lines.end(),
                         [](const std::string& line) { return line.find("queueing trap") != std::string::npos; });
  }

  static inline TestAdaptor* current = nullptr;

  CapturedLog log;
  StateScript states;
  Vela::ThreadWPipes input{"test"};
  SnmpConfigHandler handler;
  StateTest::MasterAgent agent;
  std::unique_ptr<TestAdaptor> adaptor;
};

constexpr int AlarmMajor = 4;
constexpr int AlertMajor = 13;
constexpr int Heartbeat = 20;
constexpr int Rebuilt = 30;

TEST_F(RunnableTest, NotificationsAreSentQueuedOrDroppedByState) {
  configure();
  constexpr int Queued = -1;
  constexpr int Dropped = 0;
  const struct {
    int state, type;
    bool isQueueFilled;
    int outcome;
    const char* warning;
  } cases[] = {
      {FmStateIdIdleEnabled, SnmpMessageAlarm, false, AlarmMajor, nullptr},
      {FmStateIdIdleEnabled, SnmpMessageAlarm, true, Queued, "[state IdleEnabled] queueing trap for alarm: "},
      {FmStateIdPostConfigure, SnmpMessageAlarm, false, Queued, "[state PostConfigure] queueing trap for alarm: "},
      {FmStateIdIdleError, SnmpMessageAlarm, false, Queued, "[state IdleError] queueing trap for alarm: "},
      {FmStateIdIdleDisabled, SnmpMessageAlarm, false, Dropped, nullptr},
      {FmStateIdIdleEnabled, SnmpMessageHeartbeat, true, Heartbeat, nullptr},
      {FmStateIdPostConfigure, SnmpMessageHeartbeat, false, Heartbeat, nullptr},
      {FmStateIdCreateSession, SnmpMessageHeartbeat, false, Dropped, "[state CreateSession] Not sending heartbeat"},
      {FmStateIdIdleDisabled, SnmpMessageHeartbeat, false, Dropped, nullptr},
      {FmStateIdIdleError, SnmpMessageHeartbeat, false, Dropped, nullptr},
      {FmStateIdIdleEnabled, SnmpMessageAlarmListRebuilt, true, Rebuilt, nullptr},
      {FmStateIdPostConfigure, SnmpMessageAlarmListRebuilt, false, Queued,
       "[state PostConfigure] queueing trap for alarmlistrebuilt"},
      {FmStateIdIdleDisabled, SnmpMessageAlarmListRebuilt, false, Dropped, nullptr},
      {FmStateIdIdleError, SnmpMessageAlarmListRebuilt, false, Dropped, nullptr},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(std::to_string(item.state) + " " + std::to_string(item.type));
    adaptor->clearQueuedAlarms();
    adaptor->changeState(FmStateIdPostConfigure);
    if (item.isQueueFilled) handle(alarm());
    adaptor->changeState(item.state);
    const std::size_t warnings = log.lines(Vela::LogWarning).size();
    handle(make(item.type));
    EXPECT_TRUE(adaptor->subAgent->sent.empty()) << "sending is left to the end of the pass";
    EXPECT_EQ(takeSent(), item.outcome > 0 ? std::vector<int>{item.outcome} : std::vector<int>{});
    EXPECT_EQ(adaptor->hasQueuedAlarms(), item.outcome == Queued || item.isQueueFilled);
    const std::vector<std::string> lines = log.lines(Vela::LogWarning);
    ASSERT_EQ(lines.size() - warnings, item.warning ? 1U : 0U);
    if (item.warning) {
      EXPECT_EQ(lines.back().rfind(item.warning, 0), 0U) << lines.back();
    }
  }
}

TEST_F(RunnableTest, NothingIsKeptWithoutTargetsAndNothingSentBeforeTheyAreWritten) {
  adaptor->changeState(FmStateIdIdleEnabled);
  handle(alarm());
  configure();
  handle(make(SnmpMessageHeartbeat));
  EXPECT_EQ(takeSent(), (std::vector<int>{Heartbeat}));
  adaptor->getConfigurator().invalidate();
  handle(alarm());
  EXPECT_TRUE(takeSent().empty());
  configure();
  handle(alarm(false));
  EXPECT_EQ(takeSent(), (std::vector<int>{AlarmMajor, AlertMajor}));
}

TEST_F(RunnableTest, QueuedNotificationsLeaveInOrderAndAtMostSoMany) {
  configure();
  handle(alarm());
  handle(alarm(false));
  const std::string line = log.lines(Vela::LogWarning).back();
  EXPECT_EQ(line.rfind("[state OneTimeInit] queueing trap for alert: ", 0), 0U) << line;
  EXPECT_EQ(line.substr(line.rfind(" , ")), " , QueueSize: 1") << "the length before";
  handle(make(SnmpMessageAlarmListRebuilt));
  adaptor->sendQueuedAlarms(10);
  EXPECT_TRUE(takeSent().empty()) << "not operational";
  adaptor->changeState(FmStateIdIdleEnabled);
  adaptor->sendQueuedAlarms(2);
  EXPECT_EQ(takeSent(), (std::vector<int>{AlarmMajor, AlertMajor}));
  EXPECT_EQ(log.count(Vela::LogInfo, "Sending 2 of 3 queued notifications..."), 1);
  adaptor->sendQueuedAlarms(100);
  EXPECT_EQ(takeSent(), (std::vector<int>{Rebuilt}));
  EXPECT_FALSE(adaptor->hasQueuedAlarms());
}

TEST_F(RunnableTest, StatefulAlarmsAndRebuiltListsInvalidateTheSnapshot) {
  SnmpAlarmSnapshot& snapshot = SnmpAlarmSnapshot::getInstance();
  snapshot.setDataProvider(&adaptor->model);
  snapshot.getFirstAlarm();
  const struct {
    std::unique_ptr<Vela::PipeMessage> message;
    bool isInvalidating;
  } cases[] = {{alarm(false), false},
               {alarm(), true},
               {make(SnmpMessageHeartbeat), false},
               {make(SnmpMessageAlarmListRebuilt), true}};
  for (auto& item : cases) {
    const int visits = adaptor->model.visits;
    handle(std::move(const_cast<std::unique_ptr<Vela::PipeMessage>&>(item.message)));
    snapshot.getFirstAlarm();
    EXPECT_EQ(adaptor->model.visits - visits, item.isInvalidating ? 1 : 0);
  }
  snapshot.setDataProvider(nullptr);
}

TEST_F(RunnableTest, AMessageThatFailsConcernsNoOther) {
  adaptor->changeState(FmStateIdIdleEnabled);
  struct Unknown : Vela::PipeMessage {
    Unknown() : PipeMessage(99) {}
  };
  std::vector<std::unique_ptr<Vela::PipeMessage>> messages;
  messages.push_back(alarm());
  messages.push_back(std::make_unique<Unknown>());
  messages.push_back(make(SnmpMessageCmEvent));
  adaptor->isConfiguratorBroken = true;
  adaptor->handleMessages(std::move(messages));
  adaptor->isConfiguratorBroken = false;
  EXPECT_EQ(log.count(Vela::LogError, "exception caught while handling incoming message type 17, boom"), 1);
  EXPECT_EQ(log.count(Vela::LogWarning, "[libfm.so] -- FmCompRunnable::unknown message received"), 1);
  adaptor->updateStateMachine();
  EXPECT_EQ(states.events[SnmpEventImmChange], 1);
}

TEST_F(RunnableTest, UnhandledEvents) {
  EXPECT_EQ(StateTest::text(adaptor->onUnhandledEvent(SnmpEventTerminate)), "13/got terminate event!/100");
  EXPECT_EQ(StateTest::text(adaptor->onUnhandledEvent(SnmpEventTrapReceived)), "handled/100");
  EXPECT_EQ(StateTest::text(adaptor->onUnhandledEvent(SnmpEventNoContact)), "unhandled/100");
}

TEST_F(RunnableTest, TheSubAgentAttachesOnlyOnceAMasterAgentWasStarted) {
  const std::string file = testing::TempDir() + "runnable_" + std::to_string(getpid()) + ".xml";
  std::ofstream(file) << "<VelaFmSnmp><agentxPingInterval>4</agentxPingInterval><agentxTimeout>5</agentxTimeout>"
                         "<agentxRetries>6</agentxRetries></VelaFmSnmp>";
  ASSERT_EQ(handler.load(file), 0);
  std::filesystem::remove(file);
  handler.setSnmpMasterAgentAgentxSocket("socket");
  adaptor->prepareForStart(nullptr);
  adaptor->initSubAgentAfterRestart();
  const auto& attached = adaptor->subAgent->attached;
  EXPECT_TRUE(attached.empty());
  adaptor->masterAgentStarted();
  configure();
  adaptor->initSubAgentAfterRestart();
  ASSERT_EQ(attached.size(), 1U);
  EXPECT_EQ(attached[0].socket, "socket");
  EXPECT_EQ(std::make_tuple(attached[0].pingInterval, attached[0].timeout, attached[0].retries),
            std::make_tuple(4, 5, 6));
  EXPECT_TRUE(adaptor->isSubAgentActive());
  EXPECT_FALSE(adaptor->getConfigurator().isConfigured());
  adaptor->subAgent->canAttach = false;
  try {
    adaptor->initSubAgentAfterRestart();
    FAIL();
  } catch (const Vela::VelaException& ex) {
    EXPECT_EQ(ex.getCode(), 1);
    EXPECT_EQ(ex.getReason(), "Failed to initialize netsnmp");
  }
  handler.setSnmpMasterAgentAgentxSocket("");
  adaptor->initSubAgentAfterRestart();
  EXPECT_EQ(attached.size(), 2U);
  adaptor->setConfigurationHandler(nullptr);
  EXPECT_THROW(adaptor->prepareForStart(nullptr), Vela::VelaException);
  EXPECT_EQ(log.count(Vela::LogError, "Caught exception during fm comp start: there is no component configuration."),
            1);
}

TEST_F(RunnableTest, StoppingTheMasterAgentClosesEverythingAndNeverThrows) {
  bool isMissing = true;
  StateTest::CommandStandIn tool([&](const std::string&, std::string&) -> int {
    if (isMissing) throw Vela::VelaException("no tool");
    return 0;
  });
  configure();
  adaptor->stopMasterAgent();
  EXPECT_FALSE(adaptor->isSubAgentActive());
  EXPECT_FALSE(adaptor->getConfigurator().isConfigured());
  const std::vector<std::string> errors = log.lines(Vela::LogError);
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ(errors.back().rfind("stopMasterAgent caught exception: ", 0), 0U);
  isMissing = false;
  tool.takeCommands();
  adaptor->stopMasterAgent();
  EXPECT_EQ(tool.takeCommands(), (std::vector<std::string>{"tarn|snmp|stop @15000"}));
}

TEST_F(RunnableTest, AStopEndsTheThreadAtOnceAndAnotherRunFollows) {
  states.onUpdate = [](SnmpAdaptorRunnable&) { return StateTransition::handled(3600000); };
  for (int run = 1; run <= 2; ++run) {
    const int updates = states.updates;
    const int entries = states.entries;
    startThread();
    ASSERT_TRUE(eventually([&] { return states.updates > updates; }));
    EXPECT_TRUE(adaptor->isRunning());
    EXPECT_FALSE(adaptor->subAgent->isInterrupted);
    EXPECT_THROW(adaptor->prepareForStart(nullptr), Vela::VelaException) << "the thread still runs";
    stopThread();
    EXPECT_FALSE(adaptor->isRunning());
    EXPECT_TRUE(adaptor->subAgent->isInterrupted);
    EXPECT_EQ(states.entries, entries + 1) << "it begins in the first state";
    EXPECT_FALSE(SnmpAlarmSnapshot::getInstance().syncWithSource()) << "there is no provider any more";
    adaptor->stop();  // too late for this run, and without a meaning for the next
  }
}

TEST_F(RunnableTest, AStopEndsToolsButASecondOneNotThoseOfTheShutdown) {
  struct Tool : Vela::ScriptRunner {
    int run(const std::vector<std::string>&, int, std::string&, std::string&,
            const Vela::ScriptCancellation* cancellation) override {
      return cancellation->isCancelled() ? 1 : 0;
    }
  };
  Vela::ScriptWrapper::setRunner(std::make_shared<Tool>());
  for (const long cancelled : {0, 1, 1}) {
    adaptor->stopMasterAgent();
    EXPECT_EQ(log.count(Vela::LogError, "stopMasterAgent caught exception: tarn snmp stop failed with exit status 1: "),
              cancelled);
    if (cancelled == 1) adaptor->resetToolCancellation();  // as the shutdown state does
    adaptor->stop();
  }
  Vela::ScriptWrapper::setRunner(nullptr);
}

TEST_F(RunnableTest, AStateChangeMessageStops) {
  for (const VelaStateChangeReason reason :
       {VelaStateChangeDeactivate, VelaStateChangeFailover, VelaStateChangeSwitchover}) {
    const int changes = states.events[SnmpEventImmChange];
    startThread();
    input.pushToInput(std::make_unique<SnmpStateChangeMessage>(VelaStateChangeActivate));
    input.pushToInput(std::make_unique<CmEventMessage>(DaxOamSpiCmEvent_Notification_1T{}));
    ASSERT_TRUE(eventually([&] { return states.events[SnmpEventImmChange] > changes; })) << "still running";
    input.pushToInput(std::make_unique<SnmpStateChangeMessage>(reason));
    ASSERT_TRUE(input.join(20000)) << reason;
  }
}

TEST_F(RunnableTest, ReadyDescriptorsDoNotStarveTheStates) {
  adaptor->subAgent->descriptor = eventfd(1, 0);  // a manager that walks without pause
  states.onUpdate = [](SnmpAdaptorRunnable&) {
    current->subAgent->isConnected = true;
    return StateTransition::handled(5);
  };
  startThread();
  EXPECT_TRUE(eventually([&] { return states.updates >= 5; }));
  stopThread();
  EXPECT_GT(adaptor->subAgent->reads, 0);
  close(adaptor->subAgent->descriptor);
}

TEST_F(RunnableTest, AClockSetBackMakesTheNextStepDueAtOnce) {
  static std::atomic<unsigned long long> now;
  now = 1700000000000ULL;
  SnmpUtil::setWallClock([] { return now.load(); });
  states.onUpdate = [](SnmpAdaptorRunnable&) {
    now -= 3600000;
    SnmpUtil::setWallClock([] { return now.load(); });  // makes the time of the system go back with it
    return StateTransition::handled(1);
  };
  startThread();
  EXPECT_TRUE(eventually([&] { return states.updates >= 3; }));
  stopThread();
  SnmpUtil::setWallClock(nullptr);
  EXPECT_GE(log.count(Vela::LogInfo, "Detected change in the system time resetting the stateMachine update time"), 2);
}

TEST_F(RunnableTest, AnExceptionEndsTheLoopWithALineOfItsKind) {
  const struct {
    std::function<void()> fail;
    const char* line;
  } cases[] = {
      {[] { throw Vela::VelaException("one"); }, "FATAL VelaException: one"},
      {[] { throw Poco::Exception("two"); }, "FATAL Poco Exception: Exception: two"},
      {[] { throw std::runtime_error("three"); }, "FATAL Std Exception: three"},
      {[] { throw 4; }, "FATAL unknown exception!"},
  };
  for (const auto& item : cases) {
    states.onUpdate = [&](SnmpAdaptorRunnable&) {
      item.fail();
      return StateTransition();
    };
    adaptor->subAgent->isConnected = true;
    startThread();
    ASSERT_TRUE(input.join(20000)) << item.line;
    EXPECT_EQ(log.count(Vela::LogError, item.line), 1);
    EXPECT_FALSE(adaptor->isSubAgentActive());
    EXPECT_EQ(adaptor->getStateId(), -1) << "no state is left behind, nor what watches for it";
    adaptor->stop();
    EXPECT_TRUE(input.join(0));
  }
  states.onUpdate = nullptr;
  const int updates = states.updates;
  startThread();
  EXPECT_TRUE(eventually([&] { return states.updates > updates; })) << "a start follows as ever";
  stopThread();
}

TEST_F(RunnableTest, AClosedConnectionIsReportedOncePerStay) {
  handler.setSnmpMasterAgentAgentxSocket("socket");
  static std::atomic<int> wanted;
  wanted = FmStateIdIdleEnabled;
  states.onUpdate = [](SnmpAdaptorRunnable& owner) {
    if (owner.getStateId() != wanted) return StateTransition::change(wanted, "test", 1);
    return StateTransition::handled(1);
  };
  startThread();
  ASSERT_TRUE(eventually([&] { return states.updates > 10; }));
  EXPECT_EQ(states.events[SnmpEventBootCountMismatch], 0) << "no master agent was started";
  stopThread();

  states.onUpdate = [update = states.onUpdate](SnmpAdaptorRunnable& owner) {
    owner.masterAgentStarted();
    return update(owner);
  };
  startThread();
  ASSERT_TRUE(eventually([&] { return states.events[SnmpEventBootCountMismatch] == 1; }));
  int updates = states.updates;
  ASSERT_TRUE(eventually([&] { return states.updates > updates + 10; }));
  EXPECT_EQ(states.events[SnmpEventBootCountMismatch], 1);

  wanted = FmStateIdPostConfigure;
  ASSERT_TRUE(eventually([&] { return states.events[SnmpEventRestart] == 1; }));
  wanted = FmStateIdConfigureTargets;
  updates = states.updates;
  ASSERT_TRUE(eventually([&] { return states.updates > updates + 10; }));
  wanted = FmStateIdIdleEnabled;
  ASSERT_TRUE(eventually([&] { return states.events[SnmpEventBootCountMismatch] == 2; }));
  wanted = FmStateIdPostConfigure;
  updates = states.updates;
  ASSERT_TRUE(eventually([&] { return states.updates > updates + 10; }));
  EXPECT_EQ(states.events[SnmpEventRestart], 1) << "not so soon again";
  stopThread();
}

TEST_F(RunnableTest, AMasterAgentThatDoesNotAnswerIsNotAttachedToAgain) {
  handler.setSnmpMasterAgentAgentxSocket("socket");
  states.onUpdate = [](SnmpAdaptorRunnable& owner) {
    owner.masterAgentStarted();
    if (script->updates == 1) current->subAgent->isConnected = true;
    if (!owner.isOperational()) return StateTransition::change(FmStateIdIdleEnabled, "test", 1);
    if (script->updates == 5) current->subAgent->giveUp();
    return StateTransition::handled(1);
  };
  startThread();
  ASSERT_TRUE(eventually([&] { return states.updates > 20; }));
  stopThread();
  EXPECT_EQ(states.events[SnmpEventNoContact], 1);
  EXPECT_EQ(states.events[SnmpEventBootCountMismatch], 0);
}

/** Sends an alarm's notification to a port, as the master agent would. */
void sendDatagram(const SnmpAlarm& alarm, unsigned int port) {
  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_VERSION_2c;
  std::string peer = "127.0.0.1:" + std::to_string(port);
  std::string community = "VelaDummy";
  session.peername = peer.data();
  session.community = reinterpret_cast<unsigned char*>(community.data());
  session.community_len = community.size();
  void* const handle = snmp_sess_open(&session);
  ASSERT_NE(handle, nullptr);
  netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_TRAP2);
  const oid upTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
  const long ticks = 1;
  snmp_pdu_add_variable(pdu, upTime, 9, ASN_TIMETICKS, &ticks, sizeof ticks);
  pdu->variables->next_variable = snmp_clone_varbind(TrapSender::buildAlarm(alarm).front().list());
  if (snmp_sess_send(handle, pdu) == 0) snmp_free_pdu(pdu);
  snmp_sess_close(handle);
}

TEST_F(RunnableTest, TheListenerRecognisesTheFirstQueuedNotification) {
  static std::atomic<unsigned int> port;
  static std::atomic<int> state;
  port = 0;
  state = FmStateIdConfigureTargets;
  states.onUpdate = [](SnmpAdaptorRunnable& owner) {
    const SnmpBaseTarget& target = owner.getInternalTrapTarget(AF_INET);
    EXPECT_EQ(target.name + " " + target.getSecurityName() + " " + target.address, "DummyTarget VelaDummy 127.0.0.1");
    EXPECT_EQ(target.version(), 2U);
    port = target.port;
    if (owner.getStateId() != state) return StateTransition::change(state, "test", 1);
    return StateTransition::handled(1);
  };
  SnmpAlarm expected;
  expected.setStateful(true);
  expected.setSeverity(4);
  expected.setManagedObject("ManagedElement=1,Port=1");
  expected.setAdditionalText(std::string(255, 'x'));
  expected.setSpecificProblem(std::string(900, 'y'));  // a long datagram
  SnmpAlarm other = expected;
  other.setManagedObject("ManagedElement=1,Port=2");

  startThread();
  input.pushToInput(std::make_unique<SnmpAlarmMessage>(expected));
  ASSERT_TRUE(eventually([&] { return port != 0 && countQueued() == 1; }));
  const auto settle = [&] {
    const int updates = states.updates;
    return eventually([&] { return states.updates > updates + 20; });
  };
  sendDatagram(expected, port);
  ASSERT_TRUE(settle());
  EXPECT_EQ(states.events[SnmpEventTrapReceived], 0) << "only while it is waited for";
  state = FmStateIdPostConfigure;
  ASSERT_TRUE(settle());
  sendDatagram(other, port);
  ASSERT_TRUE(settle());
  EXPECT_EQ(states.events[SnmpEventTrapReceived], 0);
  sendDatagram(expected, port);
  ASSERT_TRUE(eventually([&] { return states.events[SnmpEventTrapReceived] == 1; }));
  sendDatagram(other, port);
  ASSERT_TRUE(eventually([&] { return states.events[SnmpEventTrapReceived] == 2; })) << "nothing is queued any more";
  stopThread();
  EXPECT_FALSE(adaptor->hasQueuedAlarms());
}

TEST_F(RunnableTest, StatesThatTheModelDidNotTakeAreWrittenLater) {
  configure();
  {
    const StateTest::ControlledClock aLongTimeAgo;
    adaptor->onReconfigSuccess();
  }
  EXPECT_EQ(adaptor->model.stateWrites, 1);
  startThread();
  EXPECT_TRUE(eventually([&] { return adaptor->model.stateWrites == 2; }));
  stopThread();
  EXPECT_EQ(adaptor->model.stateWrites, 2);
}

}  // namespace
