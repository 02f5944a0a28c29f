#ifndef TARN_OWN_ADDRESS_H
#define TARN_OWN_ADDRESS_H

#include <string>
#include <vector>

#include "Directives.h"

namespace Tarn {

/**
 * The IPv4 address by which the node is known: the first one that the agent listens at, if that is an address rather
 * than a name or all addresses; else that of a network interface that is up, if there is one; else the loopback one.
 * It is the agent address of v1 traps (RFC 1157, 4.1.6), which have room for no other.
 */
std::string ownIpv4Address(const std::vector<ListenAddress>& addresses);

}  // namespace Tarn
#endif
