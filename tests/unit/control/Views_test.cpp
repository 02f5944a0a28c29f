#include "Views.h"

#include <gtest/gtest.h>

#include "HexMask.h"
#include "ViewConfigurator.h"
#include "adaptor/StateTestSupport.h"

using namespace VelaFmSnmp;

namespace {

std::vector<std::string> texts(const View& view) {
  std::vector<std::string> result;
  for (const ViewEntry& entry : view.getEntries())
    result.push_back((entry.type == FamilyTreeExcluded ? "!" : "") + entry.subtree.toString());
  return result;
}

const std::vector<std::string> base = {"!.1.0", "!.1.1", "!.1.2", "!.1.3"};

}  // namespace

TEST(Views, startWithTheDefaultViewsOfEveryVersion) {
  const Views views;
  EXPECT_EQ(views.getViews().size(), 6U);
  std::vector<std::string> expected = base;
  expected.insert(expected.end(), {".1.3.6.1.2.1", ".1.3.6.1.6.3.10", ".1.3.6.1.4.1.61234.183.4"});
  for (const SnmpProtocolVersion version : {SnmpProtocolV1, SnmpProtocolV2c, SnmpProtocolV3}) {
    EXPECT_EQ(texts(*views.getReadView("defaultView", version)), expected);
    EXPECT_EQ(texts(*views.getWriteView("defaultView", version)), expected);
  }
  EXPECT_EQ(views.getReadView("defaultView", SnmpProtocolV2c)->getViewName(), "vela_defaultView_V2_R");
}

TEST(Views, shortenLongNamesToThirtyTwoCharacters) {
  Views views;
  const std::string fits(22, 'n');
  EXPECT_EQ(views.viewName(fits, SnmpProtocolV1, true), views.keyName(fits, SnmpProtocolV1, true));
  const std::string tooLong(23, 'n');
  EXPECT_EQ(views.viewName(tooLong, SnmpProtocolV1, true), "vela_" + std::string(20, 'n') + "_1_V1_W");
  EXPECT_EQ(views.viewName(tooLong, SnmpProtocolV3, false), "vela_" + std::string(20, 'n') + "_2_V3_R");
  views.createView(tooLong, SnmpProtocolV2c);
  EXPECT_TRUE(views.existsView(tooLong, SnmpProtocolV2c));
  EXPECT_EQ(views.getReadView(tooLong, SnmpProtocolV2c)->getViewName().size(), 32U);
  // A name that another view has by itself is passed over, until it is free again.
  const std::string taken = std::string(20, 'n') + "_5";
  views.createView(taken, SnmpProtocolV1);
  EXPECT_EQ(views.viewName(tooLong, SnmpProtocolV1, true), "vela_" + std::string(20, 'n') + "_6_V1_W");
  EXPECT_EQ(views.viewName(tooLong, SnmpProtocolV2c, true), "vela_" + std::string(20, 'n') + "_7_V2_W");
}

TEST(Views, creatingAgainKeepsWhatIsThere) {
  Views views;
  views.createView("public", SnmpProtocolV2c);
  EXPECT_EQ(texts(*views.getReadView("public", SnmpProtocolV2c)), base);
  views.getReadView("public", SnmpProtocolV2c)->addEntry(".1.3.6.1.2.1.1", FamilyTreeIncluded);
  views.createView("public", SnmpProtocolV2c);
  EXPECT_EQ(views.getReadView("public", SnmpProtocolV2c)->getEntries().size(), 5U);
  EXPECT_EQ(views.getReadView("public", SnmpProtocolV1), nullptr);
  views.deleteView("public", SnmpProtocolV2c);
  EXPECT_FALSE(views.existsReadView("public", SnmpProtocolV2c));
  EXPECT_FALSE(views.existsWriteView("public", SnmpProtocolV2c));
  views.deleteView("public", SnmpProtocolV2c);  // only logs
}

TEST(Views, configuredEntriesHaveOneRowPerSubtree) {
  struct Case {
    std::vector<std::string> configured;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {{}, base},
      {{".1.3.6"}, {"!.1.0", "!.1.1", "!.1.2", "!.1.3", ".1.3.6"}},
      {{".1.3.6", "!.1.3.6.1", ".1.3.6"}, {"!.1.0", "!.1.1", "!.1.2", "!.1.3", ".1.3.6", "!.1.3.6.1"}},
      {{".1.3.6", "!.1.3.6"}, {"!.1.0", "!.1.1", "!.1.2", "!.1.3", "!.1.3.6"}},
      {{"!.1.3.6", ".1.3.6"}, {"!.1.0", "!.1.1", "!.1.2", "!.1.3", "!.1.3.6"}},
      {{".1.3"}, {"!.1.0", "!.1.1", "!.1.2", ".1.3"}},
      {{".1"}, {".1"}},
      {{"!.1.3", ".1"}, {"!.1.3", ".1"}}};
  for (const Case& test : cases) {
    std::vector<ViewEntry> entries;
    for (const std::string& text : test.configured) {
      ViewEntry entry;
      ASSERT_TRUE(ViewConfigurator::parseEntry(text, entry));
      entries.push_back(entry);
    }
    View view("key", "name", SnmpProtocolV1);
    view.setEntries(entries);
    EXPECT_EQ(texts(view), test.expected);
  }
}

