#ifndef VELA_LOGGING_WRAPPER_H
#define VELA_LOGGING_WRAPPER_H

#include <atomic>

struct VelaMwSpiLog_1T;
struct DaxMwSpiTraceT;

namespace Vela {

/** Severities of log lines, as the host understands them. */
enum LogSeverity { LogError = 3, LogWarning = 4, LogNotice = 5, LogInfo = 6, LogDebug = 7 };

/**
 * Access to the host's log and trace. Before a portal is set (and in programs without one) lines go to standard error
 * and the level is 5. All operations are thread-safe and never throw.
 *
 * Use the macros VELA_LOG and VELA_TRACE: their arguments are not evaluated when nobody sees the line.
 */
class LoggingWrapper {
 public:
  static LoggingWrapper& getInstance();

  /** Takes the log and trace interfaces (each may be null: standard error, no trace). */
  void setInterfaces(const VelaMwSpiLog_1T* log, const DaxMwSpiTraceT* trace);

  /** The host's level: lines of a greater severity number are not written; traces are written above 7. */
  int getLevel() const;
  bool isLogged(int severity) const { return severity <= getLevel(); }
  bool isTraced() const { return getLevel() > 7; }

  /** Writes a line. `function` names the place it comes from. */
  void log_printf(int severity, const char* function, const char* format, ...) __attribute__((format(printf, 4, 5)));
  /** Writes to the trace channel "FM". */
  void trace_printf(const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));

 private:
  LoggingWrapper() = default;
  std::atomic<const VelaMwSpiLog_1T*> _log = nullptr;
  std::atomic<const DaxMwSpiTraceT*> _trace = nullptr;
};

}  // namespace Vela

/** Logs a line: VELA_LOG(Vela::LogError, "text %d", n). */
#define VELA_LOG(severity, ...)                                                            \
  do {                                                                                     \
    if (::Vela::LoggingWrapper::getInstance().isLogged(severity))                          \
      ::Vela::LoggingWrapper::getInstance().log_printf((severity), __func__, __VA_ARGS__); \
  } while (false)

/** Traces a line to the FM channel: VELA_TRACE(" >> %s", name). */
#define VELA_TRACE(...)                                                          \
  do {                                                                           \
    if (::Vela::LoggingWrapper::getInstance().isTraced())                        \
      ::Vela::LoggingWrapper::getInstance().trace_printf(__func__, __VA_ARGS__); \
  } while (false)

#endif
