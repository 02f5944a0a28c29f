#ifndef VELA_NODE_STATUS_VIEW_H
#define VELA_NODE_STATUS_VIEW_H

#include <Poco/JSON/Object.h>

#include <string>

#include "ctl/Terminal.h"

namespace VelaNode {

/** A node's status, as the control socket tells it, for people. */
class StatusView {
 public:
  /** Within 80 columns, but for long names and addresses; all texts are visible ones. */
  static std::string format(const Poco::JSON::Object& status, const Terminal& terminal);
  /** Empty when the SNMP service and all targets that are not locked are operational; else what is not. */
  static std::string findFault(const Poco::JSON::Object& status);
};

}  // namespace VelaNode
#endif
