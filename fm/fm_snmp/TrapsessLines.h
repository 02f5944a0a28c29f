/** `trapsess` directives of the master agent's configuration: sessions of its own, by which it sends informs. */
#ifndef VELA_FM_SNMP_TRAPSESS_LINES_H
#define VELA_FM_SNMP_TRAPSESS_LINES_H

#include <string>

#include "SnmpTypes.h"

namespace VelaFmSnmp {

/**
 * The line for the authenticated informs of a target. It holds pass phrases: never to be logged. Empty, after a log
 * line, when the target is not complete or has texts that the agent's configuration cannot carry.
 */
std::string usmTrapsess(const SnmpTargetV3Usm& target);
/** The line for informs over DTLS, which has to be enabled in the options; empty as above. */
std::string dtlsTrapsess(const SnmpTargetV3Tls& target, const SnmpTlsOptions& tls);

}  // namespace VelaFmSnmp
#endif
