#ifndef SEC_TROVE_SEC_TROVE_H
#define SEC_TROVE_SEC_TROVE_H

#include <array>
#include <optional>
#include <string>

namespace SecTrove {

/** Octets that are wiped when they are given up. */
template <typename Octets>
class Secret {
 public:
  Secret() = default;
  ~Secret() { wipe(); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  Octets& get() { return _octets; }
  const Octets& get() const { return _octets; }
  void wipe();

 private:
  Octets _octets{};
};

using Key = std::array<unsigned char, 32>;
using Text = std::string;

/**
 * One folder's store: a key file, and encryption with that key (AES-256-GCM, a random nonce for each text, base64
 * behind a prefix that names the form). Not thread-safe.
 */
class Store {
 public:
  /** Loads the key; makes folder and key when missing. Throws std::runtime_error when that is not possible. */
  explicit Store(const std::string& folder);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  std::string encrypt(const std::string& clearText) const;
  /** False when the text is damaged, has another form, or was made with another key. */
  bool decrypt(const std::string& cipherText, Secret<Text>& clearText) const;

  /** Readable when something has happened to the key file. */
  int descriptor() const { return _watch; }
  /** Reads what has happened. True when the store works with another key from now on. */
  bool reload();

 private:
  std::string keyFile() const;
  void makeKey() const;
  bool loadKey(Secret<Key>& key) const;

  std::string _folder;
  Secret<Key> _key;
  int _watch = -1;
};

}  // namespace SecTrove
#endif
