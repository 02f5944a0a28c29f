#include "ScriptWrapper.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <utility>

#include "Enduring.h"
#include "LoggingWrapper.h"
#include "VelaException.h"

extern char** environ;

namespace Vela {

namespace {

using Clock = std::chrono::steady_clock;

/** How long a process group that was told to end may take before it is killed. */
constexpr std::chrono::milliseconds graceBeforeKill{500};
/** Output of a command beyond this is read but not kept. */
constexpr size_t maxOutput = size_t{1024} * 1024;
constexpr size_t pipeCapacity = size_t{64} * 1024;
constexpr size_t maxLoggedLines = 20;
constexpr size_t maxLoggedLine = 500;
constexpr size_t maxLoggedCommand = 100;

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : _fd(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return _fd; }
  void reset(int fd = -1) {
    if (_fd >= 0) ::close(_fd);
    _fd = fd;
  }

 private:
  int _fd;
};

/** A spawned process, leader of its own group; the group is killed and the process reaped at destruction. */
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, int outputFd, int errorFd) {
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errorFd, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Signals that the host blocks or ignores for itself must not reach its commands that way.
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    const int result = ::posix_spawnp(&_pid, arguments[0], &actions, &attributes, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
      _pid = -1;
      throw VelaException("Failed to run %s: %s", argv[0].c_str(), std::strerror(result));
    }
    _pidFd.reset(static_cast<int>(::syscall(SYS_pidfd_open, _pid, 0)));
    if (_pidFd.get() < 0) {
      const int error = errno;
      kill();
      throw VelaException("Failed to watch %s: %s", argv[0].c_str(), std::strerror(error));
    }
  }
  ~ChildProcess() { kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /** Descriptor that is readable once the process has ended. */
  int getFD() const { return _pidFd.get(); }

  /** Reaps the ended process. */
  int wait() {
    int status = 0;
    while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
    }
    _pid = -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  }

  /** Ends the whole group: politely first, then for certain. */
  void kill() {
    if (_pid < 0) return;
    ::kill(-_pid, SIGTERM);
    if (_pidFd.get() >= 0) {
      pollfd watched{_pidFd.get(), POLLIN, 0};
      ::poll(&watched, 1, static_cast<int>(graceBeforeKill.count()));
    }
    ::kill(-_pid, SIGKILL);
    wait();
  }

 private:
  pid_t _pid = -1;
  Descriptor _pidFd;
};

/** A pipe of which a command holds the writing end, and what was read from it. */
class CommandOutput {
 public:
  CommandOutput(const std::string& command, std::string& text) : _text(text) {
    _text.clear();
    int descriptors[2];
    if (::pipe2(descriptors, O_CLOEXEC) != 0) {
      throw VelaException("Failed to run %s: %s", command.c_str(), std::strerror(errno));
    }
    _readEnd.reset(descriptors[0]);
    _writeEnd.reset(descriptors[1]);
    ::fcntl(_readEnd.get(), F_SETFL, O_NONBLOCK);
  }

  int getWriteFD() const { return _writeEnd.get(); }
  void closeWriteEnd() { _writeEnd.reset(); }
  /** -1 once the command has closed its end. */
  int getReadFD() const { return _readEnd.get(); }

  /** Takes what lies in the pipe, and not what a command that never stops writing adds meanwhile. */
  void readAvailable() {
    std::array<char, 4096> buffer;
    for (size_t taken = 0; _readEnd.get() >= 0 && taken < pipeCapacity;) {
      const ssize_t count = ::read(_readEnd.get(), buffer.data(), buffer.size());
      if (count > 0) {
        taken += static_cast<size_t>(count);
        if (_text.size() < maxOutput) _text.append(buffer.data(), static_cast<size_t>(count));
      } else if (count == 0) {
        _readEnd.reset();
      } else if (errno != EINTR) {
        return;
      }
    }
  }

 private:
  std::string& _text;
  Descriptor _readEnd;
  Descriptor _writeEnd;
};

