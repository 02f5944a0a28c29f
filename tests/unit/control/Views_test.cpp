#include "Views.h"

#include <gtest/gtest.h>

#include "ViewConfigurator.h"

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
