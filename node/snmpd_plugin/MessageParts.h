#ifndef SNMPD_PLUGIN_MESSAGE_PARTS_H
#define SNMPD_PLUGIN_MESSAGE_PARTS_H

#include <string_view>

namespace SnmpdPlugin {

/** The scoped PDU of a v3 message (RFC 3412, 6), which a repeated request has in common with the first. Empty: none. */
std::string_view scopedPduOf(std::string_view message);

}  // namespace SnmpdPlugin
#endif
