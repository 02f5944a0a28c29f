#include "fault/FmAlarm.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>

namespace VelaNode {

std::string formatTime(std::uint64_t timeNs) {
  return Poco::DateTimeFormatter::format(Poco::Timestamp(static_cast<Poco::Timestamp::TimeVal>(timeNs / 1000)),
                                         Poco::DateTimeFormat::ISO8601_FRAC_FORMAT);
}

}  // namespace VelaNode
