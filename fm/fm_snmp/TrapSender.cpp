#include "TrapSender.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "AlarmMibObjects.h"
#include "LoggingWrapper.h"
#include "SnmpUtil.h"

namespace VelaFmSnmp {

namespace {

using AlarmMib::Field;
using AlarmMib::instanceOf;

constexpr oid snmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

/** What differs between the notifications of alarms and of alerts. */
struct Kind {
  const AlarmMib::Table& table;
  const AlarmMib::Object& lastSequenceNo;
  std::span<const AlarmMib::Object> notifications; /**< by severity */
  const AlarmMib::Object& appendInfo;
  bool isAlarm;
};

constexpr Kind alarmKind = {
    .table = AlarmMib::activeTable,
    .lastSequenceNo = AlarmMib::activeLastSequenceNo,
    .notifications = AlarmMib::alarmNotifications,
    .appendInfo = AlarmMib::alarmAppendInfo,
    .isAlarm = true,
};

constexpr Kind alertKind = {
    .table = AlarmMib::alertTable,
    .lastSequenceNo = AlarmMib::alertLastSequenceNo,
    .notifications = AlarmMib::alertNotifications,
    .appendInfo = AlarmMib::alertAppendInfo,
    .isAlarm = false,
};

constexpr DaxOamSpiNotificationFmSeverityT severityCleared = 0;

/** Octets of a text that a notification carries; the rest is the append info's. */
constexpr std::size_t maxTextLength = 255;
/** Longest whole texts whose rest an append info carries. */
constexpr std::size_t maxAppendedTextLength = 511;
constexpr std::size_t maxAppendedInfoLength = 767;

int toTruthValue(bool value) { return value ? 1 : 2; }

bool isTooLong(std::string_view text) { return text.size() > maxTextLength; }

std::string_view remainder(std::string_view text) { return isTooLong(text) ? text.substr(maxTextLength) : ""; }

Varbinds beginNotification(const AlarmMib::Object& notification) {
  Varbinds varbinds;
  varbinds.addOid(snmpTrapOid, notification.id);
  return varbinds;
}

/** Names the columns in the row of an alarm; alerts have no rows and use index 0. */
class RowName {
 public:
  RowName(const Kind& kind, const SnmpAlarm& alarm) : _table(kind.table), _index(kind.isAlarm ? alarm.getIndex() : 0) {}
  AlarmMib::Cell operator()(Field field) const { return AlarmMib::cellOf(_table, _table.numberOf(field), _index); }

