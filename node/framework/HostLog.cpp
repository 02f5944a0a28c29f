#include "framework/HostLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "VelaException.h"

namespace VelaNode {

namespace {

constexpr mode_t FileMode = 0600;
constexpr const char* HostOrigin = "node";
constexpr std::array<const char*, HostLog::TraceSeverity + 1> SeverityNames = {
    "emergency", "alert", "critical", "error", "warning", "notice", "info", "debug", "trace"};

long long now() {
  using namespace std::chrono;
  return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

/** A line stays one line, and nothing in it drives a terminal. */
void appendVisible(std::string& line, std::string_view text) {
  while (text.ends_with('\n')) text.remove_suffix(1);
  for (const char c : text) {
    if (c == '\n') {
      line += "\\n";
    } else if (c != '\t' && (static_cast<unsigned char>(c) < ' ' || c == '\x7f')) {
      line += '?';
    } else {
      line += c;
    }
  }
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno != EINTR) return;
    if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
  }
}

int openFile(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, FileMode);
}

void logWrite(int32_t severity, const char* component, const char* function, const char* text) {
  if (HostLog* log = CurrentInstance<HostLog>::get()) log->write(severity, component, function, text);
}
int32_t logLevel() {
  const HostLog* const log = CurrentInstance<HostLog>::get();
  return log == nullptr ? 0 : log->getLevel();
}
void traceWrite(const char* channel, const char* function, const char* text) {
  if (HostLog* log = CurrentInstance<HostLog>::get()) log->trace(channel, function, text);
}

}  // namespace

HostLog::~HostLog() {
  if (_fd >= 0) ::close(_fd);
}

const VelaMwSpiLog_1T* HostLog::getLogTable() {
  static constexpr VelaMwSpiLog_1T table = {&logWrite, &logLevel};
  return &table;
}

const DaxMwSpiTraceT* HostLog::getTraceTable() {
  static constexpr DaxMwSpiTraceT table = {&traceWrite};
  return &table;
}

void HostLog::open(const std::string& path) {
  const int fd = openFile(path);
  if (fd < 0) throw Vela::VelaException("%s: cannot be opened: %s", path.c_str(), std::strerror(errno));
  const std::lock_guard lock(_mutex);
  if (_fd >= 0) ::close(_fd);
  _fd = fd;
  _path = path;
}

void HostLog::setBounds(std::size_t octets, unsigned files) {
  const std::lock_guard lock(_mutex);
  _maxSize = octets;
  _files = files;
}

void HostLog::append(const std::string& text) {
  struct stat status {};
  if (_maxSize != 0 && ::fstat(_fd, &status) == 0 &&
      static_cast<std::size_t>(status.st_size) + text.size() > _maxSize && status.st_size > 0) {
    rotate();
  }
  writeAll(_fd, text);
}

void HostLog::rotate() {
  const auto name = [this](unsigned i) { return i == 0 ? _path : _path + "." + std::to_string(i); };
  bool isMoved = true;
  for (unsigned i = _files - 1; i > 0 && isMoved; --i)
    isMoved = ::rename(name(i - 1).c_str(), name(i).c_str()) == 0 || errno == ENOENT;
  const int fd = isMoved && _files > 1 ? openFile(_path) : -1;
  if (fd < 0) {
    // The bound holds all the same.
    [[maybe_unused]] const int result = ::ftruncate(_fd, 0);
    return;
  }
  ::close(_fd);
  _fd = fd;
}

void HostLog::setSink(Sink sink) {
  const std::lock_guard lock(_mutex);
  _sink = std::move(sink);
}

void HostLog::setLevel(int level) { _level = std::clamp(level, 0, static_cast<int>(MaxLevel)); }

void HostLog::write(int severity, const char* origin, const char* function, const char* text) {
  if (severity <= _level) emit({severity, origin, function, text});
}

void HostLog::trace(const char* channel, const char* function, const char* text) {
  write(TraceSeverity, channel, function, text);
}

void HostLog::print(int severity, const char* function, const char* format, ...) {
  if (severity > _level) return;
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  va_end(arguments);
  emit({severity, HostOrigin, function, text.c_str()});
}

void HostLog::emit(const Line& line) {
  const auto known = [](const char* text) { return text == nullptr ? "" : text; };
  const Line safe = {line.severity, known(line.origin), known(line.function), known(line.text)};
  const std::lock_guard lock(_mutex);
  if (_sink) {
    _sink(safe);
    return;
  }
  const bool isEchoed = _echo;
  if (_fd < 0 && !isEchoed) return;
  const std::string written = format(safe, now()) + "\n";
  if (_fd >= 0) append(written);
  if (isEchoed) writeAll(STDERR_FILENO, written);
}

std::string HostLog::format(const Line& line, long long microsecondsSinceEpoch) {
  constexpr long long Second = 1000000;
  const std::time_t seconds = static_cast<std::time_t>(microsecondsSinceEpoch / Second);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  char head[64];
  const auto severity = static_cast<std::size_t>(std::clamp(line.severity, 0, static_cast<int>(TraceSeverity)));
  std::snprintf(head, sizeof head, "%s.%06lldZ %-7s ", date, microsecondsSinceEpoch % Second, SeverityNames[severity]);
  std::string result = head;
  appendVisible(result, line.origin);
  result += ' ';
  appendVisible(result, line.function);
  result += ": ";
  appendVisible(result, line.text);
  return result;
}

}  // namespace VelaNode
