#include "MoConnector.h"

#include <Poco/Exception.h>

#include <functional>

#include "ModelFixture.h"
#include "SnmpAlarm.h"
#include "VelaException.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;
using namespace VelaFmSnmp;

namespace {

/** Keeps what is asked for, and may do something while the temporary subscriptions start. */
class FakeSubscriptions : public MoConnector::OamAccessPointHandler::Subscriptions {
 public:
  void startSubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& expressions) override {
    calls.push_back("start " + join(expressions));
  }
  void stopSubscriptionsOnOamAccessPointMoRefs() override { calls.emplace_back("stop"); }
  void startTemporarySubscriptionsOnOamAccessPointMoRefs(const std::list<std::string>& expressions) override {
    calls.push_back("start temporary " + join(expressions));
    if (onTemporary) onTemporary();
  }
  void stopTemporarySubscriptionsOnOamAccessPointMoRefs() override { calls.emplace_back("stop temporary"); }

  std::vector<std::string> calls;
  std::function<void()> onTemporary;

 private:
  static std::string join(const std::list<std::string>& expressions) {
    std::string joined;
    for (const std::string& expression : expressions) joined += expression + " ";
    return joined;
  }
};

class AlarmList : public MoConnector::ISnmpXmodDataProviderAlarmVisitor {
 public:
  void beginAlarms() override { ++begun; }
  void replicateAlarm(SnmpAlarm* alarm) override {
    if (isFailing) throw Poco::NotFoundException("no more");
    alarms.push_back(*alarm);
  }
  void endAlarms() override { ++ended; }

  std::vector<SnmpAlarm> alarms;
  int begun = 0;
  int ended = 0;
  bool isFailing = false;
};

class MoConnectorTest : public ModelFixture {
 protected:
  MoConnectorTest() {
    connector.setSubscriptions(&subscriptions);
    connector.init(VelaNode::HostPortal::getTable());
  }
  ~MoConnectorTest() override {
    EXPECT_EQ(services.getManagedObjectService().countTransactions(), 0u);
    EXPECT_EQ(services.getManagedObjectService().countOpenObjects(), 0u);
  }

  SnmpConfig read(bool dtlsSupported = true) {
    SnmpConfig config;
    connector.getSnmpConfig(config, dtlsSupported);
    return config;
  }
  template <class Target>
  static const Target& target(const SnmpConfig& config, const std::string& name) {
    return dynamic_cast<const Target&>(*config.targets.at(name));
  }
  std::string createAddress(const std::string& id, const std::string& address) {
    return create(Transport, "Address=" + id, {{"address", address}});
  }

  FakeSubscriptions subscriptions;
  MoConnector connector;
};

}  // namespace

// --- Service

TEST_F(MoConnectorTest, ReadsTheService) {
  EXPECT_EQ(connector.getFmBaseDn(), Fm);
  EXPECT_EQ(connector.getSnmpBaseDn(), Snmp);
  set(Snmp, "administrativeState", "LOCKED");
  set(Snmp, "snmpId", "node 7");
  set(Snmp, "engineId", "80001f88");
  set(Snmp, "enableSourceCheckForV1V2C", "true");
  set(Snmp, "agentAddress", R"([{"host":"192.0.2.1","port":70000},{"host":"192.0.2.2"},{"host":"::1","port":161}])");
  const SnmpConfig config = read();
  EXPECT_EQ(config.snmpMoName, Snmp);
  EXPECT_FALSE(config.administrativeState);
  EXPECT_EQ(config.snmpId, "node 7");
  EXPECT_EQ(config.engineId, "80001f88");
  EXPECT_TRUE(config.enableSourceCheckForV1V2C);
  EXPECT_THAT(config.agentAddress, ElementsAre(Pair("192.0.2.1", 70000u), Pair("::1", 161u)));
  EXPECT_FALSE(config.isAgentAddressFromAccessPoint);
  EXPECT_TRUE(isLogged("Struct member not set: 'port'"));
}

