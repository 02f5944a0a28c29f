#include "Portal.h"

#include <atomic>

#include "LoggingWrapper.h"
#include "VelaMwSpiLog.h"

namespace Vela {

namespace {

std::atomic<VelaMgmtSpiInterfacePortal_1T*> currentPortal{nullptr};

}  // namespace

void Portal::set(VelaMgmtSpiInterfacePortal_1T* portal) {
  currentPortal.store(portal);
  LoggingWrapper::getInstance().setInterfaces(
      static_cast<const VelaMwSpiLog_1T*>(getInterface(nullptr, VELA_LOG_INTERFACE, VELA_LOG_VERSION)),
      static_cast<const DaxMwSpiTraceT*>(getInterface(nullptr, DAX_TRACE_INTERFACE, nullptr)));
}

VelaMgmtSpiInterfacePortal_1T* Portal::get() { return currentPortal.load(); }

void* Portal::getInterface(const char* componentName, const char* interfaceName, const char* interfaceVersion) {
  VelaMgmtSpiInterfacePortal_1T* portal = get();
  void* found = nullptr;
  if (portal == nullptr || portal->getInterface(componentName, interfaceName, interfaceVersion, &found) != VELA_OK) {
    return nullptr;
  }
  return found;
}

}  // namespace Vela
