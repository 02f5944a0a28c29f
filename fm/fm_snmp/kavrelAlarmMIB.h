#ifndef VELA_FM_SNMP_KAVREL_ALARM_MIB_H
#define VELA_FM_SNMP_KAVREL_ALARM_MIB_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace VelaFmSnmp {

class SnmpAlarm;

/** Registers both tables, which SnmpAlarmSnapshot answers, with the agent library. Once per process, after init_agent,
    on the adaptor thread. A table that the library refuses is logged. */
void init_kavrelAlarmMIB();
void initialize_table_kavAlarmActiveAlarmTable();
void initialize_table_kavAlarmAlertTable();

/** Handlers behind the agent library's table helper: GET and GETNEXT, rows by ascending index. */
Netsnmp_Node_Handler kavAlarmActiveAlarmTable_handler;
Netsnmp_Node_Handler kavAlarmAlertTable_handler;

/** Answers a request with the column `tableInfo->colnum` of a row; a column that is none marks it noSuchObject. */
void handleAlarmColumn(netsnmp_request_info* request, SnmpAlarm* alarm, netsnmp_agent_request_info* reqinfo,
                       netsnmp_table_request_info* tableInfo);
void handleAlertColumn(netsnmp_request_info* request, SnmpAlarm* alert, netsnmp_agent_request_info* reqinfo,
                       netsnmp_table_request_info* tableInfo);

}  // namespace VelaFmSnmp
#endif
