#ifndef VELA_FM_SNMP_SESSION_EXCEPTION_H
#define VELA_FM_SNMP_SESSION_EXCEPTION_H

#include <VelaException.h>

#include <string>

namespace VelaFmSnmp {

/** The session to the master agent failed: not opened, no answer, or a row that the agent refuses to create. */
class SnmpSessionException : public Vela::VelaException {
 public:
  explicit SnmpSessionException(const std::string& message) { setReason(message); }
};

}  // namespace VelaFmSnmp
#endif
