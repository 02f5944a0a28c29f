#include "TlstmTables.h"

#include <algorithm>
#include <exception>
#include <memory>

#include "CertificateMap.h"
#include "DtlsContext.h"
#include "NetSnmp.h"
#include "RowTable.h"

namespace SnmpdPlugin {

namespace {

// snmpTlstmCertificateMapping, snmpTlstmConfiguration (RFC 6353, 7) and the identities of mapping algorithms.
const Oid Configuration = {1, 3, 6, 1, 2, 1, 198, 2, 2, 1};
const Oid MappingIdentities = {1, 3, 6, 1, 2, 1, 198, 1, 1};

enum CertColumn : oid { CertFingerprint = 2, CertMapType, CertData, CertStorageType, CertRowStatus };
enum ParamsColumn : oid { ParamsFingerprint = 1, ParamsStorageType, ParamsRowStatus };
enum AddrColumn : oid { AddrFingerprint = 1, AddrIdentity, AddrStorageType, AddrRowStatus };

constexpr size_t MaxAdminString = 255;
constexpr size_t MaxName = 32;  // snmpTargetParamsName, snmpTargetAddrName
constexpr oid MaxOctet = 255;
/** By HashAlgorithm of RFC 5246; 0 for those that are not taken, MD5 among them. */
constexpr unsigned char DigestLengths[] = {0, 0, 20, 28, 32, 48, 64};

Oid configuration(oid object, std::initializer_list<oid> rest) {
  Oid name = Configuration;
  name.push_back(object);
  name.insert(name.end(), rest);
  return name;
}

Oid oidOf(const std::string& cell) {
  const auto* begin = reinterpret_cast<const oid*>(cell.data());
  return {begin, begin + cell.size() / sizeof(oid)};
}

// --- Values

int checkFingerprint(const std::string& value) {
  if (value.empty()) return SNMP_ERR_NOERROR;
  const auto hash = static_cast<unsigned char>(value.front());
  if (hash >= std::size(DigestLengths) || DigestLengths[hash] == 0) return SNMP_ERR_WRONGVALUE;
  return value.size() == 1U + DigestLengths[hash] ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGLENGTH;
}

int checkPresentFingerprint(const std::string& value) {
  return value.empty() ? SNMP_ERR_WRONGLENGTH : checkFingerprint(value);
}

int checkMapType(const std::string& value) {
  const Oid identity = oidOf(value);
  const bool isKnown = identity.size() == MappingIdentities.size() + 1 &&
                       std::equal(MappingIdentities.begin(), MappingIdentities.end(), identity.begin()) &&
                       identity.back() >= TSNM_tlstmCertSpecified && identity.back() <= TSNM_tlstmCert_MAX;
  return isKnown ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
}

int checkText(const std::string& value) {
  if (value.size() > MaxAdminString) return SNMP_ERR_WRONGLENGTH;
  return value.find('\0') == std::string::npos ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
}

int checkStorageType(const std::string& value) {
  const long type = integerOf(value);
  return type == ST_VOLATILE || type == ST_NONVOLATILE ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
}

int checkRowStatus(const std::string& value) {
  const long status = integerOf(value);
  const bool canBeSet = status >= SNMP_ROW_ACTIVE && status <= SNMP_ROW_DESTROY && status != SNMP_ROW_NOTREADY;
  return canBeSet ? SNMP_ERR_NOERROR : SNMP_ERR_WRONGVALUE;
}

const Column StorageType = {ASN_INTEGER, integerCell(ST_VOLATILE), checkStorageType};
const Column RowStatus = {ASN_INTEGER, std::nullopt, checkRowStatus};

/** Hash number and hexadecimal digits of an SnmpTLSFingerprint. */
struct Fingerprint {
  char hash = 0;
  std::string digits;
};

Fingerprint toFingerprint(const std::string& cell) {
  static constexpr char Digits[] = "0123456789abcdef";
  Fingerprint fingerprint;
  if (cell.empty()) return fingerprint;
  fingerprint.hash = cell.front();
  for (const char c : cell.substr(1)) {
    const auto octet = static_cast<unsigned char>(c);
    fingerprint.digits.append({Digits[octet >> 4], Digits[octet & 0xf]});
  }
  return fingerprint;
}

/** The fingerprint that the library finds the certificate by, where it is on file. */
std::string toLibrary(const std::string& fingerprint) {
  const NodeTls::CertificateFolder folder = DtlsContext::readFolder();
  const NodeTls::Certificate* certificate = folder.find(fingerprint);
  const std::string known = certificate == nullptr ? "" : NodeTls::libraryFingerprintOf(certificate->get());
  return known.empty() ? fingerprint : known;
}

// --- Indexes

bool isNumberIndex(const Oid& index) { return index.size() == 1; }

bool isNameIndex(const Oid& index) {
  return !index.empty() && index.size() <= MaxName &&
         std::all_of(index.begin(), index.end(), [](oid octet) { return octet != 0 && octet <= MaxOctet; });
}

std::string nameOf(const Oid& index) { return {index.begin(), index.end()}; }

// --- snmpTlstmCertToTSNTable

/** The library's entries by row; they stay its own once it has taken them. */
std::map<Oid, netsnmp_cert_map*> certEntries;

void activateCert(const Oid& index, const Cells& cells) {
  Fingerprint fingerprint = toFingerprint(cells.at(CertFingerprint));
  netsnmp_cert_map* entry = netsnmp_cert_map_alloc(fingerprint.digits.data(), nullptr);
  if (entry == nullptr) return;
  entry->priority = static_cast<int>(index.front());
  entry->hashType = fingerprint.hash;
  entry->mapType = static_cast<int>(oidOf(cells.at(CertMapType)).back());
  entry->flags = NSCM_FROM_MIB;
  const std::string& data = cells.at(CertData);
  if (!data.empty()) entry->data = strdup(data.c_str());
  if (netsnmp_cert_map_add(entry) == 0)
    certEntries[index] = entry;
  else
    netsnmp_cert_map_free(entry);
  // An authority that was put on file since is found when it is trusted.
  DtlsContext::forgetAll();
  CertificateMap::changed();
}

void deactivateCert(const Oid& index) {
  const auto entry = certEntries.find(index);
  if (entry == certEntries.end()) return;
  if (netsnmp_cert_map_remove(entry->second) == 0) netsnmp_cert_map_free(entry->second);
  certEntries.erase(entry);
  CertificateMap::changed();
}

// --- snmpTlstmParamsTable

int checkParams(const Oid& index, const Cells& cells) {
  try {
    DtlsContext::get(toFingerprint(cells.at(ParamsFingerprint)).digits);
    return SNMP_ERR_NOERROR;
  } catch (const std::exception& fault) {
    snmp_log(LOG_ERR, "vela_snmpd_plugin: snmpTlstmParams row %s: %s\n", nameOf(index).c_str(), fault.what());
    return SNMP_ERR_WRONGVALUE;
  }
}

void activateParams(const Oid& index, const Cells& cells) {
  const Fingerprint fingerprint = toFingerprint(cells.at(ParamsFingerprint));
  // The library knows the certificates that were there when the agent started, and the configuration names one of them.
  DtlsContext::setFallback(fingerprint.digits);
  const std::string digits = toLibrary(fingerprint.digits);
  snmpTlstmParams* entry = netsnmp_tlstmParams_create(nameOf(index).c_str(), fingerprint.hash, digits.c_str(),
                                                      static_cast<int>(digits.size()));
  if (entry == nullptr) return;
  entry->flags = TLSTM_PARAMS_FROM_MIB;
  netsnmp_tlstmParams_add(entry);
}

void deactivateParams(const Oid& index) {
  std::string name = nameOf(index);
  snmpTlstmParams key{};
  key.name = name.data();
  snmpTlstmParams* entry = netsnmp_tlstmParams_find(&key);
  if (entry != nullptr && netsnmp_tlstmParams_remove(entry) == 0) netsnmp_tlstmParams_free(entry);
}

// --- snmpTlstmAddrTable

int checkAddr(const Oid& index, const Cells& cells) {
  // The library looks the certificate up, and would take anybody for the receiver if it found none.
  const std::string digits = toFingerprint(cells.at(AddrFingerprint)).digits;
  if (digits.empty() || DtlsContext::readFolder().find(digits) != nullptr) return SNMP_ERR_NOERROR;
  snmp_log(LOG_ERR, "vela_snmpd_plugin: snmpTlstmAddr row %s: there is no certificate '%s'\n", nameOf(index).c_str(),
           digits.c_str());
  return SNMP_ERR_WRONGVALUE;
}

void activateAddr(const Oid& index, const Cells& cells) {
  std::string name = nameOf(index);
  snmpTlstmAddr* entry = netsnmp_tlstmAddr_create(name.data());
  if (entry == nullptr) return;
  const Fingerprint fingerprint = toFingerprint(cells.at(AddrFingerprint));
  entry->hashType = static_cast<u_char>(fingerprint.hash);
  entry->flags = TLSTM_ADDR_FROM_MIB;
  if (!fingerprint.digits.empty()) entry->fingerprint = strdup(toLibrary(fingerprint.digits).c_str());
  const std::string& identity = cells.at(AddrIdentity);
  if (!identity.empty()) entry->identity = strdup(identity.c_str());
  netsnmp_tlstmAddr_add(entry);
}

void deactivateAddr(const Oid& index) {
  std::string name = nameOf(index);
  snmpTlstmAddr key{};
  key.name = name.data();
  auto* entry = static_cast<snmpTlstmAddr*>(CONTAINER_FIND(netsnmp_tlstmAddr_container(), &key));
  if (entry != nullptr && netsnmp_tlstmAddr_remove(entry) == 0) netsnmp_tlstmAddr_free(entry);
}

int acceptAny(const Oid&, const Cells&) { return SNMP_ERR_NOERROR; }

std::vector<RowTable::Definition> definitions() {
  return {
      {"snmpTlstmCertToTSN",
       configuration(1, {0}),
       configuration(2, {0}),
       configuration(3, {1}),
       {{CertFingerprint, {ASN_OCTET_STR, std::nullopt, checkPresentFingerprint}},
        {CertMapType, {ASN_OBJECT_ID, std::nullopt, checkMapType}},
        {CertData, {ASN_OCTET_STR, "", checkText}},
        {CertStorageType, StorageType},
        {CertRowStatus, RowStatus}},
       CertRowStatus,
       isNumberIndex,
       acceptAny,
       activateCert,
       deactivateCert},
      {"snmpTlstmParams",
       configuration(4, {0}),
       configuration(5, {0}),
       configuration(6, {1}),
       {{ParamsFingerprint, {ASN_OCTET_STR, std::nullopt, checkPresentFingerprint}},
        {ParamsStorageType, StorageType},
        {ParamsRowStatus, RowStatus}},
       ParamsRowStatus,
       isNameIndex,
       checkParams,
       activateParams,
       deactivateParams},
      {"snmpTlstmAddr",
       configuration(7, {0}),
       configuration(8, {0}),
       configuration(9, {1}),
       {{AddrFingerprint, {ASN_OCTET_STR, "", checkFingerprint}},
        {AddrIdentity, {ASN_OCTET_STR, "", checkText}},
        {AddrStorageType, StorageType},
        {AddrRowStatus, RowStatus}},
       AddrRowStatus,
       isNameIndex,
       checkAddr,
       activateAddr,
       deactivateAddr},
  };
}

}  // namespace

void installTlstmTables() {
  // Never destroyed: they are the agent's as long as it runs.
  static auto* const tables = new std::vector<std::unique_ptr<RowTable>>;
  for (RowTable::Definition& definition : definitions()) {
    tables->push_back(std::make_unique<RowTable>(std::move(definition)));
    tables->back()->install();
  }
}

}  // namespace SnmpdPlugin
