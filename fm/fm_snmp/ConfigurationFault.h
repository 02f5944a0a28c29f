#ifndef VELA_FM_SNMP_CONFIGURATION_FAULT_H
#define VELA_FM_SNMP_CONFIGURATION_FAULT_H

#include <VelaException.h>

namespace VelaFmSnmp {

/** A fault of one configured object, which concerns no other one: bad values, or rows that the agent refuses. */
class ConfigurationFault : public Vela::VelaException {
 public:
  explicit ConfigurationFault(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

}  // namespace VelaFmSnmp
#endif