TEST(Views, whatCannotBeReadNarrows) {
  struct Case {
    std::vector<std::string> configured;
    std::vector<std::string> expected; /**< behind the base entries */
  };
  const std::string mib2 = ".1.3.6.1.2.1";
  const Case cases[] = {
      {{mib2, "1.3.6.x"}, {mib2}},
      {{mib2, "!.1.3.6.1.2.1.1 "}, {mib2, "!.1.3.6.1.2.1.1"}},
      {{mib2, " !.1.3.6.1.2.1.1"}, {mib2, "!.1.3.6.1.2.1.1"}},
      {{mib2, "! 1.3.6.1.2.1.1"}, {mib2, "!.1.3.6.1.2.1.1"}},
      // What the unreadable part may have meant is hidden: the whole subtree before it, and what is shown within.
      {{mib2, ".1.3.6.1.2.1.1.5", ".1.3.6.1.6", "!.1.3.6.1.2.1.1x"}, {".1.3.6.1.6", "!" + mib2}},
      {{mib2, "!.1.3.6.1.2.1.1..5"}, {mib2, "!.1.3.6.1.2.1.1"}},
      {{mib2, "!.1.3.6.1.2.1.1 5"}, {"!" + mib2}},
      {{".1.3.6.1.4.9.1/f4", ".1.3.6.1.4.9", "!.1.3.6.1.4.9.99999999999"}, {"!.1.3.6.1.4.9"}},
      {{".1.3.6.1.2.0.1/fb.ff", ".1.3.6.1.2", "!.1.3.6.1.2.1.x"}, {".1.3.6.1.2", "!.1.3.6.1.2.1"}},
      {{mib2, "!.1.3.6.1.2.1.1" + std::string(90 * 2, '.')}, {mib2, "!.1.3.6.1.2.1.1"}},
      // With a mask, or with nothing to read, that is everything.
      {{mib2, "!.1.3.6.1.2.1.1/zz"}, {}},
      {{mib2, "!"}, {}},
      {{mib2, "!x"}, {}},
      {{mib2, "not !.1.3.6.1.2.1.1"}, {}}};
  for (const Case& test : cases) {
    View view("key", "name", SnmpProtocolV1);
    view.setEntries(ViewConfigurator::parseEntries(test.configured, "v").toEntries());
    std::vector<std::string> expected = base;
    expected.insert(expected.end(), test.expected.begin(), test.expected.end());
    EXPECT_EQ(texts(view), expected) << test.configured.back();
  }
  const StateTest::CapturedLog log;
  ViewConfigurator::parseEntries({"!.1.3 ", "x"}, "v");
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{"Faulty OID in view: '!.1.3 ' (view v), what it may exclude is hidden",
                                      "Faulty OID in view: 'x' (view v)"}));
}

TEST(Views, readsEntriesAsConfigured) {
  struct Case {
    std::string text;
    std::string subtree;
    std::string mask;
    FamilyTreeType type;
  };
  std::string longest = ".1";
  for (int i = 1; i < 82; ++i) longest += ".2";
  const Case cases[] = {
      {".1.3.6", ".1.3.6", "", FamilyTreeIncluded},  {"1.3.6", ".1.3.6", "", FamilyTreeIncluded},
      {"!.1.3.6", ".1.3.6", "", FamilyTreeExcluded}, {"!1.3.6/ff.a0", ".1.3.6", "\xff\xa0", FamilyTreeExcluded},
      {".1.3.6/", ".1.3.6", "", FamilyTreeIncluded}, {longest, longest, "", FamilyTreeIncluded}};
  for (const Case& test : cases) {
    ViewEntry entry;
    EXPECT_TRUE(ViewConfigurator::parseEntry(test.text, entry)) << test.text;
    EXPECT_EQ(entry.subtree.toString(), test.subtree);
    EXPECT_EQ(entry.mask, test.mask);
    EXPECT_EQ(entry.type, test.type);
  }
  for (const std::string& faulty :
       {longest + ".2", std::string(), std::string("!"), std::string(".1..3"), std::string(".1.3."), std::string("/ff"),
        std::string(".1.3/f"), std::string(".1.3/ff,a0"), ".1.3/" + std::string(34, 'f')}) {
    ViewEntry entry;
    EXPECT_FALSE(ViewConfigurator::parseEntry(faulty, entry)) << faulty;
  }
}

TEST(HexMask, tellsWhyATextIsNone) {
  struct Case {
    const char* text;
    std::string log;
    std::vector<unsigned char> octets;
  };
  for (const Case& test :
       {Case{"ff.a0:01", "", {0xff, 0xa0, 1}}, Case{"ffA001", "", {0xff, 0xa0, 1}}, Case{"", "", {}},
        Case{"f", "invalid MASK\n", {}}, Case{"ff.", "invalid MASK\n", {}}, Case{"fg", "invalid MASK\n", {}},
        Case{"ff,a0", "invalid MASK, delimiter=44\n", {}}, Case{"01020304", "MASK too long\n", {}}}) {
    const StateTest::CapturedLog log;
    unsigned char octets[3] = {};
    int length = -1;
    EXPECT_EQ(convertHexMask(octets, &length, 3, test.text), test.log.empty()) << test.text;
    EXPECT_EQ(std::vector<unsigned char>(octets, octets + length), test.octets) << test.text;
    EXPECT_EQ(log.lines(), test.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{test.log});
  }
}