TEST_F(MoConnectorTest, WithoutSnmpObjectReadingFailsUntilThereIsOne) {
  set(Snmp, "agentAddress", R"([{"host":"192.0.2.1","port":161}])");
  create(Snmp, "SnmpTargetV2C=a", {{"address", "192.0.2.2"}, {"community", "c"}});
  SnmpConfig config = read();
  const SnmpConfig before = config;
  remove(Snmp);
  EXPECT_THROW(connector.getSnmpConfig(config, true), Vela::VelaException);
  EXPECT_TRUE(config == before) << "a failed read leaves nothing half read";
  const std::string other = create(SysM, "Snmp=2");
  EXPECT_EQ(read().snmpMoName, other);
  connector.setSnmpOperationalState(true);
  EXPECT_EQ(VelaNode::MoTransaction(services.getStore()).get(other)->getDn(), other);
}

TEST_F(MoConnectorTest, DscpFollowsTheCategories) {
  EXPECT_TRUE(read().dscpCmEnabled && read().dscpFmEnabled);
  create(Transport, "DiffServCategory=OamCM", {{"administrativeState", "LOCKED"}});
  const std::string fm = create(Transport, "DiffServCategory=OamFM");
  EXPECT_FALSE(read().dscpCmEnabled);
  EXPECT_TRUE(read().dscpFmEnabled);
  set(fm, "administrativeState", "LOCKED");
  EXPECT_FALSE(read().dscpFmEnabled);
}

TEST_F(MoConnectorTest, TlsSettings) {
  set(Tls, "nodeCredential", "aa");
  set(Tls, "trustCategory", R"(["bb","cc"])");
  set(Snmp, "agentAddressDtls", R"([{"host":"192.0.2.1","port":10161}])");
  const SnmpConfig config = read();
  EXPECT_TRUE(config.tlsOptions.isEnabled());
  EXPECT_EQ(config.tlsOptions.cipherFilter, "ALL:!aNULL:!eNULL:@STRENGTH");
  EXPECT_THAT(config.tlsOptions.trustCategories, ElementsAre("bb", "cc"));
  set(Tls, "cipherFilter", "HIGH");
  EXPECT_EQ(read().tlsOptions.cipherFilter, "HIGH");
  EXPECT_TRUE(read(false).tlsOptions == SnmpConfig::tlsOptions_t());
  remove(Tls);
  EXPECT_FALSE(read().tlsOptions.isEnabled());
  EXPECT_TRUE(isLogged("Unable to get SecM_Tls_Dn from db"));
}

// --- Targets and views

TEST_F(MoConnectorTest, ReadsTargetsOfEveryClass) {
  create(Snmp, "SnmpTargetV1=a",
         {{"name", "first"}, {"address", "192.0.2.1"}, {"community", "one"}, {"networkPrefixLength", "24"}});
  create(Snmp, "SnmpTargetV2C=b",
         {{"address", "192.0.2.2"},
          {"port", "99999"},
          {"community", "two"},
          {"administrativeState", "LOCKED"},
          {"operationalState", "ENABLED"}});
  create(Snmp, "SnmpTargetV3=c",
         {{"address", "192.0.2.3"},
          {"user", "three"},
          {"authKey", R"({"cleartext":true,"password":"authauth"})"},
          {"privKey", R"({"cleartext":true,"password":"privpriv"})"}});
  create(Snmp, "SnmpTargetV3Dtls=d", {{"address", "192.0.2.4"}, {"user", "four"}});
  const SnmpConfig config = read();
  ASSERT_THAT(config.targets, ElementsAre(Key("b"), Key("c"), Key("d"), Key("first")));
  for (const auto& [name, one] : config.targets) EXPECT_TRUE(one->isComplete) << name;

  const auto& v1 = target<SnmpTargetV1>(config, "first");
  EXPECT_TRUE(v1.hasNameAttribute && v1.administrativeState && v1.hasOperationalState);
  EXPECT_FALSE(v1.operational);
  EXPECT_EQ(v1.moName, Snmp + ",SnmpTargetV1=a");
  EXPECT_EQ(v1.port, 162u);
  EXPECT_EQ(v1.networkPrefixLength, 24);

  const auto& v2c = target<SnmpTargetV2C>(config, "b");
  EXPECT_FALSE(v2c.hasNameAttribute || v2c.administrativeState);
  EXPECT_TRUE(v2c.operational && v2c.operationalState);
  EXPECT_EQ(v2c.port, 99999u);
  EXPECT_EQ(v2c.networkPrefixLength, -1);

  const auto& usm = target<SnmpTargetV3Usm>(config, "c");
  EXPECT_EQ(usm.getSecurityModel(), 3);
  EXPECT_EQ(usm.authKey, "authauth");
  EXPECT_EQ(usm.privKey, "privpriv");
  EXPECT_EQ(target<SnmpTargetV3Tls>(config, "d").getSecurityModel(), 4);
  for (const std::string& line : lines) EXPECT_THAT(line, testing::Not(HasSubstr("privpriv")));
}

