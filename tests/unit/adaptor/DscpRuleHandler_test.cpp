#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "SnmpDscpRuleHandler.h"
#include "StateTestSupport.h"
#include "VelaException.h"

using namespace VelaFmSnmp;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr const char* Probe = "dscp-iptables-list @4000";
constexpr const char* Enabled = "dscp-enabled @4000";

class DscpRuleHandlerTest : public testing::Test {
 protected:
  DscpRuleHandlerTest() {
    unsetenv("VELA_USER_MODE");
    unsetenv("SUDO_CMD");
    config.agentAddress = {{"127.0.0.1", 161}, {"10.0.0.1", 1161}, {"::1", 161}};
  }
  ~DscpRuleHandlerTest() override {
    unsetenv("VELA_USER_MODE");
    unsetenv("SUDO_CMD");
  }

  /** By the beginning of the command line; 0 otherwise. */
  int answer(const std::string& line, std::string& output) const {
    for (const auto& [beginning, status] : statuses) {
      if (line.rfind(beginning, 0) != 0) continue;
      if (status < 0) throw Vela::VelaException("no such command");
      output = "told why";
      return status;
    }
    return 0;
  }

  void addTarget(const char* name, const char* address, unsigned port) {
    Poco::AutoPtr<SnmpBaseTarget> target(new SnmpTargetV2C);
    target->address = address;
    target->port = port;
    config.targets[name] = target;
  }

  StateTest::CapturedLog log;
  std::map<std::string, int> statuses;
  StateTest::CommandStandIn commands{
      [this](const std::string& line, std::string& output) { return answer(line, output); }};
  SnmpConfig config;
};

TEST_F(DscpRuleHandlerTest, marksAnswersByTheAgentsPortsAndChangesARuleThatExists) {
  const std::string add = "dscp-iptables-add|vela-snmp-response|OamCM|-p udp --match multiport --sport 161,1161 @4000";
  config.tlsOptions.agentAddressDtls = {{"10.0.0.1", 10161}};
  const SnmpDscpRuleHandler handler;
  handler.setCmRule(config);
  EXPECT_THAT(commands.takeCommands(), ElementsAre(Probe, Enabled, add));
  EXPECT_TRUE(log.hasTrace("DSCP iptables API is available"));
  statuses["dscp-iptables-add"] = 1;
  handler.setCmRule(config);
  EXPECT_THAT(commands.takeCommands(), ElementsAre(Enabled, add,
                                                   "dscp-iptables-update-tuple|vela-snmp-response|"
                                                   "-p udp --match multiport --sport 161,1161 @4000"));
  EXPECT_TRUE(log.hasTrace("Rule already exists, trying modify instead"));
  EXPECT_THAT(log.lines(Vela::LogError), IsEmpty());

  config.tlsOptions.nodeCredential = "aa";
  config.tlsOptions.trustCategories = {"bb"};
  config.agentAddress.push_back({"10.0.0.2", 70000});
  handler.setCmRule(config);
  EXPECT_THAT(commands.takeCommands(), testing::Contains("dscp-iptables-add|vela-snmp-response|OamCM|"
                                                         "-p udp --match multiport --sport 161,1161,10161 @4000"));
  EXPECT_THAT(log.lines(Vela::LogWarning), ElementsAre("No DSCP marking for agent address 10.0.0.2, bad port 70000"));
}

TEST_F(DscpRuleHandlerTest, marksNotificationsByTheTargetsAddressesAndPorts) {
  addTarget("a", "10.0.0.9", 162);
  addTarget("c", "10.0.0.9", 1162);
  addTarget("d", "2001:db8::9", 162);
  const std::string add = "dscp-iptables-add|vela-snmp-alarm|OamFM|-p udp -d 10.0.0.9,2001:db8::9";
  const SnmpDscpRuleHandler handler;
  commands.takeCommands();
  handler.setFmRule(config);
  EXPECT_THAT(commands.takeCommands(), ElementsAre(Enabled, add + " --match multiport --dport 162,1162 @4000"));
  EXPECT_THAT(log.lines(Vela::LogWarning), IsEmpty());

  // What cannot be marked costs itself only, and is told.
  addTarget("e", "10.0.0.8 -j ACCEPT", 7);
  addTarget("f", "10.0.0.7", 70000);
  addTarget("g", "10.0.0.6", 0);
  addTarget("h", "no-such-host.invalid", 162);
  const auto start = std::chrono::steady_clock::now();
  handler.setFmRule(config);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_THAT(commands.takeCommands(), ElementsAre(Enabled, add + " --match multiport --dport 162,1162 @4000"));
  EXPECT_THAT(log.lines(Vela::LogWarning),
              ElementsAre("No DSCP marking for target e, bad address", "No DSCP marking for target f, bad port 70000",
                          "No DSCP marking for target g, bad port 0",
                          "No DSCP marking for target h yet: Could not resolve IP host: no-such-host.invalid"));
  EXPECT_TRUE(handler.isNameMissing());

  config.targets.erase("h");
  addTarget("i", "localhost", 162);
  handler.setFmRule(config);
  EXPECT_THAT(commands.takeCommands().back(), testing::AnyOf(StartsWith(add + ",127."), StartsWith(add + ",::1 ")));
  EXPECT_FALSE(handler.isNameMissing());
}

