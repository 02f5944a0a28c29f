#ifndef SNMPD_PLUGIN_ACCESS_SHORTCUT_H
#define SNMPD_PLUGIN_ACCESS_SHORTCUT_H

namespace SnmpdPlugin {

/**
 * Spares the node's own user, who may read and write everything when authenticated and encrypted, snmpd's search for
 * rules: it goes through all groups, rules and views twice for each varbind, which with a thousand communities takes
 * longer than everything else together. Who else asks is judged by snmpd's rules as ever (RFC 3415), except that nobody
 * else sets what belongs to the machine, whatever view he has. Call once, on snmpd's thread, while it reads its
 * configuration.
 */
void installAccessShortcut();

}  // namespace SnmpdPlugin
#endif
