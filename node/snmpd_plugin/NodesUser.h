#ifndef SNMPD_PLUGIN_NODES_USER_H
#define SNMPD_PLUGIN_NODES_USER_H

#include "NetSnmp.h"

namespace SnmpdPlugin {

/** Whether a request is the node's own user's, who configures the agent: authenticated and encrypted, at this engine.
 */
bool isNodesUser(const netsnmp_pdu& pdu);

}  // namespace SnmpdPlugin
#endif