TEST_F(DscpRuleHandlerTest, leavesPortsOutWhenTheyAreMoreThanCanBeMatched) {
  for (unsigned port = 1; port <= 15; ++port) addTarget(std::to_string(port).c_str(), "10.0.0.9", port);
  const SnmpDscpRuleHandler handler;
  handler.setFmRule(config);
  EXPECT_THAT(commands.takeCommands().back(), testing::HasSubstr("--dport 1,10,11,12,13,14,15,2,3,4,5,6,7,8,9 @"));
  addTarget("99", "10.0.0.9", 99);
  handler.setFmRule(config);
  EXPECT_EQ(commands.takeCommands().back(), "dscp-iptables-add|vela-snmp-alarm|OamFM|-p udp -d 10.0.0.9 @4000");
}

TEST_F(DscpRuleHandlerTest, removesARuleThatIsSwitchedOffOrMarksNothing) {
  addTarget("a", "10.0.0.9", 162);
  config.dscpCmEnabled = config.dscpFmEnabled = false;
  const SnmpDscpRuleHandler handler;
  commands.takeCommands();
  handler.setCmRule(config);
  handler.setFmRule(config);
  const auto removals = ElementsAre(Enabled, "dscp-iptables-remove|-r|'^vela-snmp-response' @4000", Enabled,
                                    "dscp-iptables-remove|-r|'^vela-snmp-alarm' @4000");
  EXPECT_THAT(commands.takeCommands(), removals);
  handler.setCmRule(SnmpConfig());
  handler.setFmRule(SnmpConfig());
  EXPECT_THAT(commands.takeCommands(), removals);
  handler.removeCmRule();
  handler.removeFmRule();
  EXPECT_THAT(commands.takeCommands(), removals);
}

TEST_F(DscpRuleHandlerTest, logsWhatFails) {
  const struct {
    std::map<std::string, int> statuses;
    std::string line;
  } cases[] = {
      {{{"dscp-iptables-add", 7}},
       "dscp-iptables-add vela-snmp-response OamCM -p udp --match multiport --sport 161,1161 failed, retval: 7, "
       "output: told why"},
      {{{"dscp-iptables-add", 1}, {"dscp-iptables-update", 3}},
       "dscp-iptables-update-tuple vela-snmp-response -p udp --match multiport --sport 161,1161 failed, retval: 3, "
       "output: told why"},
      {{{"dscp-iptables-add", -1}}, "Exception when running dscp-iptables-add reason: no such command"},
      {{{"dscp-iptables-remove", -1}}, "Exception when running dscp-iptables-remove reason: no such command"},
      {{{"dscp-iptables-remove", 5}},
       "dscp-iptables-remove -r '^vela-snmp-response' failed, retval: 5, output: told why"},
      {{{"dscp-enabled", -1}}, "Exception when running dscp-enabled reason: no such command"},
  };
  for (const auto& testCase : cases) {
    statuses = testCase.statuses;
    const SnmpDscpRuleHandler handler;
    EXPECT_NO_THROW(handler.setCmRule(config));
    EXPECT_NO_THROW(handler.removeCmRule());
    EXPECT_GE(log.count(Vela::LogError, testCase.line), 1) << testCase.line;
  }
}

TEST_F(DscpRuleHandlerTest, aNullTargetIsAnErrorOfTheRuleOnly) {
  config.targets["none"] = nullptr;
  EXPECT_THROW(getAddress(*config.targets.begin()), Vela::VelaException);
  EXPECT_THROW(getPort(*config.targets.begin()), Vela::VelaException);
  const SnmpDscpRuleHandler handler;
  commands.takeCommands();
  EXPECT_NO_THROW(handler.setFmRule(config));
  EXPECT_THAT(commands.takeCommands(), ElementsAre(Enabled));
  EXPECT_THAT(log.lines(Vela::LogError), testing::SizeIs(1));
}

