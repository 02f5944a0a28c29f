#ifndef VELA_NODE_ADAPTOR_STATE_WATCH_H
#define VELA_NODE_ADAPTOR_STATE_WATCH_H

#include <Poco/Timestamp.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "VelaMgmtSpi.h"
#include "framework/CurrentInstance.h"
#include "framework/HostLog.h"

namespace VelaNode {

/**
 * Knows what state a component's adaptor is in, and what it complains of. A component tells that in its log only, so
 * the watch hands the component the host's portal with a log of its own, which reads the lines and passes all on. One
 * at a time per process; any thread.
 */
class AdaptorStateWatch {
 public:
  explicit AdaptorStateWatch(HostLog& log) : _log(log) {}

  struct State {
    std::string name; /**< empty: nothing is known yet */
    std::string reason;
    Poco::Timestamp since;
  };
  State getState() const;
  /** Name of the state in which the adaptor sends what it is given at once. */
  static constexpr const char* operationalState = "IdleEnabled";
  /** Gets each new state, on the adaptor's thread; it must not block. Before the component is loaded. */
  void setListener(std::function<void(const State&)> listener) { _listener = std::move(listener); }
  /** The last warning or error that mentions one of the texts as a word; empty when there is none among the last few
      hundred. */
  std::string findComplaint(const std::vector<std::string>& texts) const;
  void reset(); /**< nothing is known any more */

  /** To be handed to the component instead of the host portal's own. */
  static VelaMgmtSpiInterfacePortalAccessor* getAccessor();

 private:
  struct Calls;
  void readState(std::string_view line);
  void onLine(int severity, const char* component, const char* function, const char* text);

  HostLog& _log;
  mutable std::mutex _mutex;
  State _state;
  std::deque<std::string> _complaints; /**< the oldest first */
  std::function<void(const State&)> _listener;
  CurrentInstance<AdaptorStateWatch> _current{this};
};

}  // namespace VelaNode
#endif
