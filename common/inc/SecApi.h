#ifndef VELA_SEC_API_H
#define VELA_SEC_API_H

#include <string>

#include "SecTroveApi.h"

namespace Vela {

/**
 * The node's credential library (libsec_trove_api.so), loaded on first use: from the folder that the environment
 * variable VELA_SEC_API_LIB_DIR names, else by the loader's own search. Its store lies in the folder "sec_trove" of the
 * host's directory (environment variable VELA_NODE_DIR). Loading is thread-safe; afterwards each operation is as
 * thread-safe as the library, which serialises its calls.
 */
class SecApi {
 public:
  static SecApi& getInstance();

  /** Whether the library could be loaded and opened; tries again at every call until it could. */
  bool isAvailable();
  /** Descriptor to watch, or -1 while the library is not loaded. */
  int getDescriptor();
  /** Handles a readable descriptor: true when stored passwords must be read again. */
  bool dispatch();
  /** Both throw Vela::VelaException; the text never holds the secret. */
  std::string encrypt(const std::string& clearText);
  std::string decrypt(const std::string& cipherText);

 private:
  // The library stays open until the process ends: its own objects may be gone before this one is destroyed.
  SecApi() = default;
};

}  // namespace Vela
#endif
