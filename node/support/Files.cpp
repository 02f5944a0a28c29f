#include "support/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "VelaException.h"

namespace VelaNode {

using Vela::VelaException;

namespace {

constexpr mode_t fileMode = S_IRUSR | S_IWUSR;

[[noreturn]] void failWriting(const std::string& path) {
  const int error = errno;
  throw VelaException("%s: cannot be written: %s", path.c_str(), std::strerror(error));
}

[[noreturn]] void failReading(const std::string& path) {
  const int error = errno;
  throw VelaException("%s: cannot be read: %s", path.c_str(), std::strerror(error));
}

}  // namespace

std::string readWholeFile(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.isOpen()) failReading(path);
  std::string content;
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) failReading(path);
    if (count == 0) return content;
    content.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

void writeWholeFile(const std::string& path, std::string_view content) {
  NewFile file(path);
  file.write(content);
  file.replace();
}

void writeAll(const FileDescriptor& file, std::string_view content, const std::string& path) {
  while (!content.empty()) {
    const ssize_t written = ::write(file.get(), content.data(), content.size());
    if (written < 0 && errno != EINTR) failWriting(path);
    if (written > 0) content.remove_prefix(static_cast<std::size_t>(written));
  }
}

void syncFolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const FileDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor.isOpen() || ::fsync(descriptor.get()) != 0) failWriting(folder);
}

NewFile::NewFile(std::string finalPath)
    : _finalPath(std::move(finalPath)),
      _path(_finalPath + ".new"),
      _file(::open(_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, fileMode)) {
  if (!_file.isOpen() || ::fchmod(_file.get(), fileMode) != 0) failWriting(_path);
}

NewFile::~NewFile() {
  if (!_path.empty()) ::unlink(_path.c_str());
}

FileDescriptor NewFile::replace() {
  if (::fsync(_file.get()) != 0) failWriting(_path);
  if (::rename(_path.c_str(), _finalPath.c_str()) != 0) failWriting(_finalPath);
  _path.clear();
  syncFolderOf(_finalPath);
  return std::move(_file);
}

}  // namespace VelaNode
