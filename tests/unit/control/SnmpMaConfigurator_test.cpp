// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "SnmpMaConfigurator.h"

#include <gmock/gmock.h>

#include <map>

#include "MasterAgentFixture.h"
#include "SnmpConfigHandler.h"
#include "adaptor/StateTestSupport.h"

using namespace VelaFmSnmp;
using ::testing::Contains;

namespace {

const std::string addrColumn = ".1.3.6.1.6.3.12.1.2.1.";
const std::string paramsColumn = ".1.3.6.1.6.3.12.1.3.1.";
const std::string notifyColumn = ".1.3.6.1.6.3.13.1.1.1.";

class SnmpMaConfiguratorTest : public ::testing::Test {
 protected:
  SnmpMaConfiguratorTest() { agent.open(session); }

  void apply(const SnmpConfig& config) { configurator.reconfigure(session, config); }

  long long intAt(const std::string& column, const std::string& row) {
    long long value = -1;
    session.getInt((column + impliedIndex(row)).c_str(), &value, "test");
    return value;
  }
  std::string textAt(const std::string& column, const std::string& row) {
    std::string value = "none";
    session.getString((column + impliedIndex(row)).c_str(), value);
    return value;
  }
  bool hasRow(const std::string& row) {
    return intAt(addrColumn + "9", row) == 1 && intAt(paramsColumn + "7", row) == 1;
  }

  /** Whether a manager with the community public may read. */
  bool isReadable() {
    const std::string peer = "127.0.0.1:" + std::to_string(agent.getPort());
    return runTool({"snmpget", "-v2c", "-r0", "-t1", "-c", "public", peer, ".1.3.6.1.2.1.1.5.0"})
               .output.find("STRING") != std::string::npos;
  }

  bool isOperational(const std::string& name) const {
    return configurator.getCurrentConfig().getTargets().at(name)->operational;
  }

  MasterAgent agent;
  SnmpMaSession session;
  SnmpMaConfigurator configurator;
};

}  // namespace

TEST_F(SnmpMaConfiguratorTest, invalidationWritesEverythingOverKeptAndOverLostRows) {
  SnmpConfig config = configWith({targetV2("a"), targetV3("b", "walter")});
  Poco::AutoPtr<SnmpBaseView> view(new SnmpBaseView(SnmpProtocolV2c));
  view->community = {"public"};
  view->readOids = {".1.3.6.1.2.1.1"};
  config.views["v"] = view;
  apply(config);
  configurator.invalidate();
  EXPECT_FALSE(configurator.isConfigured());
  apply(config);  // all rows are still there
  EXPECT_TRUE(configurator.isConfigured());
  EXPECT_TRUE(isOperational("a"));

  EXPECT_FALSE(configurator.checkEngineBootCount(session));
  agent.restart();
  agent.open(session);
  EXPECT_TRUE(configurator.checkEngineBootCount(session));
  apply(config);  // sees by itself that rows are gone; the access rules are not, which a stock agent keeps
  EXPECT_FALSE(configurator.checkEngineBootCount(session));
  EXPECT_TRUE(hasRow("ntf_a"));
  EXPECT_TRUE(hasRow("ntf_b"));
  EXPECT_TRUE(isReadable());
}

