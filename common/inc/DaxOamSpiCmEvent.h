/** Change notifications of the managed-object model, delivered by the event router. */
#ifndef DAX_OAM_SPI_CM_EVENT_H
#define DAX_OAM_SPI_CM_EVENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Event type under which the router delivers a `DaxOamSpiCmEvent_Notification_1T`. */
#define DAX_CM_EVENT_TYPE "DaxOamSpiCmEvent_Notification_1"
/** Filter name: the filter's value is a regular expression (PCRE) on the distinguished name. */
#define DAX_CM_EVENT_FILTER_REGEXP "DaxOamSpiCmEvent_FilterTypeRegExp_1"

enum { DAX_CM_EVENT_MODIFIED = 1, DAX_CM_EVENT_CREATED = 2, DAX_CM_EVENT_DELETED = 4 };

typedef struct DaxOamSpiCmEvent_Attribute_1T {
  const char* name; /**< may be null */
} DaxOamSpiCmEvent_Attribute_1T;

typedef struct DaxOamSpiCmEvent_Event_1T {
  const char* dn; /**< distinguished name of the object; may be null */
  int32_t eventType;
  const DaxOamSpiCmEvent_Attribute_1T* const* attributes; /**< null-terminated array; may be null */
} DaxOamSpiCmEvent_Event_1T;

/** The changes of one committed transaction, as far as the subscription's filters let them pass. */
typedef struct DaxOamSpiCmEvent_Notification_1T {
  const DaxOamSpiCmEvent_Event_1T* const* events; /**< null-terminated array; may be null */
} DaxOamSpiCmEvent_Notification_1T;

#ifdef __cplusplus
}
#endif
#endif
