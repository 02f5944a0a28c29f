#include "AccessShortcut.h"

#include <net-snmp/agent/agent_callbacks.h>
#include "Callbacks.h"

#include <algorithm>
#include <map>
#include <string>
#include <string_view>

#include "TarnSpi.h"

namespace SnmpdPlugin {

namespace {

constexpr std::string_view NodesUser = Vela::TarnSpi::NodeUser;
constexpr int Checks[] = {SNMPD_CALLBACK_ACM_CHECK, SNMPD_CALLBACK_ACM_CHECK_INITIAL, SNMPD_CALLBACK_ACM_CHECK_SUBTREE};

/** snmpd's own judgement of a request by the kind of check, which the shortcut stands before. */
std::map<int, std::vector<snmp_gen_callback>> rules;

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

bool isNodesUser(const netsnmp_pdu& pdu) {
  return pdu.version == SNMP_VERSION_3 && pdu.securityModel == SNMP_SEC_MODEL_USM &&
         pdu.securityLevel == SNMP_SEC_LEVEL_AUTHPRIV && pdu.contextNameLen == 0 && pdu.securityName &&
         std::string_view(pdu.securityName, pdu.securityNameLen) == NodesUser && isOwnEngine(pdu);
}

int judge(int major, int check, void* serverArgument, void*) {
  const auto* parameters = static_cast<const view_parameters*>(serverArgument);
  if (parameters->pdu && isNodesUser(*parameters->pdu))
    return SNMPERR_SUCCESS;  // the verdict is success from the start
  for (const snmp_gen_callback& rule : rules[check]) rule.sc_callback(major, check, serverArgument, rule.sc_client_arg);
  return SNMPERR_SUCCESS;
}

void standBeforeRules(unsigned, void*) {
  for (const int check : Checks) {
    rules[check] = takeCallbacks(SNMP_CALLBACK_APPLICATION, check);
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, check, judge, nullptr);
  }
}

}  // namespace

void installAccessShortcut() {
  // snmpd runs alarms in its main loop only, when its rules are in place.
  snmp_alarm_register(0, 0, standBeforeRules, nullptr);
}

}  // namespace SnmpdPlugin
