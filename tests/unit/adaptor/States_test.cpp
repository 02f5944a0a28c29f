#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <type_traits>

#include "CertificateManager.h"
#include "StateFixture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace StateTest {
namespace {

const std::string Unhandled = "unhandled/100";
const std::string Handled = "handled/100";
const std::string Reload = "1/got IMM change event, reload configuration/100";
constexpr int Always = 1000000;
const std::string Restart = "3/got a triggered restart event/100";

template <class State>
std::unique_ptr<FmState> make(SnmpAdaptorRunnable& adaptor) {
  if constexpr (std::is_constructible_v<State, SnmpAdaptorRunnable&>) {
    return std::make_unique<State>(adaptor);
  } else {
    return std::make_unique<State>();
  }
}
using Factory = std::unique_ptr<FmState> (*)(SnmpAdaptorRunnable&);

TEST_F(StatesTest, registersEveryStateUnderItsName) {
  const std::pair<int, const char*> states[] = {
      {0, "OneTimeInit"},    {1, "IMMUpdating"},     {2, "LoadConfigurationData"}, {3, "StartMasterAgent"},
      {4, "CreateSession"},  {5, "ConfigureAgentX"}, {6, "ConfigureTargets"},      {7, "RetryConfigureTargets"},
      {8, "PostConfigure"},  {9, "IdleDisabled"},    {10, "IdleEnabled"},          {11, "IdleError"},
      {12, "unknown state"}, {13, "Shutdown"}};
  for (const auto& [id, name] : states) EXPECT_STREQ(adaptor.getStateName(id), name);
  EXPECT_EQ(adaptor.getStateId(), FmStateIdOneTimeInit);
}

TEST_F(StatesTest, answersEventsByState) {
  // Events 0 to 6; the reserved one and the end are for nobody but the shutdown. States at work leave all pending.
  const std::vector<std::string> pending(7, Unhandled);
  const struct {
    Factory makeState;
    std::vector<std::string> answers;
  } rows[] = {
      {make<FmStateOneTimeInit>, pending},
      {make<FmStateIMMUpdating>, {Handled, Unhandled, Unhandled, Unhandled, Unhandled, Unhandled, Unhandled}},
      {make<FmStateLoadConfigurationData>, pending},
      {make<FmStateStartMasterAgent>, pending},
      {make<FmStateConfigureAgentX>, pending},
      {make<FmStateCreateSession>, pending},
      {make<FmStateConfigureTargets>, pending},
      {make<FmStateRetryConfigureTargets>, pending},
      {make<FmStatePostConfigure>,
       {Reload, Unhandled, "10/trap received/6000", Unhandled, Unhandled, Unhandled, Restart}},
      {make<FmStateIdleDisabled>, {Reload, Unhandled, Handled, Unhandled, Unhandled, Unhandled, Handled}},
      {make<FmStateIdleEnabled>,
       {Reload, Unhandled, Handled, Unhandled, "5/Boot count missmatch, will reconfigure.../100",
        "4/No contact to the master agent/100", Restart}},
      {make<FmStateIdleError>, {Reload, Unhandled, Handled, Unhandled, Unhandled, Unhandled, Restart}},
      {make<FmStateShutdown>, std::vector<std::string>(7, Handled)},
  };
  for (const auto& row : rows) {
    const std::unique_ptr<FmState> state = row.makeState(adaptor);
    for (int event = 0; event <= 6; ++event) {
      EXPECT_EQ(text(state->onEvent(adaptor, static_cast<SnmpEvent>(event))), row.answers[static_cast<size_t>(event)])
          << "row " << &row - rows << " event " << event;
    }
  }
}

// --- OneTimeInit

TEST_F(StatesTest, oneTimeInitAsksWhatTheToolSupports) {
  answers = {{"tarn|snmp|is", "yes"}, {"tarn|pso|no-backup", "!no directory"}};
  FmStateOneTimeInit state;
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  answers["tarn|pso|no-backup"] = "/nb\n";
  EXPECT_EQ(text(state.onUpdate(adaptor)), "1/FmStateOneTimeInit completed/100");
  EXPECT_TRUE(adaptor.isDtlsSupported());
  EXPECT_TRUE(adaptor.isExactEngineIdSupported());
  EXPECT_EQ(Vela::CertificateManager::getInstance().getTarnConfigDir(), "/nb/etc/snmp");
  EXPECT_EQ(log.count(Vela::LogInfo, "Using pso no-backup dir: '/nb'"), 1);

  answers = {{"tarn|snmp|is", "no"}};
  EXPECT_EQ(text(state.onUpdate(adaptor)), "1/FmStateOneTimeInit completed/100");
  EXPECT_FALSE(adaptor.isDtlsSupported());
  EXPECT_FALSE(adaptor.isExactEngineIdSupported());
  EXPECT_EQ(Vela::CertificateManager::getInstance().getTarnConfigDir(), "");
}

TEST_F(StatesTest, oneTimeInitAssumesNoDtlsAfterFourFailures) {
  answers = {{"tarn|spi-revision", "!broken"}};
  FmStateOneTimeInit state;
  adaptor.setDtlsSupported(true);
  for (int attempt = 1; attempt <= 3; ++attempt) EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "1/Failed to check for dtls support, assuming no/100");
  EXPECT_FALSE(adaptor.isDtlsSupported());
  EXPECT_EQ(log.count(Vela::LogError, "Failed to check for dtls support: broken"), 1);
  // Three attempts for the engine id in each of the four updates.
  EXPECT_EQ(log.count(Vela::LogError, "Failed to check for exactEngineID support: broken"), 12);
}

// --- IMMUpdating

TEST_F(StatesTest, configurationIsReadAfterMoreThanASecondOfQuiet) {
  FmStateIMMUpdating state(adaptor);
  for (int i = 0; i < 10; ++i) {
    clock.advance(300);
    EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
    state.onEvent(adaptor, SnmpEventImmChange);
  }
  clock.advance(1000);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  clock.advance(1);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "2/no updates in one second/100");
}

