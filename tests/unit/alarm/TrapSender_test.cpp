// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include "TrapSender.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "AlarmTestSupport.h"
#include "adaptor/StateTestSupport.h"

void send_v2trap(netsnmp_variable_list* list) { AlarmTest::takeNotification(list); }

namespace AlarmTest {

void (*takeNotification)(netsnmp_variable_list*) = nullptr;

using namespace VelaFmSnmp;

namespace {

using Lines = std::vector<std::string>;

/** The notifications sent while it lives, one line per varbind. */
class SentNotifications {
 public:
  SentNotifications() {
    _sent.clear();
    takeNotification = &SentNotifications::take;
  }
  ~SentNotifications() { takeNotification = nullptr; }
  SentNotifications(const SentNotifications&) = delete;
  SentNotifications& operator=(const SentNotifications&) = delete;

  static std::vector<Lines>& list() { return _sent; }

 private:
  static void take(netsnmp_variable_list* list) {
    Lines lines;
    for (; list != nullptr; list = list->next_variable) lines.push_back(show(*list));
    _sent.push_back(lines);
  }

  static inline std::vector<Lines> _sent;
};

class TrapSenderTest : public testing::Test {
 protected:
  Lines only() {
    EXPECT_EQ(sent.size(), 1U);
    return sent.empty() ? Lines() : sent.front();
  }

