#ifndef VELA_PORTAL_H
#define VELA_PORTAL_H

#include "VelaMgmtSpi.h"

namespace Vela {

/**
 * The framework's portal as the framework library's classes see it. Set once by the component's init entry, before
 * any other thread uses the library; reading is thread-safe after that.
 */
class Portal {
 public:
  /** Stores the portal and hooks the log and trace wrapper up with it. Null takes both away. */
  static void set(VelaMgmtSpiInterfacePortal_1T* portal);
  static VelaMgmtSpiInterfacePortal_1T* get();
  /** Looks an interface up; null arguments match anything. Null if there is no portal or no such interface. */
  static void* getInterface(const char* componentName, const char* interfaceName, const char* interfaceVersion);
};

}  // namespace Vela
#endif
