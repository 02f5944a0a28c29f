// How long the framework's event thread is kept: the time from the event's delivery to the return of the handler.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "FmSnmp.h"
#include "VelaOamApiFm.h"

int main() {
  constexpr size_t events = 100000;
  const std::string text(200, 't');
  const DaxOamSpiFmAdditionalInfoT info[] = {{"port", "3"}, {"slot", "12"}, {"cause", "no light on the receiver"}};
  const DaxOamSpiNotificationFmT notification{
      "ManagedElement=1,Equipment=1,Port=3", 193, 7, 1500000000000000000u, text.c_str(), 4, {3, info}};
  VelaOamApiFmNotificationEventValue_4T event{};
  event.notification = &notification;
  event.stateful = true;
  event.specificProblem = "Link failure";
  event.originalAdditionalText = text.c_str();
  event.originalSeverity = 4;

  VelaFmSnmp::FmSnmp& component = VelaFmSnmp::FmSnmp::getInstance();
  std::vector<double> micros;
  micros.reserve(events);
  for (size_t i = 0; i < events; ++i) {
    event.index = static_cast<uint32_t>(i);
    event.sequenceNumber = static_cast<int64_t>(i);
    const auto before = std::chrono::steady_clock::now();
    component.onFmEvent(VELA_FM_NOTIFICATION_EVENT, &event);
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - before;
    micros.push_back(taken.count());
  }
  std::sort(micros.begin(), micros.end());
  std::printf("FM event handler, %zu events in a burst: median %.2f us, 99 %% %.2f us, longest %.0f us\n", events,
              micros[events / 2], micros[events * 99 / 100], micros.back());
}
