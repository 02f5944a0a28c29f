#include "kavrelAlarmMIB.h"

#include <cstdint>
#include <exception>
#include <set>
#include <string>
#include <utility>

#include "AlarmMibObjects.h"
#include "LoggingWrapper.h"
#include "SnmpAlarm.h"
#include "SnmpAlarmSnapshot.h"
#include "SnmpUtil.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

/** Octets of a value that a message still carries, of SNMP over UDP (65,507 octets) as well as of AgentX. */
constexpr std::size_t maxCellLength = 65000;

constexpr int mibIndeterminate = 2;

/** What differs between the two tables: what they look like, where rows come from and how a column is answered. */
struct Table {
  const AlarmMib::Table& shape;
  SnmpAlarm* (SnmpAlarmSnapshot::*get)(unsigned int index);
  SnmpAlarm* (SnmpAlarmSnapshot::*getFirst)();
  SnmpAlarm* (SnmpAlarmSnapshot::*getNext)(unsigned int index);
  void (*answer)(netsnmp_request_info*, SnmpAlarm*, netsnmp_agent_request_info*, netsnmp_table_request_info*);
};

constexpr Table alarmTable = {AlarmMib::activeTable, &SnmpAlarmSnapshot::getAlarm, &SnmpAlarmSnapshot::getFirstAlarm,
                              &SnmpAlarmSnapshot::getNextAlarm, handleAlarmColumn};
constexpr Table alertTable = {AlarmMib::alertTable, &SnmpAlarmSnapshot::getAlert, &SnmpAlarmSnapshot::getFirstAlert,
                              &SnmpAlarmSnapshot::getNextAlert, handleAlertColumn};

void setUnsigned(netsnmp_variable_list* varbind, std::uint32_t value) {
  snmp_set_var_typed_value(varbind, ASN_UNSIGNED, &value, sizeof value);
}

void setInteger(netsnmp_variable_list* varbind, std::int32_t value) {
  snmp_set_var_typed_value(varbind, ASN_INTEGER, &value, sizeof value);
}

void setText(netsnmp_variable_list* varbind, const std::string& text) {
  snmp_set_var_typed_value(varbind, ASN_OCTET_STR, text.data(), text.size());
}

void setSeverity(netsnmp_variable_list* varbind, DaxOamSpiNotificationFmSeverityT severity) {
  int value = mibIndeterminate;
  try {
    value = SnmpUtil::translateSeverityXMOD_to_SNMP(severity);
  } catch (const Vela::VelaException&) {
    // An original severity is kept unchecked; one that is none must not take the rest of the row with it.
  }
  setInteger(varbind, value);
}

void setOid(netsnmp_variable_list* varbind, const SnmpOid& value) {
  const SnmpOid shown = value.isNull() ? SnmpOid() : value;
  snmp_set_var_typed_value(varbind, ASN_OBJECT_ID, shown.getOidPtr(), shown.length() * sizeof(oid));
}

void answerField(AlarmMib::Field field, netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  using AlarmMib::Field;
  switch (field) {
    case Field::MajorType:
      return setUnsigned(varbind, alarm.getMajorType());
    case Field::MinorType:
      return setUnsigned(varbind, alarm.getMinorType());
    case Field::SpecificProblem:
      return setText(varbind, alarm.getSpecificProblem());
    case Field::ManagedObject:
      return setText(varbind, alarm.getManagedObject());
    case Field::EventType:
      return setInteger(varbind, static_cast<std::int32_t>(alarm.getEventType()));
    case Field::EventTime:
      return setText(varbind, SnmpUtil::getDateAndTime(alarm.getEventTime()));
    case Field::OriginalEventTime:
      return setText(varbind, SnmpUtil::getDateAndTime(alarm.getOriginalEventTime()));
    case Field::ProbableCause:
      return setInteger(varbind, static_cast<std::int32_t>(alarm.getProbableCause()));
    case Field::Severity:
      return setSeverity(varbind, alarm.getSeverity());
    case Field::OriginalSeverity:
      return setSeverity(varbind, alarm.getOriginalSeverity());
    case Field::AdditionalText:
      return setText(varbind, alarm.getAdditionalText());
    case Field::OriginalAdditionalText:
      return setText(varbind, alarm.getOriginalAdditionalText());
    case Field::ResourceId:
      return setOid(varbind, alarm.getResourceId());
    case Field::AdditionalInfo:
      return setText(varbind, alarm.getAdditionalInfoCompressedFormat());
  }
}

void answerFrom(const AlarmMib::Table& table, netsnmp_request_info* request, const SnmpAlarm& alarm,
                netsnmp_agent_request_info* reqinfo, const netsnmp_table_request_info& tableInfo) {
  if (const AlarmMib::Column* const column = table.column(tableInfo.colnum))
    answerField(column->field, request->requestvb, alarm);
  else
    netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
}

void handleGet(const Table& table, netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request,
               netsnmp_table_request_info* tableInfo) {
  SnmpAlarm* const row =
      tableInfo->index_oid_len == 1
          ? (SnmpAlarmSnapshot::getInstance().*table.get)(static_cast<unsigned int>(tableInfo->index_oid[0]))
          : nullptr;
  if (row == nullptr)
    netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
  else
    table.answer(request, row, reqinfo, tableInfo);
}

