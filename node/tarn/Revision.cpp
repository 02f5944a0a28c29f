#include "Revision.h"

#include <cstdlib>

#include "Failure.h"
#include "TarnSpi.h"
#include "VelaException.h"

namespace Tarn {

namespace {

constexpr Vela::TarnSpiVersion OldestRevision = Vela::TarnSpi::FirstRevision;
constexpr Vela::TarnSpiVersion NewestRevision = Vela::TarnSpi::EngineIdRevision;

/** Something older than any revision when the text is none. */
Vela::TarnSpiVersion parse(const char* text) {
  try {
    return Vela::TarnSpiVersion::fromString(text);
  } catch (const Vela::VelaException&) {
    return {};
  }
}

}  // namespace

Vela::TarnSpiVersion currentRevision() {
  const char* text = std::getenv("VELA_TARN_REVISION");
  if (text == nullptr || *text == '\0') return NewestRevision;
  const Vela::TarnSpiVersion wanted = parse(text);
  if (wanted < OldestRevision || NewestRevision < wanted)
    throw Failure("VELA_TARN_REVISION is no revision between " + OldestRevision.toString() + " and " +
                  NewestRevision.toString() + ": " + text);
  return wanted;
}

void require(const std::string& feature, const Vela::TarnSpiVersion& since) {
  const Vela::TarnSpiVersion revision = currentRevision();
  if (revision < since)
    throw Failure(feature + " needs revision " + since.toString() + ", this tool has " + revision.toString());
}

}  // namespace Tarn
