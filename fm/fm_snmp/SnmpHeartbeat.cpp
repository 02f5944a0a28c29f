#include "SnmpHeartbeat.h"

#include "SnmpUtil.h"

namespace VelaFmSnmp {

SnmpHeartbeat::SnmpHeartbeat(const VelaOamApiFmHeartbeatEventValue_4T& event)
    : _alarmSeqNo(event.lastAlarmSequenceNumber),
      _alertSeqNo(event.lastAlertSequenceNumber),
      _lastAlarmTime(event.lastAlarmTime),
      _lastAlertTime(event.lastAlertTime) {}

void SnmpHeartbeat::reset() { *this = SnmpHeartbeat(); }

std::string SnmpHeartbeat::toString() const {
  return "Alarm Seq No: " + std::to_string(_alarmSeqNo) + ";Last Alarm Time: " + SnmpUtil::getTimeStr(_lastAlarmTime) +
         ";Alert Seq No: " + std::to_string(_alertSeqNo) + ";Last Alert Time: " + SnmpUtil::getTimeStr(_lastAlertTime) +
         ";";
}

bool SnmpHeartbeat::setAlarmSeqNo(unsigned int alarmSeqNo) {
  _alarmSeqNo = alarmSeqNo;
  return true;
}

bool SnmpHeartbeat::setAlertSeqNo(unsigned int alertSeqNo) {
  _alertSeqNo = alertSeqNo;
  return true;
}

bool SnmpHeartbeat::setLastAlarmTime(unsigned long long lastAlarmTime) {
  _lastAlarmTime = lastAlarmTime;
  return true;
}

bool SnmpHeartbeat::setLastAlertTime(unsigned long long lastAlertTime) {
  _lastAlertTime = lastAlertTime;
  return true;
}

}  // namespace VelaFmSnmp
