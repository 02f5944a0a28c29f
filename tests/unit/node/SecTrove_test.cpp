#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "SecTroveApi.h"
#include "TemporaryFolder.h"

namespace {

/** The built credential library, loaded as the framework loads it. */
class SecTroveTest : public ::testing::Test {
 protected:
  SecTroveTest() {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    const auto path = program.parent_path().parent_path() / "lib" / SEC_TROVE_LIBRARY;
    _library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (_library == nullptr) throw std::runtime_error(dlerror());
    find(open, SEC_TROVE_OPEN);
    find(close, SEC_TROVE_CLOSE);
    find(encryptText, SEC_TROVE_ENCRYPT);
    find(decryptText, SEC_TROVE_DECRYPT);
    find(freeText, SEC_TROVE_FREE);
    find(descriptor, SEC_TROVE_GET_DESCRIPTOR);
    find(dispatch, SEC_TROVE_DISPATCH);
  }
  ~SecTroveTest() override {
    close();
    dlclose(_library);
  }

  std::string store(const std::string& name = "trove") const { return _folder.file(name); }
  std::string keyFile(const std::string& name = "trove") const { return store(name) + "/key"; }

  std::string encrypt(const std::string& clear) const {
    char* text = nullptr;
    EXPECT_EQ(VELA_OK, encryptText(clear.c_str(), &text));
    return take(text);
  }
  VelaReturnT decrypt(const std::string& cipher, std::string* clear = nullptr) const {
    char* text = nullptr;
    const VelaReturnT result = decryptText(cipher.c_str(), &text);
    EXPECT_EQ(result == VELA_OK, text != nullptr);
    const std::string taken = take(text);
    if (clear != nullptr) *clear = taken;
    return result;
  }
  bool isReadable() const {
    pollfd waited{descriptor(), POLLIN, 0};
    return poll(&waited, 1, 0) == 1;
  }

  secTroveOpenT open = nullptr;
  secTroveCloseT close = nullptr;
  secTroveEncryptT encryptText = nullptr;
  secTroveDecryptT decryptText = nullptr;
  secTroveFreeT freeText = nullptr;
  secTroveGetDescriptorT descriptor = nullptr;
  secTroveDispatchT dispatch = nullptr;

 private:
  template <typename Function>
  void find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(_library, name));
    if (function == nullptr) throw std::runtime_error(name);
  }
  std::string take(char* text) const {
    const std::string copy = text == nullptr ? "" : text;
    freeText(text);
    return copy;
  }

  TemporaryFolder _folder;
  void* _library = nullptr;
};

TEST_F(SecTroveTest, EveryTextComesBackWithTheOwnersKeyOnly) {
  ASSERT_EQ(VELA_OK, open(store().c_str()));
  for (const std::string& clear :
       {std::string(), std::string("a"), std::string("pass phrase \xc3\xa4\n"), std::string(1000, 'x')}) {
    const std::string cipher = encrypt(clear);
    EXPECT_NE(cipher, encrypt(clear));
    for (const char c : cipher) ASSERT_TRUE(c > ' ' && c < 0x7f);
    close();
    ASSERT_EQ(VELA_OK, open(store().c_str()));
    std::string back;
    EXPECT_EQ(VELA_OK, decrypt(cipher, &back));
    EXPECT_EQ(clear, back);
  }
  struct stat status {};
  ASSERT_EQ(0, stat(keyFile().c_str(), &status));
  EXPECT_EQ(0600U, status.st_mode & 0777U);
  ASSERT_EQ(0, stat(store().c_str(), &status));
  EXPECT_EQ(0700U, status.st_mode & 0777U);
}

TEST_F(SecTroveTest, ADamagedOrForeignTextIsNotAuthentic) {
  ASSERT_EQ(VELA_OK, open(store().c_str()));
  const std::string cipher = encrypt("secret");
  for (size_t i = 0; i < cipher.size(); ++i) {
    std::string damaged = cipher;
    damaged[i] = damaged[i] == 'A' ? 'B' : 'A';
    EXPECT_EQ(VELA_NOT_AUTHENTIC, decrypt(damaged)) << i;
    EXPECT_EQ(VELA_NOT_AUTHENTIC, decrypt(cipher.substr(0, i))) << i;
  }
  for (const char* text : {"", "secret", "trove1:", "trove1:====", "trove1:AAAA", "trove2:AAAA"})
    EXPECT_EQ(VELA_NOT_AUTHENTIC, decrypt(text)) << text;
  EXPECT_EQ(VELA_NOT_AUTHENTIC, decrypt(cipher + "AAAA"));
  ASSERT_EQ(VELA_OK, open(store("other").c_str()));
  EXPECT_EQ(VELA_NOT_AUTHENTIC, decrypt(cipher));
}

TEST_F(SecTroveTest, AChangedKeyIsAnnouncedAndUsed) {
  ASSERT_EQ(VELA_OK, open(store("other").c_str()));
  const std::string cipher = encrypt("secret");
  ASSERT_EQ(VELA_OK, open(store().c_str()));
  EXPECT_FALSE(isReadable());
  EXPECT_EQ(0, dispatch());

  std::filesystem::copy_file(keyFile("other"), store() + "/key.new");
  std::filesystem::rename(store() + "/key.new", keyFile());
  ASSERT_TRUE(isReadable());
  EXPECT_EQ(1, dispatch());
  EXPECT_FALSE(isReadable());
  EXPECT_EQ(VELA_OK, decrypt(cipher));

  std::ofstream(store() + "/unrelated") << "x";
  EXPECT_EQ(0, dispatch());
  std::ofstream(keyFile()) << "too short";
  EXPECT_EQ(0, dispatch());
  EXPECT_EQ(VELA_OK, decrypt(cipher)) << "a broken key must not replace the one in use";
}

TEST_F(SecTroveTest, WhatCannotBeOpenedOrIsNotOpenIsAnError) {
  char* text = nullptr;
  EXPECT_EQ(VELA_ERROR, encryptText("x", &text));
  EXPECT_EQ(VELA_ERROR, decryptText("x", &text));
  EXPECT_EQ(-1, descriptor());
  EXPECT_EQ(0, dispatch());
  EXPECT_EQ(VELA_INVALID, open(nullptr));
  EXPECT_EQ(VELA_INVALID, open(""));
  std::ofstream(store()) << "a file where the folder should be";
  EXPECT_EQ(VELA_ERROR, open(store().c_str()));
  ASSERT_EQ(VELA_OK, open(store("good").c_str()));
  EXPECT_EQ(VELA_INVALID, encryptText(nullptr, &text));
  EXPECT_EQ(VELA_INVALID, decryptText("x", nullptr));
  std::ofstream(keyFile("good")) << "no key";
  EXPECT_EQ(VELA_ERROR, open(store("good").c_str()));
  EXPECT_EQ(6U, std::filesystem::file_size(keyFile("good")))
      << "a broken key is not replaced: what it encrypted would be lost for good";
}

TEST_F(SecTroveTest, ThreadsMayWorkAtTheSameTime) {
  ASSERT_EQ(VELA_OK, open(store().c_str()));
  std::atomic<int> good = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, clear = "secret" + std::to_string(i)] {
      for (int n = 0; n < 100; ++n) {
        std::string back;
        if (decrypt(encrypt(clear), &back) == VELA_OK && back == clear) ++good;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(400, good);
}

}  // namespace
