#ifndef NODE_TLS_CERTIFICATE_H
#define NODE_TLS_CERTIFICATE_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace NodeTls {

/** Why certificates or keys cannot be used: one line for the operator that names the file or the fingerprint. */
class TlsFault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** Releases what the cryptographic library allocated. */
struct LibraryDeleter {
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509_CRL* list) const { X509_CRL_free(list); }
  void operator()(BIO_ADDR* address) const { BIO_ADDR_free(address); }
};
template <class Object>
using LibraryPtr = std::unique_ptr<Object, LibraryDeleter>;

/** A fingerprint without separators and in lower case; empty when the text is none. */
std::string plainFingerprint(const std::string& text);

/** A certificate of X.509 and the file it comes from. */
class Certificate {
 public:
  /** Reads a file in PEM or DER form. Throws TlsFault. */
  static Certificate read(const std::filesystem::path& file);

  X509* get() const { return _certificate.get(); }
  /** As fingerprintsOf. */
  const std::vector<std::string>& fingerprints() const { return _fingerprints; }
  const std::filesystem::path& file() const { return _file; }

 private:
  Certificate(LibraryPtr<X509> certificate, std::filesystem::path file);

  LibraryPtr<X509> _certificate;
  std::vector<std::string> _fingerprints;
  std::filesystem::path _file;
};

/** The hash of the certificate in lower-case hexadecimal digits; empty when it cannot be had. */
std::string fingerprintOf(const X509* certificate, const EVP_MD* hash);
/** The fingerprint that the node's configuration knows a certificate by (SHA-1). */
std::string nodeFingerprintOf(const X509* certificate);
/** The fingerprint that net-snmp's library files a certificate under: by the hash that it was signed with. */
std::string libraryFingerprintOf(const X509* certificate);
/**
 * The plain fingerprints that a certificate may be known by: SHA-1 and the SHA-2 family, told apart by their length.
 * MD5 is not among them, since two certificates with one MD5 hash can be made.
 */
std::vector<std::string> fingerprintsOf(const X509* certificate);
/** Whether a plain fingerprint is one of fingerprintsOf. */
bool hasFingerprint(const X509* certificate, const std::string& fingerprint);
/** The name of its subject, on one line. */
std::string subjectOf(const X509* certificate);
/** Why it is not valid at this moment: "has expired on ...", "is not valid before ..."; empty when it is valid. */
std::string validityFaultOf(const X509* certificate);
std::string validUntil(const X509* certificate);
/** A time as it stands in these texts. */
std::string timeText(const ASN1_TIME* time);

}  // namespace NodeTls
#endif
