#ifndef SNMPD_PLUGIN_TIMER_H
#define SNMPD_PLUGIN_TIMER_H

#include <chrono>
#include <functional>

namespace SnmpdPlugin {

/** Calls a function once, later, from snmpd's main loop. */
class Timer {
 public:
  explicit Timer(std::function<void()> function) : _function(std::move(function)) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { stop(); }

  /** From now on; a call that was due is not made. */
  void start(std::chrono::milliseconds delay);
  void stop();
  bool isRunning() const { return _alarm != 0; }

 private:
  static void onAlarm(unsigned id, void* timer);

  const std::function<void()> _function;
  unsigned _alarm = 0; /**< the library's number; 0: not running */
};

}  // namespace SnmpdPlugin
#endif
