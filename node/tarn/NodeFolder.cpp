#include "NodeFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "Failure.h"
#include "Files.h"
#include "files/AgentRecord.h"

namespace Tarn {

namespace {

// struct sockaddr_un holds no more, its terminating zero included.
constexpr size_t MaxSocketPathLength = 107;
/** Folders whose files may be the agent's own. */
constexpr const char* PersistentFolder = "persist";
constexpr const char* TlsFolder = "no-backup/etc/snmp/tls";

std::filesystem::path pathFromEnvironment(const char* name, const std::filesystem::path& otherwise) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return otherwise;
  const std::string text = value;
  // A path ends up in the agent's configuration, where a control character would end or split its line.
  if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }))
    throw Failure(std::string(name) + " holds a control character");
  if (text.front() != '/') throw Failure(std::string(name) + " is not an absolute path: " + text);
  return text;
}

/** Changes owner, group and mode of what is no link and has no other name. */
void change(const std::filesystem::path& path, uid_t owner, gid_t group, mode_t mode) {
  const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!fd.isOpen() || fstat(fd.get(), &status) != 0)
    throw Failure("cannot look at " + path.string() + ": " + systemError(errno));
  if (!S_ISDIR(status.st_mode) && (!S_ISREG(status.st_mode) || status.st_nlink != 1))
    throw Failure(path.string() + " is neither a folder nor a file of one name");
  if (fchown(fd.get(), owner, group) != 0 || fchmod(fd.get(), mode) != 0)
    throw Failure("cannot change the owner of " + path.string() + ": " + systemError(errno));
}

/** What a variable of the environment says, "yes" or "no"; without it, no. */
bool isWanted(const char* name) {
  const char* value = std::getenv(name);
  const std::string_view text = value != nullptr ? value : "";
  if (text != "yes" && text != "no" && !text.empty())
    throw Failure(std::string(name) + " is neither yes nor no: " + std::string(text));
  return text == "yes";
}

}  // namespace

NodeFolder NodeFolder::fromEnvironment() {
  NodeFolder folder;
  const std::filesystem::path root = pathFromEnvironment("VELA_NODE_DIR", {});
  if (root.empty()) throw Failure("VELA_NODE_DIR is not set: it must name the node's folder");
  folder._root = NodeFiles::followSafely(root);
  makePrivateFolder(folder._root);
  NodeFiles::checkOwnTree(folder._root, {PersistentFolder, TlsFolder}, folder._agentUser.uid);
  // It would end the folder's name in snmpd's search path.
  if (folder._root.string().find(':') != std::string::npos)
    throw Failure("the name of the node's folder holds a colon: " + folder._root.string());
  folder._agentXSocket = pathFromEnvironment("VELA_AGENTX_SOCKET", folder.run() / "agentx");
  folder._passwordFile = pathFromEnvironment("VELA_SNMP_PWD_FILE", folder.configuration() / "snmp_pwd_file");
  folder._plugin = pathFromEnvironment("VELA_SNMPD_PLUGIN", {});
  // The agent splits the line that names its plugin at blanks, and takes the rest for a comment behind these.
  if (folder._plugin.string().find_first_of(" #;") != std::string::npos)
    throw Failure("VELA_SNMPD_PLUGIN holds a blank, '#' or ';': " + folder._plugin.string());
  folder._keepsNotificationLog = isWanted("VELA_SNMPD_NOTIFICATION_LOG");
  if (folder._agentXSocket.string().size() > MaxSocketPathLength)
    throw Failure("the path of the AgentX socket is longer than " + std::to_string(MaxSocketPathLength) +
                  " characters: " + folder._agentXSocket.string());
  NodeFiles::followSafely(folder._agentXSocket);
  NodeFiles::followSafely(folder._passwordFile);
  return folder;
}

std::filesystem::path NodeFolder::pidFile() const { return NodeFiles::AgentRecord::pidFileIn(_root); }

std::filesystem::path NodeFolder::agentRecord() const { return NodeFiles::AgentRecord::fileIn(_root); }

void NodeFolder::make() const {
  for (const auto& folder : {parts(), certificates(), privateKeys(), revocations(), persistent(), run(),
                             log().parent_path(), agentXSocket().parent_path(), passwordFile().parent_path()})
    makePrivateFolder(folder);
}

void NodeFolder::handOverCredentials() const {
  if (!_agentUser.isOther()) return;
  constexpr mode_t Passage = S_IRWXU | S_IXGRP;
  for (std::filesystem::path folder = tls(); folder != _root.parent_path(); folder = folder.parent_path())
    change(folder, geteuid(), _agentUser.gid, Passage);
  for (const auto& folder : {certificates(), privateKeys(), revocations()}) {
    change(folder, _agentUser.uid, _agentUser.gid, S_IRWXU);
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      change(entry.path(), _agentUser.uid, _agentUser.gid, entry.is_directory() ? S_IRWXU : S_IRUSR | S_IWUSR);
  }
}

void NodeFolder::takeBackPersistent() const {
  if (_agentUser.isOther()) change(persistent(), geteuid(), getegid(), S_IRWXU);
}

}  // namespace Tarn
