#include "CertificateManager.h"

namespace Vela {

CertificateManager& CertificateManager::getInstance() {
  static CertificateManager instance;
  return instance;
}

void CertificateManager::setTarnConfigDir(const std::string& directory) { _directory = directory; }

}  // namespace Vela
