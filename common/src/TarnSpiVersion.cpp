#include "TarnSpiVersion.h"

#include <charconv>

#include "VelaException.h"

namespace Vela {

TarnSpiVersion TarnSpiVersion::fromString(const std::string& text) {
  TarnSpiVersion version;
  const char* position = text.data();
  const char* const end = position + text.size();
  bool valid = true;
  for (int* number : {&version.major, &version.minor, &version.patch}) {
    if (number != &version.major) {
      valid = valid && position != end && *position == '.';
      if (valid) ++position;
    }
    const auto [next, error] = std::from_chars(position, end, *number);
    valid = valid && error == std::errc() && *number >= 0;
    position = next;
  }
  if (!valid || position != end) throw VelaException("Failed to parse tarn spi-revision: '%s'", text.c_str());
  return version;
}

std::string TarnSpiVersion::toString() const {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
}

}  // namespace Vela