TEST_F(DscpRuleHandlerTest, runsNothingButTheProbesWhereMarkingIsNotOffered) {
  {
    statuses["dscp-enabled"] = 1;
    const SnmpDscpRuleHandler handler;
    commands.takeCommands();
    handler.setCmRule(config);
    handler.removeFmRule();
    EXPECT_THAT(commands.takeCommands(), ElementsAre(Enabled, Enabled));
    EXPECT_EQ(log.count(Vela::LogInfo, "Packets are not marked: told why"), 1) << "told once, not at every pass";
    statuses.clear();
    handler.setCmRule(config);
    statuses["dscp-enabled"] = 1;
    handler.setCmRule(config);
    EXPECT_EQ(log.count(Vela::LogInfo, "Packets are not marked: told why"), 2);
  }
  statuses = {{"dscp-iptables-list", 2}};
  const SnmpDscpRuleHandler unavailable;
  EXPECT_TRUE(log.hasTrace("DSCP iptables API is not available, status 2"));
  statuses = {{"dscp-iptables-list", -1}};
  const SnmpDscpRuleHandler missing;
  EXPECT_EQ(log.count(Vela::LogError, "Exception when running dscp-iptables-list reason: no such command"), 1);
  commands.takeCommands();
  unavailable.setCmRule(config);
  missing.removeCmRule();
  EXPECT_THAT(commands.takeCommands(), IsEmpty());
  EXPECT_EQ(log.count(Vela::LogInfo, "Packets are not marked: dscp-iptables-list fails with exit status 2: told why"),
            1);
  EXPECT_EQ(log.count(Vela::LogInfo, "Packets are not marked: dscp-iptables-list cannot be run"), 1);
}

TEST_F(DscpRuleHandlerTest, goesThroughSudoInUserMode) {
  const std::string folder = testing::TempDir() + "dscp_" + std::to_string(getpid()) + "/";
  std::filesystem::create_directories(folder);
  setenv("VELA_USER_MODE", "1", 1);
  {
    const SnmpDscpRuleHandler withoutSudo;
    EXPECT_THAT(commands.takeCommands(), ElementsAre(Probe));
  }
  setenv("SUDO_CMD", "asroot", 1);
  {
    const SnmpDscpRuleHandler withoutCommands(folder);
    withoutCommands.setCmRule(config);
    EXPECT_THAT(commands.takeCommands(), IsEmpty());
    EXPECT_TRUE(log.hasTrace("DSCP iptables API is not available, status -1"));
  }
  std::ofstream(folder + "dscp-iptables-list") << "#!/bin/sh\n";
  chmod((folder + "dscp-iptables-list").c_str(), 0755);
  statuses = {{"asroot|dscp-iptables-list", 2}};
  const SnmpDscpRuleHandler withoutEnvironment(folder);
  withoutEnvironment.setCmRule(config);
  EXPECT_EQ(
      log.count(Vela::LogInfo, "Packets are not marked: asroot dscp-iptables-list fails with exit status 2: told why"),
      1);
  commands.takeCommands();
  statuses = {{"asroot|dscp-iptables-add", 1}};
  const SnmpDscpRuleHandler handler(folder);
  handler.setCmRule(config);
  handler.removeCmRule();
  EXPECT_THAT(
      commands.takeCommands(),
      ElementsAre(
          "asroot|dscp-iptables-list @4000", Enabled,
          "asroot|dscp-iptables-add|vela-snmp-response|OamCM|-p udp --match multiport --sport 161,1161 @4000",
          "asroot|dscp-iptables-update-tuple|vela-snmp-response|-p udp --match multiport --sport 161,1161 @4000",
          Enabled, "asroot|dscp-iptables-remove|-r|'^vela-snmp-response' @4000"));
  std::filesystem::remove_all(folder);
}

TEST_F(DscpRuleHandlerTest, writesEveryOptionInTheOrderOfTheKeys) {
  Vela::IpTablesRule rule;
  rule.protocol = Vela::IpTablesRule::ProtocolTcp;
  for (int key = 7; key >= 0; --key) rule.options[key] = std::to_string(key);
  SnmpDscpRuleHandler::Arguments arguments = {"name"};
  SnmpDscpRuleHandler::addOptions(arguments, rule);
  EXPECT_THAT(arguments, ElementsAre("name",
                                     "-p tcp -d 0 --match multiport --dport 1 -s 2 --match multiport --sport 3 ! -d4"
                                     " --match multiport ! --dport 5 ! -s 6 --match multiport ! --sport 7"));
}

}  // namespace
