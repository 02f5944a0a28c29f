#ifndef TARN_CREDENTIALS_H
#define TARN_CREDENTIALS_H

#include <filesystem>
#include <string>

#include "NodeFolder.h"

namespace Tarn {

/** The certificates and private keys in the node's folder, for the operator. */
class Credentials {
 public:
  explicit Credentials(const NodeFolder& folder) : _folder(folder) {}

  /** Makes the node a self-signed certificate with its key, unless it has one. Yields the fingerprint. Throws Failure.
   */
  std::string init() const;
  /** Puts a peer's or an authority's certificate into the folder. Yields the fingerprint. Throws Failure. */
  std::string add(const std::filesystem::path& file) const;
  /** A line for each certificate, and one for each file that cannot be used. */
  std::string show() const;

 private:
  const NodeFolder& _folder;
};

}  // namespace Tarn
#endif
