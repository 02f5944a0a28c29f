#ifndef VELA_NODE_EVENT_ROUTER_H
#define VELA_NODE_EVENT_ROUTER_H

#include <Poco/RegularExpression.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "VelaOamApiFm.h"
#include "VelaOamSpiEventRouter.h"
#include "framework/CurrentInstance.h"
#include "framework/HostLog.h"
#include "model/MoChange.h"

namespace VelaNode {

/**
 * The event router: keeps posted events in order and delivers them on a thread of its own. Posting never waits for a
 * consumer; the queue has no limit. All operations may be called from any thread. One at a time per process.
 */
class EventRouter {
 public:
  /** The log (may be null) gets what goes wrong during delivery; it must outlive the router. */
  explicit EventRouter(HostLog* log = nullptr);
  /** Waits for a running callback; events that were not delivered are dropped. */
  ~EventRouter();
  EventRouter(const EventRouter&) = delete;
  EventRouter& operator=(const EventRouter&) = delete;

  /** The C interface "VelaOamSpiEventRouter" of the router that lives at the moment of a call; VELA_ERROR when none
      does. */
  static const VelaOamSpiEventRouter_1T* getTable();

  /** Posts an event whose value is kept until it is delivered. Subscriptions to it have no filters. */
  void post(const std::string& eventType, std::shared_ptr<const void> value);
  /** Posts the changes of a transaction; each consumer gets those whose DN passes its filters. */
  void postChanges(std::shared_ptr<const MoChanges> changes);
  /** The FM events; values and what they refer to are copied. */
  void postNotification(const VelaOamApiFmNotificationEventValue_4T& value);
  void postHeartbeat(const VelaOamApiFmHeartbeatEventValue_4T& value);
  void postAlarmListRebuilt();

  /** Waits until everything that was posted before the call is delivered; false on time-out. Not from a callback. */
  bool waitUntilDelivered(std::chrono::milliseconds timeout);

  /** What the C interface does; see there. A malformed or unknown filter is VELA_INVALID. */
  VelaReturnT registerConsumer(const VelaOamSpiEventConsumer_1T* consumer, std::uint32_t* consumerId);
  VelaReturnT unregisterConsumer(std::uint32_t consumerId);
  VelaReturnT addSubscription(std::uint32_t consumerId, const char* eventType,
                              const VelaOamSpiEventFilter_1T* const* filters, std::uint32_t* subscriptionId);
  VelaReturnT removeSubscription(std::uint32_t consumerId, std::uint32_t subscriptionId);

 private:
  struct Event {
    std::string type;
    std::shared_ptr<const void> value;
    std::shared_ptr<const MoChanges> changes;
  };
  struct Filter {
    explicit Filter(const char* pattern) : text(pattern), expression(pattern) {}
    const std::string text;
    const Poco::RegularExpression expression;
  };
  struct Subscription {
    std::string eventType;
    std::vector<std::shared_ptr<const Filter>> filters; /**< none: everything passes */
  };
  struct Consumer {
    VelaOamSpiEventConsumer_1T callback;
    std::map<std::uint32_t, Subscription> subscriptions;
  };
  /** A consumer on the way of an event. */
  struct Stop {
    std::uint32_t consumerId;
    VelaOamSpiEventConsumer_1T callback;
    bool takesAll = false;
    std::vector<std::size_t> filters; /**< positions in the way's */
  };
  /** Whom the events of one type go to; made when the first one comes after a change of the subscriptions. */
  struct Way {
    std::vector<Stop> stops;                            /**< by consumer */
    std::vector<std::shared_ptr<const Filter>> filters; /**< each once, however many subscriptions have it */
  };
  using WayPtr = std::shared_ptr<const Way>;
  class ChangeNotification;

  void enqueue(Event event);
  void run();
  void deliver(const Event& event);
  WayPtr wayOf(const std::string& eventType);
  WayPtr makeWay(const std::string& eventType) const;
  void notifyChanges(const Way& way, const Stop& stop, const MoChanges& changes,
                     std::optional<ChangeNotification>& notification);
  bool passes(const Way& way, const Stop& stop, const std::string& dn);
  bool matches(const Filter& filter, const std::string& dn) const;

  HostLog* _log;
  std::mutex _mutex;
  std::condition_variable _queued;
  std::condition_variable _progressed; /**< a callback has returned, or an event is done */
  std::deque<Event> _queue;
  std::map<std::uint32_t, Consumer> _consumers;
  std::map<std::string, WayPtr> _ways; /**< by event type; empty again when a subscription comes or goes */
  std::uint32_t _lastId = 0;
  std::uint32_t _servedConsumer = 0; /**< whose callback is running; 0: none */
  std::uint64_t _posted = 0;
  std::uint64_t _delivered = 0;
  bool _isStopping = false;
  /** What the filters of the way below said of DNs: the same few change again and again. The router's thread's own. */
  std::unordered_map<std::string, std::vector<bool>> _verdicts;
  WayPtr _judgedWay;
  CurrentInstance<EventRouter> _current{this};
  std::thread _thread;
};

}  // namespace VelaNode
#endif
