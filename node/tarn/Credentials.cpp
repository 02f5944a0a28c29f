#include "Credentials.h"

#include <CertificateFolder.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>

#include "Failure.h"
#include "Files.h"

namespace Tarn {

namespace {

using NodeTls::Certificate;
using NodeTls::LibraryPtr;

constexpr const char* OwnCertificate = "node.crt";
constexpr const char* OwnKey = "node.key";
constexpr const char* Curve = "P-256";
constexpr long ValidSeconds = 10L * 365 * 24 * 3600;
/** For peers whose clock is a little behind. */
constexpr long BackdatedSeconds = 3600;
constexpr size_t SerialOctets = 8;
constexpr size_t MaxCommonName = 64;  // RFC 5280, ub-common-name

/** What the certificate is for: either end of an association. */
constexpr struct {
  int id;
  const char* value;
} Extensions[] = {{NID_basic_constraints, "critical,CA:FALSE"},
                  {NID_key_usage, "critical,digitalSignature"},
                  {NID_ext_key_usage, "serverAuth,clientAuth"},
                  {NID_subject_key_identifier, "hash"}};

void ensure(bool isDone) {
  if (!isDone) throw Failure("a certificate cannot be made");
}

std::string hostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) return "node";
  const std::string text = name.data();
  const bool isUsable = !text.empty() && text.size() <= MaxCommonName &&
                        std::all_of(text.begin(), text.end(),
                                    [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '.'; });
  return isUsable ? text : "node";
}

void addExtension(X509* certificate, int id, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, id, value.c_str());
  const bool isAdded = extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  ensure(isAdded);
}

LibraryPtr<X509> makeCertificate(EVP_PKEY* key, const std::string& name) {
  constexpr long Version3 = 2;
  LibraryPtr<X509> certificate(X509_new());
  ensure(certificate != nullptr);
  std::array<unsigned char, SerialOctets> serial{};
  ensure(RAND_bytes(serial.data(), static_cast<int>(serial.size())) == 1);
  // A positive number of all its octets.
  serial.front() = static_cast<unsigned char>((serial.front() & 0x7f) | 0x40);
  BIGNUM* number = BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr);
  const bool hasSerial = BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate.get())) != nullptr;
  BN_free(number);
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  ensure(hasSerial && X509_set_version(certificate.get(), Version3) == 1 &&
         X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -BackdatedSeconds) != nullptr &&
         X509_gmtime_adj(X509_getm_notAfter(certificate.get()), ValidSeconds) != nullptr &&
         X509_set_pubkey(certificate.get(), key) == 1 &&
         X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(name.data()), static_cast<int>(name.size()),
                                    -1, 0) == 1 &&
         X509_set_issuer_name(certificate.get(), subject) == 1);
  for (const auto& extension : Extensions) addExtension(certificate.get(), extension.id, extension.value);
  addExtension(certificate.get(), NID_subject_alt_name, "DNS:" + name);
  ensure(X509_sign(certificate.get(), key, EVP_sha256()) > 0);
  return certificate;
}

/** What the library writes to a memory as PEM. */
template <class Write>
std::string pemOf(Write write) {
  const LibraryPtr<BIO> out(BIO_new(BIO_s_mem()));
  ensure(out && write(out.get()) == 1);
  char* text = nullptr;
  const long length = BIO_get_mem_data(out.get(), &text);
  return {text, static_cast<size_t>(length)};
}

std::string toPem(const X509* certificate) {
  return pemOf([certificate](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

}  // namespace

std::string Credentials::init() const {
  const auto file = _folder.certificates() / OwnCertificate;
  try {
    if (std::filesystem::exists(file)) {
      const NodeTls::CertificateFolder folder(_folder.tls());
      return NodeTls::nodeFingerprintOf(folder.identity(OwnCertificate).certificate);
    }
  } catch (const NodeTls::TlsFault& fault) {
    throw Failure(fault.what());
  }
  const LibraryPtr<EVP_PKEY> key(EVP_EC_gen(Curve));
  ensure(key != nullptr);
  const LibraryPtr<X509> certificate = makeCertificate(key.get(), hostName());
  // The key comes first: a certificate without its key would be a fault to whoever looks meanwhile.
  writePrivateFile(_folder.privateKeys() / OwnKey, pemOf([&key](BIO* out) {
                     return PEM_write_bio_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
                   }));
  writePrivateFile(file, toPem(certificate.get()));
  return NodeTls::nodeFingerprintOf(certificate.get());
}

std::string Credentials::add(const std::filesystem::path& file) const {
  try {
    const Certificate certificate = Certificate::read(file);
    std::string fingerprint = NodeTls::nodeFingerprintOf(certificate.get());
    writePrivateFile(_folder.certificates() / (fingerprint + ".crt"), toPem(certificate.get()));
    return fingerprint;
  } catch (const NodeTls::TlsFault& fault) {
    throw Failure(fault.what());
  }
}

std::string Credentials::show() const {
  const NodeTls::CertificateFolder folder(_folder.tls());
  std::string text;
  for (const Certificate& certificate : folder.certificates()) {
    std::string fault = NodeTls::validityFaultOf(certificate.get());
    if (fault.empty()) fault = folder.revocationOf(certificate.get());
    text += NodeTls::nodeFingerprintOf(certificate.get()) + "  " + certificate.file().filename().string() + "  " +
            (folder.hasKey(certificate) ? "with key" : "no key") + "  " +
            (fault.empty() ? "valid until " + NodeTls::validUntil(certificate.get()) : fault) + "  " +
            NodeTls::subjectOf(certificate.get()) + "\n";
  }
  for (const auto* faults : {&folder.faults(), &folder.revocationFaults()})
    for (const std::string& fault : *faults) text += fault + "\n";
  return text;
}

}  // namespace Tarn