TEST_F(SnmpMaConfiguratorTest, targetsOfOneUserHaveARulePerLevel) {
  struct Wanted {
    const char* name;
    int level;
    bool isWritable;
  };
  const auto configOf = [](const std::vector<Wanted>& targets) {
    std::vector<Poco::AutoPtr<SnmpBaseTarget>> made = {targetV2("community")};
    for (const Wanted& wanted : targets) {
      auto target = targetV3(wanted.name, "walter");
      target->snmpSecurityLevel = wanted.level;
      target->isMibWritable = wanted.isWritable;
      made.push_back(target);
    }
    return configWith(made);
  };
  // The levels at which the user may read and write, as the agent has them.
  const auto rules = [&] {
    std::string found;
    for (int level = 1; level <= 3; ++level) {
      for (const auto& [column, letter] : {std::pair("5", "r"), std::pair("6", "w")}) {
        std::string view;
        const std::string row =
            ".1.3.6.1.6.3.16.1.4.1." + std::string(column) + ".6" + impliedIndex("walter") + ".0.3.";
        if (session.getString((row + std::to_string(level)).c_str(), view) && !view.empty())
          found += std::to_string(level) + letter + " ";
      }
    }
    return found;
  };
  const std::vector<std::pair<std::vector<Wanted>, std::string>> steps = {
      {{{"a", 1, false}, {"b", 3, false}}, "1r 3r "},
      {{{"a", 1, false}, {"b", 3, true}}, "1r 3r 3w "},
      {{{"a", 1, true}, {"b", 3, false}}, "1r 1w 3r "},
      {{{"a", 2, true}, {"b", 3, false}}, "2r 2w 3r "},
      {{{"a", 2, true}, {"b", 1, false}}, "1r 2r 2w "},
      {{{"a", 2, true}, {"b", 1, false}, {"c", 3, false}}, "1r 2r 2w 3r "},
      {{{"b", 1, false}, {"c", 3, false}}, "1r 3r "},
      {{{"b", 1, false}}, "1r "},
      {{{"a", 3, false}, {"b", 1, false}}, "1r 3r "},
      {{{"a", 3, false}}, "3r "},
      {{{"a", 3, false}, {"b", 2, true}}, "2r 2w 3r "},
      {{}, ""},
      {{{"a", 3, false}, {"b", 1, true}}, "1r 1w 3r "}};
  for (const auto& [targets, expected] : steps) {
    const SnmpConfig config = configOf(targets);
    apply(config);
    EXPECT_TRUE(configurator.getCurrentConfig().allTargetsOperational()) << expected;
    EXPECT_EQ(rules(), expected);
  }
  const auto& [targets, expected] = steps.front();
  configurator.invalidate();
  apply(configOf(targets));  // over the rules of another configuration
  EXPECT_EQ(rules(), expected);
  agent.restart();
  agent.open(session);
  apply(configOf(targets));
  EXPECT_EQ(rules(), expected);
  EXPECT_TRUE(configurator.getCurrentConfig().allTargetsOperational());
}

TEST_F(SnmpMaConfiguratorTest, aDisabledServiceHasNoTargetRows) {
  SnmpConfig config = configWith({targetV2("a")});
  apply(config);
  config.administrativeState = false;
  configurator.setCurrentConfig(config);
  apply(config);
  EXPECT_FALSE(hasRow("ntf_a"));
  EXPECT_FALSE(isReadable());
  EXPECT_FALSE(configurator.getCurrentConfig().getTargets().at("a")->operational);
}

TEST_F(SnmpMaConfiguratorTest, aLostAgentLeavesAndTheNextPassWritesAnew) {
  SnmpConfig config = configWith({targetV2("a")});
  apply(config);
  config.targets["b"] = targetV2("b");
  agent.setStopped(true);
  EXPECT_THROW(apply(config), SnmpSessionException);
  EXPECT_FALSE(configurator.isConfigured());
  EXPECT_FALSE(isOperational("b"));
  agent.setStopped(false);
  apply(config);
  EXPECT_TRUE(isOperational("a"));
  EXPECT_TRUE(isOperational("b"));
}

TEST_F(SnmpMaConfiguratorTest, rowsOfOthersUnderOurNamesAreOvercome) {
  SnmpConfig config = configWith({targetV2("a")});
  apply(config);
  SnmpPdu foreign(SNMP_MSG_SET);
  foreign.addVarbind((notifyColumn + "2" + impliedIndex("ntf_b")).c_str(), "tag");
  foreign.addVarbind((notifyColumn + "5" + impliedIndex("ntf_b")).c_str(), 4);
  ASSERT_TRUE(session.sendPdu("foreign", foreign, nullptr));
  config.targets["b"] = targetV2("b");
  config.targets["c"] = targetV2("c");
  EXPECT_THROW(apply(config), SnmpSessionException);
  EXPECT_FALSE(isOperational("b"));
  apply(config);
  EXPECT_TRUE(isOperational("b"));
  EXPECT_TRUE(isOperational("c"));
}

