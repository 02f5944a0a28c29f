#include "framework/HostPortal.h"

#include <algorithm>
#include <cstring>

namespace VelaNode {

namespace {

constexpr const char* PortalVersion = "1";

/** Null and the empty text stand for "any" on either side. */
bool matches(const char* wanted, const char* offered) {
  if (wanted == nullptr || *wanted == '\0' || offered == nullptr || *offered == '\0') return true;
  return std::strcmp(wanted, offered) == 0;
}

std::string show(const char* text) { return text == nullptr ? "any" : "\"" + std::string(text) + "\""; }

template <class Result, class Operation>
Result withPortal(Result otherwise, const Operation& operation) {
  HostPortal* const portal = CurrentInstance<HostPortal>::get();
  return portal == nullptr ? otherwise : operation(*portal);
}

const char* version() { return PortalVersion; }
const char* hostName() {
  return withPortal<const char*>("", [](const HostPortal& portal) { return portal.getHostName().c_str(); });
}
const char* hostDirectory() {
  return withPortal<const char*>("", [](const HostPortal& portal) { return portal.getHostDirectory().c_str(); });
}
VelaReturnT interfaceOf(const char* component, const char* name, const char* wantedVersion, void** out) {
  return withPortal<VelaReturnT>(
      VELA_ERROR, [&](const HostPortal& portal) { return portal.getInterface(component, name, wantedVersion, out); });
}
VelaReturnT release(void* table) {
  return withPortal<VelaReturnT>(VELA_ERROR, [&](const HostPortal& portal) { return portal.releaseInterface(table); });
}
VelaReturnT registerOne(const VelaMgmtSpiComponent_1T* component) {
  return withPortal<VelaReturnT>(VELA_ERROR, [&](HostPortal& portal) { return portal.registerComponent(component); });
}
VelaReturnT unregisterOne(const VelaMgmtSpiComponent_1T* component) {
  return withPortal<VelaReturnT>(VELA_ERROR, [&](HostPortal& portal) { return portal.unregisterComponent(component); });
}

VelaMgmtSpiInterfacePortal_1T* portalOf(const char* wantedVersion) {
  const bool isOurs = wantedVersion != nullptr && std::strcmp(wantedVersion, PortalVersion) == 0;
  return isOurs ? HostPortal::getTable() : nullptr;
}

}  // namespace

HostPortal::HostPortal(std::string hostName, std::string hostDirectory)
    : _hostName(std::move(hostName)), _hostDirectory(std::move(hostDirectory)) {}

VelaMgmtSpiInterfacePortal_1T* HostPortal::getTable() {
  static VelaMgmtSpiInterfacePortal_1T table = {&version, &hostName,    &hostDirectory, &interfaceOf,
                                                &release, &registerOne, &unregisterOne};
  return &table;
}

VelaMgmtSpiInterfacePortalAccessor* HostPortal::getAccessor() {
  static VelaMgmtSpiInterfacePortalAccessor accessor = {&portalOf};
  return &accessor;
}

void HostPortal::addInterface(std::string component, std::string name, std::string version, const void* table) {
  const std::lock_guard lock(_mutex);
  _offers.push_back({std::move(component), std::move(name), std::move(version), table});
}

const HostPortal::Offer* HostPortal::findOffer(const char* component, const char* name, const char* version) const {
  const auto found = std::ranges::find_if(_offers, [&](const Offer& offer) {
    return matches(component, offer.component.c_str()) && matches(name, offer.name.c_str()) &&
           matches(version, offer.version.c_str());
  });
  return found == _offers.end() ? nullptr : &*found;
}

VelaReturnT HostPortal::getInterface(const char* component, const char* name, const char* version,
                                     void** interfaceOut) const {
  if (interfaceOut == nullptr) return VELA_INVALID;
  const std::lock_guard lock(_mutex);
  const Offer* const offer = findOffer(component, name, version);
  if (offer == nullptr) return VELA_NOT_FOUND;
  *interfaceOut = const_cast<void*>(offer->table);
  return VELA_OK;
}

VelaReturnT HostPortal::releaseInterface(const void* table) const {
  const std::lock_guard lock(_mutex);
  const bool isKnown = std::ranges::find(_offers, table, &Offer::table) != _offers.end();
  return isKnown ? VELA_OK : VELA_NOT_FOUND;
}

bool HostPortal::isOffered(const VelaMgmtSpiInterface_1& wanted) const {
  if (findOffer(wanted.componentName, wanted.interfaceName, wanted.interfaceVersion) != nullptr) return true;
  return std::ranges::any_of(_components, [&wanted](const VelaMgmtSpiComponent_1T* component) {
    if (!matches(wanted.componentName, component->componentName)) return false;
    for (const auto* offered = component->offered; offered != nullptr && *offered != nullptr; ++offered) {
      if (matches(wanted.interfaceName, (*offered)->interfaceName) &&
          matches(wanted.interfaceVersion, (*offered)->interfaceVersion)) {
        return true;
      }
    }
    return false;
  });
}

VelaReturnT HostPortal::fail(VelaReturnT code, std::string text) {
  _errorText = std::move(text);
  return code;
}

VelaReturnT HostPortal::registerComponent(const VelaMgmtSpiComponent_1T* component) {
  const std::lock_guard lock(_mutex);
  if (component == nullptr || component->componentName == nullptr || *component->componentName == '\0') {
    return fail(VELA_INVALID, "A component without a name cannot be registered");
  }
  const std::string name = component->componentName;
  if (component->start == nullptr || component->stop == nullptr) {
    return fail(VELA_INVALID, "Component " + name + " has no start or no stop entry");
  }
  const auto isSame = [&name](const VelaMgmtSpiComponent_1T* other) { return name == other->componentName; };
  if (std::ranges::any_of(_components, isSame)) {
    return fail(VELA_EXISTS, "Component " + name + " is registered already");
  }
  for (const auto* wanted = component->dependencies; wanted != nullptr && *wanted != nullptr; ++wanted) {
    if (isOffered(**wanted)) continue;
    return fail(VELA_NOT_FOUND, "Component " + name + " needs an interface that nobody offers: component " +
                                    show((*wanted)->componentName) + ", interface " + show((*wanted)->interfaceName) +
                                    ", version " + show((*wanted)->interfaceVersion));
  }
  _components.push_back(component);
  return VELA_OK;
}

VelaReturnT HostPortal::unregisterComponent(const VelaMgmtSpiComponent_1T* component) {
  const std::lock_guard lock(_mutex);
  const auto found = std::ranges::find(_components, component);
  if (found == _components.end()) return fail(VELA_NOT_FOUND, "The component is not registered");
  _components.erase(found);
  return VELA_OK;
}

std::vector<const VelaMgmtSpiComponent_1T*> HostPortal::getComponents() const {
  const std::lock_guard lock(_mutex);
  return _components;
}

std::string HostPortal::getErrorText() const {
  const std::lock_guard lock(_mutex);
  return _errorText;
}

}  // namespace VelaNode
