#include "framework/EventRouter.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <optional>

#include "LoggingWrapper.h"

namespace VelaNode {

namespace {

using ChangeEvent = DaxOamSpiCmEvent_Event_1T;
using ChangedAttribute = DaxOamSpiCmEvent_Attribute_1T;

/** How many DNs the verdicts of the filters are kept for. */
constexpr std::size_t verdictLimit = 4096;

/** A notification's value with all that it refers to. */
class NotificationCopy {
 public:
  explicit NotificationCopy(const VelaOamApiFmNotificationEventValue_4T& value) : _value(value) {
    _value.specificProblem = kept(value.specificProblem);
    _value.originalAdditionalText = kept(value.originalAdditionalText);
    if (value.notification == nullptr) return;
    _notification = *value.notification;
    _notification.dn = kept(_notification.dn);
    _notification.additionalText = kept(_notification.additionalText);
    const DaxOamSpiFmAdditionalInfoContainer& info = value.notification->additionalInfo;
    if (info.items != nullptr) {
      _info.reserve(info.size);
      for (std::uint32_t i = 0; i < info.size; ++i) {
        _info.push_back({kept(info.items[i].name), kept(info.items[i].value)});
      }
    }
    _notification.additionalInfo = {static_cast<std::uint32_t>(_info.size()), _info.data()};
    _value.notification = &_notification;
  }
  NotificationCopy(const NotificationCopy&) = delete;
  NotificationCopy& operator=(const NotificationCopy&) = delete;

  const VelaOamApiFmNotificationEventValue_4T* get() const { return &_value; }

 private:
  const char* kept(const char* text) { return text == nullptr ? nullptr : _texts.emplace_back(text).c_str(); }

  VelaOamApiFmNotificationEventValue_4T _value;
  DaxOamSpiNotificationFmT _notification{};
  std::vector<DaxOamSpiFmAdditionalInfoT> _info;
  std::list<std::string> _texts;
};

template <class Operation>
VelaReturnT withRouter(const Operation& operation) {
  EventRouter* const router = CurrentInstance<EventRouter>::get();
  return router == nullptr ? VELA_ERROR : operation(*router);
}

VelaReturnT registerConsumerCall(const VelaOamSpiEventConsumer_1T* consumer, std::uint32_t* consumerId) {
  return withRouter([&](EventRouter& router) { return router.registerConsumer(consumer, consumerId); });
}
VelaReturnT unregisterConsumerCall(std::uint32_t consumerId) {
  return withRouter([&](EventRouter& router) { return router.unregisterConsumer(consumerId); });
}
VelaReturnT addSubscriptionCall(std::uint32_t consumerId, const char* eventType,
                                const VelaOamSpiEventFilter_1T* const* filters, std::uint32_t* subscriptionId) {
  return withRouter(
      [&](EventRouter& router) { return router.addSubscription(consumerId, eventType, filters, subscriptionId); });
}
VelaReturnT removeSubscriptionCall(std::uint32_t consumerId, std::uint32_t subscriptionId) {
  return withRouter([&](EventRouter& router) { return router.removeSubscription(consumerId, subscriptionId); });
}

}  // namespace

/** The C form of a transaction's changes, from which each consumer's part is picked without copying it. */
class EventRouter::ChangeNotification {
 public:
  explicit ChangeNotification(const MoChanges& changes) {
    std::size_t nameCount = 0;
    for (const MoChange& change : changes) nameCount += change.attributes.size();
    _attributes.reserve(nameCount);
    _attributePointers.reserve(nameCount + changes.size());
    _events.reserve(changes.size());
    for (const MoChange& change : changes) add(change);
  }

  void clear() { _picked.clear(); }
  void pick(std::size_t index) { _picked.push_back(&_events[index]); }
  bool isEmpty() const { return _picked.empty(); }
  DaxOamSpiCmEvent_Notification_1T get() {
    _picked.push_back(nullptr);
    return {_picked.data()};
  }

 private:
  void add(const MoChange& change) {
    const std::size_t first = _attributePointers.size();
    for (const char* name : change.attributes) {
      _attributes.push_back({name});
      _attributePointers.push_back(&_attributes.back());
    }
    _attributePointers.push_back(nullptr);
    const bool isModified = change.eventType == DAX_CM_EVENT_MODIFIED;
    _events.push_back({change.dn.c_str(), change.eventType, isModified ? &_attributePointers[first] : nullptr});
  }