// --- LoadConfigurationData

class LoadTest : public StatesTest {
 protected:
  LoadTest() {
    SnmpConfig enabled;
    enabled.agentAddress = {{"127.0.0.1", 1161}};
    addTarget(enabled, "a");
    adaptor.model.snmpConfig = enabled;
  }

  /** Everything up, configured with what the model has. */
  void bringUp() {
    adaptor.session.initSessionWithPwdFile("", 0, "", "");
    adaptor.isAttached = true;
    adaptor.getConfigurator().reconfigure(adaptor.session, adaptor.model.snmpConfig);
    ASSERT_TRUE(adaptor.getConfigurator().isConfigured());
    ASSERT_TRUE(adaptor.getConfigurator().getCurrentConfig().allTargetsOperational());
    journal.take();
  }
  std::string load() {
    FmStateLoadConfigurationData state;
    return text(state.onUpdate(adaptor));
  }
};

TEST_F(LoadTest, startsTheMasterAgentUnlessEverythingIsUp) {
  const std::string start = "3/configuration loaded, fm enabled/100";
  adaptor.setDtlsSupported(true);
  EXPECT_EQ(load(), start);
  EXPECT_THAT(journal.take(), ElementsAre("read with dtls", "static tls", "cm rule", "fm rule"));

  bringUp();
  EXPECT_EQ(load(), "8/nothing changed/100");
  adaptor.isAttached = false;
  EXPECT_EQ(load(), start);
  adaptor.isAttached = true;
  adaptor.session.close();
  EXPECT_EQ(load(), start);
  bringUp();
  adaptor.getConfigurator().invalidate();
  EXPECT_EQ(load(), start);
  bringUp();
  SnmpConfig disabled = adaptor.model.snmpConfig;
  disabled.administrativeState = false;
  adaptor.getConfigurator().setCurrentConfig(disabled);
  EXPECT_EQ(load(), start);
}

TEST_F(LoadTest, reconfiguresOrRestartsByWhatChanged) {
  bringUp();
  SnmpConfig current = adaptor.getConfigurator().getCurrentConfig();
  current.targets["a"]->operational = false;
  EXPECT_EQ(load(), "6/configuration loaded, some changes/100");
  current.targets["a"]->operational = true;
  addTarget(adaptor.model.snmpConfig, "b");
  EXPECT_EQ(load(), "6/configuration loaded, some changes/100");
  addTarget(adaptor.model.snmpConfig, "c", "secret");
  EXPECT_EQ(load(), "3/configuration loaded, restart required/100");
}

TEST_F(LoadTest, restsWhenTheServiceIsSwitchedOff) {
  bringUp();
  adaptor.model.snmpConfig.administrativeState = false;
  EXPECT_EQ(load(), "9/configuration loaded, fm disabled/100");
  EXPECT_THAT(journal.take(), ElementsAre("read", "static tls", "cm rule", "fm rule"));
  EXPECT_FALSE(adaptor.getConfigurator().getCurrentConfig().isEnabled());
  EXPECT_EQ(load(), "9/configuration loaded, fm already disabled/100");
}

TEST_F(LoadTest, emptiesAnEngineIdThatTheToolCannotSet) {
  const std::string line = "Configuration of engineID not supported. Setting 'engineId' to empty value.";
  adaptor.model.snmpConfig.engineId = "8000000001020304";
  adaptor.setExactEngineIdSupported(true);
  load();
  EXPECT_EQ(config().engineId, "8000000001020304");
  EXPECT_EQ(log.count(Vela::LogInfo, line), 0);

  adaptor.setExactEngineIdSupported(false);
  journal.take();
  load();
  EXPECT_EQ(config().engineId, "");
  EXPECT_THAT(journal.take(), ElementsAre("read", "static tls", "engineId ''", "cm rule", "fm rule"));
  EXPECT_EQ(log.count(Vela::LogInfo, line), 1);

  adaptor.model.snmpConfig.administrativeState = false;
  load();
  EXPECT_EQ(config().engineId, "8000000001020304");
}

TEST_F(LoadTest, goesOnAfterThreeFailuresToReadAndComesBackAfterFour) {
  for (const int failures : {3, 4}) {
    adaptor.model.failures = failures;
    FmStateLoadConfigurationData state;
    for (int attempt = 1; attempt <= 3; ++attempt) EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
    EXPECT_THAT(log.lines(Vela::LogError), IsEmpty());
    EXPECT_EQ(text(state.onUpdate(adaptor)), failures == 3 ? "3/configuration loaded, fm enabled/100"
                                                           : "11/Failed to read configuration: no model/100");
  }
  EXPECT_EQ(log.count(Vela::LogError, "Failed to read configuration after 3 retries: no model"), 1);
  adaptor.changeState(FmStateIdIdleError);
  clock.advance(2001);
  for (int step = 1; step <= 2; ++step) adaptor.updateStateMachine();
  EXPECT_EQ(adaptor.getStateId(), FmStateIdStartMasterAgent);
}

