#include "CommunityPrefix.h"

#include <net-snmp/net-snmp-config.h>
// The order of net-snmp's headers matters.
#include <net-snmp/net-snmp-includes.h>

#include <cstdlib>
#include <string_view>

#include "InternalCommunity.h"
#include "TarnSpi.h"

namespace SnmpdPlugin {

namespace {

constexpr std::string_view Prefix = Vela::TarnSpi::SecurityNamePrefix;

constexpr std::string_view InternalName = Vela::TarnSpi::InternalSecurityName;

/** What goes out in the place of a security name. */
std::string_view communityOf(std::string_view securityName) {
  if (securityName == InternalName && !internalCommunity().empty()) return internalCommunity();
  return securityName.substr(securityName.rfind(Prefix, 0) == 0 ? Prefix.size() : 0);
}

int onSessionInit(int, int, void* session, void*) {
  auto* opened = static_cast<netsnmp_session*>(session);
  const bool hasCommunity = opened != nullptr && opened->community != nullptr &&
                            (opened->version == SNMP_VERSION_1 || opened->version == SNMP_VERSION_2c);
  if (!hasCommunity) return SNMPERR_SUCCESS;
  const std::string_view name(reinterpret_cast<const char*>(opened->community), opened->community_len);
  const std::string_view community = communityOf(name);
  if (community == name) return SNMPERR_SUCCESS;
  auto* copy = static_cast<u_char*>(netsnmp_memdup(community.data(), community.size()));
  if (copy == nullptr && !community.empty()) return SNMPERR_MALLOC;
  free(opened->community);
  opened->community = copy;
  opened->community_len = community.size();
  return SNMPERR_SUCCESS;
}

}  // namespace

void installCommunityPrefix() {
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_SESSION_INIT, onSessionInit, nullptr);
}

}  // namespace SnmpdPlugin
