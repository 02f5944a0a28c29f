// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "TlsConfigurator.h"

#include <LoggingWrapper.h>

#include <algorithm>

#include "ConfigurationFault.h"
#include "HexMask.h"
#include "MasterAgentTables.h"
#include "SnmpMaSession.h"
#include "SnmpOid.h"
#include "SnmpPdu.h"

namespace VelaFmSnmp {

namespace {

// TLSTM-MIB (RFC 6353): table entry and column.
using ParamsColumn = const unsigned long[13];
constexpr ParamsColumn paramsFingerprint = {1, 3, 6, 1, 2, 1, 198, 2, 2, 1, 6, 1, 1};
constexpr ParamsColumn paramsStorageType = {1, 3, 6, 1, 2, 1, 198, 2, 2, 1, 6, 1, 2};
constexpr ParamsColumn paramsRowStatus = {1, 3, 6, 1, 2, 1, 198, 2, 2, 1, 6, 1, 3};
const char* const addrFingerprint = ".1.3.6.1.2.1.198.2.2.1.9.1.1";
const char* const addrIdentity = ".1.3.6.1.2.1.198.2.2.1.9.1.2";
const char* const addrStorageType = ".1.3.6.1.2.1.198.2.2.1.9.1.3";
const char* const addrRowStatus = ".1.3.6.1.2.1.198.2.2.1.9.1.4";
const char* const certFingerprint = ".1.3.6.1.2.1.198.2.2.1.3.1.2";
const char* const certMapType = ".1.3.6.1.2.1.198.2.2.1.3.1.3";
const char* const certData = ".1.3.6.1.2.1.198.2.2.1.3.1.4";
const char* const certStorageType = ".1.3.6.1.2.1.198.2.2.1.3.1.5";
const char* const certRowStatus = ".1.3.6.1.2.1.198.2.2.1.3.1.6";

/** snmpTlstmCertSANAny: the security name is what the certificate's subjectAltName says. */
const char* const certSanAny = ".1.3.6.1.2.1.198.1.1.5";
/** Any server that the trusted certificates vouch for. */
const char* const anyServer = "*";

/** Hash algorithms of RFC 5246 by the length of their hash in octets. MD5 is none of them: certificates can be made
 * that have the same. */
struct HashAlgorithm {
  int length;
  char number;
};
constexpr HashAlgorithm hashAlgorithms[] = {{20, 2}, {28, 3}, {32, 4}, {48, 5}, {64, 6}};
constexpr int maxHash = 64;

}  // namespace

std::string TlsConfigurator::encodeFingerPrint(const char* text) {
  unsigned char hash[maxHash];
  int length = 0;
  const bool isHex = text != nullptr && convertHexMask(hash, &length, maxHash, text);
  const auto* algorithm = std::find_if(std::begin(hashAlgorithms), std::end(hashAlgorithms),
                                       [=](const HashAlgorithm& candidate) { return candidate.length == length; });
  if (!isHex || algorithm == std::end(hashAlgorithms)) throw ConfigurationFault("Failed to parse fingerprint");
  return algorithm->number + std::string(hash, hash + length);
}

std::string TlsConfigurator::getLocalFingerPrint() const { return encodeFingerPrint(_options.nodeCredential.c_str()); }

void TlsConfigurator::reconfigureTrustCategory(const ConfigurationPass& pass) {
  const std::vector<std::string> wanted = _options.isEnabled() ? _options.trustCategories : std::vector<std::string>();
  if (!pass.writesAnew && wanted == _writtenTrust) return;
  const std::size_t present = pass.writesAnew ? std::max(_writtenTrust.size(), wanted.size()) : _writtenTrust.size();
  for (std::size_t priority = 1; priority <= present; ++priority)
    tlsDeleteTrustCategory(pass.session, static_cast<unsigned>(priority));
  _writtenTrust = wanted;
  for (std::size_t priority = 1; priority <= wanted.size(); ++priority)
    tlsCreateTrustCategory(pass.session, static_cast<unsigned>(priority), wanted[priority - 1]);
}

void TlsConfigurator::tlsCreateTrustCategory(SnmpMaSession& session, unsigned priority,
                                             const std::string& fingerprint) {
  VELA_LOG(Vela::LogInfo, "Creating DTLS TrustCategory prio %u, %s", priority, fingerprint.c_str());
  try {
    SnmpPdu pdu(SNMP_MSG_SET);
    tlsCreateCertEntry(pdu, priority, encodeFingerPrint(fingerprint.c_str()));
    MasterAgentTables::send(session, "tlsCreateTrustCategory", pdu);
  } catch (const ConfigurationFault& fault) {
    // Who is left out here has no access; all others still have theirs.
    VELA_LOG(Vela::LogError, "Failed to configure DTLS TrustCategory prio %u: %s", priority, fault.what());
  }
}

void TlsConfigurator::tlsDeleteTrustCategory(SnmpMaSession& session, unsigned priority) {
  VELA_LOG(Vela::LogInfo, "Deleting DTLS TrustCategory prio %u", priority);
  try {
    SnmpPdu pdu(SNMP_MSG_SET);
    tlsDeleteCertEntry(pdu, priority);
    MasterAgentTables::send(session, "tlsDeleteTrustCategory", pdu);
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "Failed to delete DTLS TrustCategory prio %u: %s", priority, fault.what());
  }
}

