#ifndef TARN_RECEIVER_NAMES_H
#define TARN_RECEIVER_NAMES_H

#include <string>
#include <vector>

namespace Tarn {

/**
 * Puts addresses in the place of the host names in a configuration's trapsess lines. snmpd would look the names up
 * while it starts and serve nobody meanwhile; with a name server that is down that takes longer than a start may. All
 * names are looked up at the same time. A line whose name has no address within three seconds is left out, and
 * its name is added to `leftOut`.
 */
std::string resolveReceivers(const std::string& configuration, std::vector<std::string>& leftOut);

}  // namespace Tarn
#endif
