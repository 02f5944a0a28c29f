#ifndef VELA_NODE_CURRENT_INSTANCE_H
#define VELA_NODE_CURRENT_INSTANCE_H

#include <atomic>

#include "VelaException.h"
#include "VelaMgmtSpi.h"

namespace VelaNode {

/**
 * Makes its owner the one that a service's plain C functions work on, for as long as it lives: those functions have no
 * context argument. Throws Vela::VelaException when the process has such an owner already.
 */
template <class Owner>
class CurrentInstance {
 public:
  explicit CurrentInstance(Owner* owner) {
    Owner* none = nullptr;
    if (!_current.compare_exchange_strong(none, owner)) {
      throw Vela::VelaException(VELA_EXISTS, "The process has an instance of this service already");
    }
  }
  ~CurrentInstance() { _current = nullptr; }
  CurrentInstance(const CurrentInstance&) = delete;
  CurrentInstance& operator=(const CurrentInstance&) = delete;

  /** Null when there is none. */
  static Owner* get() { return _current; }

 private:
  static inline std::atomic<Owner*> _current{nullptr};
};

}  // namespace VelaNode
#endif