TEST_F(MoConnectorTest, AFaultConcernsItsTargetOnly) {
  const std::string stored = R"({"cleartext":false,"password":"not cipher text"})";
  const Attribute address = {"address", "192.0.2.1"};
  const Attribute user = {"user", "u"};
  const Attribute authOnly = {"snmpSecurityLevel", "AUTH_NO_PRIV"};
  const struct {
    const char* rdn;
    std::vector<Attribute> attributes;
    const char* message; /**< none: there is no fault */
  } cases[] = {
      {"SnmpTargetV1=good", {address, {"community", "c"}}, nullptr},
      {"SnmpTargetV1=noAddress", {{"community", "c"}}, "Problem reading address attribute from SPI, mo ("},
      {"SnmpTargetV2C=noCommunity", {address}, "Attribute has no value set: "},
      {"SnmpTargetV3=noKey", {address, user}, "Problem reading privKey attribute"},
      {"SnmpTargetV3=badKey", {address, user, authOnly, {"authKey", stored}}, "Decryption of SNMP V3 password failed"},
      {"SnmpTargetV3=halfKey",
       {address, user, authOnly, {"authKey", R"({"password":"authauth"})"}},
       "Struct member not set: 'cleartext'"},
      {"SnmpTargetV3=noKeyNeeded",
       {address, user, {"snmpSecurityLevel", "NO_AUTH_NO_PRIV"}, {"authKey", stored}},
       nullptr},
      {"SnmpTargetV3Dtls=noUser", {address}, "Problem reading user attribute"},
  };
  for (const auto& one : cases) create(Snmp, one.rdn, one.attributes);
  const SnmpConfig config = read();
  for (const auto& one : cases) {
    const std::string rdn = one.rdn;
    EXPECT_EQ(config.targets.at(rdn.substr(rdn.find('=') + 1))->isComplete, one.message == nullptr) << rdn;
    EXPECT_TRUE(one.message == nullptr || isLogged(one.message)) << rdn;
    EXPECT_EQ(config.targets.at(rdn.substr(rdn.find('=') + 1))->mayBeReadLater, rdn == "SnmpTargetV3=badKey") << rdn;
  }
  EXPECT_FALSE(isLogged("not cipher text"));
}

TEST_F(MoConnectorTest, AnEditedDtlsTargetIsAChangedConfiguration) {
  const std::string dn = create(Snmp, "SnmpTargetV3Dtls=t", {{"address", "192.0.2.4"}, {"user", "u"}});
  SnmpConfig before = read();
  EXPECT_TRUE(before == read());
  set(dn, "operationalState", "ENABLED");
  EXPECT_TRUE(before == read());
  for (const Attribute& edit : std::vector<Attribute>{{"address", "192.0.2.5"},
                                                      {"port", "1"},
                                                      {"user", "v"},
                                                      {"administrativeState", "LOCKED"},
                                                      {"isMibWritable", "true"},
                                                      {"transportMethod", "INFORM"},
                                                      {"informTimeout", "1"},
                                                      {"informRetryCount", "1"}}) {
    set(dn, edit.name, edit.text);
    const SnmpConfig after = read();
    EXPECT_FALSE(before == after) << edit.name;
    before = after;
  }
}

