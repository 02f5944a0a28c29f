#ifndef SNMPD_PLUGIN_STRANGER_LOG_H
#define SNMPD_PLUGIN_STRANGER_LOG_H

#include <map>
#include <string>

#include "Timer.h"

namespace SnmpdPlugin {

/** A text with something of a stranger's in it, cut to what is let into the log: 200 characters. */
std::string cutForLog(const std::string& text);

/**
 * Lines that strangers cause in the agent's log, so that they tell what happens and do not fill it. What is of one kind
 * and one origin is told at once, then counted, and told once a minute with the last of it; of many origins a few are
 * told apart. On snmpd's thread.
 */
class StrangerLog {
 public:
  StrangerLog() : _timer([this] { tellCounted(); }) {}

  /** `origin`: an address without port, say; `text`: a line, with cutForLog where a stranger has a part in it. */
  void tell(const std::string& origin, const std::string& kind, const std::string& text);

 private:
  struct Counted {
    unsigned count = 0; /**< since it was last told */
    std::string last;
  };

  void tellCounted();

  std::map<std::string, Counted> _told; /**< within the last minute, by kind and origin */
  Timer _timer;
};

}  // namespace SnmpdPlugin
#endif
