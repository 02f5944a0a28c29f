#ifndef SNMPD_PLUGIN_READ_PARTS_H
#define SNMPD_PLUGIN_READ_PARTS_H

#include <cstddef>
#include <vector>

#include "NetSnmp.h"

namespace SnmpdPlugin {

using Oid = std::vector<oid>;

/** The names of the plugin's handlers before sub-agents' regions and before snmpd's own. */
inline constexpr const char* SubAgentReads = "vela_sub_agent_reads";
inline constexpr const char* OwnReads = "vela_own_reads";

/** Whether one of these handlers stands before a region. */
bool isServedHere(const netsnmp_subtree& region);

bool isBefore(const netsnmp_variable_list& binding, const oid* end, std::size_t endLength);

/** Whether the manager may see a variable (RFC 3415). */
bool isVisible(const netsnmp_agent_session& request, const netsnmp_variable_list& binding);

/** Whether the manager may see everything in a region, as far as one look can tell. */
bool isVisible(const netsnmp_agent_session& request, const netsnmp_subtree& region);

/** Whether no response can hold a variable. Logs that it is left out. */
bool isTooLarge(const netsnmp_agent_session& request, const netsnmp_variable_list& binding);

/** Logs that a variable is left out, from time to time when it happens often. */
void reportLeftOut(const netsnmp_variable_list& binding);

/**
 * Lets a part without an answer go on with the next region. Until it has its first answer it bears the name that was
 * asked for: that is what an endOfMibView comes with (RFC 3416, 4.2.3), and what the search has met so far is perhaps
 * not for the manager to know.
 */
void leaveRegion(const netsnmp_agent_session& request, netsnmp_request_info& part);

/** Ends the search of a GETBULK when its response is full and nobody is being asked any more. */
void endSearchWhenFull(netsnmp_agent_session& request);

}  // namespace SnmpdPlugin
#endif
