#ifndef VELA_TESTS_ALARM_TEST_SUPPORT_H
#define VELA_TESTS_ALARM_TEST_SUPPORT_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "MoConnector.h"
#include "SnmpAlarm.h"
#include "SnmpOid.h"
#include "SnmpUtil.h"
#include "VelaException.h"

namespace AlarmTest {

inline const std::string mibRoot = ".1.3.6.1.4.1.61234.183.4";

/** The identifier that a text such as "R.1.2" stands for, where R is the MIB's root. */
inline VelaFmSnmp::SnmpOid oidOf(const std::string& name) {
  return VelaFmSnmp::SnmpOid((name.starts_with("R") ? mibRoot + name.substr(1) : name).c_str());
}
inline std::string nameOf(const unsigned long* ids, std::size_t length) {
  const std::string text = VelaFmSnmp::SnmpOid(ids, static_cast<unsigned int>(length)).toString();
  return text.starts_with(mibRoot + ".") ? "R" + text.substr(mibRoot.size()) : text;
}

/** A value with its type's letter, a time of day in hexadecimal. */
inline std::string showValue(const netsnmp_variable_list& varbind) {
  switch (varbind.type) {
    case ASN_INTEGER:
      return "i " + std::to_string(*varbind.val.integer);
    case ASN_UNSIGNED:
      return "u " + std::to_string(*varbind.val.integer);
    case ASN_OBJECT_ID:
      return "o " + nameOf(varbind.val.objid, varbind.val_len / sizeof(oid));
    case ASN_OCTET_STR: {
      const std::string octets(varbind.val.string, varbind.val.string + varbind.val_len);
      const bool isTime = octets.size() == 11 && octets[0] == '\x07';
      return isTime ? "t " + VelaFmSnmp::SnmpUtil::toHex(octets) : "s " + octets;
    }
    case SNMP_NOSUCHOBJECT:
      return "no object";
    case SNMP_NOSUCHINSTANCE:
      return "no instance";
    case SNMP_ENDOFMIBVIEW:
      return "end";
    default:
      return "of type " + std::to_string(varbind.type);
  }
}
inline std::string show(const netsnmp_variable_list& varbind) {
  return nameOf(varbind.name, varbind.name_length) + " " + showValue(varbind);
}

/** The text of what a call throws. */
std::string failureOf(auto&& call) {
  try {
    call();
  } catch (const Vela::VelaException& ex) {
    return ex.what();
  }
  return "none";
}

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

/** Takes what is handed to the agent library's send_v2trap, which this program has of its own. The list stays the
    caller's. */
extern void (*takeNotification)(netsnmp_variable_list*);

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
