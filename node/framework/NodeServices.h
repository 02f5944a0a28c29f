#ifndef VELA_NODE_NODE_SERVICES_H
#define VELA_NODE_NODE_SERVICES_H

#include <string>

#include "framework/EventRouter.h"
#include "framework/HostLog.h"
#include "framework/HostPortal.h"
#include "framework/ManagedObjectService.h"
#include "model/MoStore.h"

namespace VelaNode {

/**
 * The framework of one process: log and trace, event router, managed-object store and the portal that offers them. The
 * store's changes go to the router. One at a time per process; the next may follow when the last is gone.
 */
class NodeServices {
 public:
  explicit NodeServices(const std::string& hostName = "vela-node", const std::string& hostDirectory = "/");
  ~NodeServices();
  NodeServices(const NodeServices&) = delete;
  NodeServices& operator=(const NodeServices&) = delete;

  HostLog& getLog() { return _log; }
  EventRouter& getRouter() { return _router; }
  MoStore& getStore() { return _store; }
  ManagedObjectService& getManagedObjectService() { return _managedObjects; }
  HostPortal& getPortal() { return _portal; }

 private:
  HostLog _log;
  EventRouter _router{&_log};
  MoStore _store;
  ManagedObjectService _managedObjects{_store};
  HostPortal _portal;
};

}  // namespace VelaNode
#endif
