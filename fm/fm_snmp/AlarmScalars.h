#ifndef VELA_FM_SNMP_ALARM_SCALARS_H
#define VELA_FM_SNMP_ALARM_SCALARS_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <optional>

namespace VelaFmSnmp {

class MoConnector;

/**
 * The scalars of the alarm MIB, answered from the managed-object model. The handlers follow the agent library's
 * contract: they return an SNMP error status, or mark their request. The adaptor thread only.
 */
class AlarmScalars {
 public:
  static AlarmScalars& getInstance();

  /** Takes the connector that answers (not owned). Without one every value is noSuchInstance. */
  void init(MoConnector* connector) { _connector = connector; }
  /** Registers the scalars with the agent library. Once per process, after init_agent. One that the library refuses is
      logged. */
  void initHandlers();

  int handleSumCritical(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleSumMajor(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleSumMinor(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleSumWarning(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleSumIndeterminate(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleActiveNumber(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleActiveLastSequenceNo(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleAlertNumber(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleAlertLastSequenceNo(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleActiveTableURL(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleActiveLastChanged(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleAlertTableURL(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int handleAlertLastChanged(netsnmp_agent_request_info* info, netsnmp_request_info* requests);

 private:
  using CountReader = int (MoConnector::*)(unsigned int&) const;
  int answerCount(CountReader read, netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  int answerLastChanged(netsnmp_agent_request_info* info, netsnmp_request_info* requests);
  void checkHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* request);
  void writeHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* request);
  void writeFormerInterval();
  void readHeartbeatInterval(netsnmp_agent_request_info* info, netsnmp_request_info* request);

  MoConnector* _connector = nullptr;
  std::optional<unsigned int> _formerInterval; /**< before the SET that is in progress */
};

/** The agent library's entries, one per object; each forwards to the singleton. */
Netsnmp_Node_Handler handle_kavAlarmSumCritical;
Netsnmp_Node_Handler handle_kavAlarmSumMajor;
Netsnmp_Node_Handler handle_kavAlarmSumMinor;
Netsnmp_Node_Handler handle_kavAlarmSumWarning;
Netsnmp_Node_Handler handle_kavAlarmSumIndeterminate;
Netsnmp_Node_Handler handle_kavAlarmActiveNumber;
Netsnmp_Node_Handler handle_kavAlarmActiveLastSequenceNo;
Netsnmp_Node_Handler handle_kavAlarmAlertNumber;
Netsnmp_Node_Handler handle_kavAlarmAlertLastSequenceNo;
Netsnmp_Node_Handler handle_kavAlarmHbInterval;
Netsnmp_Node_Handler handle_kavAlarmActiveTableURL;
Netsnmp_Node_Handler handle_kavAlarmActiveLastChanged;
Netsnmp_Node_Handler handle_kavAlarmAlertTableURL;
Netsnmp_Node_Handler handle_kavAlarmAlertLastChanged;

}  // namespace VelaFmSnmp
#endif
