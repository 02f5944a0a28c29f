#ifndef SNMPD_PLUGIN_AGENT_LOG_H
#define SNMPD_PLUGIN_AGENT_LOG_H

namespace SnmpdPlugin {

/**
 * Bounds snmpd's log file while it runs: the file that VELA_SNMPD_LOG names is kept below VELA_LOG_SIZE octets, with
 * VELA_LOG_FILES files in all (NAME, NAME.1, ...), and what strangers can make snmpd write is limited (LogLimit).
 * Without these variables the log stays as it is. Call once, on snmpd's thread, while it reads its configuration: the
 * files are opened while it still is root, which it may not be when they are rotated.
 */
void installAgentLog();

}  // namespace SnmpdPlugin
#endif
