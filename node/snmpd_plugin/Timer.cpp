#include "Timer.h"

#include <algorithm>
#include <utility>

#include "NetSnmp.h"

namespace SnmpdPlugin {

void Timer::start(std::chrono::milliseconds delay) {
  constexpr std::chrono::milliseconds Shortest{1};
  stop();
  const auto wanted = std::max(delay, Shortest);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wanted);
  const timeval after{seconds.count(), std::chrono::microseconds(wanted - seconds).count()};
  _alarm = snmp_alarm_register_hr(after, 0, onAlarm, this);
}

void Timer::stop() {
  if (_alarm != 0) snmp_alarm_unregister(std::exchange(_alarm, 0));
}

void Timer::onAlarm(unsigned, void* timer) {
  auto& self = *static_cast<Timer*>(timer);
  // The library removes it itself once it was called.
  self._alarm = 0;
  // A copy: what it does may end the timer.
  const std::function<void()> function = self._function;
  function();
}

}  // namespace SnmpdPlugin
