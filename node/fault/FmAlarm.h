/** What the fault-management service is told, and what it keeps of an active alarm. */
#ifndef VELA_NODE_FM_ALARM_H
#define VELA_NODE_FM_ALARM_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "VelaOamApiFm.h"
#include "support/PersistentMap.h"

namespace VelaNode {

/** Severities of reports and events. */
enum FmSeverity : DaxOamSpiNotificationFmSeverityT {
  FmCleared = 0,
  FmIndeterminate = 1,
  FmWarning = 2,
  FmMinor = 3,
  FmMajor = 4,
  FmCritical = 5
};

/** Name-value pairs in the order reported. */
using FmAdditionalInfo = std::vector<std::pair<std::string, std::string>>;

/** What makes two reports speak of one alarm. */
struct FmAlarmKey {
  std::string source; /**< distinguished name of the alarming object */
  std::uint32_t majorType = 0;
  std::uint32_t minorType = 0;
  std::string specificProblem;

  bool operator<(const FmAlarmKey& other) const {
    return std::tie(source, majorType, minorType, specificProblem) <
           std::tie(other.source, other.majorType, other.minorType, other.specificProblem);
  }
};

/** An alarm or alert as the alarming side reports it. */
struct FmReport {
  FmAlarmKey key;
  FmSeverity severity = FmIndeterminate;
  std::string additionalText;
  std::uint32_t eventType = 1;
  std::uint32_t probableCause = 418;
  FmAdditionalInfo additionalInfo;
};

/** What changes of an active alarm; what is not set stays. */
struct FmChange {
  std::optional<FmSeverity> severity;
  std::optional<std::string> additionalText;
  std::optional<FmAdditionalInfo> additionalInfo;
};

/** An active alarm. Times are ns since the epoch. */
struct FmAlarm : FmReport {
  std::uint32_t index = 0;
  std::uint64_t eventTime = 0;
  std::uint64_t originalEventTime = 0;
  std::string originalAdditionalText;
  FmSeverity originalSeverity = FmIndeterminate;
};

using FmAlarmPtr = std::shared_ptr<const FmAlarm>;

/** The numbers and times (ns since the epoch) that the next alarm or alert goes on from. */
struct FmNumbers {
  std::uint64_t alarmSequenceNo = 0;
  std::uint64_t lastAlarmTime = 0;
  std::uint64_t lastChanged = 0; /**< of the alarm list */
  std::uint64_t alertSequenceNo = 0;
  std::uint64_t lastAlertTime = 0;
  std::uint32_t lastIndex = 0;

  bool operator==(const FmNumbers&) const = default;
};

/** An alarm in the list of active ones. */
struct ActiveAlarm {
  FmAlarmPtr alarm;
  std::uint32_t key() const { return alarm->index; }
};

/** What the fault-management service knows at one moment. A copy costs two references. */
struct FmState {
  PersistentMap<std::uint32_t, ActiveAlarm> alarms; /**< by index */
  FmNumbers numbers;
};

/** A time as ISO 8601 with microseconds and zone (UTC), e.g. 2017-03-14T09:00:00.123456Z. */
std::string formatTime(std::uint64_t timeNs);

}  // namespace VelaNode
#endif
