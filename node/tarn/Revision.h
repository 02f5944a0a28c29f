#ifndef TARN_REVISION_H
#define TARN_REVISION_H

#include <string>

#include "TarnSpiVersion.h"

namespace Tarn {

/** The revision of the tool's own command interface, or the older one that VELA_TARN_REVISION asks it to behave as.
 *  Throws Failure. */
Vela::TarnSpiVersion currentRevision();

/** Throws Failure when the tool, as the revision it is to be, does not know the feature. */
void require(const std::string& feature, const Vela::TarnSpiVersion& since);

}  // namespace Tarn
#endif
