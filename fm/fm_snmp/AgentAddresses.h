#ifndef VELA_FM_SNMP_AGENT_ADDRESSES_H
#define VELA_FM_SNMP_AGENT_ADDRESSES_H

#include <Poco/Net/IPAddress.h>

#include <cstdint>
#include <vector>

#include "SnmpTypes.h"

namespace VelaFmSnmp {

/** An address at which the master agent can listen. */
struct AgentAddress {
  Poco::Net::IPAddress host;
  std::uint32_t port;
};

/**
 * The addresses of a configuration that the master agent can listen at, in their order: literal ones with a port. What
 * another entry covers, be it by its wildcard address, is left out, since the agent could not bind it as well.
 * @param faulty if not null, receives the entries that are no addresses
 */
std::vector<AgentAddress> usableAddresses(const SnmpConfig::AddressList& addresses,
                                          SnmpConfig::AddressList* faulty = nullptr);

}  // namespace VelaFmSnmp
#endif
