#ifndef VELA_FM_SNMP_TRAP_SENDER_H
#define VELA_FM_SNMP_TRAP_SENDER_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <string>
#include <vector>

#include "SnmpAlarm.h"
#include "SnmpHeartbeat.h"
#include "SnmpOid.h"
#include "Varbinds.h"

namespace VelaFmSnmp {

/**
 * Makes the MIB's notifications. Texts are cut at 255 octets; what is cut off follows in an append info. The adaptor
 * thread only. Memory exhaustion is std::bad_alloc.
 */
class TrapSender {
 public:
  TrapSender() = delete;

  /** No form on the wire for this severity. */
  static constexpr int noNotification = -1;
  /** A text too long for an append info. */
  static constexpr int badLength = -8;

  /** In the order in which they are sent. */
  using Notifications = std::vector<Varbinds>;

  /** An alarm's notification, and its append info if a text was cut and that is possible. None, and a log line, for a
      bad severity. */
  static Notifications buildAlarm(const SnmpAlarm& alarm);
  /** The same for an alert; a cleared alert has no notification. */
  static Notifications buildAlert(const SnmpAlarm& alert);
  static Notifications buildHeartbeat(const SnmpHeartbeat& heartbeat);
  static Notifications buildAlarmListRebuilt(const std::string& text);

  /** Each builds notifications and hands them to the agent library's send_v2trap. 0 on success; that the master agent
      delivers is not part of it. */
  static int sendAlarmTrap(const SnmpAlarm& alarm) { return send(buildAlarm(alarm)); }
  static int sendAlertTrap(const SnmpAlarm& alert) { return send(buildAlert(alert)); }
  static int sendHeartbeat(const SnmpHeartbeat& heartbeat) { return send(buildHeartbeat(heartbeat)); }
  static int sendAlarmListRebuilt(const std::string& text) { return send(buildAlarmListRebuilt(text)); }
  /** What was cut off; badLength, and nothing sent, when it is too long for that. */
  static int sendAlarmAppendInfo(const SnmpAlarm& alarm);
  static int sendAlertAppendInfo(const SnmpAlarm& alert);

  /** The identifier under which an alarm or alert is notified; empty if it has none. */
  static SnmpOid getNotificationOid(const SnmpAlarm& alarm);
  /** The identifier of "alarm list rebuilt". */
  static const SnmpOid& getAlarmListRebuiltOid();

 private:
  static int send(const Notifications& notifications);
};

}  // namespace VelaFmSnmp
#endif
