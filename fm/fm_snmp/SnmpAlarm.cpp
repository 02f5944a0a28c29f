#include "SnmpAlarm.h"

#include <string_view>

#include "LoggingWrapper.h"
#include "SnmpUtil.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

constexpr DaxOamSpiNotificationFmSeverityT severityIndeterminate = 1;
constexpr DaxOamSpiNotificationFmSeverityT severityCritical = 5;
constexpr unsigned int defaultEventType = 1;
constexpr unsigned int defaultProbableCause = 418;

const std::string& emptyText() {
  static const std::string empty;
  return empty;
}

std::string_view textOrEmpty(const char* text) { return text == nullptr ? "" : text; }

bool holdsEscapedSeparator(std::string_view text) {
  return text.find("\\;") != std::string_view::npos || text.find("\\=") != std::string_view::npos;
}

void appendEscaped(std::string& target, std::string_view text) {
  for (const char c : text) {
    if (c == ';' || c == '=') target += '\\';
    target += c;
  }
}

}  // namespace

SnmpAlarm::SnmpAlarm() { reset(); }

SnmpAlarm::SnmpAlarm(const VelaOamApiFmNotificationEventValue_4T& event) : SnmpAlarm() {
  VELA_TRACE(" >> ");
  const DaxOamSpiNotificationFmT* const notification = event.notification;
  if (notification == nullptr) {
    VELA_LOG(Vela::LogNotice, "Notification is NULL in VelaOamApiFmNotificationEventValue_4T, setting to default");
  } else {
    take(&SnmpAlarm::setManagedObject, notification->dn, "dn");
    take(&SnmpAlarm::setMajorType, notification->majorType, 0U, "majorType");
    take(&SnmpAlarm::setMinorType, notification->minorType, 0U, "minorType");
    take(&SnmpAlarm::setAdditionalText, notification->additionalText, "additionalText");
    if (!setSeverity(notification->severity)) {
      VELA_LOG(Vela::LogInfo, "Incorrect severity received, setting to critical.");
      setSeverity(severityCritical);
    }
    take(&SnmpAlarm::setEventTime, notification->eventTime, std::uint64_t{0}, "eventTime");
  }
  take(&SnmpAlarm::setSeqNo, event.sequenceNumber, std::int64_t{0}, "seqNo");
  take(&SnmpAlarm::setIndex, event.index, 0U, "index");
  take(&SnmpAlarm::setStateful, event.stateful, false, "state");
  take(&SnmpAlarm::setSpecificProblem, event.specificProblem, "specificProblem");
  take(&SnmpAlarm::setEventType, event.eventType, defaultEventType, "eventType");
  take(&SnmpAlarm::setProbableCause, event.probableCause, defaultProbableCause, "probableCause");
  setResourceId(SnmpOid());
  take(&SnmpAlarm::setOriginalEventTime, event.originalEventTime, std::uint64_t{0}, "originalEventTime");
  take(&SnmpAlarm::setOriginalAdditionalText, event.originalAdditionalText, "originalAdditionalText");
  take(&SnmpAlarm::setOriginalSeverity, event.originalSeverity, severityIndeterminate, "originalSeverity");
  if (notification != nullptr) takeAdditionalInfo(notification->additionalInfo);
  take(&SnmpAlarm::setRecordType, event.alarmUpdate, false, "alram update");
  VELA_TRACE(" << ");
}

