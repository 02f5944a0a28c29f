#include "host/AdaptorStateWatch.h"

#include <algorithm>
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
}

void AdaptorStateWatch::onLine(int severity, const char* component, const char* function, const char* text) {
  if (text != nullptr && std::string_view(text).substr(0, changeBegin.size()) == changeBegin) {
    const std::string_view line(text);
    const std::size_t state = line.find(beforeState, changeBegin.size());
    const std::size_t reason = state == line.npos ? line.npos : line.find(beforeReason, state);
    if (reason != line.npos) {
      const std::size_t begin = state + beforeState.size();
      const State entered{std::string(line.substr(begin, reason - begin)),
                          std::string(line.substr(reason + beforeReason.size()))};
      {
        const std::lock_guard lock(_mutex);
        _state = entered;
      }
      if (_listener) _listener(entered);
    }
  }
  _log.write(severity, component, function, text);
}

}  // namespace VelaNode
