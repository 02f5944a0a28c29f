#include "SnmpAlarm.h"

#include <gtest/gtest.h>

#include <string>

#include "AlarmTestSupport.h"
#include "SnmpHeartbeat.h"
#include "adaptor/StateTestSupport.h"

namespace AlarmTest {

using VelaFmSnmp::SnmpAlarm;
using VelaFmSnmp::SnmpHeartbeat;

namespace {

/** An event with something in every field. */
struct Event {
  DaxOamSpiFmAdditionalInfoT info[2] = {{"x", "1"}, {"y", "2"}};
  DaxOamSpiNotificationFmT notification = {};
  VelaOamApiFmNotificationEventValue_4T value = {};

  Event() {
    notification.dn = "ManagedElement=1";
    notification.majorType = 193;
    notification.minorType = 2;
    notification.eventTime = 1500000000000000000ULL;
    notification.additionalText = "text";
    notification.severity = 4;
    notification.additionalInfo = {2, info};
    value.notification = &notification;
    value.stateful = true;
    value.alarmUpdate = true;
    value.sequenceNumber = -17;
    value.eventType = 2;
    value.probableCause = 505;
    value.specificProblem = "problem";
    value.index = 3;
    value.originalEventTime = 1489482000000000000ULL;
    value.originalAdditionalText = "original";
    value.originalSeverity = 9;
  }
};

TEST(SnmpAlarm, TakesAnEventOver) {
  const TimeZone zone("UTC");
  const StateTest::CapturedLog log;
  const SnmpAlarm alarm((Event().value));
  EXPECT_EQ(alarm.toString(),
            "SeqNo: -17; Index: 3; Spec: problem; Text: text; Major: 193; Minor: 2; MO: ManagedElement=1; "
            "Time: 2017-07-14_02:40:00; Sev: MAJOR; Stateful: 1; EvType: 2; ProbCause: 505; ResId: .0.0; "
            "RecordType: 1; OrigTime: 2017-03-14_09:00:00; OrigSev: UNKNOWN; OrigText: original; "
            "additionalInfoSize=2; x; 1; y; 2; ");
  EXPECT_EQ(alarm.getAdditionalInfoCompressedFormat(), "x=1;y=2");
  EXPECT_TRUE(log.lines(Vela::LogInfo).empty());
  EXPECT_TRUE(log.hasTrace("MO ManagedElement=1"));
}

TEST(SnmpAlarm, AnEventWithoutNotificationKeepsTheRest) {
  const TimeZone zone("UTC");
  const StateTest::CapturedLog log;
  Event event;
  event.value.notification = nullptr;
  const SnmpAlarm alarm(event.value);
  EXPECT_EQ(
      log.count(Vela::LogNotice, "Notification is NULL in VelaOamApiFmNotificationEventValue_4T, setting to default"),
      1);
  EXPECT_EQ(alarm.toString(),
            "SeqNo: -17; Index: 3; Spec: problem; Text: ; Major: 0; Minor: 0; MO: ; Time: 1970-01-01_00:00:00; "
            "Sev: INDETERMINATE; Stateful: 1; EvType: 2; ProbCause: 505; ResId: .0.0; RecordType: 1; "
            "OrigTime: 2017-03-14_09:00:00; OrigSev: UNKNOWN; OrigText: original; additionalInfoSize=0; ");
}

TEST(SnmpAlarm, BadFieldsGetDefaultsAndALine) {
  const StateTest::CapturedLog log;
  Event event;
  event.notification.dn = nullptr;
  event.notification.additionalText = nullptr;
  event.notification.severity = 9;
  event.value.specificProblem = nullptr;
  event.value.originalAdditionalText = nullptr;
  const SnmpAlarm alarm(event.value);
  EXPECT_EQ(alarm.getManagedObject() + alarm.getAdditionalText() + alarm.getSpecificProblem() +
                alarm.getOriginalAdditionalText(),
            "");
  EXPECT_EQ(alarm.getSeverity(), 5);
  EXPECT_EQ(log.lines(Vela::LogInfo),
            (std::vector<std::string>{"Incorrect dn received, setting to default.",
                                      "Incorrect additionalText received, setting to default.",
                                      "Incorrect severity received, setting to critical.",
                                      "Incorrect specificProblem received, setting to default.",
                                      "Incorrect originalAdditionalText received, setting to default."}));

  SnmpAlarm other = makeAlarm(1);
  for (const int severity : {-1, 6}) {
    other.setSeverity(5);
    EXPECT_FALSE(other.setSeverity(severity));
    EXPECT_EQ(other.getSeverity(), 1);
  }
}

TEST(SnmpAlarm, EscapesAdditionalInfo) {
  const struct {
    SnmpAlarm::AdditionalInfo items;
    std::string text;
  } cases[] = {
      {{}, ""},
      {{{"a", "1"}, {"b;c", "x=y"}}, "a=1;b\\;c=x\\=y"},
      {{{";", "="}}, "\\;=\\="},
      {{{"=;=", ";;"}}, "\\=\\;\\==\\;\\;"},
      {{{"", ""}, {"", ""}}, "=;="},
      {{{"a\\", "\\b"}}, "a\\=\\b"},
  };
  for (const auto& [items, text] : cases) {
    SnmpAlarm alarm;
    EXPECT_TRUE(alarm.setAdditionalInfo(items));
    alarm.formatAdditionalInfo();
    EXPECT_EQ(alarm.getAdditionalInfoCompressedFormat(), text);
    EXPECT_EQ(SnmpAlarm(alarm).getAdditionalInfo(), items);
  }
  // That of an event is appended and may lack texts.
  const DaxOamSpiFmAdditionalInfoT items[] = {{nullptr, "1"}, {"y", nullptr}};
  SnmpAlarm alarm = makeAlarm(1);
  EXPECT_TRUE(alarm.setAdditionalInfo({2, items}));
  alarm.formatAdditionalInfo();
  EXPECT_EQ(alarm.getAdditionalInfoCompressedFormat(), "a=1;b\\;c=x\\=y;=1;y=");
}

TEST(SnmpAlarm, AdditionalInfoInBadFormIsLeftOut) {
  const StateTest::CapturedLog log;
  const DaxOamSpiFmAdditionalInfoT bad[][2] = {
      {{"a", "1"}, {"b\\;c", "2"}}, {{"a", "x\\=y"}, {"b", "2"}}, {{"\\;", nullptr}, {"b", "2"}}};
  for (const auto& items : bad) {
    Event event;
    event.notification.additionalInfo = {2, items};
    const SnmpAlarm alarm(event.value);
    EXPECT_TRUE(alarm.getAdditionalInfo().empty());
    EXPECT_EQ(alarm.getAdditionalInfoCompressedFormat(), "");
    EXPECT_TRUE(alarm.getRecordType());
  }
  Event withoutItems;
  withoutItems.notification.additionalInfo = {2, nullptr};
  EXPECT_TRUE(SnmpAlarm(withoutItems.value).getAdditionalInfo().empty());
  EXPECT_EQ(log.count(Vela::LogInfo, "Incorrect additional information received, setting to default."), 4);

  SnmpAlarm alarm = makeAlarm(1);
  EXPECT_FALSE(alarm.setAdditionalInfo({{"\\=", "1"}}));
  EXPECT_EQ(alarm.getAdditionalInfo().size(), 2U);
}

TEST(SnmpAlarm, AssignmentCopiesEverything) {
  SnmpAlarm source = makeAlarm(42);
  source.setResourceId(".1.3.6");
  source.setRecordType(true);
  source.setOriginalSeverity(9);
  SnmpAlarm target = makeAlarm(1);
  target.setAdditionalInfo({{"old", "info"}});
  target = source;
  EXPECT_EQ(target.toString(), source.toString());
  EXPECT_EQ(target.getAdditionalInfoCompressedFormat(), source.getAdditionalInfoCompressedFormat());
  target.reset();
  EXPECT_EQ(target.toString(), SnmpAlarm().toString());
  EXPECT_EQ(target.getAdditionalInfoCompressedFormat(), "");
}

TEST(SnmpHeartbeat, TakesAnEventOver) {
  const TimeZone zone("UTC");
  VelaOamApiFmHeartbeatEventValue_4T event = {};
  event.lastAlarmSequenceNumber = 4000000000U;
  event.lastAlertTime = 1500000000999999999ULL;
  event.lastAlertSequenceNumber = 8;
  SnmpHeartbeat heartbeat(event);
  EXPECT_EQ(heartbeat.toString(),
            "Alarm Seq No: 4000000000;Last Alarm Time: 1970-01-01_00:00:00;"
            "Alert Seq No: 8;Last Alert Time: 2017-07-14_02:40:00;");
  heartbeat.reset();
  EXPECT_EQ(heartbeat.toString(), SnmpHeartbeat().toString());
}

}  // namespace

}  // namespace AlarmTest