 private:
  const AlarmMib::Table& _table;
  unsigned int _index;
};

const AlarmMib::Object* findNotification(const Kind& kind, DaxOamSpiNotificationFmSeverityT severity) {
  const bool isSeverity = severity >= 0 && static_cast<std::size_t>(severity) < kind.notifications.size();
  if (!isSeverity || kind.notifications[severity].name == nullptr) return nullptr;
  return &kind.notifications[severity];
}

SnmpOid toSnmpOid(const AlarmMib::Object& object) {
  return SnmpOid(object.id.data(), static_cast<unsigned int>(object.id.size()));
}

void addIdentity(Varbinds& varbinds, const RowName& row, const SnmpAlarm& alarm) {
  varbinds.addText(row(Field::ManagedObject), alarm.getManagedObject());
  varbinds.addUnsigned(row(Field::MajorType), alarm.getMajorType());
  varbinds.addUnsigned(row(Field::MinorType), alarm.getMinorType());
}

void addEvent(Varbinds& varbinds, const Kind& kind, const RowName& row, const SnmpAlarm& alarm) {
  varbinds.addText(row(Field::SpecificProblem), alarm.getSpecificProblem());
  varbinds.addUnsigned(instanceOf(kind.lastSequenceNo), static_cast<std::uint32_t>(alarm.getSeqNo()));
  varbinds.addInteger(row(Field::EventType), static_cast<std::int32_t>(alarm.getEventType()));
  varbinds.addText(row(Field::EventTime), SnmpUtil::getDateAndTime(alarm.getEventTime()));
  varbinds.addInteger(row(Field::ProbableCause), static_cast<std::int32_t>(alarm.getProbableCause()));
}

void addCutText(Varbinds& varbinds, const AlarmMib::Object& whole, const AlarmMib::Object& truncated,
                std::string_view text) {
  varbinds.addText(instanceOf(whole), text.substr(0, maxTextLength));
  varbinds.addInteger(instanceOf(truncated), toTruthValue(isTooLong(text)));
}

/** Nothing, and a log line, when a text is too long. */
std::optional<Varbinds> buildAppendInfo(const Kind& kind, const SnmpAlarm& alarm) {
  const std::string& text = alarm.getAdditionalText();
  if (text.size() > maxAppendedTextLength) {
    VELA_LOG(Vela::LogWarning, "Bad additional text: %d", static_cast<int>(text.size()));
    return std::nullopt;
  }
  const std::string& info = alarm.getAdditionalInfoCompressedFormat();
  if (info.size() > maxAppendedInfoLength) {
    VELA_LOG(Vela::LogWarning, "Bad additional info: %d", static_cast<int>(info.size()));
    return std::nullopt;
  }
  Varbinds varbinds = beginNotification(kind.appendInfo);
  addIdentity(varbinds, RowName(kind, alarm), alarm);
  varbinds.addText(instanceOf(AlarmMib::additionalText), remainder(text));
  const SnmpOid resourceId = alarm.getResourceId().isNull() ? SnmpOid() : alarm.getResourceId();
  varbinds.addOid(AlarmMib::cellOf(kind.table, kind.table.numberOf(Field::ResourceId), 0),
                  {resourceId.getOidPtr(), resourceId.length()});
  varbinds.addText(instanceOf(AlarmMib::additionalInfoRemainder), remainder(info));
  return varbinds;
}

int sendAppendInfo(const Kind& kind, const SnmpAlarm& alarm) {
  const std::optional<Varbinds> varbinds = buildAppendInfo(kind, alarm);
  if (!varbinds) return TrapSender::badLength;
  send_v2trap(varbinds->list());
  return 0;
}

TrapSender::Notifications build(const Kind& kind, const SnmpAlarm& alarm) {
  const AlarmMib::Object* const notification = findNotification(kind, alarm.getSeverity());
  if (notification == nullptr) {
    VELA_LOG(Vela::LogError, "What severity is set (%d)?", alarm.getSeverity());
    return {};
  }
  const std::string& text = alarm.getAdditionalText();
  const std::string& info = alarm.getAdditionalInfoCompressedFormat();

  Varbinds varbinds = beginNotification(*notification);
  const RowName row(kind, alarm);
  addIdentity(varbinds, row, alarm);
  addEvent(varbinds, kind, row, alarm);
  addCutText(varbinds, AlarmMib::additionalText, AlarmMib::additionalTextTruncated, text);
  varbinds.addInteger(instanceOf(AlarmMib::resourceIdPresent), toTruthValue(!alarm.getResourceId().isNull()));
  addCutText(varbinds, AlarmMib::additionalInfo, AlarmMib::additionalInfoTruncated, info);
  if (kind.isAlarm && alarm.getSeverity() != severityCleared)
    varbinds.addInteger(instanceOf(AlarmMib::recordType), alarm.getRecordType() ? 1 : 0);
  VELA_TRACE("%s", alarm.toString().c_str());

  TrapSender::Notifications notifications;
  notifications.push_back(std::move(varbinds));
  if (isTooLong(text) || isTooLong(info)) {
    if (std::optional<Varbinds> rest = buildAppendInfo(kind, alarm)) notifications.push_back(std::move(*rest));
  }
  return notifications;
}

TrapSender::Notifications only(Varbinds varbinds) {
  TrapSender::Notifications notifications;
  notifications.push_back(std::move(varbinds));
  return notifications;
}

}  // namespace

TrapSender::Notifications TrapSender::buildAlarm(const SnmpAlarm& alarm) { return build(alarmKind, alarm); }

TrapSender::Notifications TrapSender::buildAlert(const SnmpAlarm& alert) { return build(alertKind, alert); }

TrapSender::Notifications TrapSender::buildHeartbeat(const SnmpHeartbeat& heartbeat) {
  Varbinds varbinds = beginNotification(AlarmMib::heartbeatNotification);
  varbinds.addUnsigned(instanceOf(AlarmMib::activeLastSequenceNo), heartbeat.getAlarmSeqNo());
  varbinds.addUnsigned(instanceOf(AlarmMib::alertLastSequenceNo), heartbeat.getAlertSeqNo());
  varbinds.addText(instanceOf(AlarmMib::activeLastChanged), SnmpUtil::getDateAndTime(heartbeat.getLastAlarmTime()));
  varbinds.addText(instanceOf(AlarmMib::alertLastChanged), SnmpUtil::getDateAndTime(heartbeat.getLastAlertTime()));
  VELA_LOG(Vela::LogInfo, "Sending Heartbeat with Last Alarm SeqNo=%u (%s), Last Alert SeqNo=%u (%s)",
           heartbeat.getAlarmSeqNo(), SnmpUtil::getTimeStr(heartbeat.getLastAlarmTime()).c_str(),
           heartbeat.getAlertSeqNo(), SnmpUtil::getTimeStr(heartbeat.getLastAlertTime()).c_str());
  return only(std::move(varbinds));
}

TrapSender::Notifications TrapSender::buildAlarmListRebuilt(const std::string& text) {
  Varbinds varbinds = beginNotification(AlarmMib::alarmListRebuilt);
  varbinds.addText(instanceOf(AlarmMib::activeTableUrl), text);
  VELA_TRACE("send_v2trap (alarmListRebuilt)...\n");
  return only(std::move(varbinds));
}

int TrapSender::send(const Notifications& notifications) {
  for (const Varbinds& varbinds : notifications) send_v2trap(varbinds.list());
  return notifications.empty() ? noNotification : 0;
}

int TrapSender::sendAlarmAppendInfo(const SnmpAlarm& alarm) { return sendAppendInfo(alarmKind, alarm); }

int TrapSender::sendAlertAppendInfo(const SnmpAlarm& alert) { return sendAppendInfo(alertKind, alert); }

SnmpOid TrapSender::getNotificationOid(const SnmpAlarm& alarm) {
  const AlarmMib::Object* const notification =
      findNotification(alarm.isStateful() ? alarmKind : alertKind, alarm.getSeverity());
  return notification == nullptr ? SnmpOid("") : toSnmpOid(*notification);
}

const SnmpOid& TrapSender::getAlarmListRebuiltOid() {
  static const SnmpOid notification = toSnmpOid(AlarmMib::alarmListRebuilt);
  return notification;
}

}  // namespace VelaFmSnmp
