#include "SecTroveApi.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>

#include "SecTrove.h"

namespace {

std::mutex mutex;
std::unique_ptr<SecTrove::Store> store;

char* toCaller(const std::string& text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

/** Runs an operation on the open store; no exception leaves the library. */
template <typename Operation>
VelaReturnT withStore(Operation operation) {
  try {
    const std::lock_guard lock(mutex);
    return store ? operation(*store) : VELA_ERROR;
  } catch (const std::exception&) {
    return VELA_ERROR;
  }
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

VelaReturnT secTroveOpen(const char* directory) {
  if (directory == nullptr || *directory == '\0') return VELA_INVALID;
  try {
    const std::lock_guard lock(mutex);
    store = std::make_unique<SecTrove::Store>(directory);
    return VELA_OK;
  } catch (const std::exception&) {
    return VELA_ERROR;
  }
}

void secTroveClose(void) {
  const std::lock_guard lock(mutex);
  store.reset();
}

VelaReturnT secTroveEncrypt(const char* clearText, char** cipherText) {
  if (clearText == nullptr || cipherText == nullptr) return VELA_INVALID;
  return withStore([&](const SecTrove::Store& open) {
    *cipherText = toCaller(open.encrypt(clearText));
    return *cipherText == nullptr ? VELA_ERROR : VELA_OK;
  });
}

VelaReturnT secTroveDecrypt(const char* cipherText, char** clearText) {
  if (cipherText == nullptr || clearText == nullptr) return VELA_INVALID;
  return withStore([&](const SecTrove::Store& open) {
    SecTrove::Secret<SecTrove::Text> text;
    if (!open.decrypt(cipherText, text)) return VELA_NOT_AUTHENTIC;
    *clearText = toCaller(text.get());
    return *clearText == nullptr ? VELA_ERROR : VELA_OK;
  });
}

void secTroveFree(char* text) {
  if (text == nullptr) return;
  OPENSSL_cleanse(text, std::strlen(text));
  std::free(text);
}

int secTroveGetDescriptor(void) {
  const std::lock_guard lock(mutex);
  return store ? store->descriptor() : -1;
}

int secTroveDispatch(void) {
  try {
    const std::lock_guard lock(mutex);
    return store && store->reload() ? 1 : 0;
  } catch (const std::exception&) {
    return 0;
  }
}
}
#pragma GCC visibility pop
