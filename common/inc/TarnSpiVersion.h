#ifndef VELA_TARN_SPI_VERSION_H
#define VELA_TARN_SPI_VERSION_H

#include <string>
#include <tuple>

namespace Vela {

/** Interface revision of the management tool: major.minor.patch. */
struct TarnSpiVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;

  /** Reads "1.10.0"; throws Vela::VelaException "Failed to parse tarn spi-revision: '%s'" for anything else. */
  static TarnSpiVersion fromString(const std::string& text);
  std::string toString() const;

  bool operator<(const TarnSpiVersion& other) const {
    return std::tie(major, minor, patch) < std::tie(other.major, other.minor, other.patch);
  }
};

}  // namespace Vela
#endif
