/** Events of the host's fault-management service. */
#ifndef VELA_OAM_API_FM_H
#define VELA_OAM_API_FM_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VELA_FM_NOTIFICATION_EVENT "VelaOamApiFmNotificationEventType_4"
#define VELA_FM_HEARTBEAT_EVENT "VelaOamApiFmHeartbeatEventType_4"
#define VELA_FM_ALARM_LIST_REBUILT_EVENT "VelaOamApiFmAlarmListRebuiltEventType_4"

/** Severity: 0 cleared, 1 indeterminate, 2 warning, 3 minor, 4 major, 5 critical. */
typedef int32_t DaxOamSpiNotificationFmSeverityT;

typedef struct DaxOamSpiFmAdditionalInfoT {
  const char* name;  /**< may be null */
  const char* value; /**< may be null */
} DaxOamSpiFmAdditionalInfoT;

typedef struct DaxOamSpiFmAdditionalInfoContainer {
  uint32_t size;
  const DaxOamSpiFmAdditionalInfoT* items;
} DaxOamSpiFmAdditionalInfoContainer;

/** What the alarming side reported. Texts are NUL-terminated and may be null; times are ns since the epoch. */
typedef struct DaxOamSpiNotificationFmT {
  const char* dn;
  uint32_t majorType;
  uint32_t minorType;
  uint64_t eventTime;
  const char* additionalText;
  DaxOamSpiNotificationFmSeverityT severity;
  DaxOamSpiFmAdditionalInfoContainer additionalInfo;
} DaxOamSpiNotificationFmT;

/** Value of "VelaOamApiFmNotificationEventType_4": one change of an alarm, or one alert. */
typedef struct VelaOamApiFmNotificationEventValue_4T {
  const DaxOamSpiNotificationFmT* notification; /**< may be null */
  bool stateful;                                /**< true: alarm, false: alert */
  bool alarmUpdate;                             /**< the alarm existed before */
  int64_t sequenceNumber;
  uint32_t eventType;
  uint32_t probableCause;
  const char* specificProblem;
  uint32_t index;
  uint64_t originalEventTime;
  const char* originalAdditionalText;
  DaxOamSpiNotificationFmSeverityT originalSeverity;
} VelaOamApiFmNotificationEventValue_4T;

/** Value of "VelaOamApiFmHeartbeatEventType_4" (32 octets). Times are ns since the epoch. */
typedef struct VelaOamApiFmHeartbeatEventValue_4T {
  uint64_t lastAlarmTime;
  uint32_t lastAlarmSequenceNumber;
  uint64_t lastAlertTime;
  uint32_t lastAlertSequenceNumber;
} VelaOamApiFmHeartbeatEventValue_4T;

#ifdef __cplusplus
}
#endif
#endif