// --- Access points

TEST_F(MoConnectorTest, AddressesComeFromAccessPointsWhenTheServiceHasNone) {
  create(SysM, "OamAccessPoint=a", {{"accessPoint", createAddress("one", "192.0.2.1/24")}});
  create(SysM, "OamAccessPoint=b", {{"accessPoint", createAddress("two", "192.0.2.1")}});
  create(SysM, "OamAccessPoint=c", {{"accessPoint", createAddress("three", "2001:db8::1/64")}});
  create(SysM, "OamAccessPoint=d", {{"accessPoint", Transport + ",Address=gone"}});
  create(SysM, "OamAccessPoint=e");
  set(Snmp, "port", "1161");
  SnmpConfig config = read();
  EXPECT_THAT(config.agentAddress, ElementsAre(Pair("192.0.2.1", 1161u), Pair("2001:db8::1", 1161u)));
  EXPECT_TRUE(config.isAgentAddressFromAccessPoint);
  EXPECT_THAT(config.tlsOptions.agentAddressDtls, ElementsAre(Pair("192.0.2.1", 10161u), Pair("2001:db8::1", 10161u)));
  EXPECT_TRUE(isLogged("No agentAddress struct under SNMP, checking oamAccessPoint moref"));
  EXPECT_TRUE(isLogged("No agentAddressDtls  struct under SNMP, checking oamAccessPoint moref"));
  EXPECT_TRUE(isLogged("Building agentAddress with host: 192.0.2.1 and port: 1161"));

  set(Snmp, "agentAddress", R"([{"host":"192.0.2.77","port":161}])");
  config = read(false);
  EXPECT_THAT(config.agentAddress, ElementsAre(Pair("192.0.2.77", 161u)));
  EXPECT_FALSE(config.isAgentAddressFromAccessPoint);

  for (const char* attribute : {"agentAddress", "agentAddressDtls"}) {
    set(Snmp, attribute, R"([{"host":"192.0.2.77"}])");
    EXPECT_TRUE(
        (attribute == std::string("agentAddress") ? read().agentAddress : read().tlsOptions.agentAddressDtls).empty())
        << "a faulty list is no leave to listen elsewhere";
    EXPECT_TRUE(isLogged(std::string("No entry of ") + attribute + " of " + Snmp + " can be used"));
  }
}

TEST_F(MoConnectorTest, WithoutAnyAddressTheServiceIsNotEnabled) {
  EXPECT_FALSE(read().isEnabled());
  EXPECT_TRUE(isLogged("No agentAddress struct defined in either SNMP or under oamAccessPoint moref"));
  EXPECT_TRUE(isLogged("No agentAddressDtls struct defined in either SNMP or under oamAccessPoint moref"));
}

TEST_F(MoConnectorTest, SubscriptionsFollowTheReferences) {
  const std::string one = createAddress("o.ne", "192.0.2.1");
  const std::string two = createAddress("two", "192.0.2.2");
  const std::string point = create(SysM, "OamAccessPoint=a", {{"accessPoint", one}});
  const std::string first = "^ManagedElement=1,Transport=1,Address=o\\.ne$ ";
  const std::string second = "^ManagedElement=1,Transport=1,Address=two$ ";

  read();
  EXPECT_THAT(subscriptions.calls, ElementsAre("start temporary " + first, "stop", "start " + first, "stop temporary"));
  subscriptions.calls.clear();
  read();
  EXPECT_THAT(subscriptions.calls, IsEmpty());
  EXPECT_TRUE(isLogged("Nothing changed, no stop or start subscriptions required."));

  set(point, "accessPoint", two);
  read();
  EXPECT_THAT(subscriptions.calls,
              ElementsAre("start temporary " + second, "stop", "start " + second, "stop temporary"));
  subscriptions.calls.clear();
  set(Snmp, "agentAddress", R"([{"host":"192.0.2.77","port":161}])");
  read(false);
  EXPECT_THAT(subscriptions.calls, ElementsAre("stop", "start "));

  // A new start of the component finds its subscriptions stopped.
  set(Snmp, "agentAddress", "[]");
  read();
  subscriptions.calls.clear();
  connector.init(VelaNode::HostPortal::getTable());
  read();
  EXPECT_THAT(subscriptions.calls, testing::Contains("start " + second));
}