TEST_F(SnmpMaConfiguratorTest, theInternalTargetStandsBesideAConfiguredOneOfItsName) {
  apply(configWith({targetV2("DummyTarget")}));
  auto internal = targetV2("DummyTarget", "dummy");
  internal->moName.clear();
  for (const unsigned port : {30162U, 30163U}) {
    internal->port = port;
    configurator.configureTrapTarget(session, *internal, true);
  }
  EXPECT_EQ(textAt(paramsColumn + "4", "ntf_DummyTarget"), "Vela_public");
  EXPECT_EQ(textAt(paramsColumn + "4", "gen_1"), "Vela_dummy");
  EXPECT_EQ(textAt(addrColumn + "3", "gen_1"), std::string("\x7f\0\0\1\x75\xd3", 6));
  configurator.configureTrapTarget(session, *internal, false);
  EXPECT_FALSE(hasRow("gen_1"));
  EXPECT_TRUE(hasRow("ntf_DummyTarget"));
}

namespace {

/** An agent that takes everything, but the rows of some name or table. */
class ObedientAgent : public SnmpMaSession {
 public:
  std::string refused; /**< a part of the identifiers of what is not created */
  int refusal = SNMP_ERR_INCONSISTENTVALUE;
  mutable std::vector<std::string> requests;         /**< the identifiers of each changing request */
  mutable std::map<std::string, std::string> values; /**< octets or identifier by object; numbers in decimal */

  bool isOpen() const override { return true; }
  std::string securityEngineID() const override { return "engine"; }
  std::string contextEngineID() const override { return "engine"; }

 protected:
  int snmp_synch_response(SnmpPdu& request, SnmpPdu* response) const override {
    snmp_pdu* answer = request.release();
    const long number = 7;
    answer->errstat = SNMP_ERR_NOERROR;
    if (answer->command == SNMP_MSG_SET) requests.emplace_back();
    for (variable_list* variable = answer->variables; variable; variable = variable->next_variable) {
      if (answer->command == SNMP_MSG_GET) {
        snmp_set_var_typed_value(variable, ASN_INTEGER, &number, sizeof number);
      } else {
        const std::string object = SnmpOid(variable->name, static_cast<unsigned>(variable->name_length)).toString();
        values[object] = textOf(*variable);
        requests.back() += object + " ";
        const bool isCreation = values[object] == "4";
        if (isCreation && !refused.empty() && object.find(refused) != std::string::npos) answer->errstat = refusal;
      }
    }
    response->set(answer);
    return STAT_SUCCESS;
  }

 private:
  static std::string textOf(const variable_list& variable) {
    if (variable.type == ASN_INTEGER) return std::to_string(*variable.val.integer);
    if (variable.type == ASN_OBJECT_ID)
      return SnmpOid(variable.val.objid, static_cast<unsigned>(variable.val_len / sizeof(oid))).toString();
    return std::string(variable.val.string, variable.val.string + variable.val_len);
  }
};

}  // namespace

TEST(SnmpMaConfigurator, aFaultyTargetConcernsNoOtherOne) {
  const StateTest::CapturedLog log;
  ObedientAgent agent;
  SnmpMaConfigurator configurator;
  auto noPort = targetV2("noport");
  noPort->port = 0;
  const std::string community(28, 'c');
  const SnmpConfig config = configWith({noPort, targetV2("long", community), targetV2("fits", std::string(27, 'f'))});
  configurator.reconfigure(agent, config);
  EXPECT_TRUE(configurator.isConfigured());
  const SnmpConfig::TargetMap& targets = configurator.getCurrentConfig().getTargets();
  EXPECT_FALSE(targets.at("noport")->operational);
  EXPECT_FALSE(targets.at("long")->operational);
  EXPECT_TRUE(targets.at("fits")->operational);
  EXPECT_FALSE(config.getTargets().at("fits")->operational) << "what others hold is not changed";
  const std::string securityName = paramsColumn + "4" + impliedIndex("ntf_");
  EXPECT_EQ(agent.values.count(securityName + impliedIndex("noport")), 0U);
  EXPECT_EQ(agent.values[securityName + impliedIndex("long")], "Vela_" + community) << "it still gets its traps";
  for (const std::string& text :
       {std::string("Failed to configure snmp target noport: targetPort is not correct :<0>"),
        "Failed to configure snmp access for long: Failed to configure v2c access for community " + community,
        std::string("Number of operational targets 1 of 3 enabled")})
    EXPECT_THAT(log.lines(), Contains(text));

  const std::vector<std::string> names = {impliedIndex("ntf_long"), impliedIndex("ntf_fits")};
  for (const std::string& request : agent.requests) {
    const auto isIn = [&](const std::string& name) { return request.find(name + " ") != std::string::npos; };
    EXPECT_FALSE(isIn(names[0]) && isIn(names[1])) << "one refused row must not fail the other's";
  }

  agent.values.clear();
  configurator.reconfigure(agent, config);
  EXPECT_EQ(agent.values.size(), 0U) << "a retry leaves rows that are good as they are";
  EXPECT_EQ(log.count(Vela::LogError,
                      "Failed to configure snmp access for long: Failed to configure v2c access for "
                      "community " +
                          community),
            1)
      << "told once";
}

