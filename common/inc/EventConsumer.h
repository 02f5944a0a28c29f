#ifndef VELA_EVENT_CONSUMER_H
#define VELA_EVENT_CONSUMER_H

#include <cassert>
#include <string>
#include <utility>
#include <vector>

#include "LoggingWrapper.h"
#include "VelaOamSpiEventRouter.h"

namespace Vela {

/** Filters of a subscription: names and values. */
using EventFilters = std::vector<std::pair<std::string, std::string>>;

/** What all consumer instances share: registration and subscription with the event router, and its log texts. */
class EventConsumerBase {
 public:
  EventConsumerBase(const EventConsumerBase&) = delete;
  EventConsumerBase& operator=(const EventConsumerBase&) = delete;

 protected:
  EventConsumerBase() = default;
  ~EventConsumerBase() = default;

  /** Registers the consumer and subscribes. Failures are logged "Could not register consumer" and "Could not add
      subscription"; false then, and nothing stays registered. A started consumer is stopped first. */
  bool subscribe(const VelaOamSpiEventConsumer_1T& consumer, const std::string& eventType, const EventFilters& filters);
  /** Undoes subscribe; no callback runs afterwards. Failures are logged "Could not unregister event subscription,
      eventType %s" and "Could not unregister event consumer, eventType %s". Not started: nothing happens. */
  void unsubscribe();

  /** Runs a delivery; what it throws is logged ("Exception thrown from event consumer :%s", "Unknown exception thrown
      from event consumer"). */
  template <class Delivery>
  static void guarded(Delivery&& delivery) noexcept {
    try {
      delivery();
    } catch (const std::exception& ex) {
      VELA_LOG(LogError, "Exception thrown from event consumer :%s", ex.what());
    } catch (...) {
      VELA_LOG(LogError, "Unknown exception thrown from event consumer");
    }
  }

 private:
  const VelaOamSpiEventRouter_1T* _router = nullptr;
  std::string _eventType;
  unsigned _consumerId = 0;
  unsigned _subscriptionId = 0;
  bool _subscribed = false;
};

/**
 * Consumer number `Instance` of events for an owner: the router's callback is a plain function, so each number has
 * one static instance. start and stop on the life-cycle thread; the handler runs on the router's thread.
 */
template <class Owner, int Instance>
class EventConsumer : private EventConsumerBase {
 public:
  using Handler = void (Owner::*)(const char* eventType, const void* eventValue);

  EventConsumer() {
    assert(_instance == NULL);  // NOLINT(modernize-use-nullptr): what the assertion prints is part of the contract
    _instance = this;
  }
  ~EventConsumer() {
    stop();
    _instance = nullptr;
  }

  bool start(const std::string& eventType, const EventFilters& filters, Handler handler, Owner* owner) {
    unsubscribe();
    _handler = handler;
    _owner = owner;
    static const VelaOamSpiEventConsumer_1T consumer = {&EventConsumer::notify};
    return subscribe(consumer, eventType, filters);
  }
  void stop() { unsubscribe(); }

 private:
  static void notify(const char* eventType, const void* eventValue) {
    guarded([&] { (_instance->_owner->*_instance->_handler)(eventType, eventValue); });
  }

  static inline EventConsumer* _instance = nullptr;
  Handler _handler = nullptr;
  Owner* _owner = nullptr;
};

}  // namespace Vela
#endif
