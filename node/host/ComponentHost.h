#ifndef VELA_NODE_COMPONENT_HOST_H
#define VELA_NODE_COMPONENT_HOST_H

#include <atomic>
#include <string>

#include "VelaMgmtSpi.h"
#include "framework/HostPortal.h"

namespace VelaNode {

/**
 * Loads one component from its shared library and leads it through its life. All operations on one thread (the
 * framework's life-cycle thread), but for getState.
 */
class ComponentHost {
 public:
  enum State { Unloaded, Initialised, Started, Stopping, Stopped };

  explicit ComponentHost(HostPortal& portal) : _portal(portal) {}
  ~ComponentHost(); /**< stops and terminates */
  ComponentHost(const ComponentHost&) = delete;
  ComponentHost& operator=(const ComponentHost&) = delete;

  /** Loads the library and has the component register itself. The accessor and the configuration's name are what the
      component's init entry gets. Throws Vela::VelaException; the component is terminated then. */
  void load(const std::string& libraryPath, VelaMgmtSpiInterfacePortalAccessor* accessor,
            const std::string& configurationFile);
  /** Calls the component's start entry. Throws Vela::VelaException; the component's stop entry was called then, since
      it may have started in part. */
  void start();
  /** Calls the component's stop entry if it is started, and its terminate entry. */
  void stop();

  State getState() const { return _state; }
  /** "unloaded", "initialised", "started", "stopping", "stopped". */
  static const char* getStateName(State state);

 private:
  void terminate();

  HostPortal& _portal;
  std::atomic<State> _state{Unloaded};
  const VelaMgmtSpiComponent_1T* _component = nullptr;
  void (*_terminate)() = nullptr;
};

}  // namespace VelaNode
#endif