SnmpAlarm& SnmpAlarm::operator=(const SnmpAlarm& other) {
  take(&SnmpAlarm::setManagedObject, other._managedObject, emptyText(), "managedObject");
  take(&SnmpAlarm::setMajorType, other._majorType, 0U, "majorType");
  take(&SnmpAlarm::setMinorType, other._minorType, 0U, "minorType");
  take(&SnmpAlarm::setAdditionalText, other._additionalText, emptyText(), "additionalText");
  take(&SnmpAlarm::setSeverity, other._severity, severityIndeterminate, "severity");
  take(&SnmpAlarm::setEventTime, other._eventTime, 0ULL, "eventTime");
  take(&SnmpAlarm::setSeqNo, other._seqNo, 0LL, "seqNo");
  take(&SnmpAlarm::setIndex, other._index, 0U, "index");
  take(&SnmpAlarm::setStateful, other._stateful, false, "state");
  take(&SnmpAlarm::setSpecificProblem, other._specificProblem, emptyText(), "specificProblem");
  take(&SnmpAlarm::setEventType, other._eventType, defaultEventType, "eventType");
  take(&SnmpAlarm::setProbableCause, other._probableCause, defaultProbableCause, "probableCause");
  setResourceId(other._resourceId);
  take(&SnmpAlarm::setOriginalEventTime, other._originalEventTime, 0ULL, "originalEventTime");
  take(&SnmpAlarm::setOriginalAdditionalText, other._originalAdditionalText, emptyText(), "originalAdditionalText");
  take(&SnmpAlarm::setOriginalSeverity, other._originalSeverity, severityIndeterminate, "originalSeverity");
  takeAdditionalInfo(other._additionalInfo);
  take(&SnmpAlarm::setRecordType, other._recordType, false, "alram update");
  return *this;
}

template <class Parameter, class Value>
void SnmpAlarm::take(bool (SnmpAlarm::*set)(Parameter), const Value& value, const Value& fallback, const char* name) {
  if ((this->*set)(value)) return;
  VELA_LOG(Vela::LogInfo, "Incorrect %s received, setting to default.", name);
  (this->*set)(fallback);
}

void SnmpAlarm::take(bool (SnmpAlarm::*set)(const std::string&), const char* text, const char* name) {
  if (text != nullptr && (this->*set)(text)) return;
  VELA_LOG(Vela::LogInfo, "Incorrect %s received, setting to default.", name);
  (this->*set)(emptyText());
}

template <class Source>
void SnmpAlarm::takeAdditionalInfo(const Source& source) {
  if (setAdditionalInfo(source)) {
    formatAdditionalInfo();
    return;
  }
  VELA_LOG(Vela::LogInfo, "Incorrect additional information received, setting to default.");
  _additionalInfo.clear();
  _additionalInfoCompressedFormat.clear();
}

void SnmpAlarm::reset() {
  _seqNo = 0;
  _stateful = false;
  _index = 0;
  _majorType = 0;
  _minorType = 0;
  _specificProblem.clear();
  _managedObject.clear();
  _eventType = defaultEventType;
  _eventTime = 0;
  _probableCause = 0;
  _severity = severityIndeterminate;
  _additionalText.clear();
  _resourceId = SnmpOid();
  _recordType = false;
  _originalEventTime = 0;
  _originalAdditionalText.clear();
  _originalSeverity = severityIndeterminate;
  _additionalInfo.clear();
  _additionalInfoCompressedFormat.clear();
}

std::string SnmpAlarm::toString() const {
  std::string text;
  const auto add = [&text](const char* label, const std::string& value) {
    text.append(label).append(value).append("; ");
  };
  const auto flag = [](bool value) { return std::string(value ? "1" : "0"); };
  add("SeqNo: ", std::to_string(_seqNo));
  add("Index: ", std::to_string(_index));
  add("Spec: ", _specificProblem);
  add("Text: ", _additionalText);
  add("Major: ", std::to_string(_majorType));
  add("Minor: ", std::to_string(_minorType));
  add("MO: ", _managedObject);
  add("Time: ", SnmpUtil::getTimeStr(_eventTime));
  add("Sev: ", SnmpUtil::getSeverityStr(_severity));
  add("Stateful: ", flag(_stateful));
  add("EvType: ", std::to_string(_eventType));
  add("ProbCause: ", std::to_string(_probableCause));
  add("ResId: ", _resourceId.toString());
  add("RecordType: ", flag(_recordType));
  add("OrigTime: ", SnmpUtil::getTimeStr(_originalEventTime));
  add("OrigSev: ", SnmpUtil::getSeverityStr(_originalSeverity));
  add("OrigText: ", _originalAdditionalText);
  add("additionalInfoSize=", std::to_string(_additionalInfo.size()));
  for (const auto& [name, value] : _additionalInfo) {
    add("", name);
    add("", value);
  }
  return text;
}

