#ifndef VELA_SCRIPT_WRAPPER_H
#define VELA_SCRIPT_WRAPPER_H

#include <memory>
#include <string>
#include <vector>

namespace Vela {

/**
 * Lets another thread end the commands that one owner runs. While cancelled, a running command is ended (its whole
 * process group, SIGTERM then SIGKILL) and a new one is refused, both with Vela::VelaException. Thread-safe.
 */
class ScriptCancellation {
 public:
  ScriptCancellation();
  ~ScriptCancellation();
  ScriptCancellation(const ScriptCancellation&) = delete;
  ScriptCancellation& operator=(const ScriptCancellation&) = delete;

  void cancel();
  void reset(); /**< commands may run again */
  bool isCancelled() const;
  int getFD() const { return _fd; } /**< readable while cancelled */

 private:
  int _fd = -1;
};

/** Runs commands: the edge at which tests put a stand-in for the node's tools. */
class ScriptRunner {
 public:
  virtual ~ScriptRunner() = default;
  /**
   * Runs argv[0] (found through PATH) with an argument vector, no shell between, standard input empty. `output` gets
   * what the command wrote to standard output, `errors` what it wrote to standard error, both also when this throws.
   * Returns the exit status, or 128 + the signal number. Throws Vela::VelaException when the command cannot be run,
   * when it exceeds the time-out (in milliseconds; its whole process group is killed) and when it is cancelled.
   */
  virtual int run(const std::vector<std::string>& argv, int timeoutMs, std::string& output, std::string& errors,
                  const ScriptCancellation* cancellation) = 0;
};

/** One command of the node, run with arguments and a time-out. */
class ScriptWrapper {
 public:
  explicit ScriptWrapper(std::string command);

  void setCancellation(const ScriptCancellation* cancellation) { _cancellation = cancellation; }
  const std::string& getCommand() const { return _command; }

  /**
   * As ScriptRunner::run, with the command put in front of the arguments. `output` is the command's answer: its
   * standard output. What it writes to standard error is logged as a warning; only when the command fails (exit status
   * not 0), and says anything there, that is the output instead.
   */
  int run(const std::vector<std::string>& arguments, int timeoutMs, std::string& output) const;

  /** Replaces the runner of the whole process (null: the real one again). For tests; not while commands run. */
  static void setRunner(std::shared_ptr<ScriptRunner> runner);

 private:
  std::string _command;
  const ScriptCancellation* _cancellation = nullptr;
};

}  // namespace Vela
#endif
