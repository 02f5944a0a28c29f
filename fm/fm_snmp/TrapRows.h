#ifndef VELA_FM_SNMP_TRAP_ROWS_H
#define VELA_FM_SNMP_TRAP_ROWS_H

#include <optional>
#include <string>

namespace VelaFmSnmp {

/** Values of snmpNotifyType (RFC 3413). */
enum NotifyType { NotifyTrap = 1, NotifyInform = 2 };
/** SnmpMessageProcessingModel (RFC 3411). */
enum MessageProcessingModel { MpModelV1 = 0, MpModelV2c = 1, MpModelV3 = 3 };

/** What the master agent's rows of one target hold besides its address and its security name. */
struct TrapRows {
  MessageProcessingModel mpModel;
  int securityLevel;                    /**< SnmpSecurityLevel (RFC 3411) */
  std::optional<NotifyType> notifyType; /**< none: the notifications are not sent through the tables */
  std::string tlsFingerprint;           /**< empty: no TLSTM rows */
};

}  // namespace VelaFmSnmp
#endif