TEST_F(LoadTest, knowsWhatNeedsARestart) {
  using Change = std::function<void(SnmpConfig&)>;
  const Change none = [](SnmpConfig&) {};
  const Change enableTls = [](SnmpConfig& to) {
    to.tlsOptions.nodeCredential = "01";
    to.tlsOptions.agentAddressDtls = {{"127.0.0.1", 10161}};
    to.tlsOptions.trustCategories = {"02"};
  };
  const auto withTls = [&](const std::function<void(SnmpConfig::tlsOptions_t&)>& change) {
    return [enableTls, change](SnmpConfig& to) {
      enableTls(to);
      change(to.tlsOptions);
    };
  };
  const auto addInform = [](SnmpConfig& to, SnmpTargetV3Usm* target, const char* authKey) {
    target->name = target->user = "inform";
    target->address = "127.0.0.1";
    target->transportMethod = TransportInform;
    target->authKey = authKey;
    target->privKey = "a privacy pass phrase";
    to.targets["inform"] = target;
  };
  const auto addSource = [](SnmpConfig& to, const char* address) {
    addTarget(to, "s")->address = address;
    to.enableSourceCheckForV1V2C = true;
  };
  const struct {
    const char* what;
    Change before, after;
    bool isRestart;
    const char* trace;
  } cases[] = {
      {"host", none, [](SnmpConfig& to) { to.agentAddress[0].first = "::1"; }, true, ""},
      {"port", none, [](SnmpConfig& to) { to.agentAddress[0].second++; }, true, ""},
      {"dtls off", enableTls, none, true, ""},
      {"dtls trust", enableTls, withTls([](auto& options) { options.trustCategories.emplace_back("03"); }), true, ""},
      {"dtls address", enableTls, withTls([](auto& options) { options.agentAddressDtls[0].first = "::1"; }), true, ""},
      {"dtls port", enableTls, withTls([](auto& options) { options.agentAddressDtls[0].second++; }), true, ""},
      {"dtls credential", enableTls, withTls([](auto& options) { options.nodeCredential = "04"; }), true, ""},
      {"dtls address, off", none, [](SnmpConfig& to) { to.tlsOptions.agentAddressDtls.clear(); }, false, ""},
      {"name", none, [](SnmpConfig& to) { to.snmpId = "another"; }, true, ""},
      {"engine id", none, [](SnmpConfig& to) { to.engineId = "8000000001020304"; }, true, ""},
      {"source check", none, [](SnmpConfig& to) { to.enableSourceCheckForV1V2C = true; }, true, ""},
      {"target", none, [](SnmpConfig& to) { addTarget(to, "b"); }, false, ""},
      {"community removed", [](SnmpConfig& to) { addTarget(to, "b", "old"); }, none, false, ""},
      {"community", none, [&](SnmpConfig& to) { addTarget(to, "b", "new"); }, true,
       "Community 'new' is not in the old config"},
      {"source, checked", [&](SnmpConfig& to) { addSource(to, "10.0.0.1"); },
       [&](SnmpConfig& to) { addSource(to, "10.0.0.2"); }, true,
       "Address with networkprefixlength 10.0.0.2 is not in the old config"},
      {"source removed, checked", [&](SnmpConfig& to) { addSource(to, "10.0.0.1"); },
       [](SnmpConfig& to) { to.enableSourceCheckForV1V2C = true; }, false, ""},
      {"inform", [&](SnmpConfig& to) { addInform(to, new SnmpTargetV3Usm, "first one"); },
       [&](SnmpConfig& to) { addInform(to, new SnmpTargetV3Usm, "second one"); }, true,
       "target with inform transport method has changed - restart needed"},
      {"dtls inform", enableTls,
       [&](SnmpConfig& to) {
         enableTls(to);
         addInform(to, new SnmpTargetV3Tls, "");
       },
       true, "dtls target with inform transport method has changed - restart needed"},
  };
  for (const auto& testCase : cases) {
    SnmpConfig before = adaptor.model.snmpConfig;
    SnmpConfig after = adaptor.model.snmpConfig;
    testCase.before(before);
    testCase.after(after);
    EXPECT_EQ(FmStateLoadConfigurationData::isMasterAgentRestartNeeded(before, after), testCase.isRestart)
        << testCase.what;
    EXPECT_TRUE(!*testCase.trace || log.hasTrace(testCase.trace)) << testCase.what;
  }
}

// --- StartMasterAgent

TEST_F(StatesTest, startWritesTheConfigurationInOrder) {
  for (const bool isDtlsSupported : {false, true}) {
    adaptor.setDtlsSupported(isDtlsSupported);
    FmStateStartMasterAgent state(adaptor);
    EXPECT_EQ(text(state.onUpdate(adaptor)), "5/master agent started/100");
    EXPECT_THAT(journal.take(), ElementsAre("stop agent", "master agent started", "cm rule", "fm rule"));
    std::vector<testing::Matcher<std::string>> expected = {
        StartsWith("tarn|snmp|configure|ipAddress=udp:127.0.0.1:" + std::to_string(agentPort)),
        StartsWith("tarn|snmp|configure|communities="), StartsWith("tarn|snmp|configure|trapsess=")};
    if (isDtlsSupported) expected.emplace_back(StartsWith("tarn|snmp|configure|dtlsNodeCredential="));
    expected.emplace_back(StartsWith("tarn|snmp|configure|setCipherString="));
    expected.emplace_back(StartsWith("tarn|snmp|configure|engineId="));
    expected.emplace_back("tarn|snmp|start @120000");
    const std::vector<std::string> commands = takeToolCommands();
    EXPECT_THAT(commands, ElementsAreArray(expected));
    for (size_t i = 0; i + 1 < commands.size(); ++i) EXPECT_THAT(commands[i], testing::EndsWith(" @30000"));
  }
  EXPECT_TRUE(log.hasTrace("all ports available."));
}

TEST_F(StatesTest, startWaitsTwentySecondsForATakenPort) {
  const TakenPort taken;
  const std::string port = std::to_string(taken.port());
  config().agentAddress.emplace_back("127.0.0.1", taken.port());
  FmStateStartMasterAgent state(adaptor);
  for (int second = 0; second < 20; ++second) {
    EXPECT_EQ(text(state.onUpdate(adaptor)), "handled/1000") << second;
    clock.advance(second < 19 ? 1000 : 999);
  }
  EXPECT_EQ(text(state.onUpdate(adaptor)), "handled/1000");
  EXPECT_TRUE(log.hasTrace("Port " + port + " is not available, will retry"));
  EXPECT_THAT(journal.take(), SizeIs(1 + 21)) << "stopped at entry and at each failure";
  clock.advance(1);
  EXPECT_THAT(text(state.onUpdate(adaptor)), StartsWith("11/Port is not available: failed to bind socket"));
  EXPECT_EQ(log.count(Vela::LogError, "Port " + port + " is not available to start SNMP agent."), 1);
  EXPECT_THAT(takeToolCommands(), IsEmpty());
}