  TimeZone zone{"UTC"};
  StateTest::CapturedLog log;
  SentNotifications notifications;
  std::vector<Lines>& sent = SentNotifications::list();
};

const std::string trapOid = ".1.3.6.1.6.3.1.1.4.1.0 o ";

TEST_F(TrapSenderTest, EachSeverityHasItsNotification) {
  const struct {
    int severity;
    const char *alarm, *alert;
  } cases[] = {{0, "R.2.0.7", nullptr},    {1, "R.2.0.1", "R.2.0.10"}, {2, "R.2.0.2", "R.2.0.11"},
               {3, "R.2.0.3", "R.2.0.12"}, {4, "R.2.0.4", "R.2.0.13"}, {5, "R.2.0.5", "R.2.0.14"}};
  for (const auto& [severity, alarmOid, alertOid] : cases) {
    SnmpAlarm alarm = makeAlarm(1);
    alarm.setSeverity(severity);
    alarm.setResourceId(".1.3.6");
    alarm.setSeqNo(0x100000011LL);
    sent.clear();
    EXPECT_EQ(TrapSender::sendAlarmTrap(alarm), 0);
    EXPECT_EQ(only().front(), trapOid + alarmOid);
    EXPECT_EQ(only().at(3), "R.1.3.5.1.3.1 u 4000000000");
    EXPECT_EQ(only().at(5), "R.1.3.3.0 u 17");
    EXPECT_EQ(only().at(7), "R.1.3.5.1.7.1 t 07e1070e022800092b0000") << "the event's time, not the first raising's";
    EXPECT_TRUE(log.hasTrace(alarm.toString()));
    EXPECT_EQ(only().back().rfind("R.1.2.6.0", 0) == 0, severity != 0) << "record type, severity " << severity;

    sent.clear();
    EXPECT_EQ(TrapSender::sendAlertTrap(alarm), alertOid == nullptr ? -1 : 0);
    if (alertOid != nullptr) {
      EXPECT_EQ(only().front(), trapOid + alertOid);
      EXPECT_EQ(only().at(11), "R.1.2.3.0 i 1");
    }
  }
  EXPECT_TRUE(sent.size() == 1);
  EXPECT_EQ(log.lines(Vela::LogError), Lines{"What severity is set (0)?"});
}

TEST_F(TrapSenderTest, TextsAreCutAt255OctetsAndTheRestFollows) {
  const struct {
    std::size_t textLength, infoLength;
    int notifications;
  } cases[] = {{255, 255, 1}, {256, 255, 2}, {255, 256, 2}, {511, 767, 2}, {512, 255, 1}, {255, 768, 1}};
  for (const auto& [textLength, infoLength, count] : cases) {
    const std::string text = std::string(255, 't') + std::string(textLength - 255, 'T');
    const std::string info = std::string(255, 'i') + std::string(infoLength - 255, 'I');
    for (const bool isAlarm : {true, false}) {
      SnmpAlarm alarm = makeAlarm(42);
      alarm.setAdditionalText(text);
      alarm.setFormattedAdditionalInfo(info);
      sent.clear();
      EXPECT_EQ(isAlarm ? TrapSender::sendAlarmTrap(alarm) : TrapSender::sendAlertTrap(alarm), 0);
      ASSERT_EQ(sent.size(), static_cast<std::size_t>(count)) << textLength << " " << infoLength;
      EXPECT_EQ(Lines(sent[0].begin() + 9, sent[0].begin() + 14),
                (Lines{"R.1.2.1.0 s " + text.substr(0, 255), textLength > 255 ? "R.1.2.2.0 i 1" : "R.1.2.2.0 i 2",
                       "R.1.2.3.0 i 2", "R.1.2.4.0 s " + info.substr(0, 255),
                       infoLength > 255 ? "R.1.2.5.0 i 1" : "R.1.2.5.0 i 2"}));
      if (count < 2) continue;
      EXPECT_EQ(sent[1].front(), trapOid + (isAlarm ? "R.2.0.8" : "R.2.0.15"));
      EXPECT_EQ(sent[1].at(4), "R.1.2.1.0 s " + text.substr(255));
      EXPECT_EQ(sent[1].at(6), "R.1.2.7.0 s " + info.substr(255));
    }
  }
}

TEST_F(TrapSenderTest, AppendInfoOnItsOwn) {
  SnmpAlarm alarm = makeAlarm(1);
  alarm.setAdditionalText(std::string(600, 't'));
  EXPECT_EQ(TrapSender::sendAlarmAppendInfo(alarm), -8);
  EXPECT_EQ(TrapSender::sendAlertAppendInfo(alarm), -8);
  alarm.setAdditionalText("");
  alarm.setFormattedAdditionalInfo(std::string(768, 'i'));
  EXPECT_EQ(TrapSender::sendAlarmAppendInfo(alarm), -8);
  EXPECT_TRUE(sent.empty());
  alarm.setFormattedAdditionalInfo("");
  alarm.setResourceId(oidOf("R.9"));
  EXPECT_EQ(TrapSender::sendAlarmAppendInfo(alarm), 0);
  EXPECT_EQ(only().at(5), "R.1.3.5.1.14.0 o R.9");
  EXPECT_EQ(log.lines(Vela::LogWarning),
            (Lines{"Bad additional text: 600", "Bad additional text: 600", "Bad additional info: 768"}));
}

TEST_F(TrapSenderTest, HeartbeatAndAlarmListRebuilt) {
  SnmpHeartbeat heartbeat;
  heartbeat.setAlarmSeqNo(4000000000U);
  heartbeat.setAlertSeqNo(8);
  heartbeat.setLastAlarmTime(1500000000999999999ULL);
  EXPECT_EQ(TrapSender::sendHeartbeat(heartbeat), 0);
  EXPECT_EQ(only(), (Lines{trapOid + "R.2.0.20", "R.1.3.3.0 u 4000000000", "R.1.4.3.0 u 8",
                           "R.1.3.2.0 t 07e1070e022800092b0000", "R.1.4.2.0 t 07b20101000000002b0000"}));
  EXPECT_EQ(log.count(Vela::LogInfo,
                      "Sending Heartbeat with Last Alarm SeqNo=4000000000 (2017-07-14_02:40:00), "
                      "Last Alert SeqNo=8 (1970-01-01_00:00:00)"),
            1);
  sent.clear();
  EXPECT_EQ(TrapSender::sendAlarmListRebuilt("why"), 0);
  EXPECT_EQ(only(), (Lines{trapOid + "R.2.0.30", "R.1.3.4.0 s why"}));
}

}  // namespace

}  // namespace AlarmTest
