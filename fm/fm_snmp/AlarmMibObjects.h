#ifndef VELA_FM_SNMP_ALARM_MIB_OBJECTS_H
#define VELA_FM_SNMP_ALARM_MIB_OBJECTS_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <span>

/** The objects and notifications of the module KAVREL-ALARM-MIB, by their names there. */
namespace VelaFmSnmp::AlarmMib {

/** kavrelAlarmMIB. */
inline constexpr std::array<oid, 9> root = {1, 3, 6, 1, 4, 1, 61234, 183, 4};

/** An object identifier below the root. */
template <class... Arcs>
constexpr std::array<oid, root.size() + sizeof...(Arcs)> below(Arcs... arcs) {
  std::array<oid, root.size() + sizeof...(Arcs)> id = {};
  oid* place = std::copy(root.begin(), root.end(), id.data());
  ((*place++ = static_cast<oid>(arcs)), ...);
  return id;
}

/** A scalar, a table or a notification. */
struct Object {
  const char* name;
  std::array<oid, root.size() + 3> id;
};

inline constexpr Object sumIndeterminate = {"kavAlarmSumIndeterminate", below(1, 1, 1)};
inline constexpr Object sumCritical = {"kavAlarmSumCritical", below(1, 1, 2)};
inline constexpr Object sumMajor = {"kavAlarmSumMajor", below(1, 1, 3)};
inline constexpr Object sumMinor = {"kavAlarmSumMinor", below(1, 1, 4)};
inline constexpr Object sumWarning = {"kavAlarmSumWarning", below(1, 1, 5)};
inline constexpr Object activeNumber = {"kavAlarmActiveNumber", below(1, 3, 1)};
inline constexpr Object activeLastChanged = {"kavAlarmActiveLastChanged", below(1, 3, 2)};
inline constexpr Object activeLastSequenceNo = {"kavAlarmActiveLastSequenceNo", below(1, 3, 3)};
inline constexpr Object activeTableUrl = {"kavAlarmActiveTableURL", below(1, 3, 4)};
inline constexpr Object alertNumber = {"kavAlarmAlertNumber", below(1, 4, 1)};
inline constexpr Object alertLastChanged = {"kavAlarmAlertLastChanged", below(1, 4, 2)};
inline constexpr Object alertLastSequenceNo = {"kavAlarmAlertLastSequenceNo", below(1, 4, 3)};
inline constexpr Object alertTableUrl = {"kavAlarmAlertTableURL", below(1, 4, 4)};
inline constexpr Object heartbeatInterval = {"kavAlarmHbInterval", below(1, 5, 1)};

// In notifications only.
inline constexpr Object additionalText = {"kavAlarmAdditionalText", below(1, 2, 1)};
inline constexpr Object additionalTextTruncated = {"kavAlarmAdditionalTextTruncated", below(1, 2, 2)};
inline constexpr Object resourceIdPresent = {"kavAlarmResourceIdPresent", below(1, 2, 3)};
inline constexpr Object additionalInfo = {"kavAlarmAdditionalInfo", below(1, 2, 4)};
inline constexpr Object additionalInfoTruncated = {"kavAlarmAdditionalInfoTruncated", below(1, 2, 5)};
inline constexpr Object recordType = {"kavAlarmRecordType", below(1, 2, 6)};
inline constexpr Object additionalInfoRemainder = {"kavAlarmAdditionalInfoRemainder", below(1, 2, 7)};

inline constexpr Object scalars[] = {
    sumIndeterminate,
    sumCritical,
    sumMajor,
    sumMinor,
    sumWarning,
    activeNumber,
    activeLastChanged,
    activeLastSequenceNo,
    activeTableUrl,
    alertNumber,
    alertLastChanged,
    alertLastSequenceNo,
    alertTableUrl,
    heartbeatInterval,
    additionalText,
    additionalTextTruncated,
    resourceIdPresent,
    additionalInfo,
    additionalInfoTruncated,
    recordType,
    additionalInfoRemainder,
};

/** The only instance of a scalar. */
constexpr std::array<oid, root.size() + 4> instanceOf(const Object& scalar) {
  std::array<oid, root.size() + 4> id = {};
  std::copy(scalar.id.begin(), scalar.id.end(), id.begin());
  return id;
}

/** What a column of the tables shows of an alarm or alert. */
enum class Field {
  MajorType,
  MinorType,
  SpecificProblem,
  ManagedObject,
  EventType,
  EventTime,
  OriginalEventTime,
  ProbableCause,
  Severity,
  OriginalSeverity,
  AdditionalText,
  OriginalAdditionalText,
  ResourceId,
  AdditionalInfo
};

struct Column {
  Field field;
  const char* name;
};

/** Column 1 is the index, which is not shown. */
inline constexpr unsigned int firstColumn = 2;

inline constexpr Column activeColumns[] = {
    {Field::MajorType, "kavAlarmActiveMajorType"},
    {Field::MinorType, "kavAlarmActiveMinorType"},
    {Field::SpecificProblem, "kavAlarmActiveSpecificProblem"},
    {Field::ManagedObject, "kavAlarmActiveManagedObject"},
    {Field::EventType, "kavAlarmActiveEventType"},
    {Field::EventTime, "kavAlarmActiveEventTime"},
    {Field::OriginalEventTime, "kavAlarmActiveOriginalEventTime"},
    {Field::ProbableCause, "kavAlarmActiveProbableCause"},
    {Field::Severity, "kavAlarmActiveSeverity"},
    {Field::OriginalSeverity, "kavAlarmActiveOriginalSeverity"},
    {Field::AdditionalText, "kavAlarmActiveAdditionalText"},
    {Field::OriginalAdditionalText, "kavAlarmActiveOriginalAdditionalText"},
    {Field::ResourceId, "kavAlarmActiveResourceId"},
    {Field::AdditionalInfo, "kavAlarmActiveAdditionalInfo"},
};

inline constexpr Column alertColumns[] = {
    {Field::MajorType, "kavAlarmAlertMajorType"},
    {Field::MinorType, "kavAlarmAlertMinorType"},
    {Field::SpecificProblem, "kavAlarmAlertSpecificProblem"},
    {Field::ManagedObject, "kavAlarmAlertManagedObject"},
    {Field::EventType, "kavAlarmAlertEventType"},
    {Field::EventTime, "kavAlarmAlertEventTime"},
    {Field::ProbableCause, "kavAlarmAlertProbableCause"},
    {Field::Severity, "kavAlarmAlertSeverity"},
    {Field::AdditionalText, "kavAlarmAlertAdditionalText"},
    {Field::ResourceId, "kavAlarmAlertResourceId"},
    {Field::AdditionalInfo, "kavAlarmAlertAdditionalInfo"},
};

struct Table {
  Object object;
  std::span<const Column> columns; /**< from firstColumn on */