TEST(SnmpMaConfigurator, aRefusedRuleOrViewCostsTheTargetsThatNeedIt) {
  const auto view = [](const std::string& name, const std::string& community) {
    Poco::AutoPtr<SnmpBaseView> made(new SnmpBaseView(SnmpProtocolV2c));
    made->name = name;
    made->community = {community};
    made->readOids = {".1.3.6"};
    return made;
  };
  SnmpConfig config = configWith({targetV2("a", "one"), targetV2("b", "two"), targetV2("b2", "two"), targetV1("c")});
  config.views["v"] = view("v", "two");
  const std::string rules = ".1.3.6.1.6.3.16.1.4.1.9";
  const std::string views = ".1.3.6.1.6.3.16.1.5.2.1.6";
  struct Case {
    std::string refused;
    std::vector<std::string> failed;
    std::vector<std::string> lines;
  };
  const std::string prefix = "Failed to configure snmp ";
  const std::string byDefault = "the master agent does not have its view vela_defaultView_V2_R";
  const Case cases[] = {
      {rules + ".8" + impliedIndex("Vela_two"),
       {"b", "b2"},
       {prefix + "access for b: Failed to configure v2c access for community two",
        prefix + "access for b2: Failed to configure v2c access for community two",
        "The master agent refused the request vacmCreateAccess(b)"}},
      {views + ".13" + impliedIndex("vela_two_V2_R"),
       {"b", "b2"},
       {prefix + "view v: The master agent refused the request vacmCreateView(vela_two_V2_R)",
        prefix + "access for b: the master agent does not have its view vela_two_V2_R"}},
      {views + ".21" + impliedIndex("vela_defaultView_V2_W"),
       {"a"},
       {prefix + "access for a: " + byDefault,
        "Failed to configure the default snmp view of version 2: The master agent refused the request "
        "vacmCreateView(vela_defaultView_V2_W)"}}};
  for (const Case& test : cases) {
    const StateTest::CapturedLog log;
    ObedientAgent agent;
    SnmpMaConfigurator configurator;
    agent.refused = test.refused;
    agent.refusal = SNMP_ERR_NOCREATION;
    for (int pass = 0; pass < 2; ++pass) {
      configurator.reconfigure(agent, config);
      EXPECT_TRUE(configurator.isConfigured());
      std::vector<std::string> failed;
      for (const auto& [name, target] : configurator.getCurrentConfig().getTargets()) {
        if (!target->operational) failed.push_back(name);
      }
      EXPECT_EQ(failed, test.failed) << test.refused;
    }
    for (const std::string& line : test.lines) EXPECT_THAT(log.lines(), Contains(line));
    const std::string writtenRule = agent.values[rules + ".8" + impliedIndex("Vela_two") + ".0.2.1"];
    const bool isOwnView = test.refused.find(views + ".13") == 0;
    EXPECT_TRUE(!isOwnView || writtenRule.empty()) << "no rule with half a view";

    agent.refused.clear();
    configurator.reconfigure(agent, config);
    EXPECT_TRUE(configurator.getCurrentConfig().allTargetsOperational()) << test.refused;
    EXPECT_EQ(agent.values[rules + ".8" + impliedIndex("Vela_two") + ".0.2.1"], "4");
  }
  // Refused as inconsistent the row ends the pass, but is named like the others.
  const StateTest::CapturedLog log;
  ObedientAgent agent;
  SnmpMaConfigurator configurator;
  agent.refused = cases[0].refused;
  EXPECT_THROW(configurator.reconfigure(agent, config), SnmpSessionException);
  EXPECT_THAT(log.lines(), Contains(cases[0].lines[0]));
  agent.refused = cases[1].refused;
  EXPECT_THROW(configurator.reconfigure(agent, config), SnmpSessionException);
  EXPECT_THAT(log.lines(), Contains(::testing::StartsWith(prefix + "view v: Request vacmCreateView(vela_two_V2_R)")));
}

