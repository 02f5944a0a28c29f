#include "RunTimeRows.h"

#include <net-snmp/net-snmp-config.h>
// The order of net-snmp's headers matters.
#include <net-snmp/net-snmp-includes.h>

#include <vector>

namespace SnmpdPlugin {

namespace {

void stopPersisting(unsigned, void*) {
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  // What is not stored need not be rendered either: that would be every row of every table, at every SET.
  std::vector<snmp_gen_callback> renderers;
  for (auto* entry = snmp_callback_list(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_STORE_DATA); entry; entry = entry->next)
    renderers.push_back(*entry);
  for (const snmp_gen_callback& renderer : renderers)
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_STORE_DATA, renderer.sc_callback,
                             renderer.sc_client_arg, 1);
}

}  // namespace

void installRunTimeRows() {
  // snmpd runs alarms in its main loop only, so the first one comes after it has stored the new boot count.
  snmp_alarm_register(0, 0, stopPersisting, nullptr);
}

}  // namespace SnmpdPlugin
