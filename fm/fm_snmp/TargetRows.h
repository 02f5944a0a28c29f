#ifndef VELA_FM_SNMP_TARGET_ROWS_H
#define VELA_FM_SNMP_TARGET_ROWS_H

#include <Poco/Net/IPAddress.h>

#include <map>
#include <optional>
#include <string>

#include "AddressResolver.h"
#include "ConfigurationPass.h"
#include "LateReceivers.h"
#include "SnmpTypes.h"
#include "TargetNames.h"

namespace VelaFmSnmp {

class SnmpConfigHandler;
class TlsConfigurator;

/**
 * The rows by which the master agent sends notifications to targets (SNMP-TARGET-MIB, SNMP-NOTIFICATION-MIB; RFC 3413,
 * and for DTLS RFC 6353): one row of each table per target, under one name, written in one request of the target's own,
 * so that a row that the agent refuses concerns no other target.
 */
class TargetRows {
 public:
  /** The DTLS settings are not owned, and are asked when rows are written. */
  explicit TargetRows(const TlsConfigurator& tls) : _tls(tls) {}

  /** The static settings; not owned. Null: names resolve to either family, port octets are in network order. */
  void setConfigurationHandler(SnmpConfigHandler* handler) { _handler = handler; }
  LateReceivers& getLateReceivers() { return _lateReceivers; }

  /** Forgets what was written, without a request. */
  void clear();
  /** Names and the order of port octets are asked for anew. */
  void beginPass();
  /** Begins to look up the target's address if it is a name. */
  void prepare(const SnmpBaseTarget& target) { _resolver.prepare(target.address); }

  /** Writes (or removes) a target's rows; rows written under its name go before. Throws ConfigurationFault when the
      target cannot be configured, and as SnmpMaSession::sendPdu. */
  void configureTrapTarget(const ConfigurationPass& pass, const SnmpBaseTarget& target, bool add);
  /** Whether the rows stand in the master agent as this target needs them. */
  bool isWritten(const SnmpBaseTarget& target);
  /** Forgets a target's name, which may then be given to another. */
  void eraseNotificationNames(const SnmpBaseTarget& target) { _names.eraseNotificationNames(target); }

 private:
  /** Rows that may stand in the master agent. */
  struct Written {
    bool isTls = false;                     /**< TLSTM rows, too */
    Poco::AutoPtr<SnmpBaseTarget> target{}; /**< as it was written; null while it is not for sure */
  };

  const std::string& nameOf(const SnmpBaseTarget& target);
  void createRows(SnmpMaSession& session, const SnmpBaseTarget& target, const TrapRows& rows);
  void deleteRows(SnmpMaSession& session, const std::string& rowName, bool hasTlsRows);
  Poco::Net::IPAddress resolve(const SnmpBaseTarget& target, bool isSentByAgent);
  bool isReversedIpv6Port();

  const TlsConfigurator& _tls;
  SnmpConfigHandler* _handler = nullptr;
  AddressResolver _resolver;
  LateReceivers _lateReceivers;
  TargetNames _names;
  std::map<std::string, Written> _written; /**< by the rows' name */
  std::optional<bool> _isReversedPort;     /**< the tool's answer, in this pass */
};

}  // namespace VelaFmSnmp
#endif
