#ifndef TARN_REVISION_H
#define TARN_REVISION_H

#include <string>
#include <tuple>

namespace Tarn {

/** Revision of the tool's command interface. */
struct Revision {
  int major = 0;
  int minor = 0;
  int patch = 0;

  bool operator<(const Revision& other) const {
    return std::tie(major, minor, patch) < std::tie(other.major, other.minor, other.patch);
  }
  std::string toString() const;

  /** The tool's own revision, or the older one that VELA_TARN_REVISION asks it to behave as. Throws Failure. */
  static Revision current();
};

inline constexpr Revision FirstRevision{1, 0, 0};
inline constexpr Revision DtlsRevision{1, 2, 0};
inline constexpr Revision TrapSessAndCipherRevision{1, 6, 0};
inline constexpr Revision Ipv6PortOrderRevision{1, 9, 0};
inline constexpr Revision EngineIdRevision{1, 10, 0};
inline constexpr Revision NewestRevision = EngineIdRevision;

/** Throws Failure when the tool, as the revision it is to be, does not know the feature. */
void require(const std::string& feature, const Revision& since);

}  // namespace Tarn
#endif
