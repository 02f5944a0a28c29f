// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "TargetRows.h"

#include <LoggingWrapper.h>

#include "ConfigurationFault.h"
#include "MasterAgentTables.h"
#include "SnmpConfigHandler.h"
#include "SnmpMaSession.h"
#include "SnmpPdu.h"
#include "SnmpTarnWrapper.h"
#include "TlsConfigurator.h"

namespace VelaFmSnmp {

namespace {

/** Prefix of the names of notify, address and parameter rows. */
const char* const notificationPrefix = "ntf";

}  // namespace

void TargetRows::clear() {
  _names.clear();
  _written.clear();
}

void TargetRows::beginPass() {
  _isReversedPort.reset();
  _resolver.forget();
  if (_handler) _resolver.setIpVersion(_handler->getIpVersion());
}

const std::string& TargetRows::nameOf(const SnmpBaseTarget& target) {
  return _names.getUniqueName(notificationPrefix, target);
}

void TargetRows::configureTrapTarget(const ConfigurationPass& pass, const SnmpBaseTarget& target, bool add) {
  const std::string& rowName = nameOf(target);
  const bool isTls = target.getSecurityModel() == SecurityModelTls;
  const auto present = _written.find(rowName);
  if (present != _written.end() || !pass.knowsRows) {
    const bool hadTlsRows = present != _written.end() && present->second.isTls;
    deleteRows(pass.session, rowName, hadTlsRows || (isTls && _tls.isEnabled()));
  }
  if (add) createRows(pass.session, target, target.trapRows(isTls ? _tls.getLocalFingerPrint() : std::string()));
}

bool TargetRows::isWritten(const SnmpBaseTarget& target) {
  const auto present = _written.find(nameOf(target));
  return present != _written.end() && present->second.target && present->second.target->equals(target);
}

void TargetRows::createRows(SnmpMaSession& session, const SnmpBaseTarget& target, const TrapRows& rows) {
  const std::string& name = nameOf(target);
  const bool isTls = !rows.tlsFingerprint.empty();
  TargetTransport transport{resolve(target, !rows.notifyType), target.port, isTls, false};
  if (transport.address.family() == Poco::Net::IPAddress::IPv6) transport.isReversedPort = isReversedIpv6Port();

  SnmpPdu pdu(SNMP_MSG_SET);
  MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::snmpTargetSpinLock);
  if (rows.notifyType) MasterAgentTables::createNotify(pdu, name, name, *rows.notifyType);
  MasterAgentTables::createTargetAddr(pdu, name, transport, name, name, target.getInformTimeout(),
                                      target.getInformRetryCount());
  MasterAgentTables::createTargetParams(pdu, name, rows.mpModel, static_cast<unsigned>(target.getSecurityModel()),
                                        target.getSecurityName(), static_cast<unsigned>(rows.securityLevel));
  if (isTls) {
    TlsConfigurator::tlsCreateParamsEntry(pdu, name, rows.tlsFingerprint);
    TlsConfigurator::tlsCreateAddrEntry(pdu, name);
  }
  Written& written = _written[name];
  written.isTls = isTls;
  MasterAgentTables::send(session, "configureTrapTarget(" + target.name + ")", pdu);
  written.target = target.clone();
}

void TargetRows::deleteRows(SnmpMaSession& session, const std::string& rowName, bool hasTlsRows) {
  SnmpPdu pdu(SNMP_MSG_SET);
  MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::snmpTargetSpinLock);
  MasterAgentTables::deleteNotify(pdu, rowName);
  MasterAgentTables::deleteTargetAddr(pdu, rowName);
  MasterAgentTables::deleteTargetParams(pdu, rowName);
  if (hasTlsRows) {
    TlsConfigurator::tlsDeleteParamsEntry(pdu, rowName);
    TlsConfigurator::tlsDeleteAddrEntry(pdu, rowName);
  }
  const auto written = _written.find(rowName);
  if (written != _written.end()) written->second.target.reset();
  MasterAgentTables::send(session, "deleteTrapTarget(" + rowName + ")", pdu);
  _written.erase(rowName);
}

Poco::Net::IPAddress TargetRows::resolve(const SnmpBaseTarget& target, bool isSentByAgent) {
  Poco::Net::IPAddress address;
  try {
    address = _resolver.resolve(target.address);
  } catch (const ConfigurationFault&) {
    if (isSentByAgent) _lateReceivers.add(target);
    throw;
  }
  if (isSentByAgent && _handler && _handler->getTarnWrapper().isReceiverLeftOut(target.address))
    _lateReceivers.add(target);
  _lateReceivers.onResolved(target);
  return address;
}

bool TargetRows::isReversedIpv6Port() {
  if (_handler == nullptr || !_handler->isIpv6PortWorkaroudEnabled()) return false;
  if (!_isReversedPort) {
    try {
      bool isReversed = false;
      const bool isAnswered = _handler->getTarnWrapper().isIpv6PortReverseByteOrder(isReversed);
      _isReversedPort = !isAnswered || isReversed;
    } catch (const Vela::VelaException& ex) {
      VELA_LOG(Vela::LogError, "exception while checking ipv6PortReverseByteOrder support: %s", ex.what());
      _isReversedPort = true;
    }
  }
  return *_isReversedPort;
}

}  // namespace VelaFmSnmp
