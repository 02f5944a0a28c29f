#include "AgentAddresses.h"

#include <algorithm>

#include "AddressResolver.h"

namespace VelaFmSnmp {

namespace {

constexpr std::uint32_t MaxPort = 65535;

bool isSame(const AgentAddress& left, const AgentAddress& right) {
  return left.port == right.port && left.host == right.host;
}

/** Whether an entry with the wildcard address of its family takes the port of another one. */
bool isTaken(const AgentAddress& address, const std::vector<AgentAddress>& others) {
  return !address.host.isWildcard() && std::any_of(others.begin(), others.end(), [&](const AgentAddress& other) {
    return other.host.isWildcard() && other.port == address.port && other.host.family() == address.host.family();
  });
}

}  // namespace

std::vector<AgentAddress> usableAddresses(const SnmpConfig::AddressList& addresses, SnmpConfig::AddressList* faulty) {
  std::vector<AgentAddress> parsed;
  for (const auto& [host, port] : addresses) {
    Poco::Net::IPAddress address;
    if (AddressResolver::parse(address, host) && port != 0 && port <= MaxPort)
      parsed.push_back({address, port});
    else if (faulty != nullptr)
      faulty->emplace_back(host, port);
  }
  std::vector<AgentAddress> usable;
  for (const AgentAddress& address : parsed) {
    const auto isThis = [&](const AgentAddress& other) { return isSame(address, other); };
    if (!isTaken(address, parsed) && std::none_of(usable.begin(), usable.end(), isThis)) usable.push_back(address);
  }
  return usable;
}

}  // namespace VelaFmSnmp
