#include "framework/NodeServices.h"

namespace VelaNode {

NodeServices::NodeServices(const std::string& hostName, const std::string& hostDirectory)
    : _portal(hostName, hostDirectory) {
  _store.setListener([this](const std::shared_ptr<const MoChanges>& changes) { _router.postChanges(changes); });
  _portal.addInterface("", VELA_LOG_INTERFACE, VELA_LOG_VERSION, HostLog::getLogTable());
  _portal.addInterface("", DAX_TRACE_INTERFACE, "", HostLog::getTraceTable());
  _portal.addInterface(VELA_EVENT_ROUTER_COMPONENT, VELA_EVENT_ROUTER_INTERFACE, VELA_EVENT_ROUTER_VERSION,
                       EventRouter::getTable());
  _portal.addInterface(VELA_MO_COMPONENT, VELA_MO_INTERFACE, VELA_MO_VERSION, ManagedObjectService::getTable());
}

NodeServices::~NodeServices() = default;

}  // namespace VelaNode
