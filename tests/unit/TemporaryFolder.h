#ifndef VELA_TEST_TEMPORARY_FOLDER_H
#define VELA_TEST_TEMPORARY_FOLDER_H

#include <stdlib.h>

#include <filesystem>
#include <string>

/** An empty folder of its own for a test, gone with its content at the end. */
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "vela-test-XXXXXX").string();
    _path = ::mkdtemp(name.data());
  }
  ~TemporaryFolder() { std::filesystem::remove_all(_path); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string file(const std::string& name) const { return (_path / name).string(); }
  std::size_t countFiles() const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(_path), {}));
  }

 private:
  std::filesystem::path _path;
};

#endif
