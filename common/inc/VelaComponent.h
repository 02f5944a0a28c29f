/** The entry points of a component's library, as the host finds them by name. */
#ifndef VELA_COMPONENT_H
#define VELA_COMPONENT_H

#include "VelaMgmtSpi.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The two entry points that a component's library exports; nothing else of it is visible. The host calls both on its
 * life-cycle thread.
 */
#define VELA_COMPONENT_INIT "velaLCMinit"
#define VELA_COMPONENT_TERMINATE "velaLCMterminate"
/** Makes the component register itself and read its configuration file. VELA_OK, or the reason for which it can not be
    started; it stays registered when only the file was at fault, until it is terminated. */
typedef VelaReturnT (*VelaComponentInitT)(const VelaMgmtSpiInterfacePortalAccessor* accessor,
                                          const char* configurationFile);
/** Makes the component, which is stopped, unregister itself. The library must stay loaded. */
typedef void (*VelaComponentTerminateT)(void);

#ifdef __cplusplus
}
#endif
#endif
