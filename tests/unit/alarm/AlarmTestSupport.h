#ifndef VELA_TESTS_ALARM_TEST_SUPPORT_H
#define VELA_TESTS_ALARM_TEST_SUPPORT_H

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "MoConnector.h"
#include "SnmpAlarm.h"

namespace AlarmTest {

/** Local time in a zone of one's own while it lives. */
class TimeZone {
 public:
  explicit TimeZone(const char* zone) { set(zone); }
  ~TimeZone() { set("UTC"); }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  static void set(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
};

/** An active alarm with something in every field. */
inline VelaFmSnmp::SnmpAlarm makeAlarm(unsigned int index) {
  VelaFmSnmp::SnmpAlarm alarm;
  alarm.setSeqNo(17);
  alarm.setStateful(true);
  alarm.setIndex(index);
  alarm.setMajorType(193);
  alarm.setMinorType(4000000000U);
  alarm.setSpecificProblem("Link failure");
  alarm.setManagedObject("ManagedElement=1,Port=" + std::to_string(index));
  alarm.setEventType(2);
  alarm.setEventTime(1500000000999999999ULL);
  alarm.setProbableCause(505);
  alarm.setSeverity(4);
  alarm.setAdditionalText("no light");
  alarm.setOriginalEventTime(1489482000000000000ULL);
  alarm.setOriginalAdditionalText("weak light");
  alarm.setOriginalSeverity(2);
  alarm.setAdditionalInfo({{"a", "1"}, {"b;c", "x=y"}});
  alarm.formatAdditionalInfo();
  return alarm;
}

/** The managed-object side: a list of alarms and the values of the scalars. */
class ConnectorStandIn : public VelaFmSnmp::MoConnector {
 public:
  bool visit(ISnmpXmodDataProviderAlarmVisitor& visitor) override {
    ++visits;
    visitor.beginAlarms();
    for (VelaFmSnmp::SnmpAlarm& alarm : alarms) visitor.replicateAlarm(&alarm);
    if (isBroken) return false;
    visitor.endAlarms();
    return true;
  }
  int getHeartbeatInterval(unsigned int& value) const override { return read(value, heartbeatInterval); }
  int getAlarmSumCritical(unsigned int& value) const override { return read(value, 1U); }
  int getAlarmSumMajor(unsigned int& value) const override { return read(value, 2U); }
  int getAlarmSumMinor(unsigned int& value) const override { return read(value, 3U); }
  int getAlarmSumWarning(unsigned int& value) const override { return read(value, 4U); }
  int getAlarmNumActive(unsigned int& value) const override { return read(value, 4294967295U); }
  int getAlarmLastSeqenceNo(unsigned long long& value) const override { return read(value, lastSequenceNo); }
  int getAlarmLastChanged(std::string& value) const override {
    return read(value, std::string("2017-03-14T10:00:00.700000+01:00"));
  }
  int setHeartbeatInterval(unsigned int value) override {
    if (!isBroken) heartbeatInterval = value;
    return isBroken ? -1 : 0;
  }

  std::vector<VelaFmSnmp::SnmpAlarm> alarms;
  unsigned int heartbeatInterval = 60;
  unsigned long long lastSequenceNo = 7;
  bool isBroken = false;
  int visits = 0;

 private:
  template <class T>
  int read(T& target, const T& value) const {
    if (!isBroken) target = value;
    return isBroken ? -1 : 0;
  }
};

}  // namespace AlarmTest
#endif
