#include "DtlsContext.h"

#include "NetSnmp.h"

#include <openssl/err.h>

#include <chrono>
#include <map>
#include <set>
#include <sstream>

#include "CertificateMap.h"
#include "DtlsSession.h"

namespace SnmpdPlugin {

namespace {

using NodeTls::TlsFault;

std::map<std::string, std::shared_ptr<DtlsContext>>& contexts() {
  // Never destroyed: snmpd closes its sessions while it exits.
  static auto* const map = new std::map<std::string, std::shared_ptr<DtlsContext>>;
  return *map;
}

std::string fallback;

constexpr std::chrono::seconds BetweenLooks{1};
std::shared_ptr<const NodeTls::CertificateFolder> current; /**< null: to be read */
std::string currentStamp;
std::chrono::steady_clock::time_point lastLook;

std::filesystem::path folderPath() {
  // Where the library looks for certificates, too.
  const char* path = netsnmp_getenv("SNMPCONFPATH");
  std::istringstream folders(path != nullptr ? path : get_configuration_directory());
  std::string folder;
  while (std::getline(folders, folder, ENV_SEPARATOR_CHAR))
    if (std::filesystem::is_directory(folder + "/tls")) break;
  return folder + "/tls";
}

/** Differs when a file of the folder was added, removed or written. */
std::string stampOf(const std::filesystem::path& folder) {
  std::set<std::string> files;
  std::error_code error;
  for (const char* kind : {"certs", "private", "crls"}) {
    for (const auto& entry : std::filesystem::directory_iterator(folder / kind, error)) {
      const auto written = entry.last_write_time(error).time_since_epoch().count();
      files.insert(entry.path().string() + " " + std::to_string(written) + " " +
                   std::to_string(entry.file_size(error)));
    }
  }
  std::string stamp = folder.string();
  for (const std::string& file : files) stamp += "\n" + file;
  return stamp;
}

std::string setting(int which) {
  const char* value = netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, which);
  return value == nullptr ? "" : value;
}

std::string libraryReason() {
  const unsigned long error = ERR_peek_last_error();
  const char* reason = ERR_reason_error_string(error);
  ERR_clear_error();
  return reason == nullptr ? "unknown reason" : reason;
}

void present(SSL_CTX* context, const NodeTls::Identity& identity, const std::string& name) {
  bool isUsable =
      SSL_CTX_use_certificate(context, identity.certificate) == 1 && SSL_CTX_use_PrivateKey(context, identity.key) == 1;
  for (X509* issuer : identity.issuers) isUsable = isUsable && SSL_CTX_add1_chain_cert(context, issuer) == 1;
  if (!isUsable) throw TlsFault("the certificate '" + name + "' cannot be used: " + libraryReason());
}

}  // namespace

std::shared_ptr<DtlsContext> DtlsContext::get(const std::string& certificate) {
  std::string name = certificate.empty() ? setting(NETSNMP_DS_LIB_TLS_LOCAL_CERT) : certificate;
  if (name.empty()) name = fallback;
  if (name.empty()) throw TlsFault("the node has no certificate that can be used");
  onFile();
  auto& context = contexts()[name];
  if (!context) context = std::shared_ptr<DtlsContext>(new DtlsContext(name));
  return context;
}

void DtlsContext::setFallback(const std::string& certificate) { fallback = certificate; }

void DtlsContext::forgetAll() {
  contexts().clear();
  current.reset();
}

NodeTls::CertificateFolder DtlsContext::readFolder() { return NodeTls::CertificateFolder(folderPath()); }

std::shared_ptr<const NodeTls::CertificateFolder> DtlsContext::onFile() {
  const auto now = std::chrono::steady_clock::now();
  if (current && now - lastLook < BetweenLooks) return current;
  lastLook = now;
  const auto path = folderPath();
  const std::string stamp = stampOf(path);
  if (current && stamp == currentStamp) return current;
  current = std::make_shared<const NodeTls::CertificateFolder>(path);
  if (stamp == currentStamp) return current;
  const bool isFirst = currentStamp.empty();
  currentStamp = stamp;
  contexts().clear();
  for (const std::string& fault : current->revocationFaults())
    snmp_log(LOG_WARNING, "vela_snmpd_plugin: %s\n", fault.c_str());
  if (!isFirst) CertificateMap::changed();
  return current;
}

DtlsContext::DtlsContext(const std::string& certificate) : _folder(onFile()), _context(SSL_CTX_new(DTLS_method())) {
  if (!_context) throw TlsFault("DTLS is not to be had: " + libraryReason());
  SSL_CTX_set_min_proto_version(_context.get(), DTLS1_2_VERSION);
  SSL_CTX_set_options(_context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET | SSL_OP_NO_QUERY_MTU);
  SSL_CTX_set_session_cache_mode(_context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_read_ahead(_context.get(), 1);
  present(_context.get(), _folder->identity(certificate), certificate);
  const std::string ciphers = setting(NETSNMP_DS_LIB_TLS_ALGORITMS);
  if (!ciphers.empty() && SSL_CTX_set_cipher_list(_context.get(), ciphers.c_str()) != 1)
    throw TlsFault("the cipher filter '" + ciphers + "' cannot be used: " + libraryReason());
  DtlsSession::prepare(_context.get());
}

}  // namespace SnmpdPlugin