TEST_F(StatesTest, startLooksAtEveryPortOfEitherFamily) {
  for (const int family : {AF_INET, AF_INET6}) {
    const TakenPort taken(family);
    if (taken.port() == 0) GTEST_SKIP() << "no IPv6 here";
    const std::pair<std::string, std::uint32_t> address(family == AF_INET ? "127.0.0.1" : "::1", taken.port());
    const std::pair<std::string, std::uint32_t> free("127.0.0.1", agentPort);
    for (const auto& [first, second] : {std::pair(address, free), std::pair(free, address)}) {
      config().agentAddress = {first, second};
      EXPECT_EQ(text(FmStateStartMasterAgent(adaptor).onUpdate(adaptor)), "handled/1000") << address.first;
      EXPECT_TRUE(log.hasTrace("Port " + std::to_string(taken.port()) + " is not available, will retry"));
    }
  }
}

TEST_F(StatesTest, startGoesOnWhenThePortIsFreeAgain) {
  TakenPort taken;
  config().agentAddress = {{"127.0.0.1", taken.port()}};
  FmStateStartMasterAgent state(adaptor);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "handled/1000");
  taken.release();
  clock.advance(60000);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "5/master agent started/100");
}

/** Takes the right to bind ports below 1024 from this thread. */
class WithoutBindRight {
 public:
  WithoutBindRight() {
    syscall(SYS_capget, &_header, _data);
    __user_cap_data_struct reduced[2] = {_data[0], _data[1]};
    reduced[0].effective &= ~(1U << CAP_NET_BIND_SERVICE);
    syscall(SYS_capset, &_header, reduced);
  }
  ~WithoutBindRight() { syscall(SYS_capset, &_header, _data); }
  WithoutBindRight(const WithoutBindRight&) = delete;
  WithoutBindRight& operator=(const WithoutBindRight&) = delete;

 private:
  __user_cap_header_struct _header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct _data[2] = {};
};

TEST_F(StatesTest, startIsNotHeldUpByAPortThatOnlyTheMasterAgentMayBind) {
  const WithoutBindRight withoutRight;
  try {
    Listener().open("127.0.0.1", 7);
    GTEST_SKIP() << "everybody may bind every port here";
  } catch (const Listener::NoAccessException&) {
  }
  const TakenPort notLookedAt;
  config().agentAddress = {{"127.0.0.1", 7}, {"127.0.0.1", notLookedAt.port()}};
  FmStateStartMasterAgent state(adaptor);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "5/master agent started/100");
  EXPECT_TRUE(log.hasTrace("bind returned EACCES - assuming snmpd can bind it anyway."));
}

TEST_F(StatesTest, startGivesUpAtTheThirdFailure) {
  answers = {{"tarn|snmp|start", "!does not start"}};
  FmStateStartMasterAgent state(adaptor);
  for (int attempt = 1; attempt <= 2; ++attempt) EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "11/Failed to start master agent: does not start/100");
  EXPECT_EQ(log.count(Vela::LogError, "Failed to start master agent after 2 retries: does not start"), 1);
  EXPECT_THAT(takeToolCommands(), SizeIs(3 * 6)) << "each attempt writes everything again";
  EXPECT_THAT(journal.take(), ElementsAre("stop agent")) << "no rules, and no master agent to attach to";
}

// --- ConfigureAgentX and CreateSession

TEST_F(StatesTest, attachGivesUpAtTheThirdFailure) {
  adaptor.failingAttaches = 2;
  FmStateConfigureAgentX persistent;
  for (int attempt = 1; attempt <= 2; ++attempt) EXPECT_EQ(text(persistent.onUpdate(adaptor)), Handled);
  EXPECT_EQ(text(persistent.onUpdate(adaptor)), "4/success/100");
  adaptor.failingAttaches = 3;
  FmStateConfigureAgentX state;
  for (int attempt = 1; attempt <= 2; ++attempt) EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "11/Failed to register agentx: no socket/100");
  EXPECT_EQ(log.count(Vela::LogError, "Failed to register agentx after 2 retries: no socket"), 1);
}

TEST_F(StatesTest, sessionIsOpenedAfreshAndGivenUpAtTheSecondFailure) {
  const std::string open = "adaptor open 127.0.0.1 " + std::to_string(agentPort) + " vela_config_user pwd-file";
  agent.refusedOpens = 1;
  {
    FmStateCreateSession state(adaptor);
    EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
    EXPECT_EQ(text(state.onUpdate(adaptor)), "6/successfully connected to master agent/100");
    EXPECT_THAT(journal.take(), ElementsAre(open, open));
  }
  agent.refusedOpens = 2;
  FmStateCreateSession state(adaptor);
  EXPECT_THAT(journal.take(), ElementsAre("adaptor close"));
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "11/failed to create snmp session: nobody there/100");
  EXPECT_EQ(log.count(Vela::LogError, "Failed to create snmp session after 1 retries: nobody there"), 1);
}

TEST_F(StatesTest, masterAgentIsReachedAtTheFirstAddress) {
  const std::pair<const char*, const char*> cases[] = {{"0.0.0.0", "127.0.0.1"},
                                                       {"10.1.2.3", "10.1.2.3"},
                                                       {"::", "udp6:[::1]"},
                                                       {"::1", "udp6:[::1]"},
                                                       {"2001:db8::7", "udp6:[2001:db8::7]"},
                                                       {"node.example.net", "127.0.0.1"}};
  SnmpConfig config;
  EXPECT_EQ(FmStateCreateSession::getMasterAgentAddress(config), "127.0.0.1");
  for (const auto& [host, address] : cases) {
    config.agentAddress = {{host, 161}, {"10.9.9.9", 161}};
    EXPECT_EQ(FmStateCreateSession::getMasterAgentAddress(config), address) << host;
  }
}

