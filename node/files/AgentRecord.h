#ifndef NODE_FILES_AGENT_RECORD_H
#define NODE_FILES_AGENT_RECORD_H

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace NodeFiles {

/**
 * Which process is a node's master agent: a process id alone may be another process's by now, and a name is anybody's.
 * The tool that starts the agent records the process's id and the moment of its start in the node's folder.
 */
struct AgentRecord {
  pid_t pid;
  unsigned long long start; /**< clock ticks since the machine started; with the process id it never comes again */

  /** Of a process that runs. Nothing when there is none. */
  static std::optional<AgentRecord> of(pid_t pid);
  std::string toText() const;

  /**
   * The agent that is recorded in a node's folder, if it runs: the very process, on this folder (its command line names
   * the folder's pid file), as the caller or the agent's user. Throws FileFault when a record is there and not
   * believed.
   */
  static std::optional<AgentRecord> find(const std::filesystem::path& nodeFolder);

  static std::filesystem::path fileIn(const std::filesystem::path& nodeFolder) { return nodeFolder / "run" / "agent"; }
  static std::filesystem::path pidFileIn(const std::filesystem::path& nodeFolder) {
    return nodeFolder / "run" / "snmpd.pid";
  }
};

}  // namespace NodeFiles
#endif
