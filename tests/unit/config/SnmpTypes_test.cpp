#include "SnmpTypes.h"

// net-snmp's headers depend on this order.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using namespace VelaFmSnmp;

namespace {

Poco::AutoPtr<SnmpTargetV1> v1(const std::string& name) {
  Poco::AutoPtr<SnmpTargetV1> target(new SnmpTargetV1);
  target->name = name;
  target->address = "192.0.2.1";
  target->port = 162;
  target->community = "public";
  target->networkPrefixLength = -1;
  return target;
}

Poco::AutoPtr<SnmpTargetV2C> v2c(const std::string& name) {
  Poco::AutoPtr<SnmpTargetV2C> target(new SnmpTargetV2C);
  target->name = name;
  target->address = "192.0.2.2";
  target->port = 162;
  target->community = "private";
  target->networkPrefixLength = 24;
  return target;
}

template <class Target = SnmpTargetV3Usm>
Poco::AutoPtr<Target> inform(const std::string& name) {
  Poco::AutoPtr<Target> target(new Target);
  target->name = name;
  target->address = "192.0.2.3";
  target->port = 1162;
  target->user = "operator";
  target->authKey = "authauth1";
  target->privKey = "privpriv1";
  target->authProtocol = AuthSha;
  target->privProtocol = PrivAes;
  target->informRetryCount = 4;
  target->informTimeout = 250;
  target->transportMethod = TransportInform;
  return target;
}

void add(SnmpConfig& config, const Poco::AutoPtr<SnmpBaseTarget>& target) { config.targets[target->name] = target; }

void enableTls(SnmpConfig& config, const std::vector<std::string>& trusted) {
  config.tlsOptions.nodeCredential = "AA:bb:CC";
  config.tlsOptions.agentAddressDtls = {{"192.0.2.9", 10161}};
  config.tlsOptions.trustCategories = trusted;
}

/** The words of a line as the agent reads them. */
std::vector<std::string> agentWords(const std::string& line) {
  std::vector<char> text(line.begin(), line.end());
  text.push_back('\0');
  std::vector<std::string> words;
  for (char* rest = text.data(); rest != nullptr;) {
    char word[SPRINT_MAX_LEN];
    rest = copy_nword(rest, word, sizeof(word));
    words.emplace_back(word);
  }
  return words;
}

}  // namespace

// --- Equality

TEST(SnmpTypes, StatesAndCompletenessDoNotMakeATargetDifferentAndTheRestDoes) {
  using Change = std::function<void(SnmpTargetV2C&)>;
  const std::tuple<const char*, Change, bool> cases[] = {
      {"hasNameAttribute", [](auto& t) { t.hasNameAttribute = true; }, true},
      {"moName", [](auto& t) { t.moName = "other"; }, true},
      {"missingAttributes", [](auto& t) { t.missingAttributes = 1; }, true},
      {"defaultedAttributes", [](auto& t) { t.defaultedAttributes = 1; }, true},
      {"community", [](auto& t) { t.community = "x"; }, true},
      {"operational", [](auto& t) { t.operational = true; }, false},
      {"operationalState", [](auto& t) { t.operationalState = t.hasOperationalState = true; }, false},
      {"isComplete", [](auto& t) { t.isComplete = false; }, false}};
  for (const auto& [what, change, isDifferent] : cases) {
    SnmpConfig before;
    SnmpConfig after;
    add(before, v2c("t"));
    Poco::AutoPtr<SnmpTargetV2C> changed = v2c("t");
    change(*changed);
    add(after, changed);
    EXPECT_EQ(before == after, !isDifferent) << what;
    EXPECT_EQ(after == before, !isDifferent) << what;
  }
}

TEST(SnmpTypes, DtlsTargetsAreComparedByNameAndDigestOnly) {
  SnmpConfig before;
  SnmpConfig after;
  add(before, inform<SnmpTargetV3Tls>("t"));
  Poco::AutoPtr<SnmpTargetV3Tls> edited = inform<SnmpTargetV3Tls>("t");
  edited->address = "192.0.2.77";
  add(after, edited);
  EXPECT_TRUE(before == after);
  after.tlsOptions.targetDigest = "edited";
  EXPECT_FALSE(before == after);
  after.tlsOptions.targetDigest.clear();
  after.targets.clear();
  add(after, inform<SnmpTargetV3Tls>("u"));
  EXPECT_FALSE(before == after);
}

TEST(SnmpTypes, ATargetOfAnotherKindIsAnotherTarget) {
  const Poco::AutoPtr<SnmpBaseTarget> kinds[] = {v1("t"), v2c("t"), inform("t"), inform<SnmpTargetV3Tls>("t")};
  for (const auto& left : kinds) {
    for (const auto& right : kinds) {
      SnmpConfig one;
      SnmpConfig other;
      one.targets["t"] = left;
      other.targets["t"] = right;
      EXPECT_EQ(one == other, left.get() == right.get());
    }
  }
}

