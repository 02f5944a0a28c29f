#ifndef TARN_PERSISTENT_STATE_H
#define TARN_PERSISTENT_STATE_H

#include <filesystem>
#include <string>

namespace Tarn {

/**
 * What the master agent keeps from run to run. Of its file only the boot count is worth keeping: rows that were set in
 * the previous run (users, targets, views) would make the same rows of the next run collide.
 */
class PersistentState {
 public:
  explicit PersistentState(std::filesystem::path folder) : _folder(std::move(folder)) {}

  /**
   * Rewrites the agent's file for the next start. The boot count goes on also when the engine id is another one than
   * in the previous run: a manager that has seen this id before accepts no lower count.
   */
  void prepareStart(const std::string& engineId) const;

 private:
  std::filesystem::path _folder;
};

}  // namespace Tarn
#endif
