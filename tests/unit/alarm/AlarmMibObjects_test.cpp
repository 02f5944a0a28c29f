#include "AlarmMibObjects.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <string>

#include "AlarmTestSupport.h"

namespace AlarmTest {

using namespace VelaFmSnmp;

namespace {

using Names = std::map<std::string, std::string>; /**< identifiers by names */

/** The objects and notifications of the module, without those that hold others only. */
Names readModule() {
  std::ifstream file(VELA_MIB_FILE);
  EXPECT_TRUE(file.is_open()) << VELA_MIB_FILE;
  std::string text{std::istreambuf_iterator<char>(file), {}};
  text = std::regex_replace(text, std::regex("--[^\n]*|\"[^\"]*\""), "");
  text.erase(0, text.find(';'));  // what it imports

  Names ids = {{"kavrelManagement", ".1.3.6.1.4.1.61234.183"}};
  Names found;
  const std::regex definition(
      R"(\n(\w+)\s+(MODULE-IDENTITY|OBJECT IDENTIFIER|OBJECT-TYPE|NOTIFICATION-TYPE)\b[^:]*::=\s*\{\s*(\w+)\s+(\d+)\s*\})");
  for (std::sregex_iterator match(text.begin(), text.end(), definition), end; match != end; ++match) {
    const std::string name = (*match)[1];
    const std::string kind = (*match)[2];
    const std::string id = ids[(*match)[3]] + "." + (*match)[4].str();
    ids[name] = id;
    const bool isShown =
        (kind == "OBJECT-TYPE" || kind == "NOTIFICATION-TYPE") && !name.ends_with("Entry") && !name.ends_with("Index");
    if (isShown) found[name] = id;
  }
  return found;
}

Names readCode() {
  Names found;
  const auto add = [&found](const AlarmMib::Object& object) {
    if (object.name != nullptr) found[object.name] = SnmpOid(object.id.data(), object.id.size()).toString();
  };
  for (const AlarmMib::Object& object : AlarmMib::scalars) add(object);
  for (const AlarmMib::Object& object : AlarmMib::alarmNotifications) add(object);
  for (const AlarmMib::Object& object : AlarmMib::alertNotifications) add(object);
  for (const AlarmMib::Object* object : {&AlarmMib::alarmAppendInfo, &AlarmMib::alertAppendInfo,
                                         &AlarmMib::heartbeatNotification, &AlarmMib::alarmListRebuilt}) {
    add(*object);
  }
  for (const AlarmMib::Table* table : {&AlarmMib::activeTable, &AlarmMib::alertTable}) {
    add(table->object);
    for (const AlarmMib::Column& column : table->columns) {
      const AlarmMib::Cell cell = AlarmMib::cellOf(*table, table->numberOf(column.field), 0);
      found[column.name] = SnmpOid(cell.data(), cell.size() - 1).toString();
    }
  }
  return found;
}

TEST(AlarmMibObjectsTest, TheCodeHasTheObjectsOfTheModule) { EXPECT_EQ(readCode(), readModule()); }

}  // namespace

}  // namespace AlarmTest
