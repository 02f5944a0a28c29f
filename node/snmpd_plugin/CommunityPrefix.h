#ifndef SNMPD_PLUGIN_COMMUNITY_PREFIX_H
#define SNMPD_PLUGIN_COMMUNITY_PREFIX_H

namespace SnmpdPlugin {

/**
 * Makes v1 and v2c notifications carry the community that their receivers expect. snmpd sends the security name of the
 * target's parameters row as the community; the node's security names are "Vela_" and the community. The prefix is cut
 * off when snmpd opens the session towards the receiver; the component's own target gets the community that was agreed
 * on (InternalCommunity). Call once, on snmpd's thread.
 */
void installCommunityPrefix();

}  // namespace SnmpdPlugin
#endif