  constexpr unsigned int lastColumn() const { return firstColumn + static_cast<unsigned int>(columns.size()) - 1; }
  /** Null for a number that is no column's. */
  constexpr const Column* column(unsigned long number) const {
    return number >= firstColumn && number <= lastColumn() ? &columns[number - firstColumn] : nullptr;
  }
  /** The field's column, which the table must have. */
  constexpr unsigned int numberOf(Field field) const {
    const auto found =
        std::find_if(columns.begin(), columns.end(), [field](const Column& c) { return c.field == field; });
    return firstColumn + static_cast<unsigned int>(found - columns.begin());
  }
};

inline constexpr Table activeTable = {{"kavAlarmActiveAlarmTable", below(1, 3, 5)}, activeColumns};
inline constexpr Table alertTable = {{"kavAlarmAlertTable", below(1, 4, 5)}, alertColumns};

/** A table's identifier, its entry's, the column's number and the row's index. */
using Cell = std::array<oid, root.size() + 6>;
inline constexpr std::size_t cellColumnPlace = root.size() + 4;

constexpr Cell cellOf(const Table& table, unsigned int column, unsigned int index) {
  Cell id = {};
  oid* place = std::copy(table.object.id.begin(), table.object.id.end(), id.data());
  *place++ = 1;
  *place++ = column;
  *place = index;
  return id;
}

// Those of a severity follow the numbering of DaxOamSpiNotificationFmSeverityT; null: there is none.
inline constexpr Object alarmNotifications[] = {
    {"kavAlarmCleared", below(2, 0, 7)},       {"kavAlarmIndeterminateRaised", below(2, 0, 1)},
    {"kavAlarmWarningRaised", below(2, 0, 2)}, {"kavAlarmMinorRaised", below(2, 0, 3)},
    {"kavAlarmMajorRaised", below(2, 0, 4)},   {"kavAlarmCriticalRaised", below(2, 0, 5)},
};
inline constexpr Object alertNotifications[] = {
    {nullptr, {}},
    {"kavAlarmIndeterminateAlert", below(2, 0, 10)},
    {"kavAlarmWarningAlert", below(2, 0, 11)},
    {"kavAlarmMinorAlert", below(2, 0, 12)},
    {"kavAlarmMajorAlert", below(2, 0, 13)},
    {"kavAlarmCriticalAlert", below(2, 0, 14)},
};
inline constexpr Object alarmAppendInfo = {"kavAlarmAppendInfo", below(2, 0, 8)};
inline constexpr Object alertAppendInfo = {"kavAlarmAlertAppendInfo", below(2, 0, 15)};
inline constexpr Object heartbeatNotification = {"kavAlarmHeartbeatNotification", below(2, 0, 20)};
inline constexpr Object alarmListRebuilt = {"kavAlarmListRebuilt", below(2, 0, 30)};

}  // namespace VelaFmSnmp::AlarmMib
#endif