TEST_F(MoConnectorTest, AnAddressThatChangesWhileItIsReadIsNotLost) {
  const std::string address = createAddress("a", "192.0.2.1");
  create(SysM, "OamAccessPoint=a", {{"accessPoint", address}});
  subscriptions.onTemporary = [&] { set(address, "address", "192.0.2.2"); };
  EXPECT_THAT(read().agentAddress, ElementsAre(Pair("192.0.2.2", 161u)));
}

TEST_F(MoConnectorTest, WhatAFailedReadingWatchesIsWatchedUntilTheNextOneOrTheEnd) {
  create(SysM, "OamAccessPoint=a", {{"accessPoint", createAddress("a", "192.0.2.1")}});
  const std::string start = "start temporary ^ManagedElement=1,Transport=1,Address=a$ ";
  for (const bool isEnd : {true, false}) {
    connector.init(VelaNode::HostPortal::getTable());
    subscriptions.calls.clear();
    subscriptions.onTemporary = [] { throw Vela::VelaException("not now"); };
    EXPECT_THROW(read(), Vela::VelaException);
    EXPECT_THAT(subscriptions.calls, ElementsAre(start));
    subscriptions.onTemporary = nullptr;
    if (isEnd) {
      connector.endTemporarySubscriptions();
    } else {
      read();
    }
    EXPECT_EQ(subscriptions.calls.back(), "stop temporary");
  }
}

// --- Alarms

TEST_F(MoConnectorTest, AlarmsAreReadWhole) {
  create(Fm, "FmAlarm=7",
         {{"fmAlarmId", "7"},
          {"lastEventTime", "2017-03-14T10:00:00.500000+01:00"},
          {"originalEventTime", "2017-03-14T08:00:00.000000Z"},
          {"activeSeverity", "3"},
          {"originalSeverity", "6"},
          {"additionalText", "now"},
          {"originalAdditionalText", "then"},
          {"specificProblem", "Link failure"},
          {"source", "ManagedElement=1,Link=3"},
          {"majorType", "1"},
          {"minorType", "2"},
          {"probableCause", "3"},
          {"eventType", "4"},
          {"additionalInfo", R"([{"name":"a","value":"1"},{"name":"b;c","value":"x=y"}])"}});
  AlarmList list;
  ASSERT_TRUE(connector.visit(list));
  EXPECT_EQ(list.begun, 1);
  EXPECT_EQ(list.ended, 1);
  ASSERT_EQ(list.alarms.size(), 1u);
  const SnmpAlarm& alarm = list.alarms.front();
  EXPECT_TRUE(alarm.isStateful());
  EXPECT_EQ(alarm.getIndex(), 7u);
  EXPECT_EQ(alarm.getEventTime(), 1489482000500000000ull);
  EXPECT_EQ(alarm.getOriginalEventTime(), 1489478400000000000ull);
  EXPECT_EQ(alarm.getSeverity(), 5);
  EXPECT_EQ(alarm.getOriginalSeverity(), 2);
  EXPECT_EQ(alarm.getAdditionalText(), "now");
  EXPECT_EQ(alarm.getOriginalAdditionalText(), "then");
  EXPECT_EQ(alarm.getSpecificProblem(), "Link failure");
  EXPECT_EQ(alarm.getManagedObject(), "ManagedElement=1,Link=3");
  EXPECT_EQ(alarm.getMajorType(), 1u);
  EXPECT_EQ(alarm.getMinorType(), 2u);
  EXPECT_EQ(alarm.getProbableCause(), 3u);
  EXPECT_EQ(alarm.getEventType(), 4u);
  EXPECT_EQ(alarm.getAdditionalInfoCompressedFormat(), "a=1;b\\;c=x\\=y");
}

