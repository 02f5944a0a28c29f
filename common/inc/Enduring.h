#ifndef VELA_ENDURING_H
#define VELA_ENDURING_H

#include <utility>

#include "ThreadWPipes.h"

namespace Vela {

/**
 * Owner of a static object that threads use. The object is destroyed with the process, unless a thread was left running
 * (ThreadWPipes), which may still use it while the process exits.
 */
template <class T>
class Enduring {
 public:
  template <class... Arguments>
  explicit Enduring(Arguments&&... arguments) : _object(new T(std::forward<Arguments>(arguments)...)) {}
  ~Enduring() {
    if (!ThreadWPipes::isAnyLeft()) delete _object;
  }
  Enduring(const Enduring&) = delete;
  Enduring& operator=(const Enduring&) = delete;

  T& operator*() const { return *_object; }

 private:
  T* const _object;
};

}  // namespace Vela
#endif
