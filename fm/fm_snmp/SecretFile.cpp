#include "SecretFile.h"

#include <VelaException.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace VelaFmSnmp {

namespace {

std::string folder() {
  for (const char* variable : {"VELA_NODE_DIR", "TMPDIR"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != '\0') return value;
  }
  return "/tmp";
}

bool writeAll(int fd, const std::string& content) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t count = ::write(fd, content.data() + done, content.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

SecretFile::SecretFile(const std::string& content) : _path(folder() + "/.tarn-XXXXXX") {
  const int fd = ::mkostemp(_path.data(), O_CLOEXEC);  // makes the file with mode 600
  if (fd < 0) throw Vela::VelaException("Failed to create file %s: %s", _path.c_str(), std::strerror(errno));
  const bool isWritten = writeAll(fd, content);
  const int error = errno;
  const bool isClosed = ::close(fd) == 0;
  if (isWritten && isClosed) return;
  ::unlink(_path.c_str());
  throw Vela::VelaException("Failed to write file %s: %s", _path.c_str(), std::strerror(isWritten ? errno : error));
}

SecretFile::~SecretFile() { ::unlink(_path.c_str()); }

}  // namespace VelaFmSnmp
