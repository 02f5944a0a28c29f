#ifndef TARN_PERSISTENT_STATE_H
#define TARN_PERSISTENT_STATE_H

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace Tarn {

/**
 * What the master agent keeps from run to run. Of its file only the boot count is worth keeping: rows that were set in
 * the previous run (users, targets, views) would make the same rows of the next run collide, and whatever else it says
 * the next agent would do.
 */
class PersistentState {
 public:
  /** In the same folder, the engine id that was made for the node. */
  static constexpr const char* engineIdFile = "engine_id";

  /** `agent`: the user who may own the files. */
  PersistentState(std::filesystem::path folder, uid_t agent) : _folder(std::move(folder)), _agent(agent) {}

  /**
   * Rewrites the agent's file for the next start, and removes all else that the agent left. The boot count goes on also
   * when the engine id is another one than in the previous run: a manager that has seen this id before accepts no lower
   * count.
   */
  void prepareStart(const std::string& engineId) const;

 private:
  std::filesystem::path _folder;
  uid_t _agent;
};

}  // namespace Tarn
#endif
