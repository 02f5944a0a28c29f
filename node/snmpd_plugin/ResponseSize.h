#ifndef SNMPD_PLUGIN_RESPONSE_SIZE_H
#define SNMPD_PLUGIN_RESPONSE_SIZE_H

#include <cstddef>

#include "NetSnmp.h"

namespace SnmpdPlugin {

/** Octets of a variable binding in a message of SNMP (BER), or a few more. */
std::size_t encodedSize(const netsnmp_variable_list& binding);

/** Octets that the variable bindings of the response to a request may take, whatever stands around them. */
std::size_t roomForBindings(const netsnmp_agent_session& request);

/** Octets that the variable bindings which are already there take in the response. */
std::size_t sizeOfAnswered(const netsnmp_agent_session& request);

/** Whether a variable binding has been given a value (or an exception), rather than waiting for one. */
bool isAnswered(const netsnmp_variable_list& binding);

/**
 * Ends the search for the answers of a GETBULK where those that are there fill the response, in the order in which they
 * stand in it (RFC 3416, 4.2.3). snmpd by itself goes on until the sum of all that it has found is too large, and then
 * cuts at a place that has nothing to do with their order. Only for a request none of whose parts is being asked for,
 * and all of whose answers have been held against the manager's view.
 */
void endWhenFull(netsnmp_agent_session& request);

}  // namespace SnmpdPlugin
#endif