TEST(SnmpTypes, WhatDoesNotConcernTheAgentDoesNotMakeTheServiceDifferent) {
  SnmpConfig same;
  same.snmpMoName = "x";
  same.dscpCmEnabled = same.dscpFmEnabled = false;
  same.isAgentAddressFromAccessPoint = true;
  EXPECT_TRUE(SnmpConfig() == same);
  same.views["v"] = new SnmpBaseView(2);
  SnmpConfig other;
  other.views["v"] = new SnmpBaseView(1);
  EXPECT_FALSE(same == other);
}

TEST(SnmpTypes, ClearKeepsNameAndFlags) {
  SnmpConfig config;
  add(config, v1("t"));
  enableTls(config, {"x"});
  config.agentAddress = {{"192.0.2.9", 161}};
  config.snmpMoName = "dn";
  config.snmpId = config.engineId = "x";
  config.administrativeState = config.dscpCmEnabled = config.dscpFmEnabled = false;
  config.enableSourceCheckForV1V2C = true;
  config.clear();
  EXPECT_TRUE(config.targets.empty() && config.agentAddress.empty() && config.snmpId.empty() &&
              config.engineId.empty());
  EXPECT_TRUE(config.tlsOptions == SnmpConfig::tlsOptions_t());
  EXPECT_EQ(config.snmpMoName, "dn");
  EXPECT_FALSE(config.administrativeState || config.dscpCmEnabled || config.dscpFmEnabled);
  EXPECT_TRUE(config.enableSourceCheckForV1V2C);
}

// --- Derived answers

TEST(SnmpTypes, InformTimeoutWorkaroundMultipliesByTen) {
  const Poco::AutoPtr<SnmpBaseTarget> target = inform("t");
  EXPECT_EQ(target->getInformTimeout(), 250u);
  SnmpBaseTarget::setInformTimeoutWorkaround([] { return true; });
  EXPECT_EQ(target->getInformTimeout(), 2500u);
  EXPECT_EQ(target->getInformTimeout(), 2500u);
  Poco::AutoPtr<SnmpTargetV2C> huge = v2c("t");
  huge->informTimeout = 4294967295u;
  EXPECT_EQ(huge->getInformTimeout(), 4294967290u);
  SnmpBaseTarget::setInformTimeoutWorkaround([] { return false; });
  EXPECT_EQ(target->getInformTimeout(), 250u);
  SnmpBaseTarget::setInformTimeoutWorkaround(nullptr);
}

TEST(SnmpTypes, AllTargetsOperational) {
  SnmpConfig config;
  EXPECT_TRUE(config.allTargetsOperational());
  Poco::AutoPtr<SnmpTargetV1> locked = v1("locked");
  locked->administrativeState = false;
  add(config, locked);
  add(config, inform<SnmpTargetV3Tls>("tls"));
  EXPECT_TRUE(config.allTargetsOperational());
  enableTls(config, {"x"});
  EXPECT_FALSE(config.allTargetsOperational());
  config.targets["tls"]->operational = true;
  EXPECT_TRUE(config.allTargetsOperational());
  add(config, v2c("down"));
  EXPECT_FALSE(config.allTargetsOperational());
}

TEST(SnmpTypes, CommunitiesAndTheirSources) {
  SnmpConfig config;
  Poco::AutoPtr<SnmpTargetV2C> locked = v2c("d");
  locked->administrativeState = false;
  locked->community = "locked";
  Poco::AutoPtr<SnmpTargetV1> elsewhere = v1("c");
  elsewhere->address = "192.0.2.50";
  Poco::AutoPtr<SnmpTargetV1> empty = v1("0");
  empty->community.clear();
  empty->administrativeState = false;
  for (const Poco::AutoPtr<SnmpBaseTarget>& target :
       std::vector<Poco::AutoPtr<SnmpBaseTarget>>{empty, v1("a"), v1("b"), elsewhere, locked, v2c("e"), inform("f")}) {
    add(config, target);
  }
  EXPECT_THAT(config.getV1AndV2communities(), ElementsAre("", "public", "public", "public", "locked", "private"));
  EXPECT_THAT(config.getV1V2communitiesAndAddrWithPrefixLength(),
              ElementsAre(Pair("private", "192.0.2.2/24"), Pair("public", "192.0.2.1"), Pair("public", "192.0.2.50")));
}

// --- trapsess lines