TEST(SnmpMaConfigurator, valuesThatARowDoesNotTakeAreCutAndTold) {
  const StateTest::CapturedLog log;
  ObedientAgent agent;
  SnmpMaConfigurator configurator;
  auto target = targetV2("a");
  target->informTimeout = 4000000000;
  target->informRetryCount = 256;
  configurator.reconfigure(agent, configWith({target}));
  EXPECT_EQ(agent.values[addrColumn + "4" + impliedIndex("ntf_a")], "2147483647");
  EXPECT_EQ(agent.values[addrColumn + "5" + impliedIndex("ntf_a")], "255");
  for (const char* text :
       {"The inform time-out 4000000000 of row ntf_a is more than the master agent takes, using 2147483647",
        "The inform retry count 256 of row ntf_a is more than the master agent takes, using 255"})
    EXPECT_THAT(log.lines(), Contains(text));
}

TEST(SnmpMaConfigurator, aShortenedViewNameGivesWay) {
  ObedientAgent agent;
  SnmpMaConfigurator configurator;
  const auto viewOf = [](const std::string& community, const std::string& subtree) {
    Poco::AutoPtr<SnmpBaseView> view(new SnmpBaseView(SnmpProtocolV2c));
    view->name = community;
    view->community = {community};
    view->readOids = {subtree};
    return view;
  };
  const std::string beginning(20, 'c');
  const std::string longName = beginning + "-long";
  const std::string shortName = beginning + "_2";
  SnmpConfig config = configWith({targetV2("l", longName)});
  config.views["l"] = viewOf(longName, ".1.3.6.1.2.1.1");
  const auto readViewOf = [&](const std::string& community) {
    const std::string group = "Vela_" + community;
    return agent.values[".1.3.6.1.6.3.16.1.4.1.5." + std::to_string(group.size()) + impliedIndex(group) + ".0.2.1"];
  };
  const auto rowOf = [&](const std::string& view, const std::string& length, const std::string& subtree) {
    return agent.values[".1.3.6.1.6.3.16.1.5.2.1.6.32" + impliedIndex(view) + length + subtree];
  };
  configurator.reconfigure(agent, config);
  EXPECT_EQ(readViewOf(longName), "vela_" + beginning + "_2_V2_R") << "the write view is made first";
  // A community whose name is just that.
  config.targets["s"] = targetV2("s", shortName);
  config.views["s"] = viewOf(shortName, ".1.3.6.1.2.1.2");
  configurator.reconfigure(agent, config);
  EXPECT_EQ(readViewOf(shortName), "vela_" + shortName + "_V2_R");
  EXPECT_EQ(readViewOf(longName), "vela_" + beginning + "_3_V2_R");
  EXPECT_EQ(rowOf("vela_" + shortName + "_V2_R", ".7", ".1.3.6.1.2.1.1"), "6") << "the other's row is gone";
  EXPECT_EQ(rowOf("vela_" + beginning + "_3_V2_R", ".7", ".1.3.6.1.2.1.1"), "4");
  // Both at once, in whatever order.
  configurator.clear();
  configurator.reconfigure(agent, config);
  EXPECT_NE(readViewOf(shortName), readViewOf(longName));
}

