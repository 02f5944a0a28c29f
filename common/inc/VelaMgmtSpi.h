/**
 * C structures between a host (the management framework) and the components that it loads: the interface portal, the
 * component description and the life-cycle entries. Only plain C types cross this boundary, so that host and component
 * can be built apart from each other.
 */
#ifndef VELA_MGMT_SPI_H
#define VELA_MGMT_SPI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Result of a framework call: 0 is success, everything else a failure. */
typedef int32_t VelaReturnT;

enum {
  VELA_OK = 0,
  VELA_ERROR = -1,        /**< unspecified failure */
  VELA_NOT_FOUND = -2,    /**< no such interface, object or attribute */
  VELA_INVALID = -3,      /**< an argument or value is malformed or of the wrong type */
  VELA_EXISTS = -4,       /**< the thing to be made is there already */
  VELA_TIMEOUT = -5,      /**< a lock was not granted in time */
  VELA_NOT_AUTHENTIC = -6 /**< stored cipher text or a key is damaged or not this node's */
};

/** Why the framework starts or stops a component. */
typedef enum VelaStateChangeReason {
  VelaStateChangeActivate = 1,
  VelaStateChangeDeactivate = 2,
  VelaStateChangeFailover = 3,
  VelaStateChangeSwitchover = 4
} VelaStateChangeReason;

/** Names an interface. A null string stands for "any". */
typedef struct VelaMgmtSpiInterface_1 {
  const char* componentName;
  const char* interfaceName;
  const char* interfaceVersion;
} VelaMgmtSpiInterface_1;

/** A component as it describes itself to the portal. The component keeps the structure alive while registered. */
typedef struct VelaMgmtSpiComponent_1T {
  const char* componentName;
  VelaMgmtSpiInterface_1 componentInterface;          /**< the component's own interface; its component name is null */
  const VelaMgmtSpiInterface_1* const* offered;       /**< null-terminated */
  const VelaMgmtSpiInterface_1* const* dependencies;  /**< null-terminated */
  VelaReturnT (*start)(VelaStateChangeReason reason); /**< called on the framework's life-cycle thread */
  VelaReturnT (*stop)(VelaStateChangeReason reason);  /**< called on the framework's life-cycle thread */
} VelaMgmtSpiComponent_1T;

/** The framework's interface portal. Every entry may be called from any thread. */
typedef struct VelaMgmtSpiInterfacePortal_1T {
  const char* (*getVersion)(void);       /**< "1" */
  const char* (*getHostName)(void);      /**< name of the host process, for logs */
  const char* (*getHostDirectory)(void); /**< absolute path of the folder that holds the host's state */
  /** Yields the table of function pointers of an interface; null strings match anything. VELA_NOT_FOUND if none. */
  VelaReturnT (*getInterface)(const char* componentName, const char* interfaceName, const char* interfaceVersion,
                              void** interfaceOut);
  VelaReturnT (*releaseInterface)(void* interfacePtr);
  VelaReturnT (*registerComponent)(const VelaMgmtSpiComponent_1T* component);
  VelaReturnT (*unregisterComponent)(const VelaMgmtSpiComponent_1T* component);
} VelaMgmtSpiInterfacePortal_1T;

/** What the framework hands to a component's init entry. */
typedef struct VelaMgmtSpiInterfacePortalAccessor {
  /** Yields the portal of the given version ("1"), or null. */
  VelaMgmtSpiInterfacePortal_1T* (*getPortal)(const char* version);
} VelaMgmtSpiInterfacePortalAccessor;

#ifdef __cplusplus
}
#endif
#endif