TEST(SnmpTypes, TrapsessLines) {
  const std::string start = "trapsess -Ci -v 3 -u operator -r 4 -t 2 -l ";
  const std::string level = "authPriv -a SHA -A authauth1 -x AES -X privpriv1";
  const std::string end = " 192.0.2.3:1162";
  using Change = std::function<void(SnmpTargetV3Usm&)>;
  const std::tuple<const char*, Change, std::string> cases[] = {
      {"authPriv", [](auto&) {}, start + level + end},
      {"other protocols",
       [](auto& t) {
         t.authProtocol = AuthMd5;
         t.privProtocol = PrivDes;
       },
       start + "authPriv -a MD5 -A authauth1 -x DES -X privpriv1" + end},
      {"authNoPriv ignores the privacy protocol", [](auto& t) { t.snmpSecurityLevel = LevelAuthNoPriv; },
       start + "authNoPriv -a SHA -A authauth1" + end},
      {"noAuthNoPriv", [](auto& t) { t.snmpSecurityLevel = LevelNoAuthNoPriv; }, ""},
      {"traps", [](auto& t) { t.transportMethod = TransportTrap; }, ""},
      {"locked", [](auto& t) { t.administrativeState = false; }, ""},
      {"incomplete", [](auto& t) { t.isComplete = false; }, ""},
      {"below one second", [](auto& t) { t.informTimeout = 99; },
       "trapsess -Ci -v 3 -u operator -r 4 -t 1 -l " + level + end},
      {"IPv6", [](auto& t) { t.address = "2001:db8::1"; }, start + level + " 2001:db8::1:1162"},
      {"host name", [](auto& t) { t.address = "nms.example"; }, start + level + " nms.example:1162"},
      {"a second line in the pass phrase", [](auto& t) { t.privKey = "privpriv1\nrwcommunity evil"; }, ""},
      {"a control character in the user", [](auto& t) { t.user = "op\terator"; }, ""},
      {"no pass phrase", [](auto& t) { t.authKey.clear(); }, ""},
  };
  for (const auto& [what, change, line] : cases) {
    SnmpConfig config;
    Poco::AutoPtr<SnmpTargetV3Usm> target = inform("t");
    change(*target);
    add(config, target);
    add(config, v2c("u"));
    const std::vector<std::string> lines = config.getInformTrapsessConfig();
    EXPECT_THAT(lines, testing::SizeIs(line.empty() ? 0 : 1)) << what;
    EXPECT_EQ(lines.empty() ? "" : lines.front(), line) << what;
  }
}

TEST(SnmpTypes, TheAgentReadsBackWhatIsQuoted) {
  for (const std::string secret : {"with blank", "quo\"te", "apo'strophe", "back\\slash\\", "#hash $dollar `tick`",
                                   "\" -l noAuthNoPriv \"", "\xc3\xa9t\xc3\xa9", "trailing ", "'", "\\"}) {
    SCOPED_TRACE(secret);
    SnmpConfig config;
    Poco::AutoPtr<SnmpTargetV3Usm> target = inform("t");
    target->user = target->authKey = target->privKey = secret;
    add(config, target);
    ASSERT_EQ(config.getInformTrapsessConfig().size(), 1u);
    EXPECT_THAT(agentWords(config.getInformTrapsessConfig().front()),
                ElementsAre("trapsess", "-Ci", "-v", "3", "-u", secret, "-r", "4", "-t", "2", "-l", "authPriv", "-a",
                            "SHA", "-A", secret, "-x", "AES", "-X", secret, "192.0.2.3:1162"));
  }
}

TEST(SnmpTypes, DtlsTrapsessLines) {
  SnmpConfig config;
  Poco::AutoPtr<SnmpTargetV3Tls> ipv6 = inform<SnmpTargetV3Tls>("b");
  ipv6->address = "2001:db8::1";
  Poco::AutoPtr<SnmpTargetV3Tls> host = inform<SnmpTargetV3Tls>("c");
  host->address = "nms.example";
  add(config, inform<SnmpTargetV3Tls>("a"));
  add(config, ipv6);
  add(config, host);
  add(config, inform("usm"));
  EXPECT_THAT(config.getInformDtlsTrapsessConfig(), IsEmpty());

  enableTls(config, {"DD:EE"});
  const std::string start = "trapsess -Ci -v 3 -l authPriv -u operator -T our_identity=aabbcc ";
  EXPECT_THAT(config.getInformDtlsTrapsessConfig(),
              ElementsAre(start + "-T their_identity=ddee -r 4 -t 2 dtlsudp:192.0.2.3:1162",
                          start + "-T their_identity=ddee -r 4 -t 2 dtlsudp6:[2001:db8::1]:1162",
                          start + "-T their_identity=ddee -r 4 -t 2 dtlsudp:nms.example:1162"));
  enableTls(config, {"DD:EE", "ff"});
  EXPECT_EQ(config.getInformDtlsTrapsessConfig().front(),
            start + "-T trust_cert=ddee -r 4 -t 2 dtlsudp:192.0.2.3:1162");
}

TEST(SnmpTypes, CopiesHaveACountOfTheirOwn) {
  const Poco::AutoPtr<SnmpTargetV2C> original = v2c("t");
  const Poco::AutoPtr<SnmpTargetV2C> second = original;
  const Poco::AutoPtr<SnmpTargetV2C> copy(new SnmpTargetV2C(*original));
  EXPECT_EQ(copy->referenceCount(), 1);
  EXPECT_EQ(original->referenceCount(), 2);
  EXPECT_TRUE(*copy == *original);
  Poco::AutoPtr<SnmpTargetV2C> assigned(new SnmpTargetV2C);
  *assigned = *original;
  EXPECT_TRUE(*assigned == *original);
  EXPECT_EQ(assigned->referenceCount(), 1);
}