TEST(SnmpMaConfigurator, writesTlsRowsOfDtlsTargets) {
  ObedientAgent agent;
  SnmpMaConfigurator configurator;
  auto target = targetTls("nms", "walter");
  auto ipv6 = targetTls("six", "walter");
  ipv6->address = "2001:db8::1";
  SnmpConfig config = configWith({target, ipv6});
  const std::string nodeCredential = "00112233445566778899aabbccddeeff00112233";
  config.tlsOptions.nodeCredential = nodeCredential;
  config.tlsOptions.agentAddressDtls = {{"127.0.0.1", 10161}};
  config.tlsOptions.trustCategories = {std::string(40, '1'), "none", std::string(40, '2')};
  configurator.reconfigure(agent, config);
  EXPECT_TRUE(configurator.getCurrentConfig().allTargetsOperational());

  const std::string row = impliedIndex("ntf_nms");
  const std::string params = ".1.3.6.1.2.1.198.2.2.1.6.1.";
  const std::string addr = ".1.3.6.1.2.1.198.2.2.1.9.1.";
  const std::string cert = ".1.3.6.1.2.1.198.2.2.1.3.1.";
  const std::string sha1("\x02\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff\x00\x11\x22\x33", 21);
  EXPECT_EQ(agent.values[params + "1" + row], sha1);
  EXPECT_EQ(agent.values[params + "3" + row], "4");
  EXPECT_EQ(agent.values[addr + "2" + row], "*");
  EXPECT_EQ(agent.values[addr + "4" + row], "4");
  EXPECT_EQ(agent.values[addrColumn + "2" + row], ".1.3.6.1.6.1.9");
  EXPECT_EQ(agent.values[addrColumn + "3" + row], std::string("\x7f\0\0\1\x27\xb2", 6));
  EXPECT_EQ(agent.values[addrColumn + "3" + impliedIndex("ntf_six")].size(), 18U);
  EXPECT_EQ(agent.values[paramsColumn + "3" + row], "4");
  EXPECT_EQ(agent.values[paramsColumn + "5" + row], "3");
  EXPECT_EQ(agent.values[cert + "2.1"], "\x02" + std::string(20, '\x11'));
  EXPECT_EQ(agent.values[cert + "3.1"], ".1.3.6.1.2.1.198.1.1.5");
  EXPECT_EQ(agent.values[cert + "6.2"], "6") << "a faulty fingerprint gets no row";
  EXPECT_EQ(agent.values[cert + "2.3"], "\x02" + std::string(20, '\x22'));
  EXPECT_EQ(agent.values[".1.3.6.1.6.3.16.1.4.1.5.6.119.97.108.116.101.114.0.4.3"], "vela_defaultView_V3_R");

  agent.values.clear();
  config.targets.erase("nms");
  configurator.reconfigure(agent, config);
  EXPECT_EQ(agent.values[params + "3" + row], "6");
  EXPECT_EQ(agent.values[addr + "4" + row], "6");
  EXPECT_EQ(agent.values.count(cert + "6.1"), 0U) << "the trust did not change";
}

TEST(SnmpMaConfigurator, aRefusedRowEndsThePass) {
  ObedientAgent agent;
  SnmpMaConfigurator configurator;
  agent.refused = impliedIndex("ntf_b");
  const SnmpConfig config = configWith({targetV2("a"), targetV2("b"), targetV2("c")});
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_THROW(configurator.reconfigure(agent, config), SnmpSessionException);
    EXPECT_FALSE(configurator.isConfigured());
    const SnmpConfig::TargetMap& targets = configurator.getCurrentConfig().getTargets();
    EXPECT_TRUE(targets.at("a")->operational);
    EXPECT_FALSE(targets.at("b")->operational);
  }
  agent.refused.clear();
  configurator.reconfigure(agent, config);
  EXPECT_TRUE(configurator.isConfigured());
  EXPECT_TRUE(configurator.getCurrentConfig().getTargets().at("c")->operational);
}

TEST(SnmpMaConfigurator, reversesIpv6PortsAsTheToolSays) {
  struct Case {
    std::string revision;
    std::string answer;
    std::string port;
  };
  for (const Case& test : {Case{"1.8.9", "no", "\xb2\x27"}, Case{"1.9.0", "yes", "\xb2\x27"},
                           Case{"1.9.0", "no", "\x27\xb2"}, Case{"broken", "no", "\xb2\x27"}}) {
    const StateTest::CommandStandIn tool([&](const std::string& line, std::string& output) {
      output = line == "tarn|spi-revision" ? test.revision : test.answer;
      return 0;
    });
    SnmpConfigHandler handler;
    ObedientAgent agent;
    SnmpMaConfigurator configurator;
    configurator.setConfigurationHandler(&handler);
    auto ipv6 = targetV2("six");
    ipv6->address = "::1";
    configurator.reconfigure(agent, configWith({ipv6, targetV2("four")}));
    EXPECT_EQ(agent.values[addrColumn + "3" + impliedIndex("ntf_six")].substr(16), test.port) << test.revision;
    EXPECT_EQ(agent.values[addrColumn + "3" + impliedIndex("ntf_four")].substr(4), "\x27\xb2");
  }
}