// --- ConfigureTargets and RetryConfigureTargets

class TargetsTest : public StatesTest {
 protected:
  TargetsTest() {
    adaptor.session.initSessionWithPwdFile("", 0, "", "");
    journal.take();
  }
  static constexpr const char* TooLong = "a community of more than 32 octets";
};

TEST_F(TargetsTest, theInternalTargetIsOfTheAgentsFamilyAndLeftOutWithoutListenerOrTargets) {
  const struct {
    bool hasTarget, usesListener;
    const char* agent;
    std::string listener;
  } cases[] = {{false, true, "127.0.0.1", ""},
               {true, false, "127.0.0.1", ""},
               {true, true, "127.0.0.1", "127.0.0.1"},
               {true, true, "::1", "::1"}};
  for (const auto& item : cases) {
    adaptor.closeListener();
    configure(item.usesListener);
    config().targets.clear();
    if (item.hasTarget) addTarget(config(), "a");
    config().agentAddress = {{item.agent, agentPort}};
    EXPECT_EQ(text(FmStateConfigureTargets().onUpdate(adaptor)), "8/successfully configured all targets/100");
    const bool isOpen = adaptor.getListener().isOpen();
    if (item.listener == "::1" && !isOpen) GTEST_SKIP() << "no IPv6 here";
    EXPECT_EQ(isOpen ? adaptor.getListener().getAddress() : "", item.listener);
    EXPECT_EQ(adaptor.getConfigurator().getCurrentConfig(), config());
  }
}

TEST_F(TargetsTest, goesToRetryAndOnWhetherOrNotItHelps) {
  addTarget(config(), "a", TooLong);
  FmStateConfigureTargets state;
  EXPECT_EQ(text(state.onUpdate(adaptor)), "7/not all targets operational/100");
  journal.take();
  FmStateRetryConfigureTargets retry(adaptor);
  EXPECT_THAT(journal.take(), ElementsAre("success"));
  EXPECT_EQ(text(retry.onUpdate(adaptor)), "8/not all targets operational/100");
  config().targets.clear();
  addTarget(config(), "a");
  state.onUpdate(adaptor);
  EXPECT_EQ(text(retry.onUpdate(adaptor)), "8/successfully configured all targets/100");
}

TEST_F(TargetsTest, aChangeAppliesWhatIsNewAndARetryWhatIsInForce) {
  const auto inForce = [&] {
    std::string names;
    for (const auto& entry : adaptor.getConfigurator().getCurrentConfig().getTargets()) names += entry.first;
    return names;
  };
  addTarget(config(), "a");
  FmStateConfigureTargets().onUpdate(adaptor);
  EXPECT_EQ(inForce(), "a");
  addTarget(config(), "b");
  FmStateRetryConfigureTargets(adaptor).onUpdate(adaptor);
  EXPECT_EQ(inForce(), "a");
  FmStateConfigureTargets().onUpdate(adaptor);
  EXPECT_EQ(inForce(), "ab");
  addTarget(config(), "c");
  config().administrativeState = false;
  make<FmStateIdleDisabled>(adaptor);
  EXPECT_EQ(inForce(), "abc");
  EXPECT_FALSE(adaptor.getConfigurator().getCurrentConfig().isEnabled());
}

TEST_F(TargetsTest, aPassThatHasLostItsSessionOpensItAnew) {
  addTarget(config(), "a");
  FmStateConfigureTargets configureState;
  FmStateRetryConfigureTargets retryState(adaptor);
  for (FmState* state : std::initializer_list<FmState*>{&configureState, &retryState}) {
    agent.mutePolls = 1;
    EXPECT_EQ(text(state->onUpdate(adaptor)), Handled);
    adaptor.session.close();
    journal.take();
    EXPECT_EQ(text(state->onUpdate(adaptor)), "8/successfully configured all targets/100");
    EXPECT_THAT(journal.take(), testing::Contains(StartsWith("adaptor open 127.0.0.1")));
  }
}

TEST_F(TargetsTest, aRetryReadsTheModelAgainForPassPhrasesThatCouldNotBeDecrypted) {
  const auto decrypt = [](SnmpConfig& to, const char* name, bool isDecrypted) {
    SnmpTargetV2C* target = addTarget(to, name);
    target->isComplete = isDecrypted;
    target->mayBeReadLater = !isDecrypted;
  };
  const struct {
    bool isDecryptedLater;
    int failures;
    int next;
  } cases[] = {{false, 0, FmStateIdPostConfigure}, {false, 1, FmStateIdPostConfigure}, {true, 0, FmStateIdIMMUpdating}};
  for (const auto& test : cases) {
    for (const char* name : {"a", "b"}) decrypt(config(), name, false);
    adaptor.model.snmpConfig = config();
    decrypt(adaptor.model.snmpConfig, "a", test.isDecryptedLater);
    adaptor.model.failures = test.failures;
    adaptor.changeState(FmStateIdConfigureTargets);
    for (const int state :
         {static_cast<int>(FmStateIdRetryConfigureTargets), static_cast<int>(FmStateIdPostConfigure), test.next}) {
      adaptor.updateStateMachine();
      EXPECT_EQ(adaptor.getStateId(), state) << &test - cases;
    }
  }
}

TEST_F(TargetsTest, eachReconfigurationAppliesItsOwnConfiguration) {
  const auto applied = [this] {
    const SnmpConfig& current = adaptor.getConfigurator().getCurrentConfig();
    return std::to_string(current.isEnabled()) + (current.targets.count("b") != 0 ? " b" : " a");
  };
  addTarget(config(), "a");
  FmStateConfigureTargets().onUpdate(adaptor);
  EXPECT_EQ(applied(), "1 a");
  config().targets.clear();
  addTarget(config(), "b");
  FmStateRetryConfigureTargets(adaptor).onUpdate(adaptor);
  EXPECT_EQ(applied(), "1 a") << "what the agent has, not what was read since";
  config().administrativeState = false;
  make<FmStateIdleDisabled>(adaptor);
  EXPECT_EQ(applied(), "0 b");
}

