#ifndef VELA_CM_EVENT_CONSUMER_H
#define VELA_CM_EVENT_CONSUMER_H

#include <list>
#include <string>

#include "DaxOamSpiCmEvent.h"
#include "EventConsumer.h"

namespace Vela {

/**
 * Consumer number `Instance` of configuration change notifications on objects whose distinguished names match any of
 * some regular expressions. Threads as for EventConsumer.
 */
template <class Owner, int Instance>
class CmEventConsumer : private EventConsumerBase {
 public:
  using Handler = void (Owner::*)(const DaxOamSpiCmEvent_Notification_1T& notification);

  CmEventConsumer() {
    assert(_instance == NULL);  // NOLINT(modernize-use-nullptr): what the assertion prints is part of the contract
    _instance = this;
  }
  ~CmEventConsumer() {
    stop();
    _instance = nullptr;
  }

  bool start(const std::list<std::string>& dnExpressions, Handler handler, Owner* owner) {
    unsubscribe();
    _handler = handler;
    _owner = owner;
    EventFilters filters;
    for (const std::string& expression : dnExpressions) filters.emplace_back(DAX_CM_EVENT_FILTER_REGEXP, expression);
    static const VelaOamSpiEventConsumer_1T consumer = {&CmEventConsumer::notify};
    return subscribe(consumer, DAX_CM_EVENT_TYPE, filters);
  }
  void stop() { unsubscribe(); }

 private:
  static void notify(const char*, const void* eventValue) {
    if (eventValue == nullptr) return;
    guarded([&] {
      (_instance->_owner->*_instance->_handler)(*static_cast<const DaxOamSpiCmEvent_Notification_1T*>(eventValue));
    });
  }

  static inline CmEventConsumer* _instance = nullptr;
  Handler _handler = nullptr;
  Owner* _owner = nullptr;
};

}  // namespace Vela
#endif
