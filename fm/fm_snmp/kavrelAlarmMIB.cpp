#include "kavrelAlarmMIB.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "LoggingWrapper.h"
#include "SnmpAlarm.h"
#include "SnmpAlarmSnapshot.h"
#include "SnmpUtil.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

constexpr unsigned int firstColumn = 2;
constexpr unsigned int lastAlarmColumn = 15;
constexpr unsigned int lastAlertColumn = 12;

/** Octets of a value that a message still carries, of SNMP over UDP (65,507 octets) as well as of AgentX. */
constexpr std::size_t maxCellLength = 65000;

constexpr int mibIndeterminate = 2;

/** What differs between the two tables: where rows come from and how a column is answered. */
struct Table {
  SnmpAlarm* (SnmpAlarmSnapshot::*get)(unsigned int index);
  SnmpAlarm* (SnmpAlarmSnapshot::*getFirst)();
  SnmpAlarm* (SnmpAlarmSnapshot::*getNext)(unsigned int index);
  void (*answer)(netsnmp_request_info*, SnmpAlarm*, netsnmp_agent_request_info*, netsnmp_table_request_info*);
  unsigned int lastColumn;
};

constexpr Table alarmTable = {&SnmpAlarmSnapshot::getAlarm, &SnmpAlarmSnapshot::getFirstAlarm,
                              &SnmpAlarmSnapshot::getNextAlarm, handleAlarmColumn, lastAlarmColumn};
constexpr Table alertTable = {&SnmpAlarmSnapshot::getAlert, &SnmpAlarmSnapshot::getFirstAlert,
                              &SnmpAlarmSnapshot::getNextAlert, handleAlertColumn, lastAlertColumn};

using AnswerColumn = void (*)(netsnmp_variable_list* varbind, const SnmpAlarm& alarm);

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

void answerMajorType(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setUnsigned(varbind, alarm.getMajorType());
}
void answerMinorType(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setUnsigned(varbind, alarm.getMinorType());
}
void answerSpecificProblem(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setText(varbind, alarm.getSpecificProblem());
}
void answerManagedObject(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setText(varbind, alarm.getManagedObject());
}
void answerEventType(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setInteger(varbind, static_cast<std::int32_t>(alarm.getEventType()));
}
void answerEventTime(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setText(varbind, SnmpUtil::getDateAndTime(alarm.getEventTime()));
}
void answerOriginalEventTime(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setText(varbind, SnmpUtil::getDateAndTime(alarm.getOriginalEventTime()));
}
void answerProbableCause(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setInteger(varbind, static_cast<std::int32_t>(alarm.getProbableCause()));
}
void answerSeverity(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setSeverity(varbind, alarm.getSeverity());
}
void answerOriginalSeverity(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setSeverity(varbind, alarm.getOriginalSeverity());
}
void answerAdditionalText(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setText(varbind, alarm.getAdditionalText());
}
void answerOriginalAdditionalText(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setText(varbind, alarm.getOriginalAdditionalText());
}
void answerResourceId(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setOid(varbind, alarm.getResourceId());
}
void answerAdditionalInfo(netsnmp_variable_list* varbind, const SnmpAlarm& alarm) {
  setText(varbind, alarm.getAdditionalInfoCompressedFormat());
}

/** The columns from number 2 on. */
constexpr AnswerColumn alarmColumns[] = {
    answerMajorType,  answerMinorType,        answerSpecificProblem,   answerManagedObject,
    answerEventType,  answerEventTime,        answerOriginalEventTime, answerProbableCause,
    answerSeverity,   answerOriginalSeverity, answerAdditionalText,    answerOriginalAdditionalText,
    answerResourceId, answerAdditionalInfo,
};
constexpr AnswerColumn alertColumns[] = {
    answerMajorType,      answerMinorType,  answerSpecificProblem, answerManagedObject,
    answerEventType,      answerEventTime,  answerProbableCause,   answerSeverity,
    answerAdditionalText, answerResourceId, answerAdditionalInfo,
};
static_assert(std::size(alarmColumns) == lastAlarmColumn - firstColumn + 1);
static_assert(std::size(alertColumns) == lastAlertColumn - firstColumn + 1);

