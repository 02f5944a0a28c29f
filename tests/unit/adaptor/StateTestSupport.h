#ifndef VELA_TESTS_STATE_TEST_SUPPORT_H
#define VELA_TESTS_STATE_TEST_SUPPORT_H

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ScriptWrapper.h"
#include "SnmpUtil.h"
#include "support/CapturedLog.h"

namespace StateTest {

/** Waits for what another thread does. */
template <class Condition>
bool eventually(Condition&& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/** The system's time, which stands still but for advance. */
class ControlledClock {
 public:
  ControlledClock() {
    VelaFmSnmp::SnmpUtil::setWallClock([] { return _now; });
  }
  ~ControlledClock() { VelaFmSnmp::SnmpUtil::setWallClock(nullptr); }
  ControlledClock(const ControlledClock&) = delete;
  ControlledClock& operator=(const ControlledClock&) = delete;

  static void advance(unsigned long long milliseconds) { _now += milliseconds; }

 private:
  static inline unsigned long long _now = 1700000000000ULL;
};

/** Stands in for the node's commands while it lives: keeps the command lines and gives scripted answers. */
class CommandStandIn {
 public:
  using Answer = std::function<int(const std::string& commandLine, std::string& output)>;

  explicit CommandStandIn(Answer answer) : _runner(std::make_shared<Runner>(std::move(answer))) {
    Vela::ScriptWrapper::setRunner(_runner);
  }
  ~CommandStandIn() { Vela::ScriptWrapper::setRunner(nullptr); }
  CommandStandIn(const CommandStandIn&) = delete;
  CommandStandIn& operator=(const CommandStandIn&) = delete;

  /** The commands run since the last call: arguments joined with "|", then " @" and the time-out. */
  std::vector<std::string> takeCommands() { return std::exchange(_runner->commands, {}); }

 private:
  struct Runner : Vela::ScriptRunner {
    explicit Runner(Answer given) : answer(std::move(given)) {}
    int run(const std::vector<std::string>& argv, int timeoutMs, std::string& output, std::string&,
            const Vela::ScriptCancellation*) override {
      std::string line;
      for (const std::string& argument : argv) line += (line.empty() ? "" : "|") + argument;
      commands.push_back(line + " @" + std::to_string(timeoutMs));
      return answer(line, output);
    }
    Answer answer;
    std::vector<std::string> commands;
  };
  std::shared_ptr<Runner> _runner;
};

}  // namespace StateTest
#endif
