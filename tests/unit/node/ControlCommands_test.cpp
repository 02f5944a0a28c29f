#include "control/ControlCommands.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>

#include <cstring>
#include <sstream>

#include "framework/NodeServices.h"
#include "model/ModelFile.h"

namespace VelaNode {
namespace {

using Poco::JSON::Object;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constexpr const char* snmpDn = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1";

/** Collects items; can be told to have gone. */
class RecordingReply : public ControlReply {
 public:
  void sendItem(const Object& item) override {
    std::ostringstream text;
    item.stringify(text);
    items.push_back(text.str());
  }
  bool isAbandoned(int waitMs) override {
    waits.push_back(waitMs);
    return waits.size() > patience;
  }

  std::vector<std::string> items;
  std::vector<int> waits;
  std::size_t patience = 1000000;
};

class ControlCommandsTest : public testing::Test {
 protected:
  ControlCommandsTest() {
    _services.getStore().install(ModelFile::parse(ModelFile::getDefaultText(), "default"));
    _services.getStore().setEncryptor(
        [](const std::string& text) { return "cipher(" + std::to_string(text.size()) + ")"; });
  }

  /** The result's text, or "error: " and the reason. */
  std::string ask(const std::string& request) {
    Poco::JSON::Parser parser;
    try {
      std::ostringstream text;
      _commands.handle(*parser.parse(request).extract<Object::Ptr>(), _reply)->stringify(text);
      return text.str();
    } catch (const std::exception& ex) {
      return std::string("error: ") + ex.what();
    }
  }
  std::string get(const std::string& dn, const std::string& attribute) {
    return ask(R"({"command":"mo get","dn":")" + dn + R"(","attribute":")" + attribute + "\"}");
  }
  std::string set(const std::string& dn, const std::string& attributes) {
    return ask(R"({"command":"mo set","dn":")" + dn + R"(","attributes":)" + attributes + "}");
  }

