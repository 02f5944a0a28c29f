#include "AgentLog.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "NetSnmp.h"
#include "support/LogLimit.h"

namespace SnmpdPlugin {

namespace {

using VelaNode::LogLimit;

constexpr std::string_view OwnLine = "vela_snmpd_plugin: ";
constexpr unsigned Minute = 60;  // seconds

class AgentLog {
 public:
  AgentLog(const std::string& path, off_t size, long files) : _size(size) {
    for (long i = 0; i < files; ++i) {
      const std::string name = path + (i == 0 ? "" : "." + std::to_string(i));
      const int how = i == 0 ? O_WRONLY | O_APPEND : O_RDWR;
      _files.push_back(open(name.c_str(), how | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    }
    // For the copy that rotation makes of it.
    _reading = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  }

  bool isUsable() const {
    return _reading >= 0 && std::all_of(_files.begin(), _files.end(), [](int fd) { return fd >= 0; });
  }

  void write(std::string_view text) {
    while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (text.empty() || !_limit.passes(text)) return;
    const bool isOwn = text.substr(0, OwnLine.size()) == OwnLine;
    append(LogLimit::cut(text, isOwn ? LogLimit::maxLine : LogLimit::maxForeign));
  }

  void endMinute() {
    for (const std::string& line : _limit.endMinute()) append(std::string(OwnLine) + line);
  }

 private:
  void append(const std::string& line) {
    const std::string whole = line + "\n";
    struct stat status {};
    if (fstat(_files.front(), &status) == 0 && status.st_size + static_cast<off_t>(whole.size()) > _size) rotate();
    // What a full disk does not take is lost.
    [[maybe_unused]] const ssize_t written = ::write(_files.front(), whole.data(), whole.size());
  }

  /** By content, since the agent's user may not rename files in the folder; snmpd's own output goes on at the new end.
   */
  void rotate() {
    for (std::size_t i = _files.size() - 1; i > 0; --i) copy(i == 1 ? _reading : _files[i - 1], _files[i]);
    [[maybe_unused]] const int result = ftruncate(_files.front(), 0);
  }

  static void copy(int from, int to) {
    struct stat status {};
    if (fstat(from, &status) != 0 || ftruncate(to, 0) != 0 || lseek(to, 0, SEEK_SET) != 0) return;
    for (off_t at = 0; at < status.st_size;)
      if (sendfile(to, from, &at, static_cast<size_t>(status.st_size - at)) <= 0) return;
  }

  const off_t _size;
  std::vector<int> _files;
  int _reading = -1;
  LogLimit _limit;
};

/** Never destroyed: snmpd logs until it ends. */
AgentLog* agentLog = nullptr;

int onLine(netsnmp_log_handler*, int, const char* text) {
  agentLog->write(text);
  return 1;
}

void onMinute(unsigned, void*) { agentLog->endMinute(); }

/** From here on lines may be a stranger's doing; before, whoever starts snmpd wants to see them whole. */
void takeOver(unsigned, void*) {
  netsnmp_log_handler* own = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
  if (own == nullptr) return;
  for (auto* other = get_logh_head(); other != nullptr; other = other->next) other->enabled = 0;
  own->handler = onLine;
  own->enabled = 1;
  snmp_alarm_register(Minute, SA_REPEAT, onMinute, nullptr);
}

long numberFrom(const char* variable) {
  const char* text = std::getenv(variable);
  return text == nullptr ? 0 : std::strtol(text, nullptr, 10);
}

}  // namespace

void installAgentLog() {
  const char* path = std::getenv("VELA_SNMPD_LOG");
  const long size = numberFrom("VELA_LOG_SIZE");
  const long files = numberFrom("VELA_LOG_FILES");
  if (path == nullptr || size <= 0 || files <= 0) return;
  auto log = std::make_unique<AgentLog>(path, size, files);
  if (!log->isUsable()) {
    snmp_log(LOG_ERR, "vela_snmpd_plugin: the log cannot be bounded, its files cannot be opened\n");
    return;
  }
  agentLog = log.release();
  snmp_alarm_register(0, 0, takeOver, nullptr);
}

}  // namespace SnmpdPlugin
