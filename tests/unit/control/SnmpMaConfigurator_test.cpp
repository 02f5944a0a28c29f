// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "SnmpMaConfigurator.h"

#include <gmock/gmock.h>

#include <map>

#include "LogCapture.h"
#include "MasterAgentFixture.h"
#include "ScriptWrapper.h"
#include "SnmpConfigHandler.h"

using namespace VelaFmSnmp;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const std::string addrColumn = ".1.3.6.1.6.3.12.1.2.1.";
const std::string paramsColumn = ".1.3.6.1.6.3.12.1.3.1.";
const std::string notifyColumn = ".1.3.6.1.6.3.13.1.1.1.";
const char* const sysName = ".1.3.6.1.2.1.1.5.0";
const char* const sysContact = ".1.3.6.1.2.1.1.4.0";
const char* const vacmGroups = ".1.3.6.1.6.3.16.1.2";

class SnmpMaConfiguratorTest : public ::testing::Test {
 protected:
  void connect(const std::vector<std::string>& communities = {"public"}) {
    agent = std::make_unique<MasterAgent>(communities);
    agent->open(session);
  }

  void apply(const SnmpConfig& config) {
    session.reset();
    configurator.reconfigure(session, config);
  }

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

  /** What a manager with a community gets of an object, or sets it to. */
  std::string get(const std::string& version, const std::string& community, const std::string& object) {
    return runTool({"snmpget", "-v" + version, "-r0", "-t1", "-c", community, peer(), object}).output;
  }
  bool set(const std::string& version, const std::string& community, const std::string& object) {
    return runTool({"snmpset", "-v" + version, "-r0", "-t1", "-c", community, peer(), object, "s", "text"}).isSuccess;
  }
  std::string peer() const { return "127.0.0.1:" + std::to_string(agent->getPort()); }

  bool isOperational(const std::string& name) const {
    return configurator.getCurrentConfig().getTargets().at(name)->operational;
  }

  std::unique_ptr<MasterAgent> agent;
  WatchedSession session;
  SnmpMaConfigurator configurator;
};

Poco::AutoPtr<SnmpBaseView> view(const std::string& name, unsigned version, const std::vector<std::string>& owners,
                                 const std::vector<std::string>& readOids,
                                 const std::vector<std::string>& writeOids = {}) {
  Poco::AutoPtr<SnmpBaseView> result(new SnmpBaseView(version));
  result->name = name;
  result->community = owners;
  result->readOids = readOids;
  result->writeOids = writeOids;
  return result;
}

}  // namespace

TEST_F(SnmpMaConfiguratorTest, writesTheRowsOfEveryKindOfTarget) {
  connect();
  struct Case {
    Poco::AutoPtr<SnmpBaseTarget> target;
    long long notifyType;  // -1: no row
    long long mpModel;
    long long securityModel;
    std::string securityName;
    long long level;
    long long timeout;
  };
  auto inform = targetV2("v2inform", "private");
  inform->transportMethod = TransportInform;
  inform->informTimeout = 250;
  inform->informRetryCount = 4;
  auto usmInform = targetV3("v3inform", "walter");
  usmInform->transportMethod = TransportInform;
  auto plainInform = targetV3("v3plain", "anna");
  plainInform->transportMethod = TransportInform;
  plainInform->snmpSecurityLevel = LevelNoAuthNoPriv;
  auto ipv6 = targetV2("v2ipv6");
  ipv6->address = "::1";
  const Case cases[] = {{targetV1("v1"), 1, 0, 1, "Vela_public", 1, 0},
                        {targetV2("v2"), 1, 1, 2, "Vela_public", 1, 0},
                        {inform, 2, 1, 2, "Vela_private", 1, 250},
                        {targetV3("v3", "walter"), 1, 3, 3, "walter", 3, 0},
                        {usmInform, -1, 3, 3, "walter", 3, 0},
                        {plainInform, 2, 3, 3, "anna", 1, 0},
                        {ipv6, 1, 1, 2, "Vela_public", 1, 0}};
  std::vector<Poco::AutoPtr<SnmpBaseTarget>> targets;
  for (const Case& test : cases) targets.push_back(test.target);
  apply(configWith(targets));

  for (const Case& test : cases) {
    SCOPED_TRACE(test.target->name);
    const std::string row = "ntf_" + test.target->name;
    EXPECT_TRUE(isOperational(test.target->name));
    EXPECT_EQ(intAt(notifyColumn + "3", row), test.notifyType);
    EXPECT_EQ(textAt(notifyColumn + "2", row), test.notifyType > 0 ? row : "none");
    EXPECT_EQ(textAt(addrColumn + "6", row), row) << "the tag that the notify row selects";
    EXPECT_EQ(textAt(addrColumn + "7", row), row) << "the parameters' name";
    EXPECT_EQ(intAt(addrColumn + "4", row), test.timeout);
    EXPECT_EQ(intAt(addrColumn + "5", row), test.target->getInformRetryCount());
    EXPECT_EQ(intAt(paramsColumn + "2", row), test.mpModel);
    EXPECT_EQ(intAt(paramsColumn + "3", row), test.securityModel);
    EXPECT_EQ(textAt(paramsColumn + "4", row), test.securityName);
    EXPECT_EQ(intAt(paramsColumn + "5", row), test.level);
    EXPECT_TRUE(hasRow(row));
  }
  EXPECT_EQ(textAt(addrColumn + "3", "ntf_v2"), std::string("\x7f\0\0\1\x27\xb2", 6));
  EXPECT_EQ(textAt(addrColumn + "3", "ntf_v2ipv6"), std::string(15, '\0') + "\1\x27\xb2");
}

