#ifndef SNMPD_PLUGIN_TRANSPORT_SECURITY_H
#define SNMPD_PLUGIN_TRANSPORT_SECURITY_H

namespace SnmpdPlugin {

/**
 * Mends the library's transport security model (RFC 5591). For every request it loses the states that belong to it,
 * some kilobytes, and it uses one that it has freed when a response has to be built twice. With this, a state belongs
 * to the reference in a PDU, and goes with it. Call once, when the library is set up.
 */
void installTransportSecurity();

}  // namespace SnmpdPlugin
#endif
