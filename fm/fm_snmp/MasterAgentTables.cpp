// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "MasterAgentTables.h"

#include <LoggingWrapper.h>

#include <algorithm>

#include "ConfigurationFault.h"
#include "SnmpMaSession.h"

namespace VelaFmSnmp {

namespace {

using Column = const unsigned long[11];

// SNMP-TARGET-MIB, SNMP-NOTIFICATION-MIB (RFC 3413): table entry and column.
constexpr Column targetAddrTDomain = {1, 3, 6, 1, 6, 3, 12, 1, 2, 1, 2};
constexpr Column targetAddrTAddress = {1, 3, 6, 1, 6, 3, 12, 1, 2, 1, 3};
constexpr Column targetAddrTimeout = {1, 3, 6, 1, 6, 3, 12, 1, 2, 1, 4};
constexpr Column targetAddrRetryCount = {1, 3, 6, 1, 6, 3, 12, 1, 2, 1, 5};
constexpr Column targetAddrTagList = {1, 3, 6, 1, 6, 3, 12, 1, 2, 1, 6};
constexpr Column targetAddrParams = {1, 3, 6, 1, 6, 3, 12, 1, 2, 1, 7};
constexpr Column targetAddrRowStatus = {1, 3, 6, 1, 6, 3, 12, 1, 2, 1, 9};
constexpr Column targetParamsMpModel = {1, 3, 6, 1, 6, 3, 12, 1, 3, 1, 2};
constexpr Column targetParamsSecurityModel = {1, 3, 6, 1, 6, 3, 12, 1, 3, 1, 3};
constexpr Column targetParamsSecurityName = {1, 3, 6, 1, 6, 3, 12, 1, 3, 1, 4};
constexpr Column targetParamsSecurityLevel = {1, 3, 6, 1, 6, 3, 12, 1, 3, 1, 5};
constexpr Column targetParamsRowStatus = {1, 3, 6, 1, 6, 3, 12, 1, 3, 1, 7};
constexpr Column notifyTag = {1, 3, 6, 1, 6, 3, 13, 1, 1, 1, 2};
constexpr Column notifyType = {1, 3, 6, 1, 6, 3, 13, 1, 1, 1, 3};
constexpr Column notifyRowStatus = {1, 3, 6, 1, 6, 3, 13, 1, 1, 1, 5};

const char* const udpIpv4Domain = ".1.3.6.1.6.1.1";
const char* const udpIpv6Domain = ".1.3.6.1.2.1.100.1.2";
const char* const dtlsUdpDomain = ".1.3.6.1.6.1.9";

constexpr std::uint32_t maxPort = 65535;
/** TimeInterval and Integer32 (0..255) of the target address table. */
constexpr std::uint32_t maxTimeout = 2147483647;
constexpr std::uint32_t maxRetryCount = 255;

SnmpOid row(Column& column, const std::string& name) { return SnmpOid::createStrIndexOid(column, name); }

void requireName(const std::string& name, const char* kind) {
  if (name.empty()) throw ConfigurationFault("%s name must not be empty", kind);
}

/** A value as its row takes it. */
std::uint32_t cut(std::uint32_t value, std::uint32_t limit, const char* what, const std::string& row) {
  if (value <= limit) return value;
  VELA_LOG(Vela::LogWarning, "The %s %u of row %s is more than the master agent takes, using %u", what, value,
           row.c_str(), limit);
  return limit;
}

SnmpOid transportDomain(const TargetTransport& transport) {
  switch (transport.address.family()) {
    case Poco::Net::IPAddress::IPv4:
      return transport.isDtls ? dtlsUdpDomain : udpIpv4Domain;
    case Poco::Net::IPAddress::IPv6:
      return transport.isDtls ? dtlsUdpDomain : udpIpv6Domain;
    default:
      throw ConfigurationFault("Unknown target address format (neither ipv4 or ipv6)");
  }
}

/** The address octets followed by two port octets. */
std::string transportAddress(const TargetTransport& transport) {
  if (transport.port == 0 || transport.port > maxPort)
    throw ConfigurationFault("targetPort is not correct :<%u>", transport.port);
  const auto* octets = static_cast<const char*>(transport.address.addr());
  std::string result(octets, static_cast<std::size_t>(transport.address.length()));
  std::string port{static_cast<char>(transport.port >> 8U), static_cast<char>(transport.port & 0xffU)};
  if (transport.isReversedPort && transport.address.family() == Poco::Net::IPAddress::IPv6)
    std::reverse(port.begin(), port.end());
  return result + port;
}

}  // namespace

const SnmpOid MasterAgentTables::usmUserSpinLock(".1.3.6.1.6.3.15.1.2.1.0");
const SnmpOid MasterAgentTables::snmpTargetSpinLock(".1.3.6.1.6.3.12.1.1.0");
const SnmpOid MasterAgentTables::vacmViewSpinLock(".1.3.6.1.6.3.16.1.5.1.0");
const SnmpOid MasterAgentTables::snmpEngineId(".1.3.6.1.6.3.10.2.1.1.0");
const SnmpOid MasterAgentTables::snmpEngineBoots(".1.3.6.1.6.3.10.2.1.2.0");

void MasterAgentTables::addSpinLock(const SnmpMaSession& session, SnmpPdu& pdu, const SnmpOid& spinLock) {
  long long value = 0;
  if (!session.getInt(spinLock, &value, "addSpinLock"))
    throw Vela::VelaException("Failed to read the spin lock %s", spinLock.toString().c_str());
  pdu.addVarbind(spinLock, static_cast<int>(value));
}

void MasterAgentTables::send(const SnmpMaSession& session, const std::string& requestName, SnmpPdu& pdu) {
  if (!session.sendPdu(requestName, pdu, nullptr))
    throw ConfigurationFault("The master agent refused the request %s", requestName.c_str());
}

void MasterAgentTables::createTargetAddr(SnmpPdu& pdu, const std::string& name, const TargetTransport& transport,
                                         const std::string& paramsName, const std::string& tagList,
                                         std::uint32_t timeout, std::uint32_t retryCount) {
  requireName(name, "targetAddress");
  const SnmpOid domain = transportDomain(transport);
  const std::string address = transportAddress(transport);
  pdu.addVarbind(row(targetAddrTDomain, name), domain);
  pdu.addVarbind(row(targetAddrTAddress, name), address);
  pdu.addVarbind(row(targetAddrParams, name), paramsName);
  pdu.addVarbind(row(targetAddrTagList, name), tagList);
  pdu.addVarbind(row(targetAddrTimeout, name), cut(timeout, maxTimeout, "inform time-out", name));
  pdu.addVarbind(row(targetAddrRetryCount, name), cut(retryCount, maxRetryCount, "inform retry count", name));
  pdu.addVarbind(row(targetAddrRowStatus, name), RowCreateAndGo);
}

void MasterAgentTables::deleteTargetAddr(SnmpPdu& pdu, const std::string& name) {
  pdu.addVarbind(row(targetAddrRowStatus, name), RowDestroy);
}

void MasterAgentTables::createTargetParams(SnmpPdu& pdu, const std::string& name, unsigned mpModel,
                                           unsigned securityModel, const std::string& securityName,
                                           unsigned securityLevel) {
  requireName(name, "targetParams");
  VELA_TRACE("createTargetParams(\"%s\", %u, %u, \"%s\", %u)\n", name.c_str(), mpModel, securityModel,
             securityName.c_str(), securityLevel);
  pdu.addVarbind(row(targetParamsMpModel, name), mpModel);
  pdu.addVarbind(row(targetParamsSecurityModel, name), securityModel);
  pdu.addVarbind(row(targetParamsSecurityName, name), securityName);
  pdu.addVarbind(row(targetParamsSecurityLevel, name), securityLevel);
  pdu.addVarbind(row(targetParamsRowStatus, name), RowCreateAndGo);
}

void MasterAgentTables::deleteTargetParams(SnmpPdu& pdu, const std::string& name) {
  pdu.addVarbind(row(targetParamsRowStatus, name), RowDestroy);
}

void MasterAgentTables::createNotify(SnmpPdu& pdu, const std::string& name, const std::string& tag, NotifyType type) {
  requireName(name, "notify");
  pdu.addVarbind(row(notifyTag, name), tag);
  pdu.addVarbind(row(notifyType, name), type);
  pdu.addVarbind(row(notifyRowStatus, name), RowCreateAndGo);
}

void MasterAgentTables::deleteNotify(SnmpPdu& pdu, const std::string& name) {
  pdu.addVarbind(row(notifyRowStatus, name), RowDestroy);
}

}  // namespace VelaFmSnmp
