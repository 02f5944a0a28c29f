#ifndef VELA_NODE_NODE_H
#define VELA_NODE_NODE_H

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include <filesystem>
#include <string>

#include "control/ControlCommands.h"
#include "control/ControlServer.h"
#include "fault/FmService.h"
#include "fault/ListRebuiltNotice.h"
#include "framework/NodeServices.h"
#include "host/AdaptorStateWatch.h"
#include "host/ComponentHost.h"
#include "host/NodeFolder.h"
#include "host/NodeOptions.h"
#include "model/ModelFile.h"

namespace VelaNode {

/** A running node: the framework's services, the control socket and the SNMP component on them. */
class Node {
 public:
  /** Reads the folder's model. Throws Vela::VelaException. */
  Node(const NodeFolder& folder, const NodeOptions& options);
  ~Node(); /**< stops */
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  /** Starts everything, the component last. Throws Vela::VelaException. */
  void start(const std::filesystem::path& componentLibrary);
  void reopenLog();
  /** Stops everything, the component first. */
  void stop();

 private:
  /** Ends what a node that was killed on this folder left running. */
  void cleanUp();
  Poco::JSON::Object::Ptr getStatus();
  Poco::JSON::Object getTarget(const MoObject& target) const;
  Poco::JSON::Array::Ptr getTargets(const MoTree& tree, const MoObjectPtr& snmp) const;

  const NodeFolder& _folder;
  const ModelFile _model;
  NodeServices _services;
  ListRebuiltNotice _listRebuilt{_services.getStore(), _services.getRouter()};
  AdaptorStateWatch _adaptorState{_services.getLog()};
  FmService _fm{_services.getStore(), _services.getRouter()};
  ComponentHost _component{_services.getPortal()};
  ControlCommands _commands;
  ControlServer _control;
};

}  // namespace VelaNode
#endif
