#include "RunTimeRows.h"

#include "Callbacks.h"

namespace SnmpdPlugin {

namespace {

void stopPersisting(unsigned, void*) {
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  // What is not stored need not be rendered either: that would be every row of every table, at every SET.
  takeCallbacks(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_STORE_DATA);
}

}  // namespace

void installRunTimeRows() {
  // snmpd runs alarms in its main loop only, so the first one comes after it has stored the new boot count.
  snmp_alarm_register(0, 0, stopPersisting, nullptr);
}

}  // namespace SnmpdPlugin
