#include "NodesUser.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "TarnSpi.h"

namespace SnmpdPlugin {

namespace {

/** A user of that name at another engine is another user: the agent knows those it sends informs to, too. */
bool isOwnEngine(const netsnmp_pdu& pdu) {
  static const std::string own = [] {
    u_char engineId[SNMP_MAX_ENG_SIZE];
    const std::size_t length = snmpv3_get_engineID(engineId, sizeof engineId);
    return std::string(engineId, engineId + length);
  }();
  return pdu.securityEngineIDLen == own.size() &&
         std::equal(own.begin(), own.end(), pdu.securityEngineID,
                    [](char a, u_char b) { return a == static_cast<char>(b); });
}

}  // namespace

bool isNodesUser(const netsnmp_pdu& pdu) {
  return pdu.version == SNMP_VERSION_3 && pdu.securityModel == SNMP_SEC_MODEL_USM &&
         pdu.securityLevel == SNMP_SEC_LEVEL_AUTHPRIV && pdu.contextNameLen == 0 && pdu.securityName &&
         std::string_view(pdu.securityName, pdu.securityNameLen) == Vela::TarnSpi::NodeUser && isOwnEngine(pdu);
}

}  // namespace SnmpdPlugin