/** Finds the row behind an index, or the next column's first row behind the last. */
SnmpAlarm* findNext(const Table& table, netsnmp_table_request_info& place) {
  SnmpAlarmSnapshot& snapshot = SnmpAlarmSnapshot::getInstance();
  SnmpAlarm* row = place.index_oid_len == 0 ? (snapshot.*table.getFirst)()
                                            : (snapshot.*table.getNext)(static_cast<unsigned int>(place.index_oid[0]));
  if (row == nullptr && place.colnum < table.shape.lastColumn()) {
    ++place.colnum;
    row = (snapshot.*table.getFirst)();
  }
  return row;
}

/** A manager may ask for the same cells again and again, so each is told once. */
void tellLeftOut(unsigned int column, unsigned int index, std::size_t octets) {
  constexpr std::size_t maxTold = 100;
  static std::set<std::pair<unsigned int, unsigned int>> told;
  if (told.size() == maxTold || !told.emplace(column, index).second) return;
  VELA_LOG(Vela::LogWarning, "Column %u of alarm %u is left out of walks: no message can carry its %zu octets", column,
           index, octets);
}

/** Behind the last row of the last column the request is left as it is, and the agent library takes it to the next
    object. A cell that no message can carry is passed over, so that a walk does not end at it. */
void handleGetNext(const Table& table, netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request,
                   netsnmp_table_request_info* tableInfo) {
  const unsigned char asked = request->requestvb->type;
  while (SnmpAlarm* const row = findNext(table, *tableInfo)) {
    table.answer(request, row, reqinfo, tableInfo);
    if (request->requestvb->val_len <= maxCellLength) {
      const AlarmMib::Cell name = AlarmMib::cellOf(table.shape, tableInfo->colnum, row->getIndex());
      snmp_set_var_objid(request->requestvb, name.data(), name.size());
      return;
    }
    tellLeftOut(tableInfo->colnum, row->getIndex(), request->requestvb->val_len);
    snmp_set_var_typed_value(request->requestvb, asked, nullptr, 0);
    tableInfo->index_oid[0] = row->getIndex();
    tableInfo->index_oid_len = 1;
  }
}

/** The agent library is C: no exception may pass through it. */
int handleTable(const Table& table, netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) noexcept {
  if (reqinfo->mode != MODE_GET && reqinfo->mode != MODE_GETNEXT) return SNMP_ERR_GENERR;
  try {
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
      netsnmp_table_request_info* const tableInfo = netsnmp_extract_table_info(request);
      if (request->processed != 0 || tableInfo == nullptr) continue;
      if (reqinfo->mode == MODE_GET)
        handleGet(table, reqinfo, request, tableInfo);
      else
        handleGetNext(table, reqinfo, request, tableInfo);
    }
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Failed to answer a request for a table: %s", ex.what());
    return SNMP_ERR_GENERR;
  }
  return SNMP_ERR_NOERROR;
}

/** Registers a table. The library keeps the address of `info`. */
void registerTable(const AlarmMib::Table& table, Netsnmp_Node_Handler* handler, netsnmp_table_registration_info& info) {
  netsnmp_table_helper_add_indexes(&info, ASN_UNSIGNED, 0);
  info.min_column = AlarmMib::firstColumn;
  info.max_column = table.lastColumn();
  netsnmp_handler_registration* const registration = netsnmp_create_handler_registration(
      table.object.name, handler, table.object.id.data(), table.object.id.size(), HANDLER_CAN_RONLY);
  if (registration == nullptr || netsnmp_register_table(registration, &info) != MIB_REGISTERED_OK)
    VELA_LOG(Vela::LogError, "Could not register %s", table.object.name);
}

}  // namespace

void init_kavrelAlarmMIB() {
  initialize_table_kavAlarmActiveAlarmTable();
  initialize_table_kavAlarmAlertTable();
}

void initialize_table_kavAlarmActiveAlarmTable() {
  static netsnmp_table_registration_info info = {};
  registerTable(AlarmMib::activeTable, kavAlarmActiveAlarmTable_handler, info);
}

void initialize_table_kavAlarmAlertTable() {
  static netsnmp_table_registration_info info = {};
  registerTable(AlarmMib::alertTable, kavAlarmAlertTable_handler, info);
}

int kavAlarmActiveAlarmTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*,
                                     netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
  return handleTable(alarmTable, reqinfo, requests);
}

int kavAlarmAlertTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info* reqinfo,
                               netsnmp_request_info* requests) {
  return handleTable(alertTable, reqinfo, requests);
}

void handleAlarmColumn(netsnmp_request_info* request, SnmpAlarm* alarm, netsnmp_agent_request_info* reqinfo,
                       netsnmp_table_request_info* tableInfo) {
  answerFrom(AlarmMib::activeTable, request, *alarm, reqinfo, *tableInfo);
}

void handleAlertColumn(netsnmp_request_info* request, SnmpAlarm* alert, netsnmp_agent_request_info* reqinfo,
                       netsnmp_table_request_info* tableInfo) {
  answerFrom(AlarmMib::alertTable, request, *alert, reqinfo, *tableInfo);
}

}  // namespace VelaFmSnmp
