#include "TrapSender.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "LoggingWrapper.h"
#include "SnmpUtil.h"
#include "kavrelAlarmMIB.h"

namespace VelaFmSnmp {

namespace {

constexpr oid snmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

/** What differs between the notifications of alarms and of alerts. */
struct Objects {
  const oid (&majorType)[15];
  const oid (&minorType)[15];
  const oid (&specificProblem)[15];
  const oid (&managedObject)[15];
  const oid (&eventType)[15];
  const oid (&eventTime)[15];
  const oid (&probableCause)[15];
  const oid (&resourceId)[15];
  const oid (&lastSequenceNo)[13];
  /** Last sub-identifiers of the notifications by severity, 0: there is none. */
  oid notifications[6];
  const oid (&appendInfo)[12];
  bool isAlarm;
};

constexpr Objects alarmObjects = {
    .majorType = mibOid<1, 3, 5, 1, 2, 0>,
    .minorType = mibOid<1, 3, 5, 1, 3, 0>,
    .specificProblem = mibOid<1, 3, 5, 1, 4, 0>,
    .managedObject = mibOid<1, 3, 5, 1, 5, 0>,
    .eventType = mibOid<1, 3, 5, 1, 6, 0>,
    .eventTime = mibOid<1, 3, 5, 1, 7, 0>,
    .probableCause = mibOid<1, 3, 5, 1, 9, 0>,
    .resourceId = mibOid<1, 3, 5, 1, 14, 0>,
    .lastSequenceNo = mibOid<1, 3, 3, 0>,
    .notifications = {7, 1, 2, 3, 4, 5},
    .appendInfo = mibOid<2, 0, 8>,
    .isAlarm = true,
};

constexpr Objects alertObjects = {
    .majorType = mibOid<1, 4, 5, 1, 2, 0>,
    .minorType = mibOid<1, 4, 5, 1, 3, 0>,
    .specificProblem = mibOid<1, 4, 5, 1, 4, 0>,
    .managedObject = mibOid<1, 4, 5, 1, 5, 0>,
    .eventType = mibOid<1, 4, 5, 1, 6, 0>,
    .eventTime = mibOid<1, 4, 5, 1, 7, 0>,
    .probableCause = mibOid<1, 4, 5, 1, 8, 0>,
    .resourceId = mibOid<1, 4, 5, 1, 11, 0>,
    .lastSequenceNo = mibOid<1, 4, 3, 0>,
    .notifications = {0, 10, 11, 12, 13, 14},
    .appendInfo = mibOid<2, 0, 15>,
    .isAlarm = false,
};

constexpr auto& additionalText = mibOid<1, 2, 1, 0>;
constexpr auto& additionalTextTruncated = mibOid<1, 2, 2, 0>;
constexpr auto& resourceIdPresent = mibOid<1, 2, 3, 0>;
constexpr auto& additionalInfo = mibOid<1, 2, 4, 0>;
constexpr auto& additionalInfoTruncated = mibOid<1, 2, 5, 0>;
constexpr auto& recordType = mibOid<1, 2, 6, 0>;
constexpr auto& additionalInfoRemainder = mibOid<1, 2, 7, 0>;
constexpr auto& activeLastChanged = mibOid<1, 3, 2, 0>;
constexpr auto& activeTableUrl = mibOid<1, 3, 4, 0>;
constexpr auto& alertLastChanged = mibOid<1, 4, 2, 0>;
constexpr auto& heartbeatNotification = mibOid<2, 0, 20>;
constexpr auto& alarmListRebuiltNotification = mibOid<2, 0, 30>;

constexpr DaxOamSpiNotificationFmSeverityT severityCleared = 0;

/** Octets of a text that a notification carries; the rest is the append info's. */
constexpr std::size_t maxTextLength = 255;
/** Longest whole texts whose rest an append info carries. */
constexpr std::size_t maxAppendedTextLength = 511;
constexpr std::size_t maxAppendedInfoLength = 767;

int toTruthValue(bool value) { return value ? 1 : 2; }

bool isTooLong(std::string_view text) { return text.size() > maxTextLength; }

std::string_view remainder(std::string_view text) { return isTooLong(text) ? text.substr(maxTextLength) : ""; }

Varbinds beginNotification(const oid* notification, std::size_t length) {
  Varbinds varbinds;
  varbinds.addOid(snmpTrapOid, notification, length);
  return varbinds;
}

template <std::size_t Length>
Varbinds beginNotification(const oid (&notification)[Length]) {
  return beginNotification(notification, Length);
}

/** A column's name in the row of an alarm; alerts have no rows and use index 0. */
class RowName {
 public:
  RowName(const Objects& objects, const SnmpAlarm& alarm) : _index(objects.isAlarm ? alarm.getIndex() : 0) {}
  const oid (&operator()(const oid (&column)[15]))[15] {
    TrapSender::updateIndex(_name, column, _index);
    return _name;
  }

