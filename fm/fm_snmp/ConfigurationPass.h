#ifndef VELA_FM_SNMP_CONFIGURATION_PASS_H
#define VELA_FM_SNMP_CONFIGURATION_PASS_H

namespace VelaFmSnmp {

class SnmpMaSession;

/**
 * What one pass over the master agent's tables goes by: each table is written by a class of its own, and all of them
 * have to agree on what the agent still has.
 */
struct ConfigurationPass {
  SnmpMaSession& session;
  bool writesAnew = false; /**< every row is written, though it may stand there already */
  bool knowsRows = true;   /**< no row of ours stands in the agent but those that the tables' classes remember */
};

}  // namespace VelaFmSnmp
#endif