/** With one target, and the internal one. */
class ConfiguredTest : public TargetsTest {
 protected:
  ConfiguredTest() {
    addTarget(config(), "a");
    FmStateConfigureTargets().onUpdate(adaptor);
    adaptor.queued = 1;
    journal.take();
  }
};

TEST_F(ConfiguredTest, takesTheInternalTargetOutWhenSwitchedOff) {
  ASSERT_TRUE(adaptor.getListener().isOpen());
  config().administrativeState = false;
  EXPECT_EQ(text(FmStateConfigureTargets().onUpdate(adaptor)), "9/successfully de-configured targets/100");
  EXPECT_FALSE(adaptor.getListener().isOpen());
}

TEST_F(ConfiguredTest, bothGiveUpAtTheThirdFailure) {
  agent.mutePolls = Always;
  FmStateConfigureTargets configureState;
  FmStateRetryConfigureTargets retryState(adaptor);
  for (FmState* state : std::initializer_list<FmState*>{&configureState, &retryState}) {
    for (int attempt = 1; attempt <= 2; ++attempt) EXPECT_EQ(text(state->onUpdate(adaptor)), Handled);
    EXPECT_THAT(text(state->onUpdate(adaptor)), StartsWith("11/Failed to configure targets: Timeout: No Response"));
  }
  EXPECT_THAT(log.lines(Vela::LogError),
              testing::Contains(StartsWith("Failed to configure targets after 2 retries: Timeout")).Times(2));
}

// --- PostConfigure

TEST_F(TargetsTest, postConfigureIsADelayWithoutListener) {
  configure(false);
  addTarget(config(), "a");
  FmStateConfigureTargets().onUpdate(adaptor);
  adaptor.queued = 1;
  journal.take();
  FmStatePostConfigure state(adaptor);
  EXPECT_THAT(journal.take(), ElementsAre("success"));
  clock.advance(24999);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  clock.advance(1);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "10/delay after config complete/100");
  EXPECT_THAT(journal.take(), IsEmpty());
}

TEST_F(ConfiguredTest, postConfigureSendsOneAlarmEvery1250Milliseconds) {
  adaptor.queued = 0;
  FmStatePostConfigure state(adaptor);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_THAT(journal.take(), ElementsAre("success")) << "nothing is queued";
  adaptor.queued = 1;
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_THAT(journal.take(), ElementsAre("try one"));
  clock.advance(1249);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_THAT(journal.take(), IsEmpty());
  clock.advance(1);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_THAT(journal.take(), ElementsAre("try one"));
  clock.advance(24999 - 1250);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  clock.advance(1);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "11/trap not received/100");
}

TEST_F(ConfiguredTest, postConfigureOpensTheListenerAgainAfterAFailure) {
  adaptor.failingSends = 1;
  FmStatePostConfigure state(adaptor);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_EQ(log.count(Vela::LogError, "PostConfigure caught exception: cannot send"), 1);
  EXPECT_FALSE(adaptor.getListener().isOpen());
  const int rowsBefore = agent.rowsSet;
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
  EXPECT_TRUE(adaptor.getListener().isOpen());
  EXPECT_GT(agent.rowsSet, rowsBefore) << "the internal target has another port";
}

TEST_F(ConfiguredTest, postConfigureDoesNotWaitForWhatWasNotSent) {
  adaptor.isSendable = false;
  FmStatePostConfigure state(adaptor);
  state.onUpdate(adaptor);
  state.onUpdate(adaptor);
  EXPECT_THAT(journal.take(), ElementsAre("success", "try one", "try one"));
  clock.advance(25000);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "10/delay after config complete/100");
}

TEST_F(ConfiguredTest, postConfigureForgetsTheLastAlarmWithTheListener) {
  FmStatePostConfigure state(adaptor);
  state.onUpdate(adaptor);
  clock.advance(1250);
  adaptor.closeListener();
  adaptor.queued = 0;
  state.onUpdate(adaptor);
  clock.advance(25000);
  EXPECT_EQ(text(state.onUpdate(adaptor)), "10/delay after config complete/100");
}

// --- Idle states and the end

TEST_F(StatesTest, idleDisabledTakesEverythingDownWhateverFails) {
  const auto everything = ElementsAre("close listener", "fail", "clear queue", "clear hand-over", "stop agent");
  FmStateIdleError::numReconfigAttempts = 7;
  EXPECT_EQ(text(FmStateIdleDisabled(adaptor).onUpdate(adaptor)), Unhandled);
  EXPECT_THAT(journal.take(), everything);
  EXPECT_EQ(agent.requests, 0) << "no session, no request";
  EXPECT_EQ(FmStateIdleError::numReconfigAttempts, 0U);

  adaptor.session.initSessionWithPwdFile("", 0, "", "");
  config().administrativeState = false;
  make<FmStateIdleDisabled>(adaptor);
  EXPECT_GT(agent.requests, 0);

  agent.mutePolls = Always;
  adaptor.failsToStopAndReport = true;
  journal.take();
  make<FmStateIdleDisabled>(adaptor);
  EXPECT_THAT(journal.take(), everything);
  EXPECT_EQ(log.count(Vela::LogError, "StateIdleDisabled caught exception: not now"), 2);
  EXPECT_THAT(log.lines(Vela::LogError),
              testing::Contains(StartsWith("StateIdleDisabled caught exception: Timeout: No Response")));
}

