#ifndef VELA_FM_SNMP_TRAP_SENDER_H
#define VELA_FM_SNMP_TRAP_SENDER_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cstddef>
#include <string>

#include "SnmpAlarm.h"
#include "SnmpHeartbeat.h"
#include "SnmpOid.h"

namespace VelaFmSnmp {

/**
 * Builds the MIB's notifications and hands them to the agent library. Texts are cut at 255 octets; what is cut off
 * follows in an append info. The adaptor thread only. Each operation returns 0 on success; that the master agent
 * delivers is not part of it. Memory exhaustion is std::bad_alloc.
 */
class TrapSender {
 public:
  TrapSender() = delete;

  /** No form on the wire for this severity. */
  static constexpr int noNotification = -1;
  /** A text too long for an append info. */
  static constexpr int badLength = -8;

  /** Sends an alarm, and its append info if a text was cut. noNotification, and nothing sent, for a bad severity. */
  static int sendAlarmTrap(const SnmpAlarm& alarm);
  /** The same for an alert; a cleared alert has no notification. */
  static int sendAlertTrap(const SnmpAlarm& alarm);
  /** Sends what was cut off; badLength, and nothing sent, when it is too long for that. */
  static int sendAlarmAppendInfo(const SnmpAlarm& alarm);
  static int sendAlertAppendInfo(const SnmpAlarm& alarm);
  static int sendHeartbeat(const SnmpHeartbeat& heartbeat);
  static int sendAlarmListRebuilt(const std::string& text);

  /** The identifier under which an alarm or alert is notified; empty if it has none. */
  static SnmpOid getNotificationOid(const SnmpAlarm& alarm);
  /** The identifier of "alarm list rebuilt". */
  static const SnmpOid& getAlarmListRebuiltOid();

  /** Takes a notification (snmpTrapOID.0 first); the list stays the caller's. */
  using Sender = void (*)(netsnmp_variable_list*);
  /** Replaces the last step (null: the agent library's send_v2trap). Returns the previous one. */
  static Sender setSender(Sender sender);

  /** Makes the identifier of a row's column: a copy of the base whose last sub-identifier is the index. */
  template <std::size_t Length>
  static oid* updateIndex(oid* buffer, const oid (&base)[Length], unsigned int index) {
    std::copy(base, base + Length, buffer);
    buffer[Length - 1] = index;
    return buffer;
  }
};

}  // namespace VelaFmSnmp
#endif
