#ifndef VELA_NODE_LIST_REBUILT_NOTICE_H
#define VELA_NODE_LIST_REBUILT_NOTICE_H

#include <atomic>

#include "framework/EventRouter.h"
#include "model/MoStore.h"

namespace VelaNode {

/**
 * Tells managers once after a start to read the alarm table anew: what they know is from before it. A component drops
 * the event while nobody could receive it, and what comes after an event that it has to queue waits with it; so the
 * event is for the moment at which the component sends at once.
 */
class ListRebuiltNotice {
 public:
  ListRebuiltNotice(const MoStore& store, EventRouter& router) : _store(store), _router(router) {}

  /** To be called whenever the component has become operational. Posts the event the first time that the model shows
     the service and a target as operational. Any thread; does not block. */
  void tell();

 private:
  bool canBeReceived() const;

  const MoStore& _store;
  EventRouter& _router;
  std::atomic<bool> _isTold{false};
};

}  // namespace VelaNode
#endif