 private:
  unsigned int _index;
  oid _name[15] = {};
};

SnmpOid findNotification(const Objects& objects, DaxOamSpiNotificationFmSeverityT severity) {
  const bool isSeverity = severity >= 0 && static_cast<std::size_t>(severity) < std::size(objects.notifications);
  const oid last = isSeverity ? objects.notifications[severity] : 0;
  if (last == 0) return SnmpOid("");
  oid notification[12];
  TrapSender::updateIndex(notification, mibOid<2, 0, 0>, static_cast<unsigned int>(last));
  return SnmpOid(notification, 12);
}

void addIdentity(Varbinds& varbinds, const Objects& objects, const SnmpAlarm& alarm) {
  RowName row(objects, alarm);
  varbinds.addText(row(objects.managedObject), alarm.getManagedObject());
  varbinds.addUnsigned(row(objects.majorType), alarm.getMajorType());
  varbinds.addUnsigned(row(objects.minorType), alarm.getMinorType());
}

void addEvent(Varbinds& varbinds, const Objects& objects, const SnmpAlarm& alarm) {
  RowName row(objects, alarm);
  varbinds.addText(row(objects.specificProblem), alarm.getSpecificProblem());
  varbinds.addUnsigned(objects.lastSequenceNo, static_cast<std::uint32_t>(alarm.getSeqNo()));
  varbinds.addInteger(row(objects.eventType), static_cast<std::int32_t>(alarm.getEventType()));
  varbinds.addText(row(objects.eventTime), SnmpUtil::getDateAndTime(alarm.getEventTime()));
  varbinds.addInteger(row(objects.probableCause), static_cast<std::int32_t>(alarm.getProbableCause()));
}

void addCutText(Varbinds& varbinds, const oid (&textName)[13], const oid (&truncatedName)[13], std::string_view text) {
  varbinds.addText(textName, text.substr(0, maxTextLength));
  varbinds.addInteger(truncatedName, toTruthValue(isTooLong(text)));
}

/** Nothing, and a log line, when a text is too long. */
std::optional<Varbinds> buildAppendInfo(const Objects& objects, const SnmpAlarm& alarm) {
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
  Varbinds varbinds = beginNotification(objects.appendInfo);
  addIdentity(varbinds, objects, alarm);
  varbinds.addText(additionalText, remainder(text));
  const SnmpOid resourceId = alarm.getResourceId().isNull() ? SnmpOid() : alarm.getResourceId();
  varbinds.addOid(objects.resourceId, resourceId.getOidPtr(), resourceId.length());
  varbinds.addText(additionalInfoRemainder, remainder(info));
  return varbinds;
}

int sendAppendInfo(const Objects& objects, const SnmpAlarm& alarm) {
  const std::optional<Varbinds> varbinds = buildAppendInfo(objects, alarm);
  if (!varbinds) return TrapSender::badLength;
  send_v2trap(varbinds->list());
  return 0;
}

TrapSender::Notifications build(const Objects& objects, const SnmpAlarm& alarm) {
  const SnmpOid notification = findNotification(objects, alarm.getSeverity());
  if (notification.isNull()) {
    VELA_LOG(Vela::LogError, "What severity is set (%d)?", alarm.getSeverity());
    return {};
  }
  const std::string& text = alarm.getAdditionalText();
  const std::string& info = alarm.getAdditionalInfoCompressedFormat();

  Varbinds varbinds = beginNotification(notification.getOidPtr(), notification.length());
  addIdentity(varbinds, objects, alarm);
  addEvent(varbinds, objects, alarm);
  addCutText(varbinds, additionalText, additionalTextTruncated, text);
  varbinds.addInteger(resourceIdPresent, toTruthValue(!alarm.getResourceId().isNull()));
  addCutText(varbinds, additionalInfo, additionalInfoTruncated, info);
  if (objects.isAlarm && alarm.getSeverity() != severityCleared)
    varbinds.addInteger(recordType, alarm.getRecordType() ? 1 : 0);
  VELA_TRACE("%s", alarm.toString().c_str());

  TrapSender::Notifications notifications;
  notifications.push_back(std::move(varbinds));
  if (isTooLong(text) || isTooLong(info)) {
    if (std::optional<Varbinds> rest = buildAppendInfo(objects, alarm)) notifications.push_back(std::move(*rest));
  }
  return notifications;
}

TrapSender::Notifications only(Varbinds varbinds) {
  TrapSender::Notifications notifications;
  notifications.push_back(std::move(varbinds));
  return notifications;
}

}  // namespace

TrapSender::Notifications TrapSender::buildAlarm(const SnmpAlarm& alarm) { return build(alarmObjects, alarm); }

TrapSender::Notifications TrapSender::buildAlert(const SnmpAlarm& alert) { return build(alertObjects, alert); }

TrapSender::Notifications TrapSender::buildHeartbeat(const SnmpHeartbeat& heartbeat) {
  Varbinds varbinds = beginNotification(heartbeatNotification);
  varbinds.addUnsigned(alarmObjects.lastSequenceNo, heartbeat.getAlarmSeqNo());
  varbinds.addUnsigned(alertObjects.lastSequenceNo, heartbeat.getAlertSeqNo());
  varbinds.addText(activeLastChanged, SnmpUtil::getDateAndTime(heartbeat.getLastAlarmTime()));
  varbinds.addText(alertLastChanged, SnmpUtil::getDateAndTime(heartbeat.getLastAlertTime()));
  VELA_LOG(Vela::LogInfo, "Sending Heartbeat with Last Alarm SeqNo=%u (%s), Last Alert SeqNo=%u (%s)",
           heartbeat.getAlarmSeqNo(), SnmpUtil::getTimeStr(heartbeat.getLastAlarmTime()).c_str(),
           heartbeat.getAlertSeqNo(), SnmpUtil::getTimeStr(heartbeat.getLastAlertTime()).c_str());
  return only(std::move(varbinds));
}

TrapSender::Notifications TrapSender::buildAlarmListRebuilt(const std::string& text) {
  Varbinds varbinds = beginNotification(alarmListRebuiltNotification);
  varbinds.addText(activeTableUrl, text);
  VELA_TRACE("send_v2trap (alarmListRebuilt)...\n");
  return only(std::move(varbinds));
}

int TrapSender::send(const Notifications& notifications) {
  for (const Varbinds& varbinds : notifications) send_v2trap(varbinds.list());
  return notifications.empty() ? noNotification : 0;
}

int TrapSender::sendAlarmAppendInfo(const SnmpAlarm& alarm) { return sendAppendInfo(alarmObjects, alarm); }

int TrapSender::sendAlertAppendInfo(const SnmpAlarm& alert) { return sendAppendInfo(alertObjects, alert); }

SnmpOid TrapSender::getNotificationOid(const SnmpAlarm& alarm) {
  return findNotification(alarm.isStateful() ? alarmObjects : alertObjects, alarm.getSeverity());
}

const SnmpOid& TrapSender::getAlarmListRebuiltOid() {
  static const SnmpOid notification(alarmListRebuiltNotification, std::size(alarmListRebuiltNotification));
  return notification;
}

}  // namespace VelaFmSnmp
