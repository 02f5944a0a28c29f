#include "SecTrove.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

namespace SecTrove {

template <typename Octets>
void Secret<Octets>::wipe() {
  OPENSSL_cleanse(_octets.data(), _octets.size());
}

template class Secret<Key>;
template class Secret<Text>;

namespace {

// Authenticated along with each text, so that a text of one form never passes for one of another.
constexpr std::string_view Prefix = "trove1:";
constexpr const char* KeyFileName = "key";
constexpr size_t NonceSize = 12;
constexpr size_t TagSize = 16;
constexpr size_t MaxTextSize = size_t{1024} * 1024;

using Octets = std::vector<unsigned char>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

class File {
 public:
  File(const std::string& path, int flags) : _fd(open(path.c_str(), flags | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    if (_fd < 0) throw std::system_error(errno, std::generic_category(), path);
  }
  ~File() { close(_fd); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int get() const { return _fd; }

 private:
  int _fd;
};

const unsigned char* octets(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }

void require(int result, const char* what) {
  if (result != 1) throw std::runtime_error(std::string("cryptography fails: ") + what);
}

std::string toBase64(const Octets& data) {
  std::string text(4 * ((data.size() + 2) / 3), '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data.data(), static_cast<int>(data.size()));
  return text;
}

/** Only what toBase64 makes; nothing for any other text. */
std::optional<Octets> fromBase64(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return std::nullopt;
  Octets data(text.size() / 4 * 3);
  if (EVP_DecodeBlock(data.data(), octets(text), static_cast<int>(text.size())) != static_cast<int>(data.size()))
    return std::nullopt;
  const size_t last = text.find_last_not_of('=');
  const size_t padding = last == std::string_view::npos ? text.size() : text.size() - 1 - last;
  if (padding > 2) return std::nullopt;
  data.resize(data.size() - padding);
  if (toBase64(data) != text) return std::nullopt;
  return data;
}

}  // namespace

Store::Store(const std::string& folder) : _folder(folder) {
  std::filesystem::path path(folder);
  if (!path.parent_path().empty()) std::filesystem::create_directories(path.parent_path());
  if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST)
    throw std::system_error(errno, std::generic_category(), folder);
  if (!std::filesystem::exists(keyFile())) makeKey();
  if (!loadKey(_key)) throw std::runtime_error(keyFile() + " holds no key");
  _watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  // The folder is watched, for a new key comes by renaming as well as by writing.
  if (_watch >= 0) inotify_add_watch(_watch, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR);
}

Store::~Store() {
  if (_watch >= 0) close(_watch);
}

std::string Store::keyFile() const { return _folder + "/" + KeyFileName; }

void Store::makeKey() const {
  Secret<Key> key;
  require(RAND_bytes(key.get().data(), static_cast<int>(key.get().size())), "RAND_bytes");
  const std::string temporary = keyFile() + "." + std::to_string(getpid());
  unlink(temporary.c_str());
  {
    const File file(temporary, O_WRONLY | O_CREAT | O_EXCL);
    if (write(file.get(), key.get().data(), key.get().size()) != static_cast<ssize_t>(key.get().size()) ||
        fsync(file.get()) != 0)
      throw std::system_error(errno, std::generic_category(), temporary);
  }
  // A link, not a rename: of two processes that make the first key at the same time, one has to win for both.
  const int linked = link(temporary.c_str(), keyFile().c_str());
  const int error = errno;
  unlink(temporary.c_str());
  if (linked != 0 && error != EEXIST) throw std::system_error(error, std::generic_category(), keyFile());
}

bool Store::loadKey(Secret<Key>& key) const {
  const File file(keyFile(), O_RDONLY);
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || status.st_size != static_cast<off_t>(key.get().size())) return false;
  // A key that was put there by hand; others must not read it from now on.
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0 && fchmod(file.get(), S_IRUSR | S_IWUSR) != 0) return false;
  return read(file.get(), key.get().data(), key.get().size()) == static_cast<ssize_t>(key.get().size());
}

std::string Store::encrypt(const std::string& clearText) const {
  if (clearText.size() > MaxTextSize) throw std::runtime_error("the text is too long");
  Octets data(NonceSize + clearText.size() + TagSize);
  unsigned char* nonce = data.data();
  unsigned char* body = nonce + NonceSize;
  unsigned char* tag = body + clearText.size();
  require(RAND_bytes(nonce, NonceSize), "RAND_bytes");
  const CipherContext context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  int length = 0;
  require(context != nullptr, "no context");
  require(EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, _key.get().data(), nonce), "init");
  require(EVP_EncryptUpdate(context.get(), nullptr, &length, octets(Prefix), static_cast<int>(Prefix.size())),
          "prefix");
  require(EVP_EncryptUpdate(context.get(), body, &length, octets(clearText), static_cast<int>(clearText.size())),
          "text");
  require(EVP_EncryptFinal_ex(context.get(), tag, &length), "final");
  require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, TagSize, tag), "tag");
  return std::string(Prefix) + toBase64(data);
}

bool Store::decrypt(const std::string& cipherText, Secret<Text>& clearText) const {
  if (cipherText.rfind(Prefix, 0) != 0 || cipherText.size() > 2 * MaxTextSize) return false;
  auto data = fromBase64(std::string_view(cipherText).substr(Prefix.size()));
  if (!data || data->size() < NonceSize + TagSize) return false;
  const size_t size = data->size() - NonceSize - TagSize;
  unsigned char* nonce = data->data();
  unsigned char* body = nonce + NonceSize;
  unsigned char* tag = body + size;
  clearText.get().resize(size);
  auto* result = reinterpret_cast<unsigned char*>(clearText.get().data());
  const CipherContext context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  int length = 0;
  require(context != nullptr, "no context");
  require(EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, _key.get().data(), nonce), "init");
  require(EVP_DecryptUpdate(context.get(), nullptr, &length, octets(Prefix), static_cast<int>(Prefix.size())),
          "prefix");
  require(EVP_DecryptUpdate(context.get(), result, &length, body, static_cast<int>(size)), "text");
  require(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, TagSize, tag), "tag");
  return EVP_DecryptFinal_ex(context.get(), result + size, &length) == 1;
}

bool Store::reload() {
  alignas(inotify_event) char events[4096];
  while (read(_watch, events, sizeof(events)) > 0) {
    // Which file an event is about does not matter: what counts is whether the key is another one.
  }
  Secret<Key> key;
  try {
    if (!loadKey(key)) return false;
  } catch (const std::system_error&) {
    return false;  // the key is being replaced; another event follows
  }
  if (CRYPTO_memcmp(key.get().data(), _key.get().data(), key.get().size()) == 0) return false;
  _key.get() = key.get();
  return true;
}

}  // namespace SecTrove
