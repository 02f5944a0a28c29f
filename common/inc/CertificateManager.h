#ifndef VELA_CERTIFICATE_MANAGER_H
#define VELA_CERTIFICATE_MANAGER_H

#include <string>
#include <vector>

namespace Vela {

/**
 * Knows where the management tool keeps the TLS material of the master agent.
 * The adaptor thread only.
 */
class CertificateManager {
 public:
  static CertificateManager& getInstance();

  /** Folder of the tool's SNMP configuration ("<no-backup>/etc/snmp"); empty: DTLS is not supported, forget it. */
  void setTarnConfigDir(const std::string& directory);
  const std::string& getTarnConfigDir() const { return _directory; }

 private:
  std::string _directory;
};

}  // namespace Vela
#endif