TEST_F(StatesTest, idleEnabledSendsTenAlarmsPerUpdateAndLooksAtTargetsEvery30Seconds) {
  const auto configureWith = [this](const char* community) {
    addTarget(config(), "a", community);
    adaptor.session.initSessionWithPwdFile("", 0, "", "");
    FmStateConfigureTargets().onUpdate(adaptor);
  };
  configureWith("public");
  FmStateIdleError::numReconfigAttempts = 7;
  FmStateIdleEnabled state(adaptor);
  EXPECT_EQ(FmStateIdleError::numReconfigAttempts, 0U);
  EXPECT_FALSE(adaptor.getListener().isOpen());
  state.stopThread();
  journal.take();
  clock.advance(30001);
  EXPECT_EQ(text(state.onUpdate(adaptor)), Unhandled);
  EXPECT_THAT(journal.take(), ElementsAre("send 10"));

  configureWith("a community of more than 32 octets");
  FmStateIdleEnabled faulty(adaptor);
  faulty.stopThread();
  journal.take();
  clock.advance(30000);
  EXPECT_EQ(text(faulty.onUpdate(adaptor)), Unhandled);
  clock.advance(1);
  EXPECT_EQ(text(faulty.onUpdate(adaptor)), "7/not all targets operational/100");
  EXPECT_THAT(journal.take(), ElementsAre("send 10", "send 10"));
  clock.advance(30000);
  adaptor.dscp.isMissing = true;
  EXPECT_EQ(text(faulty.onUpdate(adaptor)), Unhandled);
  EXPECT_THAT(journal.take(), ElementsAre("fm rule", "send 10"));
  clock.advance(30000);
  faulty.onUpdate(adaptor);
  EXPECT_THAT(journal.take(), ElementsAre("send 10")) << "packets to late names are marked every 30 seconds";
}

TEST_F(ConfiguredTest, bootCountMismatchMakesTheConfigurationInvalid) {
  ASSERT_TRUE(adaptor.getConfigurator().isConfigured());
  FmStateIdleEnabled state(adaptor);
  state.onEvent(adaptor, SnmpEventBootCountMismatch);
  EXPECT_FALSE(adaptor.getConfigurator().isConfigured());
}

TEST_F(StatesTest, idleErrorWaitsLongerAfterEveryFailure) {
  const unsigned long long intervals[] = {2000,  4000,  8000,  16000, 32000, 64000, 64000,
                                          64000, 64000, 64000, 64000, 64000, 64000};
  size_t round = 0;
  for (const unsigned long long interval : intervals) {
    FmStateIdleError state(adaptor);
    EXPECT_THAT(journal.take(), ElementsAre("close listener", "stop agent", "fail"));
    EXPECT_EQ(state.getRetryInterval(), interval) << round;
    clock.advance(interval);
    EXPECT_EQ(text(state.onUpdate(adaptor)), Handled) << round;
    if (round > 10) {
      EXPECT_THAT(journal.take(), ElementsAre("clear queue")) << round;
    } else {
      EXPECT_THAT(journal.take(), IsEmpty()) << round;
    }
    clock.advance(1);
    EXPECT_EQ(text(state.onUpdate(adaptor)), "2/retrying/100") << round;
    EXPECT_EQ(FmStateIdleError::numReconfigAttempts, ++round);
  }
}

TEST_F(StatesTest, idleErrorIsEnteredWhateverFails) {
  adaptor.failsToStopAndReport = true;
  FmStateIdleError state(adaptor);
  EXPECT_THAT(journal.take(), ElementsAre("close listener", "stop agent", "fail"));
  EXPECT_EQ(log.count(Vela::LogError, "StateIdleError caught exception: not now"), 2);
}

TEST_F(StatesTest, shutdownTakesEverythingDownAndEndsTheLoop) {
  FmStateShutdown state(adaptor);
  EXPECT_THAT(journal.take(), ElementsAre("tools again", "stop agent", "no cm rule", "no fm rule", "not running"));
  EXPECT_EQ(text(state.onUpdate(adaptor)), Handled);
}

// --- The clock

TEST_F(StatesTest, aClockThatIsSetHoldsNoWaitUpAndMakesNoneFail) {
  constexpr unsigned long long Hour = 3600000;
  configure(false);
  addTarget(config(), "a");
  FmStateConfigureTargets().onUpdate(adaptor);
  const TakenPort taken;
  config().agentAddress = {{"127.0.0.1", taken.port()}};
  const struct {
    Factory makeState;
    unsigned long long wait; /**< it ends when more has passed */
    const char* wasWaiting;
    const char* end;
  } cases[] = {
      {make<FmStateIMMUpdating>, 1000, "handled/100", "2/no updates in one second/100"},
      {make<FmStateStartMasterAgent>, 19999, "handled/1000", "11/Port is not available: "},
      {make<FmStatePostConfigure>, 24999, "handled/100", "10/delay after config complete/100"},
      {make<FmStateIdleError>, 2000, "handled/100", "2/retrying/100"},
  };
  for (const auto& item : cases) {
    for (const bool isSetBack : {true, false}) {
      const auto state = item.makeState(adaptor);
      clock.advance(item.wait / 2);
      EXPECT_EQ(text(state->onUpdate(adaptor)), item.wasWaiting) << item.end;
      clock.advance(isSetBack ? 0 - Hour : Hour);
      if (isSetBack) {
        EXPECT_EQ(text(state->onUpdate(adaptor)), item.wasWaiting) << item.end;
        clock.advance(item.wait - item.wait / 2);
        EXPECT_EQ(text(state->onUpdate(adaptor)), item.wasWaiting) << item.end;
        clock.advance(1);
      }
      EXPECT_THAT(text(state->onUpdate(adaptor)), StartsWith(item.end));
      FmStateIdleError::numReconfigAttempts = 0;
    }
  }
}

// --- The supervision of the master agent

class SupervisionTest : public ConfiguredTest {
 protected:
  SupervisionTest() { agent.requests = 0; }

  /** Steps the machine until it is in a state. */
  bool reaches(int state) {
    return eventually([&] {
      if (adaptor.getStateId() == state) return true;
      adaptor.updateStateMachine();
      return adaptor.getStateId() == state;
    });
  }
};

