#include "Trust.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <system_error>

namespace NodeFiles {

namespace {

constexpr const char* DefaultAgentUser = "Debian-snmp";
constexpr int MaxLinks = 40;
constexpr mode_t OthersWrite = S_IWGRP | S_IWOTH;

[[noreturn]] void fail(const std::filesystem::path& path, const std::string& reason) {
  throw FileFault(path.string() + ": " + reason);
}

[[noreturn]] void failOfSystem(const std::filesystem::path& path) {
  fail(path, std::generic_category().message(errno));
}

std::string nameOf(uid_t user) {
  std::array<char, 4096> buffer;
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? "the user " + std::string(found->pw_name) : "user " + std::to_string(user);
}

/** Whether a user stands for all those whom this user namespace does not know; among them is then the machine's root.
 */
bool standsForUnknown(uid_t user) {
  unsigned long unknown = 0;
  if (!(std::ifstream("/proc/sys/kernel/overflowuid") >> unknown) || user != unknown) return false;
  std::ifstream map("/proc/self/uid_map");
  for (unsigned long begin = 0, outside = 0, count = 0; map >> begin >> outside >> count;)
    if (user >= begin && user - begin < count) return false;
  return true;
}

bool isTrustedAbove(uid_t user) { return user == 0 || user == geteuid() || standsForUnknown(user); }

void checkAbove(const std::filesystem::path& path, const struct stat& status) {
  if (!isTrustedAbove(status.st_uid))
    fail(path, "belongs to " + nameOf(status.st_uid) + ", who could replace what is in it");
  if (S_ISLNK(status.st_mode) || (status.st_mode & S_ISVTX) != 0) return;
  // Root and a user's own group are the business of whoever put somebody into the group.
  const bool isOwnGroup = status.st_gid == getegid() || status.st_uid == 0;
  if ((status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && !isOwnGroup))
    fail(path, "others may write into it, and replace what is in it");
}

void putFirst(std::deque<std::filesystem::path>& steps, const std::filesystem::path& path) {
  steps.insert(steps.begin(), path.begin(), path.end());
}

void checkOwn(const std::filesystem::path& path, const struct stat& status, uid_t agent) {
  if (status.st_uid != geteuid() && status.st_uid != agent)
    fail(path, "belongs to " + nameOf(status.st_uid) + ", not to the user that runs the node");
  if ((status.st_mode & OthersWrite) != 0) fail(path, "others may write it");
}

bool isBelow(const std::filesystem::path& path, const std::filesystem::path& folder) {
  return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

/** `agent`: who may own what is here, besides the caller. */
void checkEntry(const std::filesystem::path& path, uid_t agent) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return;  // it is the work of another run, which just removed it
    failOfSystem(path);
  }
  if (S_ISLNK(status.st_mode)) fail(path, "is a link; nothing in a node's folder may be one");
  if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode) && !S_ISSOCK(status.st_mode))
    fail(path, "is neither folder nor file");
  checkOwn(path, status, agent);
}

}  // namespace

AgentUser AgentUser::find() {
  if (geteuid() != 0) return {nameOf(geteuid()), geteuid(), getegid()};
  const char* configured = std::getenv("VELA_AGENT_USER");
  const std::string name = configured != nullptr && *configured != '\0' ? configured : DefaultAgentUser;
  std::array<char, 4096> buffer;
  passwd entry{};
  passwd* found = nullptr;
  getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (found == nullptr) throw FileFault("there is no user '" + name + "' to run snmpd as");
  return {name, found->pw_uid, found->pw_gid};
}

bool AgentUser::isOther() const { return uid != geteuid(); }

std::filesystem::path followSafely(const std::filesystem::path& path) {
  std::deque<std::filesystem::path> steps;
  putFirst(steps, std::filesystem::absolute(path).relative_path());
  std::filesystem::path current = "/";
  struct stat status {};
  for (int links = 0; !steps.empty();) {
    const std::filesystem::path step = steps.front();
    steps.pop_front();
    if (step.empty() || step == ".") continue;
    if (step == "..") {
      current = current.parent_path();
      continue;
    }
    if (lstat(current.c_str(), &status) == 0) checkAbove(current, status);
    const std::filesystem::path next = current / step;
    if (lstat(next.c_str(), &status) != 0) {
      if (errno != ENOENT) failOfSystem(next);
    } else if (S_ISLNK(status.st_mode)) {
      checkAbove(next, status);
      if (++links > MaxLinks) fail(next, std::generic_category().message(ELOOP));
      const std::filesystem::path target = std::filesystem::read_symlink(next);
      if (target.is_absolute()) current = "/";
      putFirst(steps, target.relative_path());
      continue;
    }
    current = next;
  }
  return current;
}

void checkOwnTree(const std::filesystem::path& folder, const std::vector<std::filesystem::path>& agentFolders,
                  uid_t agent) {
  const auto ownerOf = [&](const std::filesystem::path& path) {
    const bool isAgents = std::any_of(agentFolders.begin(), agentFolders.end(),
                                      [&](const auto& below) { return isBelow(path, folder / below); });
    return isAgents ? agent : geteuid();
  };
  std::vector<std::filesystem::path> waiting{folder};
  while (!waiting.empty()) {
    const std::filesystem::path path = std::move(waiting.back());
    waiting.pop_back();
    checkEntry(path, ownerOf(path));
    std::error_code error;
    if (!std::filesystem::is_directory(std::filesystem::symlink_status(path, error))) continue;
    for (const auto& entry : std::filesystem::directory_iterator(path, error)) waiting.push_back(entry.path());
    if (error && error != std::errc::no_such_file_or_directory) fail(path, error.message());
  }
}

int openOwn(const std::filesystem::path& file, int flags, mode_t mode, uid_t agent) {
  // What is no file must not hold up whoever opens it.
  const int fd = open(file.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode);
  if (fd < 0) {
    if (errno == ENOENT && (flags & O_CREAT) == 0) return -1;
    if (errno == ELOOP) fail(file, "is a link; nothing in a node's folder may be one");
    failOfSystem(file);
  }
  try {
    struct stat status {};
    if (fstat(fd, &status) != 0) failOfSystem(file);
    if (!S_ISREG(status.st_mode)) fail(file, "is no file");
    checkOwn(file, status, agent);
  } catch (...) {
    close(fd);
    throw;
  }
  return fd;
}

}  // namespace NodeFiles
