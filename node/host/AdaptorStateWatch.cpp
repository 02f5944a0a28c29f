#include "host/AdaptorStateWatch.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>

#include "VelaMwSpiLog.h"
#include "framework/HostPortal.h"

namespace VelaNode {

namespace {

constexpr const char* portalVersion = "1";
/** The line "Changing state from OLD to NEW : REASON", written with the severity of information. */
constexpr std::string_view changeBegin = "Changing state from ";
constexpr std::string_view beforeState = " to ";
constexpr std::string_view beforeReason = " : ";
constexpr int changeSeverity = 6;
/** Warnings and worse are complaints, but for those of the form "[state ...] ...", which tell of single notifications.
 */
constexpr int complaintSeverity = 4;
constexpr std::string_view ordinaryBegin = "[state ";
constexpr std::size_t complaintLimit = 256;
constexpr std::size_t complaintLength = 500;

/** Whether a text stands in a line, and not within a longer name. */
bool hasWord(std::string_view line, std::string_view word) {
  const auto isPart = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-'; };
  if (word.empty()) return false;
  for (std::size_t at = line.find(word); at != line.npos; at = line.find(word, at + 1)) {
    const std::size_t end = at + word.size();
    if ((at == 0 || !isPart(line[at - 1])) && (end == line.size() || !isPart(line[end]))) return true;
  }
  return false;
}

}  // namespace

struct AdaptorStateWatch::Calls {
  static void write(std::int32_t severity, const char* component, const char* function, const char* text) {
    if (AdaptorStateWatch* watch = CurrentInstance<AdaptorStateWatch>::get()) {
      watch->onLine(severity, component, function, text);
    }
  }

  /** Never below the severity of the lines that are watched for; the host's log drops what it does not want. */
  static std::int32_t getLevel() {
    const AdaptorStateWatch* watch = CurrentInstance<AdaptorStateWatch>::get();
    return watch == nullptr ? 0 : std::max(watch->_log.getLevel(), changeSeverity);
  }

  static VelaReturnT getInterface(const char* component, const char* name, const char* version, void** interfaceOut) {
    const VelaReturnT result = HostPortal::getTable()->getInterface(component, name, version, interfaceOut);
    if (result == VELA_OK && *interfaceOut == HostLog::getLogTable()) {
      static VelaMwSpiLog_1T log = {&write, &getLevel};
      *interfaceOut = &log;
    }
    return result;
  }

  static VelaReturnT releaseInterface(void*) { return VELA_OK; }

  static VelaMgmtSpiInterfacePortal_1T* getPortal(const char* version) {
    if (version == nullptr || std::strcmp(version, portalVersion) != 0) return nullptr;
    static VelaMgmtSpiInterfacePortal_1T portal = [] {
      VelaMgmtSpiInterfacePortal_1T watched = *HostPortal::getTable();
      watched.getInterface = &getInterface;
      watched.releaseInterface = &releaseInterface;
      return watched;
    }();
    return &portal;
  }
};

VelaMgmtSpiInterfacePortalAccessor* AdaptorStateWatch::getAccessor() {
  static VelaMgmtSpiInterfacePortalAccessor accessor = {&Calls::getPortal};
  return &accessor;
}

AdaptorStateWatch::State AdaptorStateWatch::getState() const {
  const std::lock_guard lock(_mutex);
  return _state;
}

void AdaptorStateWatch::reset() {
  const std::lock_guard lock(_mutex);
  _state = State();
  _complaints.clear();
}

std::string AdaptorStateWatch::findComplaint(const std::vector<std::string>& texts) const {
  const std::lock_guard lock(_mutex);
  const auto mentions = [&](const std::string& complaint) {
    return std::ranges::any_of(texts, [&](const std::string& text) { return hasWord(complaint, text); });
  };
  const auto found = std::find_if(_complaints.rbegin(), _complaints.rend(), mentions);
  return found == _complaints.rend() ? std::string() : *found;
}

void AdaptorStateWatch::readState(std::string_view line) {
  const std::size_t state = line.find(beforeState, changeBegin.size());
  const std::size_t reason = state == line.npos ? line.npos : line.find(beforeReason, state);
  if (reason == line.npos) return;
  const std::size_t begin = state + beforeState.size();
  const State entered{std::string(line.substr(begin, reason - begin)),
                      std::string(line.substr(reason + beforeReason.size())), Poco::Timestamp()};
  {
    const std::lock_guard lock(_mutex);
    _state = entered;
  }
  if (_listener) _listener(entered);
}

void AdaptorStateWatch::onLine(int severity, const char* component, const char* function, const char* text) {
  const std::string_view line = text == nullptr ? std::string_view() : std::string_view(text);
  if (line.starts_with(changeBegin)) {
    readState(line);
  } else if (severity <= complaintSeverity && !line.starts_with(ordinaryBegin)) {
    const std::lock_guard lock(_mutex);
    if (_complaints.size() == complaintLimit) _complaints.pop_front();
    _complaints.emplace_back(line.substr(0, complaintLength));
  }
  _log.write(severity, component, function, text);
}

}  // namespace VelaNode
