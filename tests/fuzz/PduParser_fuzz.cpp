#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "LoggingWrapper.h"
#include "PduParser.h"
#include "SnmpAlarm.h"
#include "TrapSender.h"
#include "VelaMwSpiLog.h"

using namespace VelaFmSnmp;

namespace {

/** Every trace is formatted and dropped. */
void openTrace() {
  static const VelaMwSpiLog_1T log = {[](int32_t, const char*, const char*, const char*) {},
                                      [] { return static_cast<int32_t>(9); }};
  static const DaxMwSpiTraceT trace = {[](const char*, const char*, const char*) {}};
  Vela::LoggingWrapper::getInstance().setInterfaces(&log, &trace);
}

void require(bool holds) {
  if (!holds) std::abort();
}

/** An alarm made of what was found is matched exactly when it is notified under the identifier that was found. */
void checkMatching(const PduParser& parser) {
  for (const bool isStateful : {false, true}) {
    for (int severity = 0; severity <= 5; ++severity) {
      SnmpAlarm alarm;
      alarm.setStateful(isStateful);
      alarm.setSeverity(severity);
      alarm.setMajorType(parser.getMajorType());
      alarm.setMinorType(parser.getMinorType());
      alarm.setManagedObject(parser.getManagedObject());
      const SnmpOid notification = TrapSender::getNotificationOid(alarm);
      require(parser.matches(alarm) == (!notification.isNull() && notification == parser.getTrapOid()));
      alarm.setMajorType(parser.getMajorType() + 1);
      require(!parser.matches(alarm));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool isOpen = (openTrace(), true);
  static_cast<void>(isOpen);
  PduParser parser(data, size);
  const bool isGood = parser.parse();
  require(parser.getTrapOid().length() <= SnmpOid::maxLength);
  require(parser.getManagedObject().size() <= size);
  if (isGood) checkMatching(parser);
  PduParser again(data, size);
  require(again.parse() == isGood && again.getTrapOid() == parser.getTrapOid());
  return 0;
}
