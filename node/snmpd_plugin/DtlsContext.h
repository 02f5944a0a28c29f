#ifndef SNMPD_PLUGIN_DTLS_CONTEXT_H
#define SNMPD_PLUGIN_DTLS_CONTEXT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "CertificateFolder.h"

namespace SnmpdPlugin {

/**
 * What DTLS associations with one certificate of the node have in common: certificate and key, the ciphers, and the
 * certificates on file. Lives as long as an association uses it.
 */
class DtlsContext {
 public:
  /**
   * The context of a certificate, named as CertificateFolder::find takes it; an empty name is the node's default one.
   * Made when first asked for; one that could be made is kept until forgetAll. Throws NodeTls::TlsFault.
   */
  static std::shared_ptr<DtlsContext> get(const std::string& certificate);
  /** Names the node's default certificate in case that the agent's configuration names none. */
  static void setFallback(const std::string& certificate);
  /** Makes what is asked for next read the files again. */
  static void forgetAll();
  /**
   * The node's folder of certificates as it was last read; read again when its files changed, which is looked for once
   * a second and counts as a change of CertificateMap.
   */
  static std::shared_ptr<const NodeTls::CertificateFolder> onFile();
  /** The node's folder of certificates, as it is now. */
  static NodeTls::CertificateFolder readFolder();

  SSL_CTX* ssl() const { return _context.get(); }

 private:
  struct ContextDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };

  explicit DtlsContext(const std::string& certificate);

  std::shared_ptr<const NodeTls::CertificateFolder> _folder; /**< owns what the context presents */
  std::unique_ptr<SSL_CTX, ContextDeleter> _context;
};

}  // namespace SnmpdPlugin
#endif