TEST_F(SupervisionTest, noticesARestartedMasterAgent) {
  adaptor.changeState(FmStateIdIdleEnabled);
  ASSERT_TRUE(eventually([this] { return agent.requests >= 2; })) << "it goes on while the boot count matches";
  EXPECT_EQ(adaptor.updateStateMachine(), 100);
  EXPECT_EQ(adaptor.getStateId(), FmStateIdIdleEnabled);
  agent.boots = 2;
  EXPECT_TRUE(reaches(FmStateIdConfigureAgentX));
  EXPECT_THAT(journal.take(), testing::IsSupersetOf({"supervision open 127.0.0.1 " + std::to_string(agentPort) +
                                                     " vela_config_user pwd-file"}));
}

TEST_F(SupervisionTest, asksAtTheConfiguredInterval) {
  for (const auto& [seconds, milliseconds] : {std::pair(0, 100), std::pair(1, 1000)}) {
    configure(true, seconds);
    agent.requests = 0;
    const auto begin = std::chrono::steady_clock::now();
    adaptor.changeState(FmStateIdIdleEnabled);
    ASSERT_TRUE(eventually([this] { return agent.requests >= 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(milliseconds)) << seconds;
    adaptor.leaveState();
  }
}

TEST_F(SupervisionTest, toleratesOneFailureButNotTwoInARow) {
  agent.mutePolls = 1;
  adaptor.changeState(FmStateIdIdleEnabled);
  ASSERT_TRUE(eventually([this] { return agent.requests >= 3; }));
  agent.mutePolls = 1;
  const int before = agent.requests;
  ASSERT_TRUE(eventually([&] { return agent.requests >= before + 3; }));
  adaptor.updateStateMachine();
  EXPECT_EQ(adaptor.getStateId(), FmStateIdIdleEnabled);
  EXPECT_THAT(log.lines(Vela::LogWarning), testing::Not(testing::Contains(StartsWith("Exception thrown :"))));
  agent.mutePolls = Always;
  EXPECT_TRUE(reaches(FmStateIdCreateSession));
  EXPECT_THAT(log.lines(Vela::LogWarning),
              testing::Contains(testing::AllOf(StartsWith("Exception thrown :Timeout: No Response"),
                                               testing::EndsWith("(probably no contact to the master agent)"))));
}

TEST_F(SupervisionTest, goesOnAfterTwoFailedSessionsAndReportsNoContactAfterThree) {
  agent.refusedOpens = 2;
  adaptor.changeState(FmStateIdIdleEnabled);
  EXPECT_TRUE(eventually([this] { return agent.requests >= 1; }));
  adaptor.leaveState();
  agent.requests = 0;
  journal.take();
  agent.refusedOpens = 3;
  adaptor.changeState(FmStateIdIdleEnabled);
  EXPECT_TRUE(reaches(FmStateIdCreateSession));
  EXPECT_EQ(log.count(Vela::LogError, "Failed to create snmp session: nobody there"), 1);
  EXPECT_EQ(agent.requests, 0);
  std::vector<std::string> opens = journal.take();
  std::erase_if(opens, [](const std::string& line) { return line.rfind("supervision open", 0) != 0; });
  EXPECT_THAT(opens, SizeIs(3));
}

TEST_F(SupervisionTest, endsAtOnceWithTheState) {
  configure(true, 3600);
  adaptor.changeState(FmStateIdIdleEnabled);
  ASSERT_TRUE(eventually([this] {
    const std::vector<std::string> lines = journal.take();
    return std::any_of(lines.begin(), lines.end(), [](const auto& line) { return line.rfind("supervision", 0) == 0; });
  }));
  const auto begin = std::chrono::steady_clock::now();
  adaptor.changeState(FmStateIdIMMUpdating);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_TRUE(log.hasTrace("socket closed (1), will exit thread"));
}

TEST_F(SupervisionTest, enteringAndLeavingAgainAndAgainLeavesNothingBehind) {
  const auto descriptors = [] {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::distance(begin(open), end(open));
  };
  const auto enterAndLeave = [this] {
    adaptor.changeState(FmStateIdIdleEnabled);
    adaptor.changeState(FmStateIdIMMUpdating);
  };
  enterAndLeave();
  const auto before = descriptors();
  for (int i = 0; i < 50; ++i) enterAndLeave();
  EXPECT_EQ(descriptors(), before);
}

TEST_F(SupervisionTest, runsWithoutAThreadWhenThereIsNoPipe) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  rlimit none = limit;
  none.rlim_cur = 0;
  setrlimit(RLIMIT_NOFILE, &none);
  adaptor.changeState(FmStateIdIdleEnabled);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(log.count(Vela::LogError, "pipe creation failed."), 1);
  EXPECT_EQ(adaptor.updateStateMachine(), 100);
  EXPECT_EQ(adaptor.getStateId(), FmStateIdIdleEnabled);
}

// --- The whole way

TEST_F(StatesTest, comesUpFromTheFirstStateAndActsOnAChangePostedMeanwhile) {
  SnmpConfig& model = adaptor.model.snmpConfig;
  model.agentAddress = {{"127.0.0.1", agentPort}};
  addTarget(model, "a");
  std::vector<int> way = {adaptor.getStateId()};
  const auto step = [&] {
    clock.advance(static_cast<unsigned long long>(adaptor.updateStateMachine()));
    if (way.back() != adaptor.getStateId()) way.push_back(adaptor.getStateId());
  };
  while (way.back() != FmStateIdCreateSession && way.size() < 20) step();
  adaptor.emitEvent(SnmpEventImmChange);
  while (way.back() != FmStateIdIdleEnabled && way.size() < 20) step();
  EXPECT_THAT(way, ElementsAre(0, 1, 2, 3, 5, 4, 6, 8, 1, 2, 8, 10));
}

}  // namespace
}  // namespace StateTest
