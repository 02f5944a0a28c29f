#ifndef VELA_TESTS_LOG_CAPTURE_H
#define VELA_TESTS_LOG_CAPTURE_H

#include <LoggingWrapper.h>
#include <VelaMwSpiLog.h>

#include <string>
#include <vector>

/** Takes the log lines of the component for as long as it lives; one at a time. */
class LogCapture {
 public:
  LogCapture() {
    static const VelaMwSpiLog_1T log = {
        [](int32_t, const char*, const char*, const char* text) { lines().push_back(text); },
        [] { return static_cast<int32_t>(Vela::LogInfo); }};
    lines().clear();
    Vela::LoggingWrapper::getInstance().setInterfaces(&log, nullptr);
  }
  ~LogCapture() { Vela::LoggingWrapper::getInstance().setInterfaces(nullptr, nullptr); }

  static std::vector<std::string>& lines() {
    static std::vector<std::string> all;
    return all;
  }
};

#endif