template <std::size_t Count>
void answerFrom(const AnswerColumn (&columns)[Count], netsnmp_request_info* request, const SnmpAlarm& alarm,
                netsnmp_agent_request_info* reqinfo, const netsnmp_table_request_info& tableInfo) {
  const std::size_t place = std::size_t{tableInfo.colnum} - firstColumn;
  if (tableInfo.colnum < firstColumn || place >= Count)
    netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
  else
    columns[place](request->requestvb, alarm);
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
  if (row == nullptr && place.colnum < table.lastColumn) {
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
void handleGetNext(const Table& table, netsnmp_handler_registration* registration, netsnmp_agent_request_info* reqinfo,
                   netsnmp_request_info* request, netsnmp_table_request_info* tableInfo) {
  const unsigned char asked = request->requestvb->type;
  while (SnmpAlarm* const row = findNext(table, *tableInfo)) {
    table.answer(request, row, reqinfo, tableInfo);
    if (request->requestvb->val_len <= maxCellLength) {
      oid name[MAX_OID_LEN];
      oid* end = std::copy_n(registration->rootoid, registration->rootoid_len, name);
      *end++ = 1;  // the table's entry
      *end++ = tableInfo->colnum;
      *end++ = row->getIndex();
      snmp_set_var_objid(request->requestvb, name, static_cast<std::size_t>(end - name));
      return;
    }
    tellLeftOut(tableInfo->colnum, row->getIndex(), request->requestvb->val_len);
    snmp_set_var_typed_value(request->requestvb, asked, nullptr, 0);
    tableInfo->index_oid[0] = row->getIndex();
    tableInfo->index_oid_len = 1;
  }
}

/** The agent library is C: no exception may pass through it. */
int handleTable(const Table& table, netsnmp_handler_registration* registration, netsnmp_agent_request_info* reqinfo,
                netsnmp_request_info* requests) noexcept {
  if (reqinfo->mode != MODE_GET && reqinfo->mode != MODE_GETNEXT) return SNMP_ERR_GENERR;
  try {
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
      netsnmp_table_request_info* const tableInfo = netsnmp_extract_table_info(request);
      if (request->processed != 0 || tableInfo == nullptr) continue;
      if (reqinfo->mode == MODE_GET)
        handleGet(table, reqinfo, request, tableInfo);
      else
        handleGetNext(table, registration, reqinfo, request, tableInfo);
    }
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Failed to answer a request for a table: %s", ex.what());
    return SNMP_ERR_GENERR;
  }
  return SNMP_ERR_NOERROR;
}

/** Registers a table. The library keeps the address of `info`. */
void registerTable(const char* name, Netsnmp_Node_Handler* handler, const oid (&id)[12],
                   netsnmp_table_registration_info& info, unsigned int lastColumn) {
  netsnmp_table_helper_add_indexes(&info, ASN_UNSIGNED, 0);
  info.min_column = firstColumn;
  info.max_column = lastColumn;
  netsnmp_handler_registration* const registration =
      netsnmp_create_handler_registration(name, handler, id, std::size(id), HANDLER_CAN_RONLY);
  if (registration == nullptr || netsnmp_register_table(registration, &info) != MIB_REGISTERED_OK)
    VELA_LOG(Vela::LogError, "Could not register %s", name);
}

}  // namespace

void init_kavrelAlarmMIB() {
  initialize_table_kavAlarmActiveAlarmTable();
  initialize_table_kavAlarmAlertTable();
}

void initialize_table_kavAlarmActiveAlarmTable() {
  static netsnmp_table_registration_info info = {};
  registerTable("kavAlarmActiveAlarmTable", kavAlarmActiveAlarmTable_handler, mibOid<1, 3, 5>, info, lastAlarmColumn);
}

void initialize_table_kavAlarmAlertTable() {
  static netsnmp_table_registration_info info = {};
  registerTable("kavAlarmAlertTable", kavAlarmAlertTable_handler, mibOid<1, 4, 5>, info, lastAlertColumn);
}

int kavAlarmActiveAlarmTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration* registration,
                                     netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
  return handleTable(alarmTable, registration, reqinfo, requests);
}

int kavAlarmAlertTable_handler(netsnmp_mib_handler*, netsnmp_handler_registration* registration,
                               netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) {
  return handleTable(alertTable, registration, reqinfo, requests);
}

void handleAlarmColumn(netsnmp_request_info* request, SnmpAlarm* alarm, netsnmp_agent_request_info* reqinfo,
                       netsnmp_table_request_info* tableInfo) {
  answerFrom(alarmColumns, request, *alarm, reqinfo, *tableInfo);
}

void handleAlertColumn(netsnmp_request_info* request, SnmpAlarm* alert, netsnmp_agent_request_info* reqinfo,
                       netsnmp_table_request_info* tableInfo) {
  answerFrom(alertColumns, request, *alert, reqinfo, *tableInfo);
}

}  // namespace VelaFmSnmp
