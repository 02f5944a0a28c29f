#include "ctl/StatusView.h"

#include <Poco/JSON/Parser.h>
#include <gmock/gmock.h>

#include <sstream>

namespace VelaNode {
namespace {

using Poco::JSON::Object;
using testing::HasSubstr;
using testing::Not;

constexpr const char* status = R"({"directory":"/tmp/n","pid":7,"component":"started","adaptorState":"IdleEnabled",
  "adaptorStateReason":"trap received","adaptorStateSince":"2026-01-01T00:00:00Z","snmpAdministrativeState":"UNLOCKED",
  "snmpOperationalState":"ENABLED","snmpd":{"running":true,"pid":8,"bootCount":3},"targets":[
  {"name":"good","kind":"V2C","address":"127.0.0.1","port":162,"administrativeState":"UNLOCKED",
   "operationalState":"ENABLED"},
  {"name":"broken","kind":"V3","address":"2001:db8::1","port":99999,"administrativeState":"UNLOCKED",
   "operationalState":"DISABLED","reason":"Failed to configure snmp target broken: \u001b[31mthe port is no port at all, and
   this goes on for so long that it does not fit into one line"},
  {"name":"o\nf\tf","kind":"V1","address":"","port":162,"administrativeState":"LOCKED","operationalState":"DISABLED",
   "reason":"locked"}],
  "alarms":{"total":15,"critical":1,"major":2,"minor":3,"warning":4,"indeterminate":5},"lastHeartbeat":"",
  "lastAlarmSequenceNo":20,"lastAlertSequenceNo":0})";

Object::Ptr parsed(std::string text) {
  std::erase(text, '\n');
  return Poco::JSON::Parser().parse(text).extract<Object::Ptr>();
}

TEST(StatusViewTest, TellsWhichTargetFailsAndWhyWithin80Columns) {
  const std::string shown = StatusView::format(*parsed(status), Terminal(80, false));
  for (const char* part :
       {"IdleEnabled (trap received), since 2026-01-01T00:00:00Z", "running, process 8, started 3 times",
        "15 active: 1 critical, 2 major, 3 minor, 4 warning, 5 indeterminate", "last alarm 20, last alert 0",
        "none yet", "Failed to configure snmp target broken: ?[31mthe port is no port", "2001:db8::1 port 99999",
        "\n  o f f "}) {
    EXPECT_THAT(shown, HasSubstr(part));
  }
  EXPECT_THAT(shown, Not(HasSubstr("\033"))) << "neither colour nor what a text brings";
  std::istringstream lines(shown);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80U) << line;
  EXPECT_THAT(StatusView::format(*parsed(status), Terminal(80, true)), HasSubstr("\033[31mDISABLED\033[0m"));
}

TEST(StatusViewTest, FindsWhatIsNotOperational) {
  const auto with = [](const std::string& from, const std::string& to) {
    std::string text = status;
    for (std::size_t at = text.find(from); at != text.npos; at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
    return StatusView::findFault(*parsed(text));
  };
  EXPECT_EQ("targets that are not operational: broken", with("none", "none"));
  EXPECT_EQ("", with(R"("DISABLED","reason":"Failed)", R"("ENABLED","reason":"Failed)"));
  EXPECT_EQ("the SNMP service is not operational: IdleEnabled (trap received)",
            with(R"("snmpOperationalState":"ENABLED")", R"("snmpOperationalState":"DISABLED")"));
}

TEST(TerminalTest, ALineIsCutToTheWidth) {
  const Terminal narrow(10, false);
  EXPECT_EQ("0123456789", narrow.cut("0123456789"));
  EXPECT_EQ("0123456...", narrow.cut("01234567890"));
  EXPECT_EQ("\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4...",
            narrow.cut("\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4\u00e4"));
  EXPECT_EQ(std::string(200, 'x'), Terminal(0, false).cut(std::string(200, 'x'))) << "no terminal";
}

}  // namespace
}  // namespace VelaNode
