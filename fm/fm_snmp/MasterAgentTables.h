#ifndef VELA_FM_SNMP_MASTER_AGENT_TABLES_H
#define VELA_FM_SNMP_MASTER_AGENT_TABLES_H

#include <Poco/Net/IPAddress.h>

#include <cstdint>
#include <string>

#include "SnmpOid.h"
#include "SnmpPdu.h"
#include "TrapRows.h"

namespace VelaFmSnmp {

class SnmpMaSession;

/** Values of the textual convention RowStatus (RFC 2579) that are written. */
enum RowStatus { RowActive = 1, RowCreateAndGo = 4, RowCreateAndWait = 5, RowDestroy = 6 };
/**
 * The textual convention StorageType (RFC 2579). It is written for the rows of DTLS trust only. The other rows have
 * what snmpd gives them (nonVolatile); they do not outlive the agent because it is told to keep nothing, and its next
 * start begins without them.
 */
enum StorageType { StorageVolatile = 2 };
/** Where notifications of one target go. */
struct TargetTransport {
  Poco::Net::IPAddress address;
  std::uint32_t port = 0;
  bool isDtls = false;
  bool isReversedPort = false; /**< the agent reads the port octets of an IPv6 address in reverse order */
};

/**
 * The rows of the target, notification and spin lock objects of the master agent (RFC 3413, RFC 3411): each builder
 * adds the varbinds of one row to a SET. An empty name throws ConfigurationFault.
 */
class MasterAgentTables {
 public:
  MasterAgentTables() = delete;

  static const SnmpOid usmUserSpinLock;
  static const SnmpOid snmpTargetSpinLock;
  static const SnmpOid vacmViewSpinLock;
  static const SnmpOid snmpEngineId;
  static const SnmpOid snmpEngineBoots;

  /** Reads the lock and adds it unchanged, so that the agent refuses the SET if another manager came between. */
  static void addSpinLock(const SnmpMaSession& session, SnmpPdu& pdu, const SnmpOid& spinLock);
  /** Sends a SET; throws ConfigurationFault when the agent answers with an error, else as SnmpMaSession::sendPdu. */
  static void send(const SnmpMaSession& session, const std::string& requestName, SnmpPdu& pdu);

  /** @param timeout  hundredths of a second */
  static void createTargetAddr(SnmpPdu& pdu, const std::string& name, const TargetTransport& transport,
                               const std::string& paramsName, const std::string& tagList, std::uint32_t timeout,
                               std::uint32_t retryCount);
  static void deleteTargetAddr(SnmpPdu& pdu, const std::string& name);
  static void createTargetParams(SnmpPdu& pdu, const std::string& name, unsigned mpModel, unsigned securityModel,
                                 const std::string& securityName, unsigned securityLevel);
  static void deleteTargetParams(SnmpPdu& pdu, const std::string& name);
  static void createNotify(SnmpPdu& pdu, const std::string& name, const std::string& tag, NotifyType type);
  static void deleteNotify(SnmpPdu& pdu, const std::string& name);
};

}  // namespace VelaFmSnmp
#endif
