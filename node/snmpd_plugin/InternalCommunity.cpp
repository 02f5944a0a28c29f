#include "InternalCommunity.h"

#include "NetSnmp.h"

#include "NodesUser.h"
#include "TarnSpi.h"

namespace SnmpdPlugin {

namespace {

constexpr size_t MaxLength = 64;

std::string& community() {
  // Never destroyed: snmpd opens and closes sessions while it exits.
  static auto* const text = new std::string;
  return *text;
}

int checkSet(const netsnmp_agent_request_info& info, const netsnmp_variable_list& binding) {
  if (!isNodesUser(*info.asp->pdu)) return SNMP_ERR_NOACCESS;
  if (binding.type != ASN_OCTET_STR) return SNMP_ERR_WRONGTYPE;
  return binding.val_len == 0 || binding.val_len > MaxLength ? SNMP_ERR_WRONGLENGTH : SNMP_ERR_NOERROR;
}

int onRequest(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info* info,
              netsnmp_request_info* requests) {
  netsnmp_variable_list& binding = *requests->requestvb;
  switch (info->mode) {
    case MODE_GET:
      snmp_set_var_typed_value(&binding, SNMP_NOSUCHINSTANCE, nullptr, 0);
      break;
    case MODE_SET_RESERVE1: {
      const int error = checkSet(*info, binding);
      if (error != SNMP_ERR_NOERROR) return netsnmp_request_set_error(requests, error);
      break;
    }
    case MODE_SET_COMMIT:
      community().assign(reinterpret_cast<const char*>(binding.val.string), binding.val_len);
      break;
    default:
      break;
  }
  return SNMP_ERR_NOERROR;
}

}  // namespace

void installInternalCommunity() {
  constexpr const char* Name = "vela_internal_community";
  oid instance[MAX_OID_LEN];
  size_t length = MAX_OID_LEN;
  netsnmp_handler_registration* registration =
      read_objid(Vela::TarnSpi::InternalCommunityObject, instance, &length) != 0
          ? netsnmp_create_handler_registration(Name, onRequest, instance, length, HANDLER_CAN_RWRITE)
          : nullptr;
  if (registration == nullptr || netsnmp_register_instance(registration) != MIB_REGISTERED_OK)
    snmp_log(LOG_ERR, "vela_snmpd_plugin: cannot serve %s\n", Name);
}

const std::string& internalCommunity() { return community(); }

}  // namespace SnmpdPlugin
