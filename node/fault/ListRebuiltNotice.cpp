#include "fault/ListRebuiltNotice.h"

#include <string_view>

namespace VelaNode {

namespace {

constexpr const char* snmpClassPath = "ManagedElement,SystemFunctions,SysM,Snmp";
constexpr std::string_view targetClassPrefix = "SnmpTarget";
constexpr const char* operationalStateAttribute = "operationalState";
constexpr std::int64_t enabled = 1;

bool isOperational(const MoObject& object) { return object.getSigned(operationalStateAttribute) == enabled; }

}  // namespace

void ListRebuiltNotice::tell() {
  if (!_isTold && canBeReceived() && !_isTold.exchange(true)) _router.postAlarmListRebuilt();
}

bool ListRebuiltNotice::canBeReceived() const {
  const MoTree tree = _store.getTree();
  const MoObjectPtr snmp = tree.findFirst(snmpClassPath);
  if (!snmp || !isOperational(*snmp)) return false;
  bool hasTarget = false;
  tree.traverse(snmp->getDn(), nullptr, [&](const MoObjectPtr& child) {
    const bool isTarget = std::string_view(child->getClass().getName()).starts_with(targetClassPrefix);
    hasTarget = isTarget && isOperational(*child);
    return !hasTarget;
  });
  return hasTarget;
}

}  // namespace VelaNode