TEST_F(SnmpMaConfiguratorTest, touchesOnlyWhatChanged) {
  connect({"public", "private"});
  SnmpConfig config = configWith({targetV2("a"), targetV2("b"), targetV1("c", "private"), targetV3("d", "walter")});
  config.views["v"] = view("v", SnmpProtocolV1, {"private"}, {".1.3.6.1.2.1.1"});
  apply(config);
  ASSERT_TRUE(configurator.isConfigured());

  apply(config);
  EXPECT_EQ(session.sets, 0);

  auto moved = targetV2("b");
  moved->port = 20162;
  config.targets["b"] = moved;
  apply(config);
  EXPECT_EQ(session.sets, 2) << "one deletes, one creates";
  EXPECT_TRUE(session.hasSet(impliedIndex("ntf_b")));
  EXPECT_FALSE(session.hasSet(impliedIndex("ntf_a")));
  EXPECT_EQ(textAt(addrColumn + "3", "ntf_b"), std::string("\x7f\0\0\1\x4e\xc2", 6));

  config.targets["e"] = targetV2("e");
  apply(config);
  EXPECT_EQ(session.sets, 1) << "new rows, known access";
  EXPECT_LE(session.gets, 4) << "boot count, engine id, spin lock";

  config.targets.erase("e");
  config.targets.erase("d");
  apply(config);
  EXPECT_FALSE(hasRow("ntf_e"));
  EXPECT_FALSE(hasRow("ntf_d"));
  EXPECT_TRUE(session.hasSet(".1.3.6.1.6.3.15.1.2.2.1.13")) << "nobody uses the USM user any more";
  EXPECT_FALSE(session.hasSet(impliedIndex("ntf_a")));

  config.views["v"] = view("v", SnmpProtocolV1, {"private"}, {".1.3.6.1.2.1.1", ".1.3.6.1.2.1.2"});
  apply(config);
  EXPECT_TRUE(session.hasSet(".1.3.6.1.6.3.16.1.5.2.1."));
  EXPECT_FALSE(session.hasSet(".1.3.6.1.6.3.16.1.4.1.")) << "the access row names the view as before";
  EXPECT_FALSE(session.hasSet(addrColumn));

  auto locked = targetV2("a");
  locked->administrativeState = false;
  config.targets["a"] = locked;
  apply(config);
  EXPECT_FALSE(hasRow("ntf_a"));
  EXPECT_FALSE(isOperational("a"));
  EXPECT_TRUE(hasRow("ntf_b"));
  EXPECT_TRUE(configurator.getCurrentConfig().allTargetsOperational());
}

