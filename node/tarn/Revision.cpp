#include "Revision.h"

#include <cstdio>
#include <cstdlib>

#include "Failure.h"

namespace Tarn {

std::string Revision::toString() const {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

Revision Revision::current() {
  const char* text = std::getenv("VELA_TARN_REVISION");
  if (text == nullptr || *text == '\0') return NewestRevision;
  Revision wanted;
  int length = 0;
  if (std::sscanf(text, "%4d.%4d.%4d%n", &wanted.major, &wanted.minor, &wanted.patch, &length) != 3 ||
      text[length] != '\0' || wanted < FirstRevision || NewestRevision < wanted)
    throw Failure("VELA_TARN_REVISION is no revision between " + FirstRevision.toString() + " and " +
                  NewestRevision.toString() + ": " + text);
  return wanted;
}

void require(const std::string& feature, const Revision& since) {
  const Revision revision = Revision::current();
  if (revision < since)
    throw Failure(feature + " needs revision " + since.toString() + ", this tool has " + revision.toString());
}

}  // namespace Tarn
