#ifndef SNMPD_PLUGIN_READS_H
#define SNMPD_PLUGIN_READS_H

namespace SnmpdPlugin {

/**
 * Changes how snmpd serves GETNEXT and GETBULK (RFC 3416, 4.2.2 and 4.2.3).
 *
 * - A sub-agent is asked for all repetitions of a GETBULK at once (AgentX-GetBulk-PDU, RFC 2741, 6.2.7) rather than for
 *   each one alone, in portions that fit an AgentX message.
 * - Several repeaters, the last of which come to what the manager may not see, are answered. snmpd by itself mixes them
 *   up, and can search for ever.
 * - A response ends where the next variable binding has no more room in the message.
 * - A variable that no response could hold is left out, so that a walk ends; the agent's log tells its name.
 *
 * Call once, on snmpd's thread, while it reads its configuration.
 */
void installReads();

}  // namespace SnmpdPlugin
#endif