TEST_F(SnmpMaConfiguratorTest, aFaultyTargetConcernsNoOtherOne) {
  connect();
  const LogCapture log;
  auto noPort = targetV2("a_port");
  noPort->port = 0;
  auto badHost = targetV2("b_host");
  badHost->address = "300.1.2";
  auto unknownHost = targetV2("c_name");
  unknownHost->address = "no-such-host.invalid";
  auto badUser = targetV3("d_user", "walter");
  badUser->authKey = "short";
  auto otherKeys = targetV3("f_keys", "anna");
  otherKeys->authKey = "otherSecret";
  auto incomplete = targetV2("g_part");
  incomplete->isComplete = false;
  auto withoutDtls = targetTls("h_dtls", "tlsuser");
  apply(configWith({noPort, badHost, unknownHost, badUser, targetV3("e_anna", "anna"), otherKeys, incomplete,
                    withoutDtls, targetV2("i_community", std::string(33, 'c')), targetV2("z_good")}));
  EXPECT_TRUE(configurator.isConfigured());
  for (const char* name : {"a_port", "b_host", "c_name", "d_user", "f_keys", "g_part", "h_dtls", "i_community"}) {
    EXPECT_FALSE(isOperational(name)) << name;
    EXPECT_FALSE(hasRow(std::string("ntf_") + name)) << name;
  }
  EXPECT_TRUE(isOperational("e_anna"));
  EXPECT_TRUE(isOperational("z_good"));
  EXPECT_TRUE(hasRow("ntf_z_good"));
  for (const char* text :
       {"Failed to configure snmp target a_port: targetPort is not correct :<0>",
        "Failed to configure snmp target b_host: targetAddress is not correct :<300.1.2>",
        "Failed to configure snmp target c_name: Could not resolve IP host: no-such-host.invalid",
        "Failed to configure snmp target d_user: New passphrase must be greater than 7 characters in length.",
        "Failed to configure snmp target i_community: target community must be between 1 and 32 characters in length",
        "Number of operational targets 2 of 9 enabled"})
    EXPECT_THAT(LogCapture::lines(), Contains(text));
  EXPECT_THAT(LogCapture::lines(), Not(Contains(HasSubstr("otherSecret"))));

  session.reset();
  configurator.reconfigure(session, configurator.getCurrentConfig());
  EXPECT_THAT(LogCapture::lines(),
              Contains("target b_host not changed, but operationalState is DISABLED, so try to reconfigure"));
  EXPECT_FALSE(session.hasSet(impliedIndex("ntf_z_good")));
}

TEST_F(SnmpMaConfiguratorTest, communitiesTooLongForAccessStillGetTheirTraps) {
  connect();
  const LogCapture log;
  const std::string community(28, 'c');
  apply(configWith({targetV2("long", community), targetV2("fits", std::string(27, 'f'))}));
  EXPECT_TRUE(hasRow("ntf_long"));
  EXPECT_EQ(textAt(paramsColumn + "4", "ntf_long"), "Vela_" + community);
  EXPECT_FALSE(isOperational("long"));
  EXPECT_TRUE(isOperational("fits"));
  EXPECT_THAT(
      LogCapture::lines(),
      Contains("Failed to configure snmp access for long: Failed to configure v2c access for community " + community));
}

