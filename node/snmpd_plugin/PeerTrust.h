#ifndef SNMPD_PLUGIN_PEER_TRUST_H
#define SNMPD_PLUGIN_PEER_TRUST_H

#include <openssl/x509.h>

#include <optional>
#include <string>
#include <vector>

#include "CertificateFolder.h"
#include "CertificateMap.h"

namespace SnmpdPlugin {

/** Why a peer's certificate is refused: words that follow its name in the log, and the reason (X509_V_ERR_...). */
struct Refusal {
  std::string text;
  int error = X509_V_ERR_UNSPECIFIED;
};

/**
 * Whether the certificate that a peer presents is refused. It is trusted when it is valid, not revoked by a list on
 * file, and either has one of the plain fingerprints itself, or was issued by an authority that has one and whose
 * certificate is on file (RFC 6353, 5.3.2). Only a certificate that was made for it vouches for others: chains are
 * checked strictly (RFC 5280, 4.2.1.3 and 4.2.1.9). Leaves the verified chain in the store, if there is one.
 */
std::optional<Refusal> refusalOf(X509_STORE_CTX* store, const NodeTls::CertificateFolder& onFile,
                                 const std::vector<std::string>& trusted);

/** The certificates of a verified chain; where there is none, a certificate alone that is trusted by itself. */
CertificateChain chainOf(const STACK_OF(X509) * stack, X509* own);

/** Why a chain that was trusted is trusted no more: it "has expired on ..." or "was revoked on ..."; empty: it still
 * is. */
std::string lapseOf(const CertificateChain& chain, const NodeTls::CertificateFolder& onFile);

}  // namespace SnmpdPlugin
#endif
