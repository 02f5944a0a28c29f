#ifndef VELA_NODE_HOST_PORTAL_H
#define VELA_NODE_HOST_PORTAL_H

#include <mutex>
#include <string>
#include <vector>

#include "VelaMgmtSpi.h"
#include "framework/CurrentInstance.h"

namespace VelaNode {

/** The interface portal of a host process. Any thread. One at a time per process. */
class HostPortal {
 public:
  HostPortal(std::string hostName, std::string hostDirectory);

  /** The C portal (version "1") of the host portal that lives at the moment of a call; VELA_ERROR or "" when none
      does. */
  static VelaMgmtSpiInterfacePortal_1T* getTable();
  /** What is handed to a component's init entry. */
  static VelaMgmtSpiInterfacePortalAccessor* getAccessor();

  /** Offers a table of function pointers; component and version may be empty ("any" finds them). It must outlive the
      portal. */
  void addInterface(std::string component, std::string name, std::string version, const void* table);

  /** What the C portal does; see there. Registering checks that the component is described completely (VELA_INVALID),
      is not registered (VELA_EXISTS) and that each interface that it depends on is offered, by the host or by a
      registered component (VELA_NOT_FOUND). getErrorText then tells why. */
  VelaReturnT getInterface(const char* component, const char* name, const char* version, void** interfaceOut) const;
  VelaReturnT releaseInterface(const void* table) const;
  VelaReturnT registerComponent(const VelaMgmtSpiComponent_1T* component);
  VelaReturnT unregisterComponent(const VelaMgmtSpiComponent_1T* component);

  /** The registered components, in the order of registration. */
  std::vector<const VelaMgmtSpiComponent_1T*> getComponents() const;
  /** Reason of the last registration that failed. */
  std::string getErrorText() const;
  const std::string& getHostName() const { return _hostName; }
  const std::string& getHostDirectory() const { return _hostDirectory; }

 private:
  struct Offer {
    std::string component;
    std::string name;
    std::string version;
    const void* table;
  };

  const Offer* findOffer(const char* component, const char* name, const char* version) const;
  bool isOffered(const VelaMgmtSpiInterface_1& wanted) const;
  VelaReturnT fail(VelaReturnT code, std::string text);

  const std::string _hostName;
  const std::string _hostDirectory;
  mutable std::mutex _mutex;
  std::vector<Offer> _offers;
  std::vector<const VelaMgmtSpiComponent_1T*> _components;
  std::string _errorText;
  CurrentInstance<HostPortal> _current{this};
};

}  // namespace VelaNode
#endif
