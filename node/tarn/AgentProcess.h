#ifndef TARN_AGENT_PROCESS_H
#define TARN_AGENT_PROCESS_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "NodeFolder.h"

namespace Tarn {

/**
 * The node's snmpd process. It is the one that was recorded when it was started (NodeFiles::AgentRecord), so that
 * neither a stale process id, nor another user's process of that name, nor the agent of another node is ever taken for
 * it.
 */
class AgentProcess {
 public:
  explicit AgentProcess(const NodeFolder& folder) : _folder(folder) {}

  std::optional<pid_t> find() const;

  /**
   * Starts snmpd, detached, and returns when it has bound every address and accepts AgentX connections. Throws Failure
   * with its last log line when it ends before, or does not get there within 20 seconds (then it is ended).
   */
  void start() const;

  /** Ends snmpd if it runs: SIGTERM, after 4 seconds SIGKILL. Returns when the process is gone, its sockets with it. */
  void stop() const;

  /** Whether the installed snmpd has the DTLS transport. */
  static bool isDtlsBuiltIn();

 private:
  pid_t spawn() const;
  /** Ends it for sure; it may be stopped, busy or deaf. */
  void endProcess() const;
  bool isReady(pid_t pid) const;
  bool acceptsAgentX() const;
  void rotateLog() const;
  std::string lastLogLine(size_t offset) const;

  const NodeFolder& _folder;
};

}  // namespace Tarn
#endif
