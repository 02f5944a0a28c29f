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

#include "LoggingWrapper.h"
#include "ScriptWrapper.h"
#include "SnmpUtil.h"
#include "VelaMwSpiLog.h"

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

/** Keeps the log and trace lines that are written while it lives. */
class CapturedLog {
 public:
  CapturedLog() {
    static const VelaMwSpiLog_1T log = {&writeLog, [] { return static_cast<int32_t>(8); }};
    static const DaxMwSpiTraceT trace = {&writeTrace};
    _current = this;
    Vela::LoggingWrapper::getInstance().setInterfaces(&log, &trace);
  }
  ~CapturedLog() {
    Vela::LoggingWrapper::getInstance().setInterfaces(nullptr, nullptr);
    _current = nullptr;
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  /** How often exactly this line was logged with this severity. */
  long count(int severity, const std::string& text) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return std::count(_lines.begin(), _lines.end(), std::make_pair(severity, text));
  }
  bool hasTrace(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return std::find(_traces.begin(), _traces.end(), text) != _traces.end();
  }
  /** The lines logged, of one severity or of all. */
  std::vector<std::string> lines(int severity = -1) const {
    const std::lock_guard<std::mutex> lock(_mutex);
    std::vector<std::string> found;
    for (const auto& [lineSeverity, text] : _lines) {
      if (severity == -1 || lineSeverity == severity) found.push_back(text);
    }
    return found;
  }

 private:
  static void writeLog(int32_t severity, const char*, const char*, const char* text) {
    const std::lock_guard<std::mutex> lock(_current->_mutex);
    _current->_lines.emplace_back(severity, text);
  }
  static void writeTrace(const char*, const char*, const char* text) {
    const std::lock_guard<std::mutex> lock(_current->_mutex);
    _current->_traces.emplace_back(text);
  }

  static inline CapturedLog* _current = nullptr;
  mutable std::mutex _mutex;
  std::vector<std::pair<int, std::string>> _lines;
  std::vector<std::string> _traces;
};

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
    int run(const std::vector<std::string>& argv, int timeoutMs, std::string& output,
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
