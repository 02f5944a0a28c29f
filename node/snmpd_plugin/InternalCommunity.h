#ifndef SNMPD_PLUGIN_INTERNAL_COMMUNITY_H
#define SNMPD_PLUGIN_INTERNAL_COMMUNITY_H

#include <string>

namespace SnmpdPlugin {

/**
 * Serves the object in which the component sets the community of its own notification target. Only the node's own user
 * may set it, authenticated and encrypted, and nobody reads it. Call once, on snmpd's thread.
 */
void installInternalCommunity();

/** What the component has set; empty before. */
const std::string& internalCommunity();

}  // namespace SnmpdPlugin
#endif
