#include "LoggingWrapper.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "VelaMwSpiLog.h"

namespace Vela {

namespace {

constexpr int levelWithoutHost = LogNotice;
constexpr const char* componentName = "VelaFmSnmp";
constexpr const char* traceChannel = "FM";

/** Formats a line and passes it on; only a line longer than the buffer costs an allocation. */
template <class Write>
void withText(const char* format, va_list arguments, Write&& write) {
  std::array<char, 512> buffer;
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  if (length >= static_cast<int>(buffer.size())) {
    std::vector<char> text(static_cast<size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
    write(text.data());
  } else if (length >= 0) {
    write(buffer.data());
  }
  va_end(again);
}

}  // namespace

LoggingWrapper& LoggingWrapper::getInstance() {
  static LoggingWrapper instance;
  return instance;
}

void LoggingWrapper::setInterfaces(const VelaMwSpiLog_1T* log, const DaxMwSpiTraceT* trace) {
  _log.store(log);
  _trace.store(trace);
}

int LoggingWrapper::getLevel() const {
  const VelaMwSpiLog_1T* log = _log.load(std::memory_order_acquire);
  return log != nullptr ? log->getLevel() : levelWithoutHost;
}

void LoggingWrapper::log_printf(int severity, const char* function, const char* format, ...) {
  const VelaMwSpiLog_1T* log = _log.load(std::memory_order_acquire);
  va_list arguments;
  va_start(arguments, format);
  withText(format, arguments, [&](const char* text) {
    if (log != nullptr) {
      log->write(severity, componentName, function, text);
    } else {
      std::fprintf(stderr, "%s: %s\n", function, text);
    }
  });
  va_end(arguments);
}

void LoggingWrapper::trace_printf(const char* function, const char* format, ...) {
  const DaxMwSpiTraceT* trace = _trace.load(std::memory_order_acquire);
  if (trace == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  withText(format, arguments, [&](const char* text) { trace->write(traceChannel, function, text); });
  va_end(arguments);
}

}  // namespace Vela
