#ifndef SNMPD_PLUGIN_RUN_TIME_ROWS_H
#define SNMPD_PLUGIN_RUN_TIME_ROWS_H

namespace SnmpdPlugin {

/**
 * Keeps rows that managers set at run time out of snmpd's persistent file. Otherwise snmpd rewrites and syncs the file
 * at every SET, which takes longer than a manager waits once there are some hundred rows. What snmpd stores at its
 * start (engine id and boot count) is stored as ever. Call once, on snmpd's thread, while it reads its configuration.
 */
void installRunTimeRows();

}  // namespace SnmpdPlugin
#endif
