#include "CertificateMap.h"

#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include "NetSnmp.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <memory>

#include "Certificate.h"

namespace SnmpdPlugin {

namespace {

using Clock = std::chrono::steady_clock;

/** Longer than between the requests that write one row after the other. */
constexpr std::chrono::milliseconds SettledAfter{300};

unsigned changes = 0;
Clock::time_point lastChange;

struct NamesDeleter {
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

struct IteratorDeleter {
  void operator()(netsnmp_iterator* iterator) const { ITERATOR_RELEASE(iterator); }
};

/** The rows in the order in which they count (RFC 6353, snmpTlstmCertToTSNID). */
std::vector<const netsnmp_cert_map*> rowsByPriority() {
  std::vector<const netsnmp_cert_map*> rows;
  netsnmp_container* container = netsnmp_cert_map_container();
  if (container == nullptr) return rows;
  const std::unique_ptr<netsnmp_iterator, IteratorDeleter> owner(CONTAINER_ITERATOR(container));
  netsnmp_iterator* iterator = owner.get();
  if (iterator == nullptr) return rows;
  for (void* row = ITERATOR_FIRST(iterator); row != nullptr; row = ITERATOR_NEXT(iterator))
    rows.push_back(static_cast<const netsnmp_cert_map*>(row));
  std::sort(rows.begin(), rows.end(), [](const auto* a, const auto* b) { return a->priority < b->priority; });
  return rows;
}

std::string textOf(const ASN1_STRING* string) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
          static_cast<size_t>(ASN1_STRING_length(string))};
}

/** The text from `begin` on in lower case. */
std::string lowerFrom(std::string text, size_t begin) {
  for (size_t i = begin; i < text.size(); ++i)
    text[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
  return text;
}

/** IPv4 in dotted form, IPv6 as 32 digits. */
std::string addressText(const std::string& octets) {
  constexpr size_t Ipv4Octets = 4;
  constexpr size_t Ipv6Octets = 16;
  static constexpr char Digits[] = "0123456789abcdef";
  std::string text;
  for (const char octet : octets) {
    const auto value = static_cast<unsigned char>(octet);
    if (octets.size() == Ipv4Octets)
      text += (text.empty() ? "" : ".") + std::to_string(value);
    else if (octets.size() == Ipv6Octets)
      text.append({Digits[value >> 4], Digits[value & 0xf]});
  }
  return text;
}

std::string nameOf(const GENERAL_NAME* name, NameMapping mapping) {
  const auto wants = [mapping](NameMapping kind) { return mapping == kind || mapping == NameMapping::AnyAltName; };
  if (name->type == GEN_EMAIL && wants(NameMapping::Rfc822Name)) {
    const std::string mail = textOf(name->d.rfc822Name);
    return lowerFrom(mail, std::min(mail.find('@'), mail.size()));
  }
  if (name->type == GEN_DNS && wants(NameMapping::DnsName)) return lowerFrom(textOf(name->d.dNSName), 0);
  if (name->type == GEN_IPADD && wants(NameMapping::IpAddress)) return addressText(textOf(name->d.iPAddress));
  return {};
}

std::string alternativeNameOf(const X509* certificate, NameMapping mapping) {
  const std::unique_ptr<GENERAL_NAMES, NamesDeleter> names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    std::string name = nameOf(sk_GENERAL_NAME_value(names.get(), i), mapping);
    if (!name.empty()) return name;
  }
  return {};
}

std::string commonNameOf(const X509* certificate) {
  const X509_NAME* subject = X509_get_subject_name(certificate);
  const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  return at < 0 ? std::string() : textOf(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
}

/** The name comes from the peer's own certificate, also when the row is one of its issuer's. */
std::string mappedName(const X509* certificate, const netsnmp_cert_map& row) {
  const auto mapping = static_cast<NameMapping>(row.mapType);
  switch (mapping) {
    case NameMapping::Specified:
      return row.data == nullptr ? "" : row.data;
    case NameMapping::CommonName:
      return commonNameOf(certificate);
    default:
      return alternativeNameOf(certificate, mapping);
  }
}

bool isOne(const CertificateChain& chain, const char* fingerprint) {
  return std::any_of(chain.begin(), chain.end(), [fingerprint](const X509* certificate) {
    return NodeTls::hasFingerprint(certificate, fingerprint);
  });
}

bool hasIssued(const CertificateChain& chain, X509* certificate) {
  return std::any_of(chain.begin() + 1, chain.end(), [certificate](X509* issuer) {
    return X509_check_issued(issuer, certificate) == X509_V_OK &&
           X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
  });
}

/** The name that a row gives, as far as it can be told without a peer: of its certificate on file, or spelled out. */
std::string nameOnFile(const netsnmp_cert_map& row, const NodeTls::CertificateFolder& onFile) {
  const bool isSpecified = static_cast<NameMapping>(row.mapType) == NameMapping::Specified;
  const NodeTls::Certificate* certificate = onFile.findByFingerprint(row.fingerprint);
  if (certificate == nullptr && !isSpecified) return {};
  return mappedName(certificate == nullptr ? nullptr : certificate->get(), row);
}

/** Whether a row keeps a name from whoever has the chain, whose issuers give it that name. */
bool reserves(const netsnmp_cert_map& row, const std::string& name, const CertificateChain& chain,
              const NodeTls::CertificateFolder& onFile) {
  if (nameOnFile(row, onFile) != name || isOne(chain, row.fingerprint)) return false;
  const NodeTls::Certificate* certificate = onFile.findByFingerprint(row.fingerprint);
  return certificate == nullptr || !hasIssued(chain, certificate->get());
}

}  // namespace

std::vector<std::string> CertificateMap::fingerprints() {
  std::vector<std::string> found;
  for (const netsnmp_cert_map* row : rowsByPriority()) found.emplace_back(row->fingerprint);
  return found;
}

std::string CertificateMap::securityNameOf(const CertificateChain& chain, const NodeTls::CertificateFolder& onFile) {
  const auto rows = rowsByPriority();
  for (const netsnmp_cert_map* row : rows) {
    if (!isOne(chain, row->fingerprint)) continue;
    std::string name = mappedName(chain.front(), *row);
    if (name.empty() || name.find('\0') != std::string::npos || name.size() >= NETSNMP_TM_MAX_SECNAME) continue;
    const bool isOwn = NodeTls::hasFingerprint(chain.front(), row->fingerprint);
    const bool isReserved = !isOwn && std::any_of(rows.begin(), rows.end(), [&](const netsnmp_cert_map* other) {
      return reserves(*other, name, chain, onFile);
    });
    if (!isReserved) return name;
  }
  return {};
}

std::string CertificateMap::impostureOf(const CertificateChain& chain, const std::vector<std::string>& names,
                                        const NodeTls::CertificateFolder& onFile) {
  const auto isWanted = [&names](const std::string& name) {
    return !name.empty() && std::find(names.begin(), names.end(), name) != names.end();
  };
  if (names.empty() || isWanted(securityNameOf(chain, onFile))) return {};
  for (const netsnmp_cert_map* row : rowsByPriority()) {
    const std::string name = nameOnFile(*row, onFile);
    if (isWanted(name)) return "is not that of '" + name + "', who is to receive there";
  }
  return {};
}

unsigned CertificateMap::generation() { return changes; }

bool CertificateMap::isSettled() {
  netsnmp_container* rows = netsnmp_cert_map_container();
  return rows != nullptr && CONTAINER_SIZE(rows) != 0 && Clock::now() - lastChange > SettledAfter;
}

void CertificateMap::changed() {
  ++changes;
  lastChange = Clock::now();
}

}  // namespace SnmpdPlugin
