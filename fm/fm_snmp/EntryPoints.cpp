#include "FmSnmpCM.h"
#include "VelaMgmtSpi.h"

/** What the framework finds in the library; everything else is hidden. */
extern "C" {

__attribute__((visibility("default"))) VelaReturnT velaLCMinit(const VelaMgmtSpiInterfacePortalAccessor* accessor,
                                                               const char* configurationFile) {
  return VelaFmSnmp::FmSnmpCM::getInstance().velaLCMinit(accessor, configurationFile);
}

__attribute__((visibility("default"))) void velaLCMterminate(void) {
  VelaFmSnmp::FmSnmpCM::getInstance().velaLCMterminate();
}
}
