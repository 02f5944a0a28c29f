#ifndef VELA_FM_SNMP_SNMP_UTIL_H
#define VELA_FM_SNMP_SNMP_UTIL_H

#include <string>

#include "VelaOamApiFm.h"

namespace VelaFmSnmp {

/** Time, severity and text conversions. Stateless but for getNow's clock; callable from any thread. */
class SnmpUtil {
 public:
  SnmpUtil() = delete;

  /** The 11 octets of a DateAndTime (RFC 2579), local time, for nanoseconds since the epoch. */
  static std::string getDateAndTime(unsigned long long timeNs);
  /** Local time as YYYY-MM-DD_HH:MM:SS, for logs. */
  static std::string getTimeStr(unsigned long long timeNs);
  /** Nanoseconds since the epoch of an ISO 8601 time with fraction and zone; 0 (and a log line) if it is none. */
  static unsigned long long parseTimeStr(const char* text);

  /** "CLEARED" to "CRITICAL", "UNKNOWN" for a severity that is none. */
  static std::string getSeverityStr(DaxOamSpiNotificationFmSeverityT severity);
  /** Framework severity to that of the MIB. Throws Vela::VelaException for a severity that is none. */
  static int translateSeverityXMOD_to_SNMP(DaxOamSpiNotificationFmSeverityT severity);
  /** Severity of an alarm record in the model to that of the framework. Throws Vela::VelaException for all others,
      indeterminate among them. */
  static DaxOamSpiNotificationFmSeverityT translateSeveritySPI_to_XMOD(short severity);

  /** Two lower-case hexadecimal digits per byte. */
  static std::string toHex(const std::string& bytes);

  /** Milliseconds of a clock that starts at the wall clock's time, passes its forward steps on and never goes back:
      after a backward step it goes on from where it was. */
  static unsigned long long getNow();

  /** Milliseconds since the epoch. */
  using WallClock = unsigned long long (*)();
  /** Replaces getNow's source (null: the real one) and starts getNow afresh. Returns the previous source. */
  static WallClock setWallClock(WallClock source);
};

}  // namespace VelaFmSnmp
#endif
