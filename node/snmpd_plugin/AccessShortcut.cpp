#include "AccessShortcut.h"

#include <net-snmp/agent/agent_callbacks.h>
#include "Callbacks.h"

#include <map>
#include <vector>

#include "NodesUser.h"

namespace SnmpdPlugin {

namespace {

constexpr int Checks[] = {SNMPD_CALLBACK_ACM_CHECK, SNMPD_CALLBACK_ACM_CHECK_INITIAL, SNMPD_CALLBACK_ACM_CHECK_SUBTREE};

/** snmpd's own judgement of a request by the kind of check, which the shortcut stands before. */
std::map<int, std::vector<snmp_gen_callback>> rules;

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
