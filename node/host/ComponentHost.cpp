#include "host/ComponentHost.h"

#include <dlfcn.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "VelaComponent.h"
#include "VelaException.h"

namespace VelaNode {

namespace {

void* findSymbol(void* library, const std::string& libraryPath, const char* name) {
  void* symbol = ::dlsym(library, name);
  if (symbol == nullptr) throw Vela::VelaException("%s: no symbol %s", libraryPath.c_str(), name);
  return symbol;
}

}  // namespace

ComponentHost::~ComponentHost() { stop(); }

void ComponentHost::load(const std::string& libraryPath, VelaMgmtSpiInterfacePortalAccessor* accessor,
                         const std::string& configurationFile) {
  // Never unloaded: a component may have had to abandon a thread when it was stopped.
  void* library = ::dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw Vela::VelaException("%s", ::dlerror());
  const auto init = reinterpret_cast<VelaComponentInitT>(findSymbol(library, libraryPath, VELA_COMPONENT_INIT));
  _terminate = reinterpret_cast<VelaComponentTerminateT>(findSymbol(library, libraryPath, VELA_COMPONENT_TERMINATE));

  const std::vector<const VelaMgmtSpiComponent_1T*> before = _portal.getComponents();
  const VelaReturnT result = init(accessor, configurationFile.c_str());
  const std::vector<const VelaMgmtSpiComponent_1T*> after = _portal.getComponents();
  _state = Initialised;
  const auto isNew = [&](const VelaMgmtSpiComponent_1T* component) {
    return std::find(before.begin(), before.end(), component) == before.end();
  };
  const auto found = std::find_if(after.begin(), after.end(), isNew);
  if (result != VELA_OK || found == after.end()) {
    const std::string reason = found == after.end() ? _portal.getErrorText() : "see the log";
    terminate();
    throw Vela::VelaException("%s: the component could not be initialised (%d): %s", libraryPath.c_str(), result,
                              reason.c_str());
  }
  _component = *found;
}

void ComponentHost::start() {
  if (_component == nullptr) throw Vela::VelaException("No component is loaded");
  const VelaReturnT result = _component->start(VelaStateChangeActivate);
  if (result != VELA_OK) {
    _component->stop(VelaStateChangeDeactivate);
    throw Vela::VelaException("%s: the component could not be started (%d): see the log", _component->componentName,
                              result);
  }
  _state = Started;
}

void ComponentHost::stop() {
  if (_state == Started) {
    _state = Stopping;
    _component->stop(VelaStateChangeDeactivate);
  }
  if (_state == Stopping || _state == Initialised) terminate();
}

void ComponentHost::terminate() {
  _component = nullptr;
  _terminate();
  _state = Stopped;
}

const char* ComponentHost::getStateName(State state) {
  static constexpr const char* names[] = {"unloaded", "initialised", "started", "stopping", "stopped"};
  return names[state];
}

}  // namespace VelaNode
