#include "CertificateFolder.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>

namespace NodeTls {

namespace {

/** Longer chains than any in use; ends the search when authorities certify each other. */
constexpr size_t MaxChain = 16;

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (entry.is_regular_file(error)) files.push_back(entry.path());
  }
  // The order of a folder's entries is nobody's choice, but which of two equal ones is taken shall not vary.
  std::sort(files.begin(), files.end());
  return files;
}

/** A key that a pass phrase protects counts as unusable: there is nobody to ask. */
int refusePassPhrase(char*, int, int, void*) { return -1; }

LibraryPtr<EVP_PKEY> readKey(const std::filesystem::path& file) {
  const LibraryPtr<BIO> in(BIO_new_file(file.c_str(), "rb"));
  LibraryPtr<EVP_PKEY> key(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, refusePassPhrase, nullptr) : nullptr);
  if (!key && in && BIO_reset(in.get()) == 0) key.reset(d2i_PrivateKey_bio(in.get(), nullptr));
  ERR_clear_error();
  return key;
}

/** The lists of a file; in PEM form there may be several. */
std::vector<LibraryPtr<X509_CRL>> readLists(const std::filesystem::path& file) {
  std::vector<LibraryPtr<X509_CRL>> lists;
  const LibraryPtr<BIO> in(BIO_new_file(file.c_str(), "rb"));
  while (X509_CRL* list = in ? PEM_read_bio_X509_CRL(in.get(), nullptr, nullptr, nullptr) : nullptr)
    lists.emplace_back(list);
  if (lists.empty() && in && BIO_reset(in.get()) == 0) {
    if (X509_CRL* list = d2i_X509_CRL_bio(in.get(), nullptr)) lists.emplace_back(list);
  }
  ERR_clear_error();
  return lists;
}

}  // namespace

CertificateFolder::CertificateFolder(const std::filesystem::path& folder) : _folder(folder) {
  readCertificates(folder / "certs");
  readKeys(folder / "private");
  readRevocations(folder / "crls");
}

void CertificateFolder::readCertificates(const std::filesystem::path& folder) {
  for (const auto& file : filesIn(folder)) {
    try {
      _certificates.push_back(Certificate::read(file));
      for (const std::string& fingerprint : _certificates.back().fingerprints())
        _byFingerprint.emplace(fingerprint, _certificates.size() - 1);
    } catch (const TlsFault& fault) {
      _faults.emplace_back(fault.what());
    }
  }
}

void CertificateFolder::readKeys(const std::filesystem::path& folder) {
  for (const auto& file : filesIn(folder)) {
    if (auto key = readKey(file))
      _keys.push_back({std::move(key), file});
    else
      _faults.push_back("there is no private key without pass phrase in " + file.string());
  }
}

void CertificateFolder::readRevocations(const std::filesystem::path& folder) {
  for (const auto& file : filesIn(folder)) {
    auto lists = readLists(file);
    if (lists.empty()) _revocationFaults.push_back("there is no revocation list in " + file.string());
    for (auto& list : lists) {
      const std::string fault = signatureFaultOf(list.get());
      const ASN1_TIME* next = X509_CRL_get0_nextUpdate(list.get());
      if (!fault.empty())
        _revocationFaults.push_back("the revocation list " + file.string() + " " + fault);
      else if (next != nullptr && X509_cmp_current_time(next) < 0)
        _revocationFaults.push_back("the revocation list " + file.string() + " is out of date since " + timeText(next));
      if (fault.empty()) _revocations.push_back(std::move(list));
    }
  }
}

std::string CertificateFolder::signatureFaultOf(X509_CRL* list) const {
  const bool isSigned = std::any_of(_certificates.begin(), _certificates.end(), [list](const Certificate& certificate) {
    X509* signer = certificate.get();
    return X509_NAME_cmp(X509_get_subject_name(signer), X509_CRL_get_issuer(list)) == 0 &&
           (X509_get_key_usage(signer) & KU_CRL_SIGN) != 0 && X509_CRL_verify(list, X509_get0_pubkey(signer)) == 1;
  });
  ERR_clear_error();
  return isSigned ? "" : "is signed by nobody whose certificate is on file and who may sign lists";
}

std::string CertificateFolder::revocationOf(X509* certificate) const {
  constexpr int Revoked = 1;
  for (const auto& list : _revocations) {
    X509_REVOKED* entry = nullptr;
    if (X509_CRL_get0_by_cert(list.get(), &entry, certificate) == Revoked)
      return "was revoked on " + timeText(X509_REVOKED_get0_revocationDate(entry));
  }
  return {};
}

const Certificate* CertificateFolder::findByFingerprint(const std::string& fingerprint) const {
  const auto found = _byFingerprint.find(fingerprint);
  return found == _byFingerprint.end() ? nullptr : &_certificates[found->second];
}

const Certificate* CertificateFolder::find(const std::string& name) const {
  const Certificate* byFingerprint = findByFingerprint(plainFingerprint(name));
  if (byFingerprint != nullptr || name.empty()) return byFingerprint;
  const auto found = std::find_if(_certificates.begin(), _certificates.end(), [&name](const Certificate& certificate) {
    return certificate.file().filename() == name || certificate.file().stem() == name;
  });
  return found == _certificates.end() ? nullptr : &*found;
}

EVP_PKEY* CertificateFolder::keyOf(const Certificate& certificate) const {
  const auto found = std::find_if(_keys.begin(), _keys.end(), [&](const Key& key) {
    return X509_check_private_key(certificate.get(), key.key.get()) == 1;
  });
  ERR_clear_error();
  return found == _keys.end() ? nullptr : found->key.get();
}

std::string CertificateFolder::missingKeyText(const Certificate& certificate) const {
  const auto stem = certificate.file().stem();
  for (const Key& key : _keys) {
    if (key.file.stem() == stem)
      return "the private key " + key.file.string() + " does not belong to the certificate " +
             certificate.file().string();
  }
  return "there is no private key for the certificate " + certificate.file().string();
}

std::vector<X509*> CertificateFolder::issuersOf(const Certificate& certificate) const {
  std::vector<X509*> chain;
  for (X509* last = certificate.get(); chain.size() < MaxChain;) {
    if (X509_check_issued(last, last) == X509_V_OK) break;
    const auto issuer = std::find_if(_certificates.begin(), _certificates.end(), [&](const Certificate& candidate) {
      return X509_check_issued(candidate.get(), last) == X509_V_OK;
    });
    if (issuer == _certificates.end()) break;
    last = issuer->get();
    chain.push_back(last);
  }
  return chain;
}

Identity CertificateFolder::identity(const std::string& name) const {
  const Certificate* certificate = find(name);
  if (certificate == nullptr) {
    std::string text = "there is no certificate '" + name + "' in " + (_folder / "certs").string();
    for (const std::string& fault : _faults) text += "; " + fault;
    throw TlsFault(text);
  }
  const std::string validityFault = validityFaultOf(certificate->get());
  if (!validityFault.empty()) throw TlsFault("the certificate " + certificate->file().string() + " " + validityFault);
  EVP_PKEY* key = keyOf(*certificate);
  if (key == nullptr) {
    std::string text = missingKeyText(*certificate);
    for (const std::string& fault : _faults) text += "; " + fault;
    throw TlsFault(text);
  }
  return {certificate->get(), key, issuersOf(*certificate)};
}

}  // namespace NodeTls
