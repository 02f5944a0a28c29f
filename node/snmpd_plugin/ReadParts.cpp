#include "ReadParts.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <string_view>

#include "ResponseSize.h"

// Exported by the agent library, but declared in none of its installed headers.
extern "C" int netsnmp_check_for_delegated(netsnmp_agent_session* request);

namespace SnmpdPlugin {

bool isServedHere(const netsnmp_subtree& region) {
  if (region.reginfo == nullptr || region.reginfo->handler == nullptr) return false;
  const std::string_view name = region.reginfo->handler->handler_name;
  return name == SubAgentReads || name == OwnReads;
}

bool isBefore(const netsnmp_variable_list& binding, const oid* end, std::size_t endLength) {
  return snmp_oid_compare(binding.name, binding.name_length, end, endLength) < 0;
}

bool isVisible(const netsnmp_agent_session& request, const netsnmp_variable_list& binding) {
  std::size_t length = binding.name_length;
  return in_a_view(binding.name, &length, request.pdu, binding.type) == VACM_SUCCESS;
}

bool isVisible(const netsnmp_agent_session& request, const netsnmp_subtree& region) {
  // A region between any two names lies in the subtree that they have in common; one that is a subtree is just that.
  const auto length = std::min<std::size_t>(region.start_len, region.end_len);
  const bool isSubtree = region.start_len == region.end_len && length > 0 &&
                         std::equal(region.start_a, region.start_a + length - 1, region.end_a) &&
                         region.end_a[length - 1] == region.start_a[length - 1] + 1;
  const auto common =
      isSubtree ? length
                : static_cast<std::size_t>(std::mismatch(region.start_a, region.start_a + length, region.end_a).first -
                                           region.start_a);
  return common > 0 && netsnmp_acm_check_subtree(request.pdu, region.start_a, common) == VACM_SUCCESS;
}

bool isTooLarge(const netsnmp_agent_session& request, const netsnmp_variable_list& binding) {
  if (encodedSize(binding) <= roomForBindings(request)) return false;
  reportLeftOut(binding);
  return true;
}

void reportLeftOut(const netsnmp_variable_list& binding) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::minutes Pause{10};
  constexpr std::size_t MostRemembered = 1000;
  static std::map<Oid, Clock::time_point> reported;
  if (reported.size() >= MostRemembered) reported.clear();
  const auto now = Clock::now();
  Clock::time_point& last = reported[Oid(binding.name, binding.name + binding.name_length)];
  if (last != Clock::time_point() && now - last < Pause) return;
  last = now;
  std::string name;
  for (std::size_t i = 0; i < binding.name_length; ++i) name.append(".").append(std::to_string(binding.name[i]));
  snmp_log(LOG_WARNING, "vela_snmpd_plugin: %s is left out of a response: no message can hold it\n", name.c_str());
}

void leaveRegion(const netsnmp_agent_session& request, netsnmp_request_info& part) {
  part.requestvb->type = ASN_NULL;
  if (part.repeat != part.orig_repeat || request.orig_pdu == nullptr) return;
  const netsnmp_variable_list* asked = request.orig_pdu->variables;
  for (int i = 1; i < part.index && asked != nullptr; ++i) asked = asked->next_variable;
  if (asked != nullptr) snmp_set_var_objid(part.requestvb, asked->name, asked->name_length);
}

void endSearchWhenFull(netsnmp_agent_session& request) {
  if (request.pdu->command != SNMP_MSG_GETBULK || netsnmp_check_for_delegated(&request) != 0) return;
  for (int i = 0; i <= request.treecache_num; ++i)
    for (const auto* part = request.treecache[i].requests_begin; part != nullptr; part = part->next)
      if (part->subtree == nullptr || !isServedHere(*part->subtree)) return;
  endWhenFull(request);
}

}  // namespace SnmpdPlugin
