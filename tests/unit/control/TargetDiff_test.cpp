#include "TargetDiff.h"

#include <gmock/gmock.h>

#include "MasterAgentFixture.h"
#include "TargetNames.h"
#include "adaptor/StateTestSupport.h"

using namespace VelaFmSnmp;
using ::testing::Contains;

namespace {

using Names = std::vector<std::string>;
using Target = Poco::AutoPtr<SnmpBaseTarget>;

Target target(unsigned port = 10162, bool isUnlocked = true) {
  auto made = targetV2("t");
  made->port = port;
  made->administrativeState = isUnlocked;
  return made;
}

}  // namespace

TEST(TargetDiff, sortsTargets) {
  struct Case {
    Target old;
    Target next;
    bool wasOperational;
    bool force;
    Names removed, added, changed;
    std::string log;
  };
  const Case cases[] = {
      {{}, target(), false, false, {}, {"t"}, {}, "target t is new"},
      {target(), {}, true, true, {"t"}, {}, {}, "target t erased"},
      {target(), target(7), true, false, {}, {}, {"t"}, "target t changed"},
      {target(), target(7, false), true, false, {}, {}, {"t"}, "target t changed"},
      {target(), target(10162, false), true, false, {}, {}, {"t"}, "target t not changed, but adminState changed"},
      {target(), target(), true, false, {}, {}, {}, "target t not changed"},
      {target(10162, false), target(10162, false), false, false, {}, {}, {}, "target t not changed"},
      {target(), target(), true, true, {}, {}, {"t"}, "target t not changed, but forcing reconfiguration"},
      {target(),
       target(),
       false,
       false,
       {},
       {},
       {"t"},
       "target t not changed, but operationalState is DISABLED, so try to reconfigure"},
      {target(), targetV1("t"), true, false, {}, {}, {"t"}, "target t changed"},
      {targetV3("t", "u"), targetTls("t", "u"), true, false, {}, {}, {"t"}, "target t changed"}};
  for (const Case& test : cases) {
    const StateTest::CapturedLog log;
    SnmpConfig::TargetMap oldTargets;
    SnmpConfig::TargetMap newTargets;
    if (test.old) oldTargets["t"] = test.old;
    if (test.next) newTargets["t"] = test.next;
    std::set<std::string> operational;
    if (test.wasOperational) operational = {"t"};
    const ConfigurationDiff diff = calcDiffTargets(oldTargets, newTargets, operational, test.force);
    EXPECT_EQ(diff.removed, test.removed) << test.log;
    EXPECT_EQ(diff.added, test.added) << test.log;
    EXPECT_EQ(diff.changed, test.changed) << test.log;
    EXPECT_EQ(log.lines(), Names{test.log});
  }
}

TEST(TargetDiff, walksDifferentMapsSideBySide) {
  const SnmpConfig old = configWith({targetV2("b"), targetV2("c"), targetV2("e")});
  const SnmpConfig next = configWith({targetV2("a"), targetV2("c"), targetV2("d"), targetV2("f")});
  const ConfigurationDiff diff = calcDiffTargets(old.targets, next.targets, {"b", "c", "e"}, false);
  EXPECT_EQ(diff.removed, (Names{"b", "e"}));
  EXPECT_EQ(diff.added, (Names{"a", "d", "f"}));
  EXPECT_TRUE(diff.changed.empty());
}

TEST(TargetDiff, sortsViews) {
  const auto make = [](const std::string& readOid) {
    Poco::AutoPtr<SnmpBaseView> view(new SnmpBaseView(SnmpProtocolV1));
    view->readOids = {readOid};
    return view;
  };
  const StateTest::CapturedLog log;
  SnmpConfig::ViewMap old{{"gone", make(".1")}, {"kept", make(".1")}, {"other", make(".1")}};
  SnmpConfig::ViewMap next{{"kept", make(".1")}, {"new", make(".1")}, {"other", make(".2")}};
  const ConfigurationDiff diff = calcDiffViews(old, next, false);
  EXPECT_EQ(diff.removed, Names{"gone"});
  EXPECT_EQ(diff.added, Names{"new"});
  EXPECT_EQ(diff.changed, Names{"other"});
  EXPECT_EQ(calcDiffViews(next, next, true).changed, (Names{"kept", "new", "other"}));
  for (const char* text : {"view new is new", "view other changed, removing old view and adding new",
                           "view kept not changed", "view kept not changed, but forcing reconfiguration"})
    EXPECT_THAT(log.lines(), Contains(text));
}

TEST(TargetNames, areUniquePlainAndKept) {
  TargetNames names;
  const auto nameOf = [&](const std::string& target) { return names.getUniqueName("ntf", *targetV2(target)); };
  EXPECT_EQ(nameOf("nms"), "ntf_nms");
  EXPECT_EQ(nameOf(std::string(27, 'x')), "ntf_" + std::string(27, 'x'));
  EXPECT_EQ(nameOf(std::string(28, 'x')), "gen_1");
  EXPECT_EQ(nameOf("with blank"), "gen_2");
  EXPECT_EQ(nameOf("gr\xc3\xbc\xc3\x9f"), "gen_3");
  EXPECT_EQ(nameOf("with blank"), "gen_2") << "a known target keeps its name";
  names.eraseNotificationNames(*targetV2("with blank"));
  EXPECT_EQ(nameOf("with blank"), "gen_4");
}
