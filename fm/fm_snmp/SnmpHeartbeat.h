#ifndef VELA_FM_SNMP_SNMP_HEARTBEAT_H
#define VELA_FM_SNMP_SNMP_HEARTBEAT_H

#include <string>

#include "VelaOamApiFm.h"

namespace VelaFmSnmp {

/** Last sequence numbers and times (nanoseconds since the epoch) of alarms and alerts. A value type. */
class SnmpHeartbeat {
 public:
  SnmpHeartbeat() = default;
  explicit SnmpHeartbeat(const VelaOamApiFmHeartbeatEventValue_4T& event);

  void reset();
  std::string toString() const;

  unsigned int getAlarmSeqNo() const { return _alarmSeqNo; }
  unsigned int getAlertSeqNo() const { return _alertSeqNo; }
  unsigned long long getLastAlarmTime() const { return _lastAlarmTime; }
  unsigned long long getLastAlertTime() const { return _lastAlertTime; }
  /** Setters return true. */
  bool setAlarmSeqNo(unsigned int alarmSeqNo);
  bool setAlertSeqNo(unsigned int alertSeqNo);
  bool setLastAlarmTime(unsigned long long lastAlarmTime);
  bool setLastAlertTime(unsigned long long lastAlertTime);

 private:
  unsigned int _alarmSeqNo = 0;
  unsigned int _alertSeqNo = 0;
  unsigned long long _lastAlarmTime = 0;
  unsigned long long _lastAlertTime = 0;
};

}  // namespace VelaFmSnmp
#endif
