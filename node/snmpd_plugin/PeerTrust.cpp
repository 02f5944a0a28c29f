#include "PeerTrust.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <memory>

namespace SnmpdPlugin {

namespace {

/** Key identifiers help to find an issuer and prove nothing; many small authorities leave them out. */
int tolerateMissingIdentifiers(int isGood, X509_STORE_CTX* store) {
  const int error = X509_STORE_CTX_get_error(store);
  const bool isTolerable =
      error == X509_V_ERR_MISSING_AUTHORITY_KEY_IDENTIFIER || error == X509_V_ERR_MISSING_SUBJECT_KEY_IDENTIFIER;
  return isGood == 1 || isTolerable ? 1 : 0;
}

bool isVouchedFor(X509_STORE_CTX* store, const NodeTls::CertificateFolder& onFile,
                  const std::vector<std::string>& trusted) {
  const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> anchors(
      sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
  for (const std::string& fingerprint : trusted)
    if (const auto* certificate = onFile.findByFingerprint(fingerprint))
      sk_X509_push(anchors.get(), certificate->get());
  X509_STORE_CTX_set0_trusted_stack(store, anchors.get());
  X509_STORE_CTX_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_X509_STRICT);
  X509_STORE_CTX_set_verify_cb(store, tolerateMissingIdentifiers);
  return X509_verify_cert(store) == 1;
}

}  // namespace

std::optional<Refusal> refusalOf(X509_STORE_CTX* store, const NodeTls::CertificateFolder& onFile,
                                 const std::vector<std::string>& trusted) {
  X509* own = X509_STORE_CTX_get0_cert(store);
  const auto known = NodeTls::fingerprintsOf(own);
  const bool isKnown = std::find_first_of(trusted.begin(), trusted.end(), known.begin(), known.end()) != trusted.end();
  // Nobody has to vouch for one that is known, so what it was made for does not matter.
  if (!isKnown && !isVouchedFor(store, onFile, trusted)) {
    const int error = X509_STORE_CTX_get_error(store);
    return Refusal{std::string("is not trusted: ") + X509_verify_cert_error_string(error), error};
  }
  const std::string fault = lapseOf(chainOf(X509_STORE_CTX_get0_chain(store), own), onFile);
  if (!fault.empty()) return Refusal{fault, X509_V_ERR_CERT_HAS_EXPIRED};
  return std::nullopt;
}

CertificateChain chainOf(const STACK_OF(X509) * stack, X509* own) {
  CertificateChain chain;
  for (int i = 0; i < sk_X509_num(stack); ++i) chain.push_back(sk_X509_value(stack, i));
  if (chain.empty() && own != nullptr) chain.push_back(own);
  return chain;
}

std::string lapseOf(const CertificateChain& chain, const NodeTls::CertificateFolder& onFile) {
  for (X509* certificate : chain) {
    std::string fault = NodeTls::validityFaultOf(certificate);
    if (fault.empty()) fault = onFile.revocationOf(certificate);
    if (!fault.empty()) return fault;
  }
  return {};
}

}  // namespace SnmpdPlugin
