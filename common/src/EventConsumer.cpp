#include "EventConsumer.h"

#include "Portal.h"

namespace Vela {

bool EventConsumerBase::subscribe(const VelaOamSpiEventConsumer_1T& consumer, const std::string& eventType,
                                  const EventFilters& filters) {
  unsubscribe();
  _eventType = eventType;
  _router = static_cast<const VelaOamSpiEventRouter_1T*>(
      Portal::getInterface(VELA_EVENT_ROUTER_COMPONENT, VELA_EVENT_ROUTER_INTERFACE, VELA_EVENT_ROUTER_VERSION));
  if (_router == nullptr || _router->registerConsumer(&consumer, &_consumerId) != VELA_OK) {
    VELA_LOG(LogError, "Could not register consumer");
    return false;
  }
  std::vector<VelaOamSpiEventFilter_1T> items;
  items.reserve(filters.size());
  for (const auto& [name, value] : filters) items.push_back({name.c_str(), value.c_str()});
  std::vector<const VelaOamSpiEventFilter_1T*> pointers;
  pointers.reserve(items.size() + 1);
  for (const VelaOamSpiEventFilter_1T& item : items) pointers.push_back(&item);
  pointers.push_back(nullptr);
  if (_router->addSubscription(_consumerId, eventType.c_str(), pointers.data(), &_subscriptionId) != VELA_OK) {
    VELA_LOG(LogError, "Could not add subscription");
    _router->unregisterConsumer(_consumerId);
    return false;
  }
  _subscribed = true;
  return true;
}

void EventConsumerBase::unsubscribe() {
  if (!_subscribed) return;
  _subscribed = false;
  if (_router->removeSubscription(_consumerId, _subscriptionId) != VELA_OK) {
    VELA_LOG(LogError, "Could not unregister event subscription, eventType %s", _eventType.c_str());
  }
  if (_router->unregisterConsumer(_consumerId) != VELA_OK) {
    VELA_LOG(LogError, "Could not unregister event consumer, eventType %s", _eventType.c_str());
  }
}

}  // namespace Vela
