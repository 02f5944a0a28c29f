#include "Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

#include "Failure.h"
#include "files/Trust.h"

namespace Tarn {

Descriptor::~Descriptor() {
  if (_fd >= 0) close(_fd);
}

std::string systemError(int error) { return std::generic_category().message(error); }

std::optional<std::string> readFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    if (errno == ENOENT) return std::nullopt;
    throw Failure("cannot read " + file.string() + ": " + systemError(errno));
  }
  try {
    return std::string{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  } catch (const std::ios_base::failure& error) {
    throw Failure("cannot read " + file.string() + ": " + error.code().message());
  }
}

std::optional<std::string> readOwnFile(const std::filesystem::path& file, uid_t user) {
  const Descriptor fd(NodeFiles::openOwn(file, O_RDONLY, 0, user));
  if (!fd.isOpen()) return std::nullopt;
  std::string content;
  std::array<char, 4096> buffer;
  for (;;) {
    const ssize_t n = read(fd.get(), buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw Failure("cannot read " + file.string() + ": " + systemError(errno));
    if (n == 0) return content;
    content.append(buffer.data(), static_cast<size_t>(n));
  }
}

void makePrivateFolder(const std::filesystem::path& folder) {
  if (folder.empty() || std::filesystem::is_directory(folder)) return;
  makePrivateFolder(folder.parent_path());
  if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST)
    throw Failure("cannot make the folder " + folder.string() + ": " + systemError(errno));
}

namespace {

void writeAll(int fd, const std::string& content, const std::filesystem::path& file) {
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw Failure("cannot write " + file.string() + ": " + systemError(errno));
    done += static_cast<size_t>(n);
  }
}

}  // namespace

void writePrivateFile(const std::filesystem::path& file, const std::string& content) {
  makePrivateFolder(file.parent_path());
  const std::string temporary = file.string() + ".new";
  unlink(temporary.c_str());
  const Descriptor fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!fd.isOpen()) throw Failure("cannot write " + temporary + ": " + systemError(errno));
  writeAll(fd.get(), content, temporary);
  if (fsync(fd.get()) != 0 || rename(temporary.c_str(), file.c_str()) != 0)
    throw Failure("cannot write " + file.string() + ": " + systemError(errno));
}

}  // namespace Tarn
