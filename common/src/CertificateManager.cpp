#include "CertificateManager.h"

#include "Enduring.h"

namespace Vela {

CertificateManager& CertificateManager::getInstance() {
  static const Enduring<CertificateManager> instance;
  return *instance;
}

void CertificateManager::setTarnConfigDir(const std::string& directory) { _directory = directory; }

}  // namespace Vela