  std::vector<ChangedAttribute> _attributes;
  std::vector<const ChangedAttribute*> _attributePointers;
  std::vector<ChangeEvent> _events;
  std::vector<const ChangeEvent*> _picked;
};

EventRouter::EventRouter(HostLog* log) : _log(log), _thread(&EventRouter::run, this) {}

EventRouter::~EventRouter() {
  {
    const std::lock_guard lock(_mutex);
    _isStopping = true;
  }
  _queued.notify_all();
  _thread.join();
}

const VelaOamSpiEventRouter_1T* EventRouter::getTable() {
  static constexpr VelaOamSpiEventRouter_1T table = {&registerConsumerCall, &unregisterConsumerCall,
                                                     &addSubscriptionCall, &removeSubscriptionCall};
  return &table;
}

// ---- posting ------------------------------------------------------------------------------------------------------

void EventRouter::enqueue(Event event) {
  {
    const std::lock_guard lock(_mutex);
    _queue.push_back(std::move(event));
    ++_posted;
  }
  _queued.notify_one();
}

void EventRouter::post(const std::string& eventType, std::shared_ptr<const void> value) {
  enqueue({eventType, std::move(value), nullptr});
}

void EventRouter::postChanges(std::shared_ptr<const MoChanges> changes) {
  enqueue({DAX_CM_EVENT_TYPE, nullptr, std::move(changes)});
}

void EventRouter::postNotification(const VelaOamApiFmNotificationEventValue_4T& value) {
  const auto copy = std::make_shared<const NotificationCopy>(value);
  post(VELA_FM_NOTIFICATION_EVENT, std::shared_ptr<const void>(copy, copy->get()));
}

void EventRouter::postHeartbeat(const VelaOamApiFmHeartbeatEventValue_4T& value) {
  post(VELA_FM_HEARTBEAT_EVENT, std::make_shared<const VelaOamApiFmHeartbeatEventValue_4T>(value));
}

void EventRouter::postAlarmListRebuilt() { post(VELA_FM_ALARM_LIST_REBUILT_EVENT, nullptr); }

bool EventRouter::waitUntilDelivered(std::chrono::milliseconds timeout) {
  std::unique_lock lock(_mutex);
  const std::uint64_t wanted = _posted;
  return _progressed.wait_for(lock, timeout, [&] { return _delivered >= wanted; });
}

// ---- consumers ----------------------------------------------------------------------------------------------------

VelaReturnT EventRouter::registerConsumer(const VelaOamSpiEventConsumer_1T* consumer, std::uint32_t* consumerId) {
  if (consumer == nullptr || consumer->notify == nullptr || consumerId == nullptr) return VELA_INVALID;
  const std::lock_guard lock(_mutex);
  *consumerId = ++_lastId;
  _consumers.emplace(*consumerId, Consumer{*consumer, {}});
  return VELA_OK;
}

VelaReturnT EventRouter::unregisterConsumer(std::uint32_t consumerId) {
  std::unique_lock lock(_mutex);
  if (_consumers.erase(consumerId) == 0) return VELA_NOT_FOUND;
  _ways.clear();
  if (std::this_thread::get_id() != _thread.get_id()) {
    _progressed.wait(lock, [&] { return _servedConsumer != consumerId; });
  }
  return VELA_OK;
}

VelaReturnT EventRouter::addSubscription(std::uint32_t consumerId, const char* eventType,
                                         const VelaOamSpiEventFilter_1T* const* filters,
                                         std::uint32_t* subscriptionId) {
  if (eventType == nullptr || subscriptionId == nullptr) return VELA_INVALID;
  Subscription subscription{eventType, {}};
  for (; filters != nullptr && *filters != nullptr; ++filters) {
    const VelaOamSpiEventFilter_1T& filter = **filters;
    const bool isKnown = subscription.eventType == DAX_CM_EVENT_TYPE && filter.name != nullptr &&
                         std::strcmp(filter.name, DAX_CM_EVENT_FILTER_REGEXP) == 0;
    if (!isKnown || filter.value == nullptr) return VELA_INVALID;
    try {
      subscription.filters.push_back(std::make_shared<const Filter>(filter.value));
    } catch (const Poco::Exception& ex) {
      if (_log != nullptr) {
        _log->print(Vela::LogWarning, __func__, "Bad regular expression \"%s\": %s", filter.value,
                    ex.displayText().c_str());
      }
      return VELA_INVALID;
    }
  }
  const std::lock_guard lock(_mutex);
  const auto consumer = _consumers.find(consumerId);
  if (consumer == _consumers.end()) return VELA_NOT_FOUND;
  *subscriptionId = ++_lastId;
  consumer->second.subscriptions.emplace(*subscriptionId, std::move(subscription));
  _ways.clear();
  return VELA_OK;
}

VelaReturnT EventRouter::removeSubscription(std::uint32_t consumerId, std::uint32_t subscriptionId) {
  const std::lock_guard lock(_mutex);
  const auto consumer = _consumers.find(consumerId);
  if (consumer == _consumers.end() || consumer->second.subscriptions.erase(subscriptionId) == 0) return VELA_NOT_FOUND;
  _ways.clear();
  return VELA_OK;
}

// ---- delivery -----------------------------------------------------------------------------------------------------

void EventRouter::run() {
  std::unique_lock lock(_mutex);
  while (true) {
    _queued.wait(lock, [this] { return _isStopping || !_queue.empty(); });
    if (_isStopping) return;
    const Event event = std::move(_queue.front());
    _queue.pop_front();
    lock.unlock();
    deliver(event);
    lock.lock();
    ++_delivered;
    _progressed.notify_all();
  }
}

EventRouter::WayPtr EventRouter::makeWay(const std::string& eventType) const {
  auto way = std::make_shared<Way>();
  for (const auto& [consumerId, consumer] : _consumers) {
    Stop stop{consumerId, consumer.callback, false, {}};
    bool isOnTheWay = false;
    for (const auto& [id, subscription] : consumer.subscriptions) {
      if (subscription.eventType != eventType) continue;
      isOnTheWay = true;
      stop.takesAll = stop.takesAll || subscription.filters.empty();
      for (const std::shared_ptr<const Filter>& filter : subscription.filters) {
        const auto known = std::ranges::find(way->filters, filter->text, [](const auto& item) { return item->text; });
        stop.filters.push_back(static_cast<std::size_t>(known - way->filters.begin()));
        if (known == way->filters.end()) way->filters.push_back(filter);
      }
    }
    if (isOnTheWay) way->stops.push_back(std::move(stop));
  }
  return way;
}

EventRouter::WayPtr EventRouter::wayOf(const std::string& eventType) {
  WayPtr& way = _ways[eventType];
  if (!way) way = makeWay(eventType);
  return way;
}

void EventRouter::deliver(const Event& event) {
  std::optional<ChangeNotification> changes;
  std::uint32_t served = 0;
  std::unique_lock lock(_mutex);
  while (!_isStopping) {
    const WayPtr way = wayOf(event.type);  // a callback may have changed it
    const auto stop = std::ranges::upper_bound(way->stops, served, {}, &Stop::consumerId);
    if (stop == way->stops.end()) break;
    _servedConsumer = served = stop->consumerId;
    lock.unlock();
    try {
      if (event.changes) {
        if (_judgedWay != way) _verdicts.clear();
        _judgedWay = way;
        notifyChanges(*way, *stop, *event.changes, changes);
      } else {
        stop->callback.notify(event.type.c_str(), event.value.get());
      }
    } catch (const std::exception& ex) {
      if (_log != nullptr)
        _log->print(Vela::LogError, __func__, "A consumer of %s threw: %s", event.type.c_str(), ex.what());
    }
    lock.lock();
    _servedConsumer = 0;
    _progressed.notify_all();
  }
}

void EventRouter::notifyChanges(const Way& way, const Stop& stop, const MoChanges& changes,
                                std::optional<ChangeNotification>& notification) {
  if (notification) notification->clear();
  for (std::size_t i = 0; i < changes.size(); ++i) {
    if (!stop.takesAll && !passes(way, stop, changes[i].dn)) continue;
    // Most changes pass no filter at all, so the C form is only made for one that does.
    if (!notification) notification.emplace(changes);
    notification->pick(i);
  }
  if (!notification || notification->isEmpty()) return;
  const DaxOamSpiCmEvent_Notification_1T value = notification->get();
  stop.callback.notify(DAX_CM_EVENT_TYPE, &value);
}

bool EventRouter::passes(const Way& way, const Stop& stop, const std::string& dn) {
  auto known = _verdicts.find(dn);
  if (known == _verdicts.end()) {
    if (_verdicts.size() >= verdictLimit) _verdicts.clear();
    std::vector<bool> verdicts(way.filters.size());
    for (std::size_t i = 0; i < verdicts.size(); ++i) verdicts[i] = matches(*way.filters[i], dn);
    known = _verdicts.emplace(dn, std::move(verdicts)).first;
  }
  return std::ranges::any_of(stop.filters, [&](std::size_t filter) { return known->second[filter]; });
}

bool EventRouter::matches(const Filter& filter, const std::string& dn) const {
  Poco::RegularExpression::Match match;
  try {
    return filter.expression.match(dn, match) > 0;
  } catch (const Poco::Exception& ex) {
    if (_log != nullptr)
      _log->print(Vela::LogWarning, __func__, "Matching \"%s\" failed: %s", dn.c_str(), ex.displayText().c_str());
    return false;
  }
}

}  // namespace VelaNode
