#include "RunTimeRows.h"

#include <net-snmp/net-snmp-config.h>
// The order of net-snmp's headers matters.
#include <net-snmp/net-snmp-includes.h>

namespace SnmpdPlugin {

namespace {

void stopPersisting(unsigned, void*) {
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  // What is not stored need not be rendered either: for the access rows that costs more than the SET itself.
  snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_STORE_DATA, store_vacm, nullptr, 0);
}

}  // namespace

void installRunTimeRows() {
  // snmpd runs alarms in its main loop only, so the first one comes after it has stored the new boot count.
  snmp_alarm_register(0, 0, stopPersisting, nullptr);
}

}  // namespace SnmpdPlugin
