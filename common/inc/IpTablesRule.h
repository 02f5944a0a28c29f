#ifndef VELA_IP_TABLES_RULE_H
#define VELA_IP_TABLES_RULE_H

#include <map>
#include <string>

namespace Vela {

/** Description of a packet-marking rule: a protocol and options by key. */
struct IpTablesRule {
  enum Protocol { ProtocolAll = 0, ProtocolUdp = 1, ProtocolTcp = 2 };
  enum Option {
    DestinationAddress = 0,
    DestinationPorts = 1,
    SourceAddress = 2,
    SourcePorts = 3,
    NotDestinationAddress = 4,
    NotDestinationPorts = 5,
    NotSourceAddress = 6,
    NotSourcePorts = 7
  };

  Protocol protocol = ProtocolAll;
  std::map<int, std::string> options;
};

}  // namespace Vela
#endif
