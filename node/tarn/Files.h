#ifndef TARN_FILES_H
#define TARN_FILES_H

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace Tarn {

/** Owns a file descriptor. */
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : _fd(fd) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : _fd(other._fd) { other._fd = -1; }
  Descriptor& operator=(Descriptor&&) = delete;

  int get() const { return _fd; }
  bool isOpen() const { return _fd >= 0; }

 private:
  int _fd;
};

/** The file's content; nothing when there is no such file. Throws Failure when it cannot be read. */
std::optional<std::string> readFile(const std::filesystem::path& file);

/** The same of a file that is the caller's or that user's own, in a folder where that user may put anything. Throws
    NodeFiles::FileFault. */
std::optional<std::string> readOwnFile(const std::filesystem::path& file, uid_t user);

/** Replaces the file as a whole (a reader sees the old or the new content); mode 600. Throws Failure. */
void writePrivateFile(const std::filesystem::path& file, const std::string& content);

/** Makes the folder (mode 700) and those above it when missing. Throws Failure. */
void makePrivateFolder(const std::filesystem::path& folder);

/** The system's text for an errno value. */
std::string systemError(int error);

}  // namespace Tarn
#endif
