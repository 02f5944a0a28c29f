#ifndef VELA_NODE_FILE_DESCRIPTOR_H
#define VELA_NODE_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace VelaNode {

/** Owns an open file descriptor, or none (-1). */
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : _fd(fd) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(std::exchange(other._fd, -1));
    return *this;
  }

  int get() const { return _fd; }
  bool isOpen() const { return _fd >= 0; }
  void reset(int fd = -1) {
    if (_fd >= 0) ::close(_fd);
    _fd = fd;
  }

 private:
  int _fd;
};

}  // namespace VelaNode
#endif