TEST_F(MoConnectorTest, ABadAttributeTakesItsDefaultAndNothingElse) {
  create(Fm, "FmAlarm=1", {{"fmAlarmId", "1"}, {"specificProblem", "whole"}, {"additionalText", "text"}});
  create(Fm, "FmAlarm=2",
         {{"fmAlarmId", "2"},
          {"activeSeverity", "2"},
          {"originalSeverity", "99"},
          {"lastEventTime", "yesterday"},
          {"additionalInfo", R"([{"name":"a\\;b","value":"1"}])"}});
  create(Fm, "FmAlarm=3", {{"fmAlarmId", "3"}, {"additionalInfo", R"([{"value":"1"}])"}});
  create(Fm, "FmAlarm=4");
  AlarmList list;
  ASSERT_TRUE(connector.visit(list));
  ASSERT_EQ(list.alarms.size(), 3u);
  const SnmpAlarm& second = list.alarms[1];
  EXPECT_EQ(second.getIndex(), 2u);
  EXPECT_EQ(second.getSeverity(), 1);
  EXPECT_EQ(second.getOriginalSeverity(), 1);
  EXPECT_EQ(second.getEventTime(), 0u);
  EXPECT_EQ(second.getEventType(), 1u);
  EXPECT_EQ(second.getSpecificProblem(), "");
  EXPECT_EQ(second.getAdditionalText(), "");
  EXPECT_EQ(second.getAdditionalInfoCompressedFormat(), "");
  EXPECT_EQ(list.alarms[2].getAdditionalInfoCompressedFormat(), "");
}

TEST_F(MoConnectorTest, AFailedTraversalIsTold) {
  create(Fm, "FmAlarm=1", {{"fmAlarmId", "1"}});
  AlarmList list;
  list.isFailing = true;
  EXPECT_FALSE(connector.visit(list));
  EXPECT_EQ(list.ended, 0);
  EXPECT_TRUE(isLogged("Failed to retrieve alarm list from the IMM: Not found: no more"));
}

TEST_F(MoConnectorTest, Summary) {
  const struct {
    const char* attribute;
    std::function<int(unsigned&)> get;
  } counts[] = {
      {"heartbeatInterval", [this](unsigned& n) { return connector.getHeartbeatInterval(n); }},
      {"sumCritical", [this](unsigned& n) { return connector.getAlarmSumCritical(n); }},
      {"sumMajor", [this](unsigned& n) { return connector.getAlarmSumMajor(n); }},
      {"sumMinor", [this](unsigned& n) { return connector.getAlarmSumMinor(n); }},
      {"sumWarning", [this](unsigned& n) { return connector.getAlarmSumWarning(n); }},
      {"totalActive", [this](unsigned& n) { return connector.getAlarmNumActive(n); }},
  };
  unsigned expected = 100;
  for (const auto& one : counts) {
    set(Fm, one.attribute, std::to_string(++expected));
    unsigned count = 0;
    EXPECT_EQ(one.get(count), 0) << one.attribute;
    EXPECT_EQ(count, expected) << one.attribute;
  }
  std::string time = "unchanged";
  EXPECT_NE(connector.getAlarmLastChanged(time), 0);
  EXPECT_EQ(time, "unchanged");
  EXPECT_TRUE(isLogged("Attribute has no value set: " + Fm + "::lastChanged"));
  set(Fm, "lastSequenceNo", "5000000000");
  unsigned long long sequenceNo = 0;
  EXPECT_EQ(connector.getAlarmLastSeqenceNo(sequenceNo), 0);
  EXPECT_EQ(sequenceNo, 5000000000ull);
}

// --- Writes

