#ifndef VELA_NODE_ADAPTOR_STATE_WATCH_H
#define VELA_NODE_ADAPTOR_STATE_WATCH_H

#include <functional>
#include <mutex>
#include <string>

#include "VelaMgmtSpi.h"
#include "framework/CurrentInstance.h"
#include "framework/HostLog.h"

namespace VelaNode {

/**
 * Knows what state a component's adaptor is in. A component tells that in its log only, so the watch hands the
 * component the host's portal with a log of its own, which reads the lines that tell of a change of state and passes
 * all on. One at a time per process; any thread.
 */
class AdaptorStateWatch {
 public:
  explicit AdaptorStateWatch(HostLog& log) : _log(log) {}

  struct State {
    std::string name; /**< empty: nothing is known yet */
    std::string reason;
  };
  State getState() const;
  /** Name of the state in which the adaptor sends what it is given at once. */
  static constexpr const char* operationalState = "IdleEnabled";
  /** Gets each new state, on the adaptor's thread; it must not block. Before the component is loaded. */
  void setListener(std::function<void(const State&)> listener) { _listener = std::move(listener); }
  void reset(); /**< nothing is known any more */

  /** To be handed to the component instead of the host portal's own. */
  static VelaMgmtSpiInterfacePortalAccessor* getAccessor();

 private:
  struct Calls;
  void onLine(int severity, const char* component, const char* function, const char* text);

  HostLog& _log;
  mutable std::mutex _mutex;
  State _state;
  std::function<void(const State&)> _listener;
  CurrentInstance<AdaptorStateWatch> _current{this};
};

}  // namespace VelaNode
#endif
