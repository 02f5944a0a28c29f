#include "CommunityPrefix.h"

#include <net-snmp/net-snmp-config.h>
// The order of net-snmp's headers matters.
#include <net-snmp/net-snmp-includes.h>

#include <cstring>
#include <string_view>

#include "TarnSpi.h"

namespace SnmpdPlugin {

namespace {

constexpr std::string_view Prefix = Vela::TarnSpi::SecurityNamePrefix;

int onSessionInit(int, int, void* session, void*) {
  auto* opened = static_cast<netsnmp_session*>(session);
  const bool hasCommunity = opened != nullptr && opened->community != nullptr &&
                            (opened->version == SNMP_VERSION_1 || opened->version == SNMP_VERSION_2c);
  if (!hasCommunity || opened->community_len < Prefix.size() ||
      std::memcmp(opened->community, Prefix.data(), Prefix.size()) != 0)
    return SNMPERR_SUCCESS;
  opened->community_len -= Prefix.size();
  std::memmove(opened->community, opened->community + Prefix.size(), opened->community_len);
  return SNMPERR_SUCCESS;
}

}  // namespace

void installCommunityPrefix() {
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_SESSION_INIT, onSessionInit, nullptr);
}

}  // namespace SnmpdPlugin