TEST_F(SnmpMaConfiguratorTest, managersSeeWhatTheirViewsAllow) {
  connect({"default", "narrow", "writer"});
  auto writer = targetV2("writer", "writer");
  writer->isMibWritable = true;
  SnmpConfig config = configWith({targetV2("default", "default"), targetV2("narrow", "narrow"), writer});
  config.views["one"] = view("one", SnmpProtocolV2c, {"narrow", "unused"}, {".1.3.6.1.2.1.1", "!.1.3.6.1.2.1.1.5"});
  config.views["two"] = view("two", SnmpProtocolV2c, {"narrow"}, {"1.3.6.1.6.3.10", "1..3", ".1.3.6/zz"});
  apply(config);

  EXPECT_THAT(get("2c", "default", sysName), HasSubstr("STRING"));
  EXPECT_THAT(get("2c", "default", ".1.3.6.1.6.3.10.2.1.2.0"), HasSubstr("INTEGER"));
  EXPECT_THAT(get("2c", "default", std::string(vacmGroups) + ".1.3"), HasSubstr("No Such"));
  EXPECT_FALSE(get("1", "default", sysName).find("STRING") != std::string::npos) << "the target is a v2c one";
  EXPECT_FALSE(set("2c", "default", sysContact));
  EXPECT_TRUE(set("2c", "writer", sysContact));

  EXPECT_THAT(get("2c", "narrow", sysContact), HasSubstr("STRING"));
  EXPECT_THAT(get("2c", "narrow", sysName), HasSubstr("No Such"));
  EXPECT_THAT(get("2c", "narrow", ".1.3.6.1.6.3.10.2.1.2.0"), HasSubstr("INTEGER"));
  EXPECT_THAT(get("2c", "narrow", ".1.3.6.1.2.1.2.1.0"), HasSubstr("No Such"));

  // Everything, and then nothing any more but the default.
  config.views["one"] = view("one", SnmpProtocolV2c, {"narrow"}, {".1"}, {sysContact});
  apply(config);
  EXPECT_THAT(get("2c", "narrow", ".1.3.6.1.2.1.2.1.0"), HasSubstr("INTEGER"));
  EXPECT_THAT(runTool({"snmpgetnext", "-v2c", "-r0", "-t1", "-c", "narrow", peer(), vacmGroups}).output,
              HasSubstr("6.3.16.1.2"));
  EXPECT_TRUE(set("2c", "narrow", sysContact));
  EXPECT_FALSE(set("2c", "narrow", sysName));
  config.views.clear();
  apply(config);
  EXPECT_THAT(get("2c", "narrow", sysName), HasSubstr("STRING"));
  EXPECT_THAT(get("2c", "narrow", std::string(vacmGroups) + ".1.3"), HasSubstr("No Such"));
  EXPECT_FALSE(set("2c", "narrow", sysContact));
  config.targets.erase("narrow");
  apply(config);
  EXPECT_THAT(get("2c", "narrow", sysName), Not(HasSubstr("STRING")));
}

TEST_F(SnmpMaConfiguratorTest, longOwnersKeepTheNamesOfTheirViews) {
  const std::string user(30, 'u');
  connect();
  auto target = targetV3("nms", user);
  SnmpConfig config = configWith({target});
  config.views["v"] = view("v", SnmpProtocolV3, {user}, {".1.3.6.1.2.1.1"});
  apply(config);
  EXPECT_TRUE(session.hasSet(".1.3.6.1.6.3.16.1.5.2.1.6.32"));
  const auto read = [&] {
    return runTool({"snmpget", "-v3", "-r0", "-t2", "-u", user, "-l", "authPriv", "-a", "MD5", "-A", "authSecret", "-x",
                    "DES", "-X", "privSecret", peer(), sysName})
        .output;
  };
  EXPECT_THAT(read(), HasSubstr("STRING"));
  config.views["v"] = view("v", SnmpProtocolV3, {user}, {".1.3.6.1.2.1.2"});
  apply(config);
  EXPECT_FALSE(session.hasSet(".1.3.6.1.6.3.16.1.4.1.")) << "the access row names the view as before";
  EXPECT_THAT(read(), HasSubstr("No Such"));
}

TEST_F(SnmpMaConfiguratorTest, invalidationWritesEverythingOverKeptAndOverLostRows) {
  connect();
  SnmpConfig config = configWith({targetV2("a"), targetV3("b", "walter")});
  config.views["v"] = view("v", SnmpProtocolV2c, {"public"}, {".1.3.6.1.2.1.1"});
  apply(config);
  configurator.invalidate();
  EXPECT_FALSE(configurator.isConfigured());
  apply(config);  // all rows are still there
  EXPECT_TRUE(configurator.isConfigured());
  EXPECT_TRUE(isOperational("a"));

  EXPECT_FALSE(configurator.checkEngineBootCount(session));
  agent->restart();
  agent->open(session);
  EXPECT_TRUE(configurator.checkEngineBootCount(session));
  apply(config);  // sees by itself that rows are gone; the access rules are not, which a stock agent keeps
  EXPECT_FALSE(configurator.checkEngineBootCount(session));
  EXPECT_TRUE(hasRow("ntf_a"));
  EXPECT_TRUE(hasRow("ntf_b"));
  EXPECT_THAT(get("2c", "public", sysName), HasSubstr("STRING"));
}

