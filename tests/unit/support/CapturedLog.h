#ifndef VELA_TESTS_CAPTURED_LOG_H
#define VELA_TESTS_CAPTURED_LOG_H

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "LoggingWrapper.h"
#include "VelaMwSpiLog.h"

namespace StateTest {

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

}  // namespace StateTest
#endif
