#include "SecApi.h"

#include <dlfcn.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "LoggingWrapper.h"
#include "VelaException.h"

namespace Vela {

namespace {

/** The library's entry points; loaded and opened together or not at all. */
struct SecTrove {
  void* handle = nullptr;
  secTroveOpenT open = nullptr;
  secTroveCloseT close = nullptr;
  secTroveEncryptT encrypt = nullptr;
  secTroveDecryptT decrypt = nullptr;
  secTroveFreeT free = nullptr;
  secTroveGetDescriptorT getDescriptor = nullptr;
  secTroveDispatchT dispatch = nullptr;

  template <class Function>
  bool find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(::dlsym(handle, name));
    return function != nullptr;
  }

  bool load() {
    const char* directory = std::getenv("VELA_SEC_API_LIB_DIR");
    const std::string path = directory != nullptr ? std::string(directory) + "/" SEC_TROVE_LIBRARY : SEC_TROVE_LIBRARY;
    handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      VELA_LOG(LogWarning, "The credential library is not available: %s", ::dlerror());
      return false;
    }
    const char* nodeDirectory = std::getenv("VELA_NODE_DIR");
    const std::string store = std::string(nodeDirectory != nullptr ? nodeDirectory : ".") + "/sec_trove";
    if (find(open, SEC_TROVE_OPEN) && find(close, SEC_TROVE_CLOSE) && find(encrypt, SEC_TROVE_ENCRYPT) &&
        find(decrypt, SEC_TROVE_DECRYPT) && find(free, SEC_TROVE_FREE) &&
        find(getDescriptor, SEC_TROVE_GET_DESCRIPTOR) && find(dispatch, SEC_TROVE_DISPATCH) &&
        open(store.c_str()) == VELA_OK) {
      return true;
    }
    VELA_LOG(LogWarning, "The credential library could not be opened");
    ::dlclose(handle);
    *this = SecTrove();
    return false;
  }
};

std::mutex mutex;
SecTrove library;

SecTrove* loaded() {
  const std::lock_guard<std::mutex> lock(mutex);
  return library.handle != nullptr || library.load() ? &library : nullptr;
}

/** Calls one of the two translations and takes its text over. */
std::string translate(const char* what, VelaReturnT (*SecTrove::*function)(const char*, char**),
                      const std::string& text) {
  SecTrove* trove = loaded();
  if (trove == nullptr) throw VelaException("The credential library is not available");
  char* result = nullptr;
  const VelaReturnT code = (trove->*function)(text.c_str(), &result);
  const std::unique_ptr<char, secTroveFreeT> owner(result, trove->free);
  if (code != VELA_OK || result == nullptr) throw VelaException(code, "%s failed (%d)", what, code);
  return result;
}

}  // namespace

SecApi& SecApi::getInstance() {
  static SecApi instance;
  return instance;
}

bool SecApi::isAvailable() { return loaded() != nullptr; }

int SecApi::getDescriptor() {
  const std::lock_guard<std::mutex> lock(mutex);
  return library.handle != nullptr ? library.getDescriptor() : -1;
}

bool SecApi::dispatch() {
  const std::lock_guard<std::mutex> lock(mutex);
  return library.handle != nullptr && library.dispatch() == 1;
}

std::string SecApi::encrypt(const std::string& clearText) {
  return translate("Encryption", &SecTrove::encrypt, clearText);
}

std::string SecApi::decrypt(const std::string& cipherText) {
  return translate("Decryption", &SecTrove::decrypt, cipherText);
}

}  // namespace Vela
