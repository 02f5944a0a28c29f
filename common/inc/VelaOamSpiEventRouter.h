/** The host's event router: consumers subscribe to event types and are called on the router's own thread. */
#ifndef VELA_OAM_SPI_EVENT_ROUTER_H
#define VELA_OAM_SPI_EVENT_ROUTER_H

#include <stdint.h>

#include "VelaMgmtSpi.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VELA_EVENT_ROUTER_COMPONENT "VelaOamSpiEventService"
#define VELA_EVENT_ROUTER_INTERFACE "VelaOamSpiEventRouter"
#define VELA_EVENT_ROUTER_VERSION "1"

/** One filter of a subscription. What it means is the event type's affair. */
typedef struct VelaOamSpiEventFilter_1T {
  const char* name;
  const char* value;
} VelaOamSpiEventFilter_1T;

/** A consumer: one callback. The event value is only valid during the call. */
typedef struct VelaOamSpiEventConsumer_1T {
  void (*notify)(const char* eventType, const void* eventValue);
} VelaOamSpiEventConsumer_1T;

/** Interface "VelaOamSpiEventRouter", version "1". Callable from any thread, from within a callback too. */
typedef struct VelaOamSpiEventRouter_1T {
  VelaReturnT (*registerConsumer)(const VelaOamSpiEventConsumer_1T* consumer, uint32_t* consumerId);
  /** Drops the consumer and what is left of its subscriptions; returns when no callback of it is running any more
      (called from within its callback, it does not wait for itself). */
  VelaReturnT (*unregisterConsumer)(uint32_t consumerId);
  /** Subscribes to an event type. An event is delivered once per consumer if it passes any filter of any of its
      subscriptions; a subscription without filters passes everything. Null-terminated array; null is empty. */
  VelaReturnT (*addSubscription)(uint32_t consumerId, const char* eventType,
                                 const VelaOamSpiEventFilter_1T* const* filters, uint32_t* subscriptionId);
  VelaReturnT (*removeSubscription)(uint32_t consumerId, uint32_t subscriptionId);
} VelaOamSpiEventRouter_1T;

#ifdef __cplusplus
}
#endif
#endif