TEST_F(MoConnectorTest, WritesOnlyWhatDiffers) {
  const std::string dn = create(Snmp, "SnmpTargetV1=a", {{"address", "192.0.2.1"}, {"community", "c"}});
  int commits = 0;
  services.getStore().setListener([&](const auto&) { ++commits; });
  connector.setTargetOperationalState(dn.c_str(), true);
  connector.setTargetOperationalState(dn.c_str(), true);
  EXPECT_EQ(commits, 1);
  EXPECT_TRUE(read().targets.at("a")->operationalState);
  connector.setTargetOperationalState(dn.c_str(), false);
  EXPECT_FALSE(read().targets.at("a")->operationalState);
  EXPECT_EQ(commits, 2);

  // Nothing to write needs no lock, so a thousand targets do not queue up behind another writer.
  const VelaNode::MoTransaction writer(services.getStore(), VELA_MO_LOCK_AT_ONCE);
  EXPECT_NO_THROW(connector.setTargetOperationalState(dn.c_str(), false));
}

TEST_F(MoConnectorTest, ViewsOfOneNameAreAllRead) {
  for (const char* rdn : {"SnmpViewV1=v", "SnmpViewV2C=v", "SnmpViewV2C=w", "SnmpViewV2C=x"})
    create(Snmp, rdn, {{"name", "all"}, {"community", R"(["c"])"}});
  std::vector<std::string> names;
  for (const auto& entry : read().views) names.push_back(entry.first);
  EXPECT_THAT(names, testing::UnorderedElementsAre("all", "all (SnmpViewV2C)", Snmp + ",SnmpViewV2C=w",
                                                   Snmp + ",SnmpViewV2C=x"));
}

TEST_F(MoConnectorTest, WritesAllStatesInOneTransaction) {
  const std::string a = create(Snmp, "SnmpTargetV1=a", {{"address", "192.0.2.1"}, {"community", "c"}});
  const std::string b = create(Snmp, "SnmpTargetV2C=b", {{"address", "192.0.2.1"}, {"community", "c"}});
  const std::string gone = Snmp + ",SnmpTargetV1=gone";
  int commits = 0;
  services.getStore().setListener([&](const auto&) { ++commits; });
  EXPECT_THAT(connector.setOperationalStates({{a, true}, {b, false}, {gone, true}}, true), testing::SizeIs(1));
  EXPECT_TRUE(isLogged("Failed to set attribute :'operationalState' in MO :" + gone + ", reason (-2 )!"));
  EXPECT_EQ(commits, 1);
  EXPECT_TRUE(read().targets.at("a")->operationalState);
  EXPECT_FALSE(read().targets.at("b")->operationalState);
  EXPECT_THAT(connector.setOperationalStates({{a, true}, {b, true}}, true), testing::IsEmpty());
  EXPECT_EQ(commits, 2);
  EXPECT_TRUE(read().targets.at("b")->operationalState);

  // Nothing to write needs no lock.
  const VelaNode::MoTransaction writer(services.getStore(), VELA_MO_LOCK_AT_ONCE);
  EXPECT_THAT(connector.setOperationalStates({{a, true}, {b, true}}, true), testing::IsEmpty());
}

TEST_F(MoConnectorTest, WritesTheServiceAndTheHeartbeat) {
  connector.setSnmpOperationalState(true);
  EXPECT_EQ(connector.setEngineId("8001"), 0);
  EXPECT_EQ(read().engineId, "8001");
  EXPECT_EQ(connector.setEngineId(""), 0);
  EXPECT_EQ(read().engineId, "");
  EXPECT_EQ(connector.setHeartbeatInterval(17), 0);
  unsigned seconds = 0;
  EXPECT_EQ(connector.getHeartbeatInterval(seconds), 0);
  EXPECT_EQ(seconds, 17u);
}

TEST_F(MoConnectorTest, AFailedWriteIsTold) {
  const std::string gone = Snmp + ",SnmpTargetV1=gone";
  EXPECT_THROW(connector.setTargetOperationalState(gone.c_str(), true), Vela::VelaException);
  EXPECT_TRUE(isLogged("Failed to set attribute :'operationalState' in MO :" + gone + ", reason (-2 )!"));
  remove(Fm);
  EXPECT_NE(connector.setHeartbeatInterval(17), 0);
}
