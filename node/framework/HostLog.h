#ifndef VELA_NODE_HOST_LOG_H
#define VELA_NODE_HOST_LOG_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "VelaMwSpiLog.h"
#include "framework/CurrentInstance.h"

namespace VelaNode {

/**
 * The host's log and trace: lines with time stamp (UTC) and severity to a file, optionally to standard error too. Any
 * thread. One at a time per process.
 */
class HostLog {
 public:
  /** One line as a component wrote it. The texts are valid during the sink's call. */
  struct Line {
    int severity;       /**< 3 error ... 7 debug; 8 for a trace */
    const char* origin; /**< component, or channel of a trace */
    const char* function;
    const char* text;
  };
  using Sink = std::function<void(const Line& line)>;

  enum { TraceSeverity = 8, MaxLevel = 9, DefaultLevel = 6 };

  HostLog() = default;
  ~HostLog();
  HostLog(const HostLog&) = delete;
  HostLog& operator=(const HostLog&) = delete;

  /** The C interfaces of the log that lives at the moment of a call; without one, lines vanish. */
  static const VelaMwSpiLog_1T* getLogTable();
  static const DaxMwSpiTraceT* getTraceTable();

  /** Appends to a file (made with mode 600) from now on; again: closes it and opens it anew. Throws
      Vela::VelaException and keeps what it had. */
  void open(const std::string& path);
  /** From now on the file is renamed to NAME.1 before it grows beyond so many octets, NAME.1 to NAME.2 and so on; there
      are so many files (at least 1) in all. What is older is gone. */
  void setBounds(std::size_t octets, unsigned files);
  void setEcho(bool toStandardError) { _echo = toStandardError; }
  /** Gets every line that passes the level instead of file and standard error; empty: those again. Called one line at
      a time; must not log. */
  void setSink(Sink sink);

  /** 0..9: lines of a greater severity are not written; traces are written above 7. Others are brought into range. */
  void setLevel(int level);
  int getLevel() const { return _level; }

  /** Writes a line if the level lets it pass. */
  void write(int severity, const char* origin, const char* function, const char* text);
  /** As write, formatted; for the host's own lines. */
  void print(int severity, const char* function, const char* format, ...) __attribute__((format(printf, 4, 5)));
  void trace(const char* channel, const char* function, const char* text);

  /** A line as it stands in the file, without its end: control characters made visible. */
  static std::string format(const Line& line, long long microsecondsSinceEpoch);

 private:
  void emit(const Line& line);
  void append(const std::string& text);
  void rotate();

  std::atomic<int> _level{DefaultLevel};
  std::atomic<bool> _echo{false};
  std::mutex _mutex;
  int _fd = -1;
  std::string _path;
  std::size_t _maxSize = 0; /**< 0: no bound */
  unsigned _files = 1;
  Sink _sink;
  CurrentInstance<HostLog> _current{this};
};

}  // namespace VelaNode
#endif
