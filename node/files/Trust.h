#ifndef NODE_FILES_TRUST_H
#define NODE_FILES_TRUST_H

#include <sys/types.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace NodeFiles {

/** A file or folder that is not believed, or cannot be looked at; the text, one line, names it and says why. */
class FileFault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** The user that runs the master agent when the node is run by root, who can bind every port. */
struct AgentUser {
  std::string name;
  uid_t uid;
  gid_t gid;

  /**
   * The caller itself, unless it is root. For root: the user that VELA_AGENT_USER names, else the one that the package
   * of snmpd brings. Throws FileFault when there is no such user.
   */
  static AgentUser find();
  /** Whether the agent has to give up root for it. */
  bool isOther() const;
};

/**
 * Follows a path, which need not exist as a whole, and yields it absolute and without links. Throws FileFault when
 * somebody other than the caller and root could put something else in the place of a part of it: owns a link or folder
 * on the way, or may write into such a folder (a sticky one, as /tmp, excepted).
 */
std::filesystem::path followSafely(const std::filesystem::path& path);

/**
 * Checks a folder with everything in it, as far as it exists: folders, files and sockets, no links; the caller's own,
 * and writable by nobody else. In the folders named (by their paths below it) the agent's user may own them, too.
 * Throws FileFault.
 */
void checkOwnTree(const std::filesystem::path& folder, const std::vector<std::filesystem::path>& agentFolders,
                  uid_t agent);

/** open(2) of a file that is the caller's own, or the agent's: no link, nothing but a regular file. The descriptor is
    closed on exec. Throws FileFault; yields -1 when there is no such file and it is not to be made. */
int openOwn(const std::filesystem::path& file, int flags, mode_t mode, uid_t agent);

}  // namespace NodeFiles
#endif
