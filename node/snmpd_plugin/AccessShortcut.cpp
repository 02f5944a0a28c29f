#include "AccessShortcut.h"

#include <net-snmp/agent/agent_callbacks.h>
#include "Callbacks.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <vector>

#include "NodesUser.h"

namespace SnmpdPlugin {

namespace {

constexpr int Checks[] = {SNMPD_CALLBACK_ACM_CHECK, SNMPD_CALLBACK_ACM_CHECK_INITIAL, SNMPD_CALLBACK_ACM_CHECK_SUBTREE};

/**
 * What a SET would change of the machine rather than of the agent: interfaces, addresses, routes, connections, the
 * clock, and the agent's private objects, through which it can be made load code.
 */
constexpr std::array<oid, 7> MachineRegions[] = {
    {1, 3, 6, 1, 2, 1, 2},  {1, 3, 6, 1, 2, 1, 3},    {1, 3, 6, 1, 2, 1, 4},    {1, 3, 6, 1, 2, 1, 6},
    {1, 3, 6, 1, 2, 1, 10}, {1, 3, 6, 1, 2, 1, 25},   {1, 3, 6, 1, 2, 1, 31},   {1, 3, 6, 1, 2, 1, 55},
    {1, 3, 6, 1, 2, 1, 92}, {1, 3, 6, 1, 4, 1, 2021}, {1, 3, 6, 1, 4, 1, 8072},
};

/** snmpd's own judgement of a request by the kind of check, which the shortcut stands before. */
std::map<int, std::vector<snmp_gen_callback>> rules;

bool isMachines(const oid* name, std::size_t length) {
  return std::any_of(std::begin(MachineRegions), std::end(MachineRegions), [&](const auto& region) {
    return length >= region.size() && std::equal(region.begin(), region.end(), name);
  });
}

int judge(int major, int check, void* serverArgument, void*) {
  auto* parameters = static_cast<view_parameters*>(serverArgument);
  if (parameters->pdu && isNodesUser(*parameters->pdu))
    return SNMPERR_SUCCESS;  // the verdict is success from the start
  if (parameters->pdu && parameters->pdu->command == SNMP_MSG_SET && parameters->name != nullptr &&
      isMachines(parameters->name, parameters->namelen)) {
    parameters->errorcode = VACM_NOTINVIEW;
    return SNMPERR_SUCCESS;
  }
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
