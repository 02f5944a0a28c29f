#include "TransportSecurity.h"

#include "NetSnmp.h"

#include <net-snmp/library/snmptsm.h>

#include <cstdlib>

namespace SnmpdPlugin {

namespace {

using Reference = netsnmp_tsmSecurityReference;

SecmodOutMsg* libraryEncode = nullptr;
SecmodInMsg* libraryDecode = nullptr;

void freeReference(void* held) {
  auto* reference = static_cast<Reference*>(held);
  if (reference == nullptr) return;
  std::free(reference->tmStateRef);
  std::free(reference);
}

/** The library frees the reference that it is given here, so it gets one of its own. */
int encode(snmp_secmod_outgoing_params* parameters) {
  if (parameters->secStateRef != nullptr) {
    parameters->secStateRef = netsnmp_memdup(parameters->secStateRef, sizeof(Reference));
    if (parameters->secStateRef == nullptr) return SNMPERR_MALLOC;
  }
  return libraryEncode(parameters);
}

int decode(snmp_secmod_incoming_params* parameters) {
  netsnmp_pdu* pdu = parameters->pdu;
  void* state = pdu->transport_data;
  const int result = libraryDecode(parameters);
  const auto* reference = static_cast<Reference*>(*parameters->secStateRef);
  const bool isTaken = pdu->transport_data == nullptr;
  const bool isKept = reference != nullptr && reference->tmStateRef == state;
  if (isTaken && !isKept) std::free(state);
  return result;
}

}  // namespace

void installTransportSecurity() {
  snmp_secmod_def* module = find_sec_mod(SNMP_SEC_MODEL_TSM);
  if (module == nullptr) {
    snmp_log(LOG_ERR, "vela_snmpd_plugin: there is no transport security module\n");
    return;
  }
  libraryEncode = module->encode_reverse;
  libraryDecode = module->decode;
  module->encode_reverse = encode;
  module->decode = decode;
  module->pdu_free_state_ref = freeReference;
}

}  // namespace SnmpdPlugin
