#ifndef VELA_FM_SNMP_SNMP_MESSAGES_H
#define VELA_FM_SNMP_SNMP_MESSAGES_H

#include "DaxOamSpiCmEvent.h"
#include "PipeMessage.h"
#include "SnmpAlarm.h"
#include "SnmpHeartbeat.h"
#include "VelaMgmtSpi.h"
#include "VelaOamApiFm.h"

namespace VelaFmSnmp {

/** Type codes of the messages to the adaptor thread. */
enum SnmpMessageType {
  SnmpMessageStateChange = 5,
  SnmpMessageCmEvent = 16,
  SnmpMessageAlarm = 17,
  SnmpMessageHeartbeat = 18,
  SnmpMessageAlarmListRebuilt = 19
};

/** The framework wants the component in another state. */
class SnmpStateChangeMessage : public Vela::PipeMessage {
 public:
  explicit SnmpStateChangeMessage(VelaStateChangeReason reason)
      : PipeMessage(SnmpMessageStateChange), _reason(reason) {}
  VelaStateChangeReason getReason() const { return _reason; }

 private:
  VelaStateChangeReason _reason;
};

/** The configuration changed; what changed is read from the model, not from here. */
class CmEventMessage : public Vela::PipeMessage {
 public:
  explicit CmEventMessage(const DaxOamSpiCmEvent_Notification_1T& /*notification*/) : PipeMessage(SnmpMessageCmEvent) {}
};

/** An alarm or alert. */
class SnmpAlarmMessage : public Vela::PipeMessage {
 public:
  explicit SnmpAlarmMessage(const SnmpAlarm& alarm) : PipeMessage(SnmpMessageAlarm), _alarm(alarm) {}
  /** Builds the alarm where it stays. */
  explicit SnmpAlarmMessage(const VelaOamApiFmNotificationEventValue_4T& event)
      : PipeMessage(SnmpMessageAlarm), _alarm(event) {}
  const SnmpAlarm& getAlarm() const { return _alarm; }

 private:
  SnmpAlarm _alarm;
};

class SnmpHeartbeatMessage : public Vela::PipeMessage {
 public:
  explicit SnmpHeartbeatMessage(const SnmpHeartbeat& heartbeat)
      : PipeMessage(SnmpMessageHeartbeat), _heartbeat(heartbeat) {}
  const SnmpHeartbeat& getHeartbeat() const { return _heartbeat; }

 private:
  SnmpHeartbeat _heartbeat;
};

class SnmpAlarmListRebuiltMessage : public Vela::PipeMessage {
 public:
  SnmpAlarmListRebuiltMessage() : PipeMessage(SnmpMessageAlarmListRebuilt) {}
};

}  // namespace VelaFmSnmp
#endif
