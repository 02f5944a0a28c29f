#include "Reads.h"

#include <net-snmp/agent/agent_callbacks.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "AgentXQuestion.h"
#include "ReadParts.h"
#include "ResponseSize.h"

// Exported by the agent library, but declared in none of its installed headers.
extern "C" int agentx_master_handler(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                                     netsnmp_request_info*);

namespace SnmpdPlugin {

namespace {

bool isSearch(int mode) { return mode == MODE_GETNEXT || mode == MODE_GETBULK; }

/** Stands before the handler of a sub-agent's region. */
int onSubAgentRead(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
                   netsnmp_agent_request_info* info, netsnmp_request_info* parts) {
  netsnmp_mib_handler& master = *handler->next;
  auto* const session = static_cast<netsnmp_session*>(master.myvoid);
  AgentXConnection* const connection = AgentXConnection::of(session);
  if (!isSearch(info->mode) || connection == nullptr || session->subsession == nullptr)
    return netsnmp_call_next_handler(handler, registration, info, parts);
  AgentXQuestion::ask({&master, registration, info, parts, session, connection});
  return SNMP_ERR_NOERROR;
}

/** What a handler has made of a part of a request, of which it was to answer one binding. */
void judge(netsnmp_agent_session& request, netsnmp_request_info& part, netsnmp_variable_list& binding) {
  if (part.delegated != 0) return;
  const bool isBulk = request.pdu->command == SNMP_MSG_GETBULK;
  if (isBulk) part.requestvb_start = nullptr;  // snmpd has nothing to check any more
  const bool isBeyond = isAnswered(binding) && !isBefore(binding, part.range_end, part.range_end_len);
  if (isBeyond) snmp_set_var_typed_value(&binding, ASN_NULL, nullptr, 0);
  if (binding.type == ASN_NULL) leaveRegion(request, part);
  if (!isAnswered(binding)) return;
  if ((!isBulk || isVisible(request, binding)) && !isTooLarge(request, binding)) return;
  if (part.requestvb != &binding) {
    part.requestvb->type = ASN_NULL;
    part.requestvb->name_length = 0;
    part.requestvb = &binding;
    ++part.repeat;
  }
  snmp_set_var_typed_value(&binding, ASN_PRIV_RETRY, nullptr, 0);
  part.inclusive = 0;
}

/** Stands before the handlers of snmpd's own regions. */
int onOwnRead(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
              netsnmp_agent_request_info* info, netsnmp_request_info* parts) {
  if (!isSearch(info->mode)) return netsnmp_call_next_handler(handler, registration, info, parts);
  std::vector<std::pair<netsnmp_request_info*, netsnmp_variable_list*>> asked;
  for (netsnmp_request_info* part = parts; part != nullptr; part = part->next)
    asked.emplace_back(part, part->requestvb);
  const int result = netsnmp_call_next_handler(handler, registration, info, parts);
  netsnmp_agent_session& request = *info->asp;
  for (const auto& [part, binding] : asked) judge(request, *part, *binding);
  // The other handlers of this round still want to find the request as it was.
  if (request.treecache[request.treecache_num].requests_begin == parts) endSearchWhenFull(request);
  return result;
}

bool isSubAgents(const netsnmp_handler_registration& registration) {
  return registration.handler->access_method == agentx_master_handler;
}

void standBefore(netsnmp_subtree& region) {
  netsnmp_handler_registration* const registration = region.reginfo;
  if (registration == nullptr || registration->handler == nullptr || isServedHere(region)) return;
  const bool isSubAgent = isSubAgents(*registration);
  if (isSubAgent) {
    AgentXConnection::watch(*static_cast<netsnmp_session*>(registration->handler->myvoid));
    if (region.session == nullptr) return;
  }
  netsnmp_inject_handler(registration, netsnmp_create_handler(isSubAgent ? SubAgentReads : OwnReads,
                                                              isSubAgent ? onSubAgentRead : onOwnRead));
}

void standBeforeAll(netsnmp_subtree* region, const Oid* end) {
  for (; region != nullptr; region = region->next) {
    if (end != nullptr && snmp_oid_compare(region->start_a, region->start_len, end->data(), end->size()) >= 0) return;
    for (netsnmp_subtree* covered = region; covered != nullptr; covered = covered->children) standBefore(*covered);
  }
}

/** A registration can have many regions: those of a range, and those that others have cut it into. */
int onRegistration(int, int, void* argument, void*) {
  const auto& registered = *static_cast<const register_parameters*>(argument);
  Oid end(registered.name, registered.name + registered.namelen);
  if (end.empty()) return SNMPERR_SUCCESS;
  if (registered.range_subid > 0) end[static_cast<std::size_t>(registered.range_subid) - 1] = registered.range_ubound;
  ++end.back();
  standBeforeAll(netsnmp_subtree_find(registered.name, registered.namelen, nullptr, registered.contextName), &end);
  return SNMPERR_SUCCESS;
}

void standBeforeEverything(unsigned, void*) {
  for (auto* context = get_top_context_cache(); context != nullptr; context = context->next)
    standBeforeAll(context->first_subtree, nullptr);
}

}  // namespace

void installReads() {
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID, onRegistration, nullptr);
  // snmpd runs alarms in its main loop only, when its own regions are registered.
  snmp_alarm_register(0, 0, standBeforeEverything, nullptr);
}

}  // namespace SnmpdPlugin
