#ifndef VELA_FM_SNMP_FM_SNMP_CM_H
#define VELA_FM_SNMP_FM_SNMP_CM_H

#include <string>

#include "Enduring.h"
#include "SnmpConfigHandler.h"
#include "VelaMgmtSpi.h"

namespace VelaFmSnmp {

/**
 * The library's life cycle as the framework drives it: obtains the portal, registers the component and reads its
 * configuration file. Starting and stopping comes later, through the component itself. The framework's thread only.
 */
class FmSnmpCM {
 public:
  static FmSnmpCM& getInstance();
  FmSnmpCM(const FmSnmpCM&) = delete;
  FmSnmpCM& operator=(const FmSnmpCM&) = delete;

  /** 0, the portal's code when it refuses the component, or -1 after a log line. A component whose configuration cannot
      be read stays registered, but refuses to start. */
  VelaReturnT velaLCMinit(const VelaMgmtSpiInterfacePortalAccessor* accessor, const char* configurationFile);
  void velaLCMterminate();

  /** Asserts that velaLCMinit has stored a portal. */
  VelaMgmtSpiInterfacePortal_1T& getPortal();
  /** An interface of the framework, null when there is none. */
  void* getInterface(const VelaMgmtSpiInterface_1& identifier);
  /** Reads the component configuration file: 0, or -1 after a log line. */
  int loadConfiguration(const std::string& fileName);

 private:
  friend class Vela::Enduring<FmSnmpCM>;
  FmSnmpCM() = default;
  ~FmSnmpCM() = default;

  VelaReturnT initialize(const VelaMgmtSpiInterfacePortalAccessor* accessor, const char* configurationFile);

  VelaMgmtSpiInterfacePortal_1T* _portal = nullptr;
  SnmpConfigHandler _configurationHandler;
};

}  // namespace VelaFmSnmp
#endif
