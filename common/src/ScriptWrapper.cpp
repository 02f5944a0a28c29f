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
#include <thread>
#include <utility>

#include "VelaException.h"

extern char** environ;

namespace Vela {

namespace {

using Clock = std::chrono::steady_clock;

/** How long a process group that was told to end may take before it is killed. */
constexpr std::chrono::milliseconds graceBeforeKill{500};
/** Output of a command beyond this is read but not kept. */
constexpr size_t maxOutput = size_t{1024} * 1024;

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
  ChildProcess(const std::vector<std::string>& argv, int outputFd) {
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDERR_FILENO);
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

class ProcessRunner : public ScriptRunner {
 public:
  int run(const std::vector<std::string>& argv, int timeoutMs, std::string& output,
          const ScriptCancellation* cancellation) override {
    output.clear();
    if (cancellation != nullptr && cancellation->isCancelled()) {
      throw VelaException("Not running %s, commands are cancelled", argv.at(0).c_str());
    }
    int descriptors[2];
    if (::pipe2(descriptors, O_CLOEXEC) != 0) {
      throw VelaException("Failed to run %s: %s", argv.at(0).c_str(), std::strerror(errno));
    }
    const Descriptor readEnd(descriptors[0]);
    Descriptor writeEnd(descriptors[1]);
    ChildProcess child(argv, writeEnd.get());
    writeEnd.reset();
    ::fcntl(readEnd.get(), F_SETFL, O_NONBLOCK);

    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    // The command's end counts, not the end of its output: a daemon that it leaves behind may keep the pipe open.
    enum { ChildEnded, Output, Cancelled, Count };
    std::array<pollfd, Count> watched{};
    watched[ChildEnded] = {child.getFD(), POLLIN, 0};
    watched[Output] = {readEnd.get(), POLLIN, 0};
    watched[Cancelled] = {cancellation != nullptr ? cancellation->getFD() : -1, POLLIN, 0};
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) throw VelaException("%s timed out after %d ms", argv[0].c_str(), timeoutMs);
      if (::poll(watched.data(), watched.size(), static_cast<int>(left) + 1) < 0 && errno != EINTR) {
        throw VelaException("Failed to wait for %s: %s", argv[0].c_str(), std::strerror(errno));
      }
      if (watched[Output].revents != 0 && !readAvailable(readEnd.get(), output)) watched[Output].fd = -1;
      if (watched[Cancelled].revents != 0) throw VelaException("%s was cancelled", argv[0].c_str());
      if (watched[ChildEnded].revents != 0) {
        const int status = child.wait();
        readAvailable(readEnd.get(), output);
        return status;
      }
    }
  }

 private:
  /** False at the end of the output. */
  static bool readAvailable(int fd, std::string& output) {
    std::array<char, 4096> buffer;
    for (;;) {
      const ssize_t count = ::read(fd, buffer.data(), buffer.size());
      if (count > 0) {
        if (output.size() < maxOutput) output.append(buffer.data(), static_cast<size_t>(count));
      } else if (count == 0) {
        return false;
      } else if (errno != EINTR) {
        return true;
      }
    }
  }
};

std::shared_ptr<ScriptRunner>& runner() {
  static std::shared_ptr<ScriptRunner> instance = std::make_shared<ProcessRunner>();
  return instance;
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
  return runner()->run(argv, timeoutMs, output, _cancellation);
}

void ScriptWrapper::setRunner(std::shared_ptr<ScriptRunner> replacement) {
  runner() = replacement ? std::move(replacement) : std::make_shared<ProcessRunner>();
}

}  // namespace Vela
