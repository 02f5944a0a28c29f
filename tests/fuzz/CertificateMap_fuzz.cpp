/** Fuzzes what is read of a peer's certificate: fingerprints, and its security name by each kind of mapping. */
#include <cstdint>
#include <cstdlib>
#include <string>

#include "CertificateMap.h"
#include "NetSnmp.h"
#include "PeerTrust.h"

namespace {

using namespace SnmpdPlugin;

void require(bool isTrue) {
  if (!isTrue) std::abort();
}

/** The one row of the map. */
void setRow(const std::string& fingerprint, NameMapping mapping) {
  static netsnmp_cert_map* row = nullptr;
  if (row != nullptr && netsnmp_cert_map_remove(row) == 0) netsnmp_cert_map_free(row);
  std::string copy = fingerprint;
  row = netsnmp_cert_map_alloc(copy.data(), nullptr);
  row->priority = 1;
  row->mapType = static_cast<int>(mapping);
  row->data = strdup("specified");
  require(netsnmp_cert_map_add(row) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_APPTYPE, "fuzz");
  netsnmp_container_init_list();
  netsnmp_certs_agent_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string plain = NodeTls::plainFingerprint({reinterpret_cast<const char*>(data), size});
  require(plain.size() <= size && NodeTls::plainFingerprint(plain) == plain);

  const NodeTls::LibraryPtr<X509> certificate(d2i_X509(nullptr, &data, static_cast<long>(size)));
  if (!certificate) return 0;
  static const NodeTls::CertificateFolder nothing("/nonexistent");
  const CertificateChain chain{certificate.get()};
  const auto fingerprints = NodeTls::fingerprintsOf(certificate.get());
  for (const std::string& fingerprint : fingerprints) require(NodeTls::plainFingerprint(fingerprint) == fingerprint);
  NodeTls::subjectOf(certificate.get());
  NodeTls::libraryFingerprintOf(certificate.get());
  lapseOf(chain, nothing);
  for (int mapping = 1; mapping <= static_cast<int>(NameMapping::CommonName); ++mapping) {
    setRow(fingerprints.front(), static_cast<NameMapping>(mapping));
    const std::string name = CertificateMap::securityNameOf(chain, nothing);
    require(name.size() < NETSNMP_TM_MAX_SECNAME && name.find('\0') == std::string::npos);
    require(mapping != static_cast<int>(NameMapping::Specified) || name == "specified");
    require(CertificateMap::impostureOf(chain, {name}, nothing).empty());
  }
  return 0;
}