  NodeServices _services;
  FmService _fm{_services.getStore(), _services.getRouter()};
  RecordingReply _reply;
  bool _isStopRequested = false;
  ControlCommands _commands{
      _services.getStore(), _fm, {[] { return Object::Ptr(new Object); }, [this] { _isStopRequested = true; }}};
};

TEST_F(ControlCommandsTest, AlarmsLiveFromRaiseToClear) {
  EXPECT_EQ(R"({"index":1})", ask(R"({"command":"alarm raise","mo":"ManagedElement=1","severity":"major","majorType":1,
      "minorType":4294967295,"specificProblem":"p","text":"t","info":[{"name":"a","value":"b"}]})"));
  EXPECT_EQ(R"({"index":1})", ask(R"({"command":"alarm change","index":1,"severity":"critical"})"));
  ask(R"({"command":"alarm list"})");
  ASSERT_EQ(1U, _reply.items.size());
  for (const char* part :
       {R"("index":1,"severity":"critical","mo":"ManagedElement=1","majorType":1,"minorType":4294967295)",
        R"("text":"t")", R"("originalSeverity":"major")", R"("info":[{"name":"a","value":"b"}])"}) {
    EXPECT_THAT(_reply.items[0], HasSubstr(part));
  }
  EXPECT_EQ(R"({"index":1})", ask(R"({"command":"alarm clear","index":1})"));
  EXPECT_EQ(0U, _fm.countActive());

  EXPECT_EQ(R"({"first":2,"last":1001})", ask(R"({"command":"alarm storm","count":1000})"));
  EXPECT_EQ(R"({"first":1002,"last":1011})", ask(R"({"command":"alarm storm","count":10,"severity":"minor"})"));
  EXPECT_EQ(R"({"count":1010})", ask(R"({"command":"alarm clear-all"})"));
  EXPECT_FALSE(_isStopRequested);
  EXPECT_EQ("{}", ask(R"({"command":"stop"})"));
  EXPECT_TRUE(_isStopRequested);
}

TEST_F(ControlCommandsTest, BadRequestsAreRefusedAndChangeNothing) {
  const std::string raise =
      R"({"command":"alarm raise","mo":"m","severity":"major","majorType":1,"minorType":1,"specificProblem":"p","info":[]})";
  using Fault = std::pair<const char*, const char*>;
  const Fault faults[] = {Fault{R"("mo":"m",)", ""},
                          Fault{R"("m")", "7"},
                          Fault{R"("major")", R"("cleared")"},
                          Fault{R"("major")", R"("awful")"},
                          Fault{R"(Type":1)", R"(Type":-1)"},
                          Fault{R"(Type":1)", R"(Type":4294967296)"},
                          Fault{R"(Type":1)", R"(Type":"1")"},
                          Fault{"[]", "7"},
                          Fault{"[]", "[7]"}};
  for (const auto& [good, bad] : faults) {
    std::string request = raise;
    EXPECT_THAT(ask(request.replace(request.find(good), std::strlen(good), bad)), HasSubstr("error: ")) << request;
  }
  const char* requests[] = {
      R"({"command":"alarm change","index":1})",
      R"({"command":"alarm clear","index":1})",
      R"({"command":"alarm clear"})",
      R"({"command":"alarm storm","count":0})",
      R"({"command":"no such"})",
      R"({"command":7})",
      R"({})",
  };
  for (const char* request : requests) EXPECT_THAT(ask(request), HasSubstr("error: ")) << request;
  EXPECT_EQ(0U, _fm.getLastAlarmSequenceNo());
}

TEST_F(ControlCommandsTest, StormKeepsItsRateAndEndsWithItsClient) {
  _reply.patience = 3;
  EXPECT_THAT(ask(R"({"command":"alarm storm","count":1000000,"rate":1})"),
              HasSubstr("error: the storm was broken off"));
  ASSERT_EQ(4U, _reply.waits.size());
  // The stand-in returns at once, so that each wait is longer by one alarm's time.
  EXPECT_NEAR(3000, _reply.waits[3], 500);
  EXPECT_EQ(3U, _fm.countActive());
}

TEST_F(ControlCommandsTest, OneWrongAttributeLeavesAllAsTheyWere) {
  const char* wrong[] = {R"({"name":"port","value":"many"})", R"({"name":"operationalState","value":"ENABLED"})",
                         R"({"name":"snmpId","secret":"abc"})", R"({"name":"snmpId"})", R"(7)"};
  const std::string before = get(snmpDn, "snmpId");
  for (const char* attribute : wrong) {
    EXPECT_THAT(set(snmpDn, std::string(R"([{"name":"snmpId","value":"changed"},)") + attribute + "]"),
                HasSubstr("error: "))
        << attribute;
  }
  EXPECT_EQ(before, get(snmpDn, "snmpId"));
  EXPECT_EQ("{}", set(snmpDn, R"([{"name":"snmpId","value":"changed"}])"));
  EXPECT_THAT(get(snmpDn, "snmpId"), HasSubstr(R"("value":"changed")"));
}

TEST_F(ControlCommandsTest, ObjectsAreCreatedListedAndDeleted) {
  const std::string dn = std::string(snmpDn) + ",SnmpTargetV3=nms";
  const std::string create = R"({"command":"mo create","dn":")" + dn + R"(","attributes":[{"name":"user","value":")";
  EXPECT_EQ("{}", ask(create + R"(u"},{"name":"authKey","secret":"pass phrase"}]})"));
  ask(R"({"command":"mo list"})");
  EXPECT_THAT(_reply.items, Contains(R"({"dn":")" + dn + R"(","class":"SnmpTargetV3"})"));
  const std::string shown = ask(R"({"command":"mo get","dn":")" + dn + "\"}");
  EXPECT_THAT(shown, HasSubstr(R"("cleartext":false)"));
  EXPECT_THAT(shown, Not(HasSubstr("pass phrase")));
  EXPECT_EQ("{}", ask(R"({"command":"mo delete","dn":")" + dn + "\"}"));
  EXPECT_THAT(ask(R"({"command":"mo get","dn":")" + dn + "\"}"), HasSubstr("error: "));
}

TEST_F(ControlCommandsTest, WhatTheNodeKeepsIsNotTheOperators) {
  ask(R"({"command":"alarm storm","count":1})");
  const std::string fm = "ManagedElement=1,SystemFunctions=1,Fm=1";
  EXPECT_THAT(set(fm, R"([{"name":"totalActive","value":"5"}])"), HasSubstr("error: "));
  EXPECT_THAT(set(fm + ",FmAlarm=1", R"([{"name":"source","value":"x"}])"), HasSubstr("error: "));
  EXPECT_THAT(ask(R"({"command":"mo delete","dn":")" + fm + R"(,FmAlarm=1"})"), HasSubstr("error: "));
  EXPECT_THAT(ask(R"({"command":"mo create","dn":")" + fm + R"(,FmAlarm=2"})"), HasSubstr("error: "));
  EXPECT_EQ("{}", set(fm, R"([{"name":"heartbeatInterval","value":"5"}])"));
}

}  // namespace
}  // namespace VelaNode
