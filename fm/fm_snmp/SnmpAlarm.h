#ifndef VELA_FM_SNMP_SNMP_ALARM_H
#define VELA_FM_SNMP_SNMP_ALARM_H

#include <list>
#include <string>
#include <utility>

#include "SnmpOid.h"
#include "VelaOamApiFm.h"

namespace VelaFmSnmp {

/**
 * The component's own copy of an alarm (stateful) or alert (stateless) of the fault-management service. Every field is
 * checked when it is taken over; a bad one gets its default and a log line. A value type, ordered by index.
 */
class SnmpAlarm {
 public:
  using AdditionalInfo = std::list<std::pair<std::string, std::string>>;

  /** All defaults. */
  SnmpAlarm();
  /** Takes an event over. Never fails; a severity that is none is raised to critical. */
  explicit SnmpAlarm(const VelaOamApiFmNotificationEventValue_4T& event);
  SnmpAlarm(const SnmpAlarm&) = default;
  /** Copies through the setters; a severity that is none becomes indeterminate. */
  SnmpAlarm& operator=(const SnmpAlarm& other);
  ~SnmpAlarm() = default;

  /** Back to the defaults. */
  void reset();
  /** One line for logs and traces. */
  std::string toString() const;
  /** By index only. */
  bool operator<(const SnmpAlarm& other) const { return _index < other._index; }

  long long getSeqNo() const { return _seqNo; }
  bool isStateful() const { return _stateful; }
  /** Index in the service's alarm list; the row index of the MIB. */
  unsigned int getIndex() const { return _index; }
  unsigned int getMajorType() const { return _majorType; }
  unsigned int getMinorType() const { return _minorType; }
  const std::string& getSpecificProblem() const { return _specificProblem; }
  /** Distinguished name of the alarming object. */
  const std::string& getManagedObject() const { return _managedObject; }
  unsigned int getEventType() const { return _eventType; }
  /** Nanoseconds since the epoch. */
  unsigned long long getEventTime() const { return _eventTime; }
  unsigned int getProbableCause() const { return _probableCause; }
  DaxOamSpiNotificationFmSeverityT getSeverity() const { return _severity; }
  const std::string& getAdditionalText() const { return _additionalText; }
  const SnmpOid& getResourceId() const { return _resourceId; }
  /** True when the record updates an alarm that existed before. */
  bool getRecordType() const { return _recordType; }
  /** Nanoseconds since the epoch. */
  unsigned long long getOriginalEventTime() const { return _originalEventTime; }
  const std::string& getOriginalAdditionalText() const { return _originalAdditionalText; }
  DaxOamSpiNotificationFmSeverityT getOriginalSeverity() const { return _originalSeverity; }
  /** A copy of the items, in the order received. */
  AdditionalInfo getAdditionalInfo() const { return _additionalInfo; }
  /** The items as name=value;name=value, as of the last formatAdditionalInfo. */
  const std::string& getAdditionalInfoCompressedFormat() const { return _additionalInfoCompressedFormat; }

  /** Setters return whether the value was good. All are, but for severities and additional info. */
  bool setSeqNo(long long seqNo);
  bool setStateful(bool stateful);
  bool setIndex(unsigned int index);
  bool setMajorType(unsigned int majorType);
  bool setMinorType(unsigned int minorType);
  bool setSpecificProblem(const std::string& specificProblem);
  bool setManagedObject(const std::string& managedObject);
  bool setEventType(unsigned int eventType);
  bool setEventTime(unsigned long long eventTime);
  bool setProbableCause(unsigned int probableCause);
  /** A severity outside 0..5 is stored as 1 (indeterminate), and false returned. */
  bool setSeverity(DaxOamSpiNotificationFmSeverityT severity);
  bool setAdditionalText(const std::string& additionalText);
  bool setResourceId(const SnmpOid& resourceId);
  bool setRecordType(bool recordType);
  bool setOriginalEventTime(unsigned long long originalEventTime);
  bool setOriginalAdditionalText(const std::string& originalAdditionalText);
  /** Not checked. */
  bool setOriginalSeverity(DaxOamSpiNotificationFmSeverityT originalSeverity);
  /** Appends the items; null texts become empty. A name or value that carries an escaped separator ("\;" or "\=")
      could not be told from one that the format escapes: false then, and nothing is appended. */
  bool setAdditionalInfo(const DaxOamSpiFmAdditionalInfoContainer& container);
  /** Replaces the items, with the same check. The compressed format follows with formatAdditionalInfo only. */
  bool setAdditionalInfo(const AdditionalInfo& items);
  void setFormattedAdditionalInfo(const std::string& text);
  /** Rebuilds the compressed format from the items: ";" and "=" inside them are escaped with a backslash. */
  void formatAdditionalInfo();

 private:
  template <class Parameter, class Value>
  void take(bool (SnmpAlarm::*set)(Parameter), const Value& value, const Value& fallback, const char* name);
  void take(bool (SnmpAlarm::*set)(const std::string&), const char* text, const char* name);
  template <class Source>
  void takeAdditionalInfo(const Source& source);

  long long _seqNo = 0;
  bool _stateful = false;
  unsigned int _index = 0;
  unsigned int _majorType = 0;
  unsigned int _minorType = 0;
  std::string _specificProblem;
  std::string _managedObject;
  unsigned int _eventType = 0;
  unsigned long long _eventTime = 0;
  unsigned int _probableCause = 0;
  DaxOamSpiNotificationFmSeverityT _severity = 0;
  std::string _additionalText;
  SnmpOid _resourceId;
  bool _recordType = false;
  unsigned long long _originalEventTime = 0;
  std::string _originalAdditionalText;
  DaxOamSpiNotificationFmSeverityT _originalSeverity = 0;
  AdditionalInfo _additionalInfo;
  std::string _additionalInfoCompressedFormat;
};

}  // namespace VelaFmSnmp
#endif
