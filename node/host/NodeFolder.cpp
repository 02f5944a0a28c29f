#include "host/NodeFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "VelaException.h"
#include "control/ControlProtocol.h"
#include "files/Trust.h"

namespace VelaNode {

namespace {

constexpr mode_t folderMode = S_IRWXU;
constexpr mode_t fileMode = S_IRUSR | S_IWUSR;

// Files of the master agent, which may run as a user of its own.
constexpr const char* persistent = "persist";
constexpr const char* credentials = "no-backup/etc/snmp/tls";

constexpr const char* folders[] = {"run",
                                   "log",
                                   persistent,
                                   "sec_trove",
                                   "no-backup",
                                   "no-backup/etc",
                                   "no-backup/etc/snmp",
                                   "no-backup/etc/snmp/parts",
                                   credentials,
                                   "no-backup/etc/snmp/tls/certs",
                                   "no-backup/etc/snmp/tls/private"};

[[noreturn]] void fail(const std::filesystem::path& path) {
  throw Vela::VelaException("%s: %s", path.c_str(), std::strerror(errno));
}

void makeFolder(const std::filesystem::path& path) {
  if (::mkdir(path.c_str(), folderMode) != 0 && errno != EEXIST) fail(path);
  if (!std::filesystem::is_directory(path)) {
    errno = ENOTDIR;
    fail(path);
  }
}

}  // namespace

NodeFolder::NodeFolder(const std::filesystem::path& path) {
  _path = NodeFiles::followSafely(path);
  std::error_code error;
  std::filesystem::create_directories(_path.parent_path(), error);
  makeFolder(_path);
  NodeFiles::checkOwnTree(_path, {persistent, credentials}, NodeFiles::AgentUser::find().uid);
  lock();
}

void NodeFolder::lock() {
  const std::filesystem::path file = _path / "lock";
  FileDescriptor lock(NodeFiles::openOwn(file, O_RDWR | O_CREAT, fileMode, ::geteuid()));
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) fail(file);
    throw Vela::VelaException("%s: a node is running on this folder already", _path.c_str());
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(lock.get(), 0) != 0 || ::write(lock.get(), pid.data(), pid.size()) < 0) fail(file);
  _lock = std::move(lock);
}

void NodeFolder::makeTree() const {
  for (const char* folder : folders) makeFolder(_path / folder);
}

std::filesystem::path NodeFolder::controlSocket() const { return _path / controlSocketName; }

}  // namespace VelaNode
