#include "FmSnmpCM.h"

#include <cassert>
#include <exception>
#include <stdexcept>

#include "Enduring.h"
#include "FmSnmp.h"
#include "LoggingWrapper.h"
#include "Portal.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {
constexpr const char* PortalVersion = "1";
}

FmSnmpCM& FmSnmpCM::getInstance() {
  static const Vela::Enduring<FmSnmpCM> instance;
  return *instance;
}

VelaReturnT FmSnmpCM::velaLCMinit(const VelaMgmtSpiInterfacePortalAccessor* accessor, const char* configurationFile) {
  VELA_TRACE(" >> ");
  try {
    return initialize(accessor, configurationFile);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogWarning, "Exception caught during initialization of Fm Snmp Component: %s ", ex.what());
    return -1;
  }
}

VelaReturnT FmSnmpCM::initialize(const VelaMgmtSpiInterfacePortalAccessor* accessor, const char* configurationFile) {
  VelaMgmtSpiInterfacePortal_1T* portal = accessor ? accessor->getPortal(PortalVersion) : nullptr;
  if (!portal) throw Vela::VelaException("there is no interface portal of version %s", PortalVersion);
  _portal = portal;
  Vela::Portal::set(portal);

  FmSnmp& component = FmSnmp::getInstance();
  VelaReturnT result = portal->registerComponent(component.getComponent());
  if (result != VELA_OK) {
    VELA_LOG(Vela::LogWarning, "Could not register the Fm Snmp Component.");
    return result;
  }
  // The text that a string made of null has with some versions of the standard library only.
  if (!configurationFile) throw std::logic_error("basic_string::_M_construct null not valid");
  result = loadConfiguration(configurationFile);
  if (result != VELA_OK) {
    VELA_LOG(Vela::LogWarning, "Could not load the configuration for Fm Snmp Component.");
    return result;
  }
  component.setConfigurationHandler(&_configurationHandler);
  VELA_TRACE("Register component returned %d\n", result);
  VELA_TRACE(" << %d", result);
  return result;
}

int FmSnmpCM::loadConfiguration(const std::string& fileName) {
  VELA_TRACE(" >> %s", fileName.c_str());
  int result = _configurationHandler.load(fileName);
  if (result != 0) {
    VELA_LOG(Vela::LogWarning, "Failed to load components configuration! (%d)", result);
    result = -1;
  } else {
    VELA_TRACE("Fm Snmp configuration read");
  }
  _configurationHandler.unload();
  VELA_TRACE(" << %d", result);
  return result;
}

void FmSnmpCM::velaLCMterminate() {
  VELA_TRACE(" >> ");
  if (!_portal) {
    VELA_LOG(Vela::LogWarning, "Fm Snmp Component has not been initialized.");
    return;
  }
  if (_portal->unregisterComponent(FmSnmp::getInstance().getComponent()) != VELA_OK) {
    VELA_LOG(Vela::LogWarning, "Could not unregister the Fm Snmp Component.");
  }
  VELA_TRACE(" << ");
}

VelaMgmtSpiInterfacePortal_1T& FmSnmpCM::getPortal() {
  VelaMgmtSpiInterfacePortal_1T* portal = _portal;
  assert(portal);
  return *portal;
}

void* FmSnmpCM::getInterface(const VelaMgmtSpiInterface_1& identifier) {
  VELA_TRACE(" >> Try to get interface %s", identifier.componentName ? identifier.componentName : "");
  void* interface = nullptr;
  const VelaReturnT result = getPortal().getInterface(identifier.componentName, identifier.interfaceName,
                                                      identifier.interfaceVersion, &interface);
  VELA_TRACE(" << ");
  return result == VELA_OK ? interface : nullptr;
}

}  // namespace VelaFmSnmp
