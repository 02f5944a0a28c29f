#include "StrangerLog.h"

#include "NetSnmp.h"

namespace SnmpdPlugin {

namespace {

constexpr std::size_t MaxText = 200;
constexpr std::chrono::minutes Period{1};
/** Origins that are told apart within one period; all others are one. */
constexpr std::size_t MaxOrigins = 20;

void log(const std::string& line) { snmp_log(LOG_NOTICE, "vela_snmpd_plugin: %s\n", line.c_str()); }

}  // namespace

std::string cutForLog(const std::string& text) {
  constexpr const char* Ellipsis = "...";
  constexpr std::size_t EllipsisLength = 3;
  return text.size() <= MaxText ? text : text.substr(0, MaxText - EllipsisLength) + Ellipsis;
}

void StrangerLog::tell(const std::string& origin, const std::string& kind, const std::string& text) {
  std::string key = kind + " " + origin;
  if (_told.count(key) == 0 && _told.size() >= MaxOrigins) key.clear();
  const auto [entry, isNew] = _told.try_emplace(key);
  if (isNew) {
    log(text);
  } else {
    ++entry->second.count;
    entry->second.last = text;
  }
  if (!_timer.isRunning()) _timer.start(Period);
}

void StrangerLog::tellCounted() {
  std::erase_if(_told, [](const auto& entry) { return entry.second.count == 0; });
  for (auto& [key, counted] : _told) {
    log("the like " + std::to_string(counted.count) + " times more, the last: " + counted.last);
    counted = {};
  }
  if (!_told.empty()) _timer.start(Period);
}

}  // namespace SnmpdPlugin
