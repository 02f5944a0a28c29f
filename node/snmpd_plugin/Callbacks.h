#ifndef SNMPD_PLUGIN_CALLBACKS_H
#define SNMPD_PLUGIN_CALLBACKS_H

#include <vector>

#include "NetSnmp.h"

namespace SnmpdPlugin {

/** Takes what is registered for an event of the library out of its list; whoever wants it called has to do so. */
std::vector<snmp_gen_callback> takeCallbacks(int major, int minor);

}  // namespace SnmpdPlugin
#endif
