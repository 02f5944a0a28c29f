#include "Certificate.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cctype>

namespace NodeTls {

namespace {

constexpr size_t DigitsPerOctet = 2;

LibraryPtr<BIO> memory() { return LibraryPtr<BIO>(BIO_new(BIO_s_mem())); }

std::string textOf(BIO* bio) {
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio, &text);
  return length <= 0 ? std::string() : std::string(text, static_cast<size_t>(length));
}

}  // namespace

std::string plainFingerprint(const std::string& text) {
  std::string plain;
  for (const unsigned char c : text) {
    if (c == ':' || c == ' ') continue;
    if (std::isxdigit(c) == 0) return {};
    plain += static_cast<char>(std::tolower(c));
  }
  return plain.size() % DigitsPerOctet == 0 ? plain : std::string();
}

Certificate::Certificate(LibraryPtr<X509> certificate, std::filesystem::path file)
    : _certificate(std::move(certificate)), _fingerprints(fingerprintsOf(_certificate.get())), _file(std::move(file)) {}

Certificate Certificate::read(const std::filesystem::path& file) {
  const LibraryPtr<BIO> in(BIO_new_file(file.c_str(), "rb"));
  if (!in) {
    ERR_clear_error();
    throw TlsFault("cannot read the certificate " + file.string());
  }
  LibraryPtr<X509> certificate(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  if (!certificate && BIO_reset(in.get()) == 0) certificate.reset(d2i_X509_bio(in.get(), nullptr));
  ERR_clear_error();
  if (!certificate) throw TlsFault("there is no certificate in " + file.string());
  return {std::move(certificate), file};
}

std::string fingerprintOf(const X509* certificate, const EVP_MD* hash) {
  unsigned char octets[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (hash == nullptr || X509_digest(certificate, hash, octets, &length) != 1) return {};
  static constexpr char Digits[] = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < length; ++i) {
    text += Digits[octets[i] >> 4];
    text += Digits[octets[i] & 0xf];
  }
  return text;
}

std::string nodeFingerprintOf(const X509* certificate) { return fingerprintOf(certificate, EVP_sha1()); }

std::string libraryFingerprintOf(const X509* certificate) {
  int hash = NID_undef;
  if (OBJ_find_sigid_algs(X509_get_signature_nid(certificate), &hash, nullptr) != 1) return {};
  return fingerprintOf(certificate, EVP_get_digestbynid(hash));
}

std::vector<std::string> fingerprintsOf(const X509* certificate) {
  std::vector<std::string> found;
  for (const EVP_MD* hash : {EVP_sha1(), EVP_sha224(), EVP_sha256(), EVP_sha384(), EVP_sha512()})
    found.push_back(fingerprintOf(certificate, hash));
  return found;
}

bool hasFingerprint(const X509* certificate, const std::string& fingerprint) {
  if (fingerprint.empty()) return false;
  const auto found = fingerprintsOf(certificate);
  return std::find(found.begin(), found.end(), fingerprint) != found.end();
}

std::string subjectOf(const X509* certificate) {
  const auto out = memory();
  if (!out || X509_NAME_print_ex(out.get(), X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE) < 0) return "?";
  return textOf(out.get());
}

std::string timeText(const ASN1_TIME* time) {
  const auto out = memory();
  if (!out || ASN1_TIME_print(out.get(), time) != 1) return "?";
  return textOf(out.get());
}

std::string validityFaultOf(const X509* certificate) {
  const ASN1_TIME* begin = X509_get0_notBefore(certificate);
  const ASN1_TIME* end = X509_get0_notAfter(certificate);
  if (X509_cmp_current_time(begin) > 0) return "is not valid before " + timeText(begin);
  if (X509_cmp_current_time(end) < 0) return "has expired on " + timeText(end);
  return {};
}

std::string validUntil(const X509* certificate) { return timeText(X509_get0_notAfter(certificate)); }

}  // namespace NodeTls
