#ifndef SNMPD_PLUGIN_TLSTM_TABLES_H
#define SNMPD_PLUGIN_TLSTM_TABLES_H

namespace SnmpdPlugin {

/**
 * Serves the tables of SNMP-TLS-TM-MIB (RFC 6353) that the stock agent lacks: snmpTlstmCertToTSNTable,
 * snmpTlstmParamsTable and snmpTlstmAddrTable, on the library's own containers. A parameter row whose certificate
 * cannot be presented is refused with wrongValue, and the agent's log says why. Call once, when the agent's library is
 * set up.
 */
void installTlstmTables();

}  // namespace SnmpdPlugin
#endif
