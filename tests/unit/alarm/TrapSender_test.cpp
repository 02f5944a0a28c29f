#include "TrapSender.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "AlarmTestSupport.h"
#include "SnmpUtil.h"
#include "adaptor/StateTestSupport.h"

namespace AlarmTest {

using namespace VelaFmSnmp;

namespace {

using Lines = std::vector<std::string>;

/** The notifications sent while it lives, one line per varbind: name below the MIB's root, type, value. */
class SentNotifications {
 public:
  SentNotifications() {
    _sent.clear();
    TrapSender::setSender(&SentNotifications::take);
  }
  ~SentNotifications() { TrapSender::setSender(nullptr); }
  SentNotifications(const SentNotifications&) = delete;
  SentNotifications& operator=(const SentNotifications&) = delete;

  static std::vector<Lines>& list() { return _sent; }

 private:
  static std::string shorten(const SnmpOid& name) {
    const std::string text = name.toString();
    const std::string root = ".1.3.6.1.4.1.61234.183.4.";
    return text.rfind(root, 0) == 0 ? "R." + text.substr(root.size()) : text;
  }
  static SnmpOid toOid(const oid* ids, std::size_t length) { return SnmpOid(ids, static_cast<unsigned int>(length)); }

  static void take(netsnmp_variable_list* list) {
    Lines lines;
    for (; list != nullptr; list = list->next_variable) {
      const std::string name = shorten(toOid(list->name, list->name_length));
      switch (list->type) {
        case ASN_INTEGER:
          lines.push_back(name + " i " + std::to_string(*list->val.integer));
          break;
        case ASN_UNSIGNED:
          lines.push_back(name + " u " + std::to_string(*list->val.integer));
          break;
        case ASN_OBJECT_ID:
          lines.push_back(name + " o " + shorten(toOid(list->val.objid, list->val_len / sizeof(oid))));
          break;
        case ASN_OCTET_STR: {
          const std::string octets(list->val.string, list->val.string + list->val_len);
          const bool isTime = octets.size() == 11 && octets[0] == '\x07';
          lines.push_back(name + (isTime ? " t " + SnmpUtil::toHex(octets) : " s " + octets));
          break;
        }
        default:
          lines.push_back(name + " of type " + std::to_string(list->type));
      }
    }
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

TEST_F(TrapSenderTest, AlarmInOrder) {
  SnmpAlarm alarm = makeAlarm(42);
  alarm.setSeqNo(0x100000011LL);
  alarm.setRecordType(true);
  EXPECT_EQ(TrapSender::sendAlarmTrap(alarm), 0);
  EXPECT_EQ(only(), (Lines{
                        trapOid + "R.2.0.4",
                        "R.1.3.5.1.5.42 s ManagedElement=1,Port=42",
                        "R.1.3.5.1.2.42 u 193",
                        "R.1.3.5.1.3.42 u 4000000000",
                        "R.1.3.5.1.4.42 s Link failure",
                        "R.1.3.3.0 u 17",
                        "R.1.3.5.1.6.42 i 2",
                        "R.1.3.5.1.7.42 t 07e1070e022800092b0000",
                        "R.1.3.5.1.9.42 i 505",
                        "R.1.2.1.0 s no light",
                        "R.1.2.2.0 i 2",
                        "R.1.2.3.0 i 2",
                        "R.1.2.4.0 s a=1;b\\;c=x\\=y",
                        "R.1.2.5.0 i 2",
                        "R.1.2.6.0 i 1",
                    }));
  EXPECT_TRUE(log.hasTrace(alarm.toString()));
}

TEST_F(TrapSenderTest, AlertInOrder) {
  SnmpAlarm alert = makeAlarm(42);
  alert.setStateful(false);
  alert.setResourceId(".1.3.6");
  alert.setAdditionalText("");
  EXPECT_EQ(TrapSender::sendAlertTrap(alert), 0);
  EXPECT_EQ(only(), (Lines{
                        trapOid + "R.2.0.13",
                        "R.1.4.5.1.5.0 s ManagedElement=1,Port=42",
                        "R.1.4.5.1.2.0 u 193",
                        "R.1.4.5.1.3.0 u 4000000000",
                        "R.1.4.5.1.4.0 s Link failure",
                        "R.1.4.3.0 u 17",
                        "R.1.4.5.1.6.0 i 2",
                        "R.1.4.5.1.7.0 t 07e1070e022800092b0000",
                        "R.1.4.5.1.8.0 i 505",
                        "R.1.2.1.0 s ",
                        "R.1.2.2.0 i 2",
                        "R.1.2.3.0 i 1",
                        "R.1.2.4.0 s a=1;b\\;c=x\\=y",
                        "R.1.2.5.0 i 2",
                    }));
}

TEST_F(TrapSenderTest, EachSeverityHasItsNotification) {
  const struct {
    int severity;
    const char *alarm, *alert;
  } cases[] = {{0, "R.2.0.7", nullptr},    {1, "R.2.0.1", "R.2.0.10"}, {2, "R.2.0.2", "R.2.0.11"},
               {3, "R.2.0.3", "R.2.0.12"}, {4, "R.2.0.4", "R.2.0.13"}, {5, "R.2.0.5", "R.2.0.14"}};
  for (const auto& [severity, alarmOid, alertOid] : cases) {
    SnmpAlarm alarm = makeAlarm(1);
    alarm.setSeverity(severity);
    sent.clear();
    EXPECT_EQ(TrapSender::sendAlarmTrap(alarm), 0);
    EXPECT_EQ(only().front(), trapOid + alarmOid);
    EXPECT_EQ(only().back().rfind("R.1.2.6.0", 0) == 0, severity != 0) << "record type, severity " << severity;

    sent.clear();
    EXPECT_EQ(TrapSender::sendAlertTrap(alarm), alertOid == nullptr ? -1 : 0);
    if (alertOid != nullptr) {
      EXPECT_EQ(only().front(), trapOid + alertOid);
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
      const std::string columns = isAlarm ? "R.1.3.5.1" : "R.1.4.5.1";
      const std::string index = isAlarm ? ".42" : ".0";
      EXPECT_EQ(sent[1], (Lines{
                             trapOid + (isAlarm ? "R.2.0.8" : "R.2.0.15"),
                             columns + ".5" + index + " s ManagedElement=1,Port=42",
                             columns + ".2" + index + " u 193",
                             columns + ".3" + index + " u 4000000000",
                             "R.1.2.1.0 s " + text.substr(255),
                             columns + (isAlarm ? ".14.0 o .0.0" : ".11.0 o .0.0"),
                             "R.1.2.7.0 s " + info.substr(255),
                         }));
    }
  }
}

TEST_F(TrapSenderTest, AnAppendInfoThatIsTooLongIsNotSent) {
  SnmpAlarm alarm = makeAlarm(1);
  alarm.setAdditionalText(std::string(600, 't'));
  EXPECT_EQ(TrapSender::sendAlarmAppendInfo(alarm), -8);
  EXPECT_EQ(TrapSender::sendAlertAppendInfo(alarm), -8);
  alarm.setAdditionalText("");
  alarm.setFormattedAdditionalInfo(std::string(768, 'i'));
  EXPECT_EQ(TrapSender::sendAlarmAppendInfo(alarm), -8);
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(log.lines(Vela::LogWarning),
            (Lines{"Bad additional text: 600", "Bad additional text: 600", "Bad additional info: 768"}));
}

TEST_F(TrapSenderTest, AppendInfoCarriesTheResourceIdentifier) {
  SnmpAlarm alarm = makeAlarm(1);
  alarm.setResourceId(".1.3.6.1.4.1.61234.183.4.9");
  EXPECT_EQ(TrapSender::sendAlarmAppendInfo(alarm), 0);
  EXPECT_EQ(only().at(5), "R.1.3.5.1.14.0 o R.9");
}

TEST_F(TrapSenderTest, Heartbeat) {
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
}

TEST_F(TrapSenderTest, AlarmListRebuilt) {
  EXPECT_EQ(TrapSender::sendAlarmListRebuilt("why"), 0);
  EXPECT_EQ(only(), (Lines{trapOid + "R.2.0.30", "R.1.3.4.0 s why"}));
}

}  // namespace

}  // namespace AlarmTest
