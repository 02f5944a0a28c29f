#ifndef VELA_NODE_MO_CHANGE_H
#define VELA_NODE_MO_CHANGE_H

#include <string>
#include <vector>

#include "DaxOamSpiCmEvent.h"

namespace VelaNode {

/** What one committed transaction did to one object. */
struct MoChange {
  int eventType = DAX_CM_EVENT_MODIFIED; /**< DAX_CM_EVENT_... */
  std::string dn;
  std::vector<const char*> attributes; /**< names of the changed attributes (modified only); they live for ever */
};

/** The changes of one committed transaction, in the order in which the objects were first touched. */
using MoChanges = std::vector<MoChange>;

}  // namespace VelaNode
#endif