bool SnmpAlarm::setSeqNo(long long seqNo) {
  _seqNo = seqNo;
  return true;
}

bool SnmpAlarm::setStateful(bool stateful) {
  _stateful = stateful;
  return true;
}

bool SnmpAlarm::setIndex(unsigned int index) {
  _index = index;
  return true;
}

bool SnmpAlarm::setMajorType(unsigned int majorType) {
  _majorType = majorType;
  return true;
}

bool SnmpAlarm::setMinorType(unsigned int minorType) {
  _minorType = minorType;
  return true;
}

bool SnmpAlarm::setSpecificProblem(const std::string& specificProblem) {
  _specificProblem = specificProblem;
  return true;
}

bool SnmpAlarm::setManagedObject(const std::string& managedObject) {
  VELA_TRACE("MO %s", managedObject.c_str());
  _managedObject = managedObject;
  return true;
}

bool SnmpAlarm::setEventType(unsigned int eventType) {
  _eventType = eventType;
  return true;
}

bool SnmpAlarm::setEventTime(unsigned long long eventTime) {
  _eventTime = eventTime;
  return true;
}

bool SnmpAlarm::setProbableCause(unsigned int probableCause) {
  _probableCause = probableCause;
  return true;
}

bool SnmpAlarm::setSeverity(DaxOamSpiNotificationFmSeverityT severity) {
  try {
    SnmpUtil::translateSeverityXMOD_to_SNMP(severity);
    _severity = severity;
    return true;
  } catch (const Vela::VelaException&) {
    _severity = severityIndeterminate;
    return false;
  }
}

bool SnmpAlarm::setAdditionalText(const std::string& additionalText) {
  _additionalText = additionalText;
  return true;
}

bool SnmpAlarm::setResourceId(const SnmpOid& resourceId) {
  _resourceId = resourceId;
  return true;
}

bool SnmpAlarm::setRecordType(bool recordType) {
  _recordType = recordType;
  return true;
}

bool SnmpAlarm::setOriginalEventTime(unsigned long long originalEventTime) {
  _originalEventTime = originalEventTime;
  return true;
}

bool SnmpAlarm::setOriginalAdditionalText(const std::string& originalAdditionalText) {
  _originalAdditionalText = originalAdditionalText;
  return true;
}

bool SnmpAlarm::setOriginalSeverity(DaxOamSpiNotificationFmSeverityT originalSeverity) {
  _originalSeverity = originalSeverity;
  return true;
}

bool SnmpAlarm::setAdditionalInfo(const DaxOamSpiFmAdditionalInfoContainer& container) {
  if (container.items == nullptr && container.size > 0) return false;
  AdditionalInfo items;
  for (std::uint32_t i = 0; i < container.size; ++i) {
    const std::string_view name = textOrEmpty(container.items[i].name);
    const std::string_view value = textOrEmpty(container.items[i].value);
    if (holdsEscapedSeparator(name) || holdsEscapedSeparator(value)) return false;
    items.emplace_back(name, value);
  }
  _additionalInfo.splice(_additionalInfo.end(), items);
  return true;
}

bool SnmpAlarm::setAdditionalInfo(const AdditionalInfo& items) {
  for (const auto& [name, value] : items) {
    if (holdsEscapedSeparator(name) || holdsEscapedSeparator(value)) return false;
  }
  _additionalInfo = items;
  return true;
}

void SnmpAlarm::setFormattedAdditionalInfo(const std::string& text) { _additionalInfoCompressedFormat = text; }

void SnmpAlarm::formatAdditionalInfo() {
  _additionalInfoCompressedFormat.clear();
  for (const auto& [name, value] : _additionalInfo) {
    if (&name != &_additionalInfo.front().first) _additionalInfoCompressedFormat += ';';
    appendEscaped(_additionalInfoCompressedFormat, name);
    _additionalInfoCompressedFormat += '=';
    appendEscaped(_additionalInfoCompressedFormat, value);
  }
}

}  // namespace VelaFmSnmp
