#ifndef NODE_TLS_CERTIFICATE_FOLDER_H
#define NODE_TLS_CERTIFICATE_FOLDER_H

#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

#include "Certificate.h"

namespace NodeTls {

/** A certificate that the node can present, with its key and its issuers as far as they are known. */
struct Identity {
  X509* certificate = nullptr; /**< the folder's */
  EVP_PKEY* key = nullptr;     /**< the folder's */
  std::vector<X509*> issuers;  /**< the folder's; the direct issuer first */
};

/**
 * The certificates and private keys of a node as they lie in a folder: "certs" (its own, its peers', and authorities'),
 * "private", and "crls" with lists of certificates that were revoked (RFC 5280, 5). Read once, at construction; a file
 * that cannot be used takes nothing from the others.
 */
class CertificateFolder {
 public:
  explicit CertificateFolder(const std::filesystem::path& folder);

  const std::vector<Certificate>& certificates() const { return _certificates; }
  /** A line for each file that could not be used. */
  const std::vector<std::string>& faults() const { return _faults; }

  /** A line for each revocation list that does not count, or should have been replaced by a newer one. */
  const std::vector<std::string>& revocationFaults() const { return _revocationFaults; }

  /**
   * "was revoked on ..." for a certificate that its issuer's list names; empty for others. A list counts when it is
   * signed by a certificate on file that may sign lists, also when it is out of date.
   */
  std::string revocationOf(X509* certificate) const;

  /** By a plain fingerprint; null when there is none. */
  const Certificate* findByFingerprint(const std::string& fingerprint) const;
  /** By a fingerprint, or by file name with or without its extension; null when there is none. */
  const Certificate* find(const std::string& name) const;
  /** The same, for a certificate that is to be presented. Throws TlsFault when it, or a key for it, is not to be had.
   */
  Identity identity(const std::string& name) const;
  /** Whether a private key for the certificate is there. */
  bool hasKey(const Certificate& certificate) const { return keyOf(certificate) != nullptr; }

 private:
  struct Key {
    LibraryPtr<EVP_PKEY> key;
    std::filesystem::path file;
  };

  void readCertificates(const std::filesystem::path& folder);
  void readKeys(const std::filesystem::path& folder);
  void readRevocations(const std::filesystem::path& folder);
  /** Why a list does not count; empty when it does. */
  std::string signatureFaultOf(X509_CRL* list) const;
  EVP_PKEY* keyOf(const Certificate& certificate) const;
  std::string missingKeyText(const Certificate& certificate) const;
  std::vector<X509*> issuersOf(const Certificate& certificate) const;

  std::filesystem::path _folder;
  std::vector<Certificate> _certificates;
  std::unordered_map<std::string, size_t> _byFingerprint; /**< places in _certificates */
  std::vector<Key> _keys;
  std::vector<LibraryPtr<X509_CRL>> _revocations;
  std::vector<std::string> _faults;
  std::vector<std::string> _revocationFaults;
};

}  // namespace NodeTls
#endif
