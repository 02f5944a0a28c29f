#include "SnmpUtil.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeParser.h>
#include <Poco/Exception.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <limits>
#include <mutex>
#include <optional>

#include "LoggingWrapper.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

constexpr unsigned long long nanosecondsPerSecond = 1000000000;

/** Severities of the framework with their names and their values in the MIB. */
constexpr struct {
  const char* name;
  int mib;
} severities[] = {{"CLEARED", 1}, {"INDETERMINATE", 2}, {"WARNING", 6}, {"MINOR", 5}, {"MAJOR", 4}, {"CRITICAL", 3}};

bool isSeverity(DaxOamSpiNotificationFmSeverityT severity) {
  return severity >= 0 && static_cast<std::size_t>(severity) < std::size(severities);
}

constexpr char faultySeverity[] = "Faulty alarm severity received: %d";

/** The model's severities with those of the framework; indeterminate has no place in an alarm record. */
constexpr struct {
  short model;
  DaxOamSpiNotificationFmSeverityT framework;
} modelSeverities[] = {{1, 0}, {3, 5}, {4, 4}, {5, 3}, {6, 2}};

bool toLocalTime(unsigned long long timeNs, std::tm& local) {
  const auto seconds = static_cast<std::time_t>(timeNs / nanosecondsPerSecond);
  if (localtime_r(&seconds, &local) != nullptr) return true;
  local = std::tm();
  return false;
}

std::string formatTime(const std::tm& time) {
  char text[96];
  std::snprintf(text, sizeof text, "%d-%02d-%02d_%02d:%02d:%02d", time.tm_year + 1900, time.tm_mon + 1, time.tm_mday,
                time.tm_hour, time.tm_min, time.tm_sec);
  return text;
}

unsigned long long readWallClock() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return static_cast<unsigned long long>(now.tv_sec) * 1000 + static_cast<unsigned long long>(now.tv_usec) / 1000;
}

struct MonotonicClock {
  std::mutex mutex;
  SnmpUtil::WallClock source = readWallClock;
  std::optional<unsigned long long> last;
  unsigned long long correction = 0;
};

MonotonicClock& monotonicClock() {
  static MonotonicClock clock;
  return clock;
}

}  // namespace

std::string SnmpUtil::getDateAndTime(unsigned long long timeNs) {
  std::tm local = {};
  if (!toLocalTime(timeNs, local))
    VELA_LOG(Vela::LogError, "Failed to convert time value (using time '1970 Jan 1 00:00:00.000')");
  VELA_TRACE("eventTime: %llu = '%s'", timeNs / nanosecondsPerSecond, formatTime(local).c_str());

  const auto year = static_cast<std::uint16_t>(local.tm_year + 1900);
  const auto deciSeconds = timeNs % nanosecondsPerSecond * 10 / nanosecondsPerSecond;
  const long offsetMinutes = std::labs(local.tm_gmtoff) / 60;
  const auto octet = [](auto value) { return static_cast<char>(static_cast<unsigned char>(value)); };
  return {octet(year >> 8),          octet(year & 0xFF),       octet(local.tm_mon + 1),
          octet(local.tm_mday),      octet(local.tm_hour),     octet(local.tm_min),
          octet(local.tm_sec),       octet(deciSeconds),       local.tm_gmtoff < 0 ? '-' : '+',
          octet(offsetMinutes / 60), octet(offsetMinutes % 60)};
}

std::string SnmpUtil::getTimeStr(unsigned long long timeNs) {
  std::tm local = {};
  toLocalTime(timeNs, local);
  return formatTime(local);
}

unsigned long long SnmpUtil::parseTimeStr(const char* text) {
  if (text == nullptr) text = "";
  VELA_TRACE(" >> %s", text);
  constexpr long long maxMicroseconds = static_cast<long long>(std::numeric_limits<unsigned long long>::max() / 1000);
  try {
    int zone = 0;
    Poco::DateTime time = Poco::DateTimeParser::parse(Poco::DateTimeFormat::ISO8601_FRAC_FORMAT, text, zone);
    time.makeUTC(zone);
    const Poco::Timestamp::TimeVal microseconds = time.timestamp().epochMicroseconds();
    if (microseconds >= 0 && microseconds <= maxMicroseconds) {
      const unsigned long long nanoseconds = static_cast<unsigned long long>(microseconds) * 1000;
      VELA_TRACE(" << %llu", nanoseconds);
      return nanoseconds;
    }
  } catch (const Poco::Exception&) {
    // Falls through to what an unusable time gets.
  }
  VELA_LOG(Vela::LogError, "parseTimeStr: '%s' FAILED", text);
  VELA_TRACE(" << 0");
  return 0;
}

std::string SnmpUtil::getSeverityStr(DaxOamSpiNotificationFmSeverityT severity) {
  return isSeverity(severity) ? severities[severity].name : "UNKNOWN";
}

int SnmpUtil::translateSeverityXMOD_to_SNMP(DaxOamSpiNotificationFmSeverityT severity) {
  if (isSeverity(severity)) return severities[severity].mib;
  VELA_TRACE(faultySeverity, severity);
  throw Vela::VelaException(faultySeverity, severity);
}

DaxOamSpiNotificationFmSeverityT SnmpUtil::translateSeveritySPI_to_XMOD(short severity) {
  for (const auto& known : modelSeverities) {
    if (known.model == severity) return known.framework;
  }
  VELA_LOG(Vela::LogError, faultySeverity, severity);
  throw Vela::VelaException(faultySeverity, severity);
}

std::string SnmpUtil::toHex(const std::string& bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    hex += digits[byte >> 4];
    hex += digits[byte & 0xF];
  }
  return hex;
}

unsigned long long SnmpUtil::getNow() {
  MonotonicClock& clock = monotonicClock();
  bool isBackwards = false;
  unsigned long long result = 0;
  {
    const std::lock_guard<std::mutex> lock(clock.mutex);
    const unsigned long long now = clock.correction + clock.source();
    isBackwards = clock.last.has_value() && now < *clock.last;
    if (isBackwards)
      clock.correction += *clock.last - now;
    else
      clock.last = now;
    result = *clock.last;
  }
  if (isBackwards) VELA_LOG(Vela::LogInfo, "Detected time going backwards!");
  return result;
}

SnmpUtil::WallClock SnmpUtil::setWallClock(WallClock source) {
  MonotonicClock& clock = monotonicClock();
  const std::lock_guard<std::mutex> lock(clock.mutex);
  const WallClock previous = clock.source;
  clock.source = source == nullptr ? readWallClock : source;
  clock.last.reset();
  clock.correction = 0;
  return previous;
}

}  // namespace VelaFmSnmp