TEST_F(SnmpMaConfiguratorTest, aDisabledServiceHasNoTargetRows) {
  connect();
  SnmpConfig config = configWith({targetV2("a")});
  apply(config);
  config.administrativeState = false;
  configurator.setCurrentConfig(config);
  apply(config);
  EXPECT_FALSE(hasRow("ntf_a"));
  EXPECT_THAT(get("2c", "public", sysName), Not(HasSubstr("STRING")));
  EXPECT_FALSE(configurator.getCurrentConfig().getTargets().at("a")->operational);
}

TEST_F(SnmpMaConfiguratorTest, aLostAgentLeavesAndTheNextPassWritesAnew) {
  connect();
  SnmpConfig config = configWith({targetV2("a")});
  apply(config);
  config.targets["b"] = targetV2("b");
  agent->setStopped(true);
  EXPECT_THROW(apply(config), SnmpSessionException);
  EXPECT_FALSE(configurator.isConfigured());
  EXPECT_FALSE(isOperational("b"));
  agent->setStopped(false);
  apply(config);
  EXPECT_TRUE(isOperational("a"));
  EXPECT_TRUE(isOperational("b"));
}

TEST_F(SnmpMaConfiguratorTest, rowsOfOthersUnderOurNamesAreOvercome) {
  connect();
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
  connect();
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

/** An agent that takes everything, but the rows of one name. */
class ObedientAgent : public SnmpMaSession {
 public:
  std::string refusedRow;
  mutable std::map<std::string, std::string> values; /**< octets or identifier by object; numbers in decimal */

  bool isOpen() const override { return true; }
  std::string securityEngineID() const override { return "engine"; }
  std::string contextEngineID() const override { return "engine"; }

 protected:
  int snmp_synch_response(SnmpPdu& request, SnmpPdu* response) const override {
    snmp_pdu* answer = request.release();
    const long number = 7;
    answer->errstat = SNMP_ERR_NOERROR;
    for (variable_list* variable = answer->variables; variable; variable = variable->next_variable) {
      if (answer->command == SNMP_MSG_GET) {
        snmp_set_var_typed_value(variable, ASN_INTEGER, &number, sizeof number);
      } else {
        const std::string object = SnmpOid(variable->name, static_cast<unsigned>(variable->name_length)).toString();
        values[object] = textOf(*variable);
        const bool isCreation = values[object] == "4";
        if (isCreation && !refusedRow.empty() && object.find(impliedIndex(refusedRow)) != std::string::npos)
          answer->errstat = SNMP_ERR_INCONSISTENTVALUE;
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

class ToolAnswer : public Vela::ScriptRunner {
 public:
  ToolAnswer(std::string revision, std::string answer) : _revision(std::move(revision)), _answer(std::move(answer)) {}
  int run(const std::vector<std::string>& argv, int, std::string& output, const Vela::ScriptCancellation*) override {
    output = argv.back() == "spi-revision" ? _revision : _answer;
    return 0;
  }

 private:
  std::string _revision;
  std::string _answer;
};

}  // namespace

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
  agent.refusedRow = "ntf_b";
  const SnmpConfig config = configWith({targetV2("a"), targetV2("b"), targetV2("c")});
  const SnmpConfig::TargetMap& targets = config.getTargets();
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_THROW(configurator.reconfigure(agent, config), SnmpSessionException);
    EXPECT_FALSE(configurator.isConfigured());
    EXPECT_TRUE(targets.at("a")->operational);
    EXPECT_FALSE(targets.at("b")->operational);
  }
  agent.refusedRow.clear();
  configurator.reconfigure(agent, config);
  EXPECT_TRUE(configurator.isConfigured());
  EXPECT_TRUE(targets.at("c")->operational);
}

TEST(SnmpMaConfigurator, reversesIpv6PortsAsTheToolSays) {
  struct Case {
    const char* revision;
    const char* answer;
    std::string port;
  };
  for (const Case& test : {Case{"1.8.9", "no", "\xb2\x27"}, Case{"1.9.0", "yes", "\xb2\x27"},
                           Case{"1.9.0", "no", "\x27\xb2"}, Case{"broken", "no", "\xb2\x27"}}) {
    Vela::ScriptWrapper::setRunner(std::make_shared<ToolAnswer>(test.revision, test.answer));
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
  Vela::ScriptWrapper::setRunner(nullptr);
}
