#ifndef SNMPD_PLUGIN_MESSAGE_PARTS_H
#define SNMPD_PLUGIN_MESSAGE_PARTS_H

#include <string_view>

namespace SnmpdPlugin {

/** The scoped PDU of a v3 message (RFC 3412, 6), which a repeated request has in common with the first. Empty: none. */
std::string_view scopedPduOf(std::string_view message);

/** Whether a scoped PDU asks for an answer, so that it may be sent again. */
bool isInform(std::string_view scopedPdu);

}  // namespace SnmpdPlugin
#endif