class ProcessRunner : public ScriptRunner {
 public:
  int run(const std::vector<std::string>& argv, int timeoutMs, std::string& output, std::string& errors,
          const ScriptCancellation* cancellation) override {
    if (cancellation != nullptr && cancellation->isCancelled()) {
      throw VelaException("Not running %s, commands are cancelled", argv.at(0).c_str());
    }
    CommandOutput out(argv.at(0), output);
    CommandOutput err(argv.at(0), errors);
    ChildProcess child(argv, out.getWriteFD(), err.getWriteFD());
    out.closeWriteEnd();
    err.closeWriteEnd();

    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
      // The command's end counts, not the end of its output: a daemon that it leaves behind may keep the pipes open.
      enum { ChildEnded, Output, Errors, Cancelled, Count };
      std::array<pollfd, Count> watched{};
      watched[ChildEnded] = {child.getFD(), POLLIN, 0};
      watched[Output] = {out.getReadFD(), POLLIN, 0};
      watched[Errors] = {err.getReadFD(), POLLIN, 0};
      watched[Cancelled] = {cancellation != nullptr ? cancellation->getFD() : -1, POLLIN, 0};
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) throw VelaException("%s timed out after %d ms", argv[0].c_str(), timeoutMs);
      if (::poll(watched.data(), watched.size(), static_cast<int>(left) + 1) < 0 && errno != EINTR) {
        throw VelaException("Failed to wait for %s: %s", argv[0].c_str(), std::strerror(errno));
      }
      const bool isEnded = watched[ChildEnded].revents != 0;
      if (isEnded || watched[Output].revents != 0) out.readAvailable();
      if (isEnded || watched[Errors].revents != 0) err.readAvailable();
      if (watched[Cancelled].revents != 0) throw VelaException("%s was cancelled", argv[0].c_str());
      if (isEnded) return child.wait();
    }
  }
};

/** Logs what a command wrote to standard error, one line each, of a bounded length and number. */
void logErrors(const std::string& command, const std::vector<std::string>& arguments, const std::string& errors) {
  std::istringstream lines(errors);
  std::string line;
  for (size_t count = 0; count < maxLoggedLines && std::getline(lines, line);) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    ++count;
    std::string name = command;
    for (const std::string& argument : arguments) name += " " + argument;
    VELA_LOG(LogWarning, "%s: %s", name.substr(0, maxLoggedCommand).c_str(), line.substr(0, maxLoggedLine).c_str());
  }
}

std::shared_ptr<ScriptRunner>& runner() {
  static const Enduring<std::shared_ptr<ScriptRunner>> instance(std::make_shared<ProcessRunner>());
  return *instance;
}

}  // namespace

ScriptCancellation::ScriptCancellation() : _fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (_fd < 0) throw VelaException("Failed to create an event descriptor: %s", std::strerror(errno));
}

ScriptCancellation::~ScriptCancellation() { ::close(_fd); }

void ScriptCancellation::cancel() {
  const uint64_t one = 1;
  while (::write(_fd, &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void ScriptCancellation::reset() {
  uint64_t count;
  while (::read(_fd, &count, sizeof count) < 0 && errno == EINTR) {
  }
}

bool ScriptCancellation::isCancelled() const {
  pollfd watched{_fd, POLLIN, 0};
  return ::poll(&watched, 1, 0) > 0;
}

ScriptWrapper::ScriptWrapper(std::string command) : _command(std::move(command)) {}

int ScriptWrapper::run(const std::vector<std::string>& arguments, int timeoutMs, std::string& output) const {
  if (_command.empty()) throw VelaException("No command to run");
  std::vector<std::string> argv;
  argv.reserve(arguments.size() + 1);
  argv.push_back(_command);
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::string errors;
  try {
    const int status = runner()->run(argv, timeoutMs, output, errors, _cancellation);
    if (status != 0 && !errors.empty()) {
      output = std::move(errors);
    } else {
      logErrors(_command, arguments, errors);
    }
    return status;
  } catch (const std::exception&) {
    logErrors(_command, arguments, errors);
    throw;
  }
}

void ScriptWrapper::setRunner(std::shared_ptr<ScriptRunner> replacement) {
  runner() = replacement ? std::move(replacement) : std::make_shared<ProcessRunner>();
}

}  // namespace Vela