void TlsConfigurator::tlsCreateCertEntry(SnmpPdu& pdu, unsigned priority, const std::string& encodedFingerprint) {
  pdu.addVarbind(SnmpOid::createTlsCertOid(certFingerprint, priority), encodedFingerprint);
  pdu.addVarbind(SnmpOid::createTlsCertOid(certMapType, priority), SnmpOid(certSanAny));
  pdu.addVarbind(SnmpOid::createTlsCertOid(certData, priority), "");
  pdu.addVarbind(SnmpOid::createTlsCertOid(certStorageType, priority), StorageVolatile);
  pdu.addVarbind(SnmpOid::createTlsCertOid(certRowStatus, priority), RowCreateAndGo);
}

void TlsConfigurator::tlsDeleteCertEntry(SnmpPdu& pdu, unsigned priority) {
  pdu.addVarbind(SnmpOid::createTlsCertOid(certRowStatus, priority), RowDestroy);
}

void TlsConfigurator::tlsCreateParamsEntry(SnmpPdu& pdu, const std::string& name, const std::string& fingerprint) {
  pdu.addVarbind(SnmpOid::createTlsParamsOid(paramsFingerprint, name), fingerprint);
  pdu.addVarbind(SnmpOid::createTlsParamsOid(paramsStorageType, name), StorageVolatile);
  pdu.addVarbind(SnmpOid::createTlsParamsOid(paramsRowStatus, name), RowCreateAndGo);
}

void TlsConfigurator::tlsDeleteParamsEntry(SnmpPdu& pdu, const std::string& name) {
  pdu.addVarbind(SnmpOid::createTlsParamsOid(paramsRowStatus, name), RowDestroy);
}

void TlsConfigurator::tlsCreateAddrEntry(SnmpPdu& pdu, const std::string& name) {
  pdu.addVarbind(SnmpOid::createTlsAddrOid(addrFingerprint, name), "");
  pdu.addVarbind(SnmpOid::createTlsAddrOid(addrIdentity, name), anyServer);
  pdu.addVarbind(SnmpOid::createTlsAddrOid(addrStorageType, name), StorageVolatile);
  pdu.addVarbind(SnmpOid::createTlsAddrOid(addrRowStatus, name), RowCreateAndGo);
}

void TlsConfigurator::tlsDeleteAddrEntry(SnmpPdu& pdu, const std::string& name) {
  pdu.addVarbind(SnmpOid::createTlsAddrOid(addrRowStatus, name), RowDestroy);
}

}  // namespace VelaFmSnmp
