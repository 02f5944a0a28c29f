#include "AgentProcess.h"

#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// glibc before 2.37 does not declare its functions for C++.
extern "C" {
#include <sys/pidfd.h>
}

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>

#include "Failure.h"
#include "Files.h"

namespace Tarn {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds StartTimeout{20};
constexpr seconds TerminateTimeout{4};
constexpr seconds KillTimeout{5};
constexpr milliseconds PollInterval{10};
constexpr std::uintmax_t MaxLogSize = std::uintmax_t{4} * 1024 * 1024;
constexpr const char* AgentName = "snmpd";
constexpr const char* SystemFolders = ":/usr/local/sbin:/usr/sbin:/sbin";
constexpr int ExecFailed = 127;
// snmpd's last line whatever it failed of; the line before has the reason.
constexpr std::string_view ExitLine = "Server Exiting";

/** Absolute path of snmpd, or a Failure that names the package. */
std::string findExecutable() {
  const char* path = std::getenv("PATH");
  std::istringstream folders((path != nullptr ? path : "") + std::string(SystemFolders));
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (folder.empty() || folder.front() != '/') continue;
    std::string file = folder + "/" + AgentName;
    if (access(file.c_str(), X_OK) == 0) return file;
  }
  throw Failure("snmpd is not installed: the Debian package 'snmpd' provides it");
}

std::vector<std::string> commandLine(pid_t pid) {
  std::vector<std::string> words;
  std::istringstream in(readFile("/proc/" + std::to_string(pid) + "/cmdline").value_or(""));
  for (std::string word; std::getline(in, word, '\0');) words.push_back(word);
  return words;
}

std::optional<pid_t> toPid(const std::string& text) {
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return pid;
}

/** Inodes of the sockets that a process has open. */
std::set<unsigned long> socketInodes(pid_t pid) {
  std::set<unsigned long> inodes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
    unsigned long inode = 0;
    if (std::sscanf(std::filesystem::read_symlink(entry, error).c_str(), "socket:[%lu]", &inode) == 1)
      inodes.insert(inode);
  }
  return inodes;
}

/** Ports of the process's UDP sockets of one address family, from the kernel's table. */
std::set<unsigned> boundPorts(const std::set<unsigned long>& inodes, bool isIpv6) {
  std::set<unsigned> ports;
  std::istringstream table(readFile(isIpv6 ? "/proc/net/udp6" : "/proc/net/udp").value_or(""));
  for (std::string line; std::getline(table, line);) {
    unsigned port = 0;
    unsigned long inode = 0;
    if (std::sscanf(line.c_str(), " %*d: %*[0-9A-Fa-f]:%x %*s %*s %*s %*s %*s %*s %*s %lu", &port, &inode) == 2 &&
        inodes.count(inode) != 0)
      ports.insert(port);
  }
  return ports;
}

bool waitForEnd(const Descriptor& process, milliseconds timeout) {
  pollfd waited{process.get(), POLLIN, 0};
  const auto end = Clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
    const int ready = poll(&waited, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

/** Ends a process for sure; it may be stopped, busy or deaf. */
void endProcess(pid_t pid) {
  const Descriptor process(pidfd_open(pid, 0));
  if (!process.isOpen()) {
    if (errno == ESRCH) return;
    throw Failure("cannot reach snmpd (pid " + std::to_string(pid) + "): " + systemError(errno));
  }
  const auto send = [&](int signal) {
    if (pidfd_send_signal(process.get(), signal, nullptr, 0) != 0 && errno != ESRCH)
      throw Failure("cannot signal snmpd (pid " + std::to_string(pid) + "): " + systemError(errno));
  };
  send(SIGTERM);
  send(SIGCONT);
  if (waitForEnd(process, TerminateTimeout)) return;
  send(SIGKILL);
  if (!waitForEnd(process, KillTimeout)) throw Failure("snmpd (pid " + std::to_string(pid) + ") does not end");
}

/** Standard input from nothing, both outputs to the log, and not a descriptor more. */
void detach(const std::string& log) {
  setsid();
  const int null = open("/dev/null", O_RDONLY);
  const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, S_IRUSR | S_IWUSR);
  dup2(null, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(out, STDERR_FILENO);
  close_range(STDERR_FILENO + 1, ~0U, 0);
  umask(S_IRWXG | S_IRWXO);
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> list;
  list.reserve(words.size() + 1);
  for (std::string& word : words) list.push_back(word.data());
  list.push_back(nullptr);
  return list;
}

}  // namespace

std::optional<pid_t> AgentProcess::find() const {
  const std::string marker = _folder.pidFile();
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto pid = toPid(entry.path().filename().string());
    if (!pid) continue;
    try {
      const auto words = commandLine(*pid);
      if (!words.empty() && std::filesystem::path(words.front()).filename() == AgentName &&
          std::find(words.begin(), words.end(), marker) != words.end())
        return pid;
    } catch (const Failure&) {
      continue;  // it ended while it was looked at, or belongs to somebody else
    }
  }
  return std::nullopt;
}

pid_t AgentProcess::spawn() const {
  // Without the module "smux", which would listen on a privileged TCP port of its own.
  std::vector<std::string> arguments = {
      findExecutable(), "-f", "-I", "-smux", "-A", "-Lf", _folder.log().string(), "-p", _folder.pidFile().string()};
  // The persistent folder has to be on the configuration path: the boot count is only read back from there.
  std::vector<std::string> environment = {
      "SNMPCONFPATH=" + _folder.configuration().string() + ":" + _folder.persistent().string(),
      "SNMP_PERSISTENT_DIR=" + _folder.persistent().string(), "MIBS=", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
      "HOME=" + _folder.configuration().string()};
  const auto argv = pointers(arguments);
  const auto envp = pointers(environment);
  const std::string log = _folder.log();
  const pid_t pid = fork();
  if (pid < 0) throw Failure("cannot start snmpd: " + systemError(errno));
  if (pid == 0) {
    detach(log);
    execve(argv[0], argv.data(), envp.data());
    _exit(ExecFailed);
  }
  return pid;
}

bool AgentProcess::acceptsAgentX() const {
  const Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  _folder.agentXSocket().string().copy(address.sun_path, sizeof(address.sun_path) - 1);
  return fd.isOpen() && connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool AgentProcess::isReady(pid_t pid, const std::vector<ListenAddress>& addresses) const {
  const auto inodes = socketInodes(pid);
  const std::set<unsigned> ports[] = {boundPorts(inodes, false), boundPorts(inodes, true)};
  return std::all_of(addresses.begin(), addresses.end(),
                     [&](const ListenAddress& address) { return ports[address.isIpv6()].count(address.port) != 0; }) &&
         acceptsAgentX();
}

void AgentProcess::rotateLog() const {
  std::error_code error;
  if (std::filesystem::file_size(_folder.log(), error) > MaxLogSize && !error)
    std::filesystem::rename(_folder.log(), _folder.log().string() + ".1", error);
}

std::string AgentProcess::lastLogLine(size_t offset) const {
  const std::string log = readFile(_folder.log()).value_or("");
  std::istringstream in(log.substr(std::min(offset, log.size())));
  std::string last;
  for (std::string line; std::getline(in, line);)
    if (line.find_first_not_of(" \t\r") != std::string::npos && line.rfind(ExitLine, 0) != 0) last = line;
  return last.empty() ? "it has written nothing to " + _folder.log().string() : last;
}

void AgentProcess::start(const std::vector<ListenAddress>& addresses) const {
  rotateLog();
  const size_t logOffset = readFile(_folder.log()).value_or("").size();
  // A socket that a killed agent left behind would look like one that is not accepting yet.
  std::error_code error;
  std::filesystem::remove(_folder.agentXSocket(), error);
  const pid_t pid = spawn();
  for (const auto end = Clock::now() + StartTimeout; Clock::now() < end; std::this_thread::sleep_for(PollInterval)) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) throw Failure("snmpd did not start: " + lastLogLine(logOffset));
    if (isReady(pid, addresses)) return;
  }
  endProcess(pid);
  throw Failure("snmpd was not ready within " + std::to_string(StartTimeout.count()) +
                " seconds: " + lastLogLine(logOffset));
}

void AgentProcess::stop() const {
  while (const auto pid = find()) endProcess(*pid);
  std::error_code error;
  std::filesystem::remove(_folder.pidFile(), error);
  std::filesystem::remove(_folder.agentXSocket(), error);
}

bool AgentProcess::isDtlsBuiltIn() {
  // The list of configuration directives shows what the agent was built with.
  Poco::Pipe out;
  const Poco::ProcessHandle process = Poco::Process::launch(findExecutable(), {"-H"}, nullptr, &out, &out);
  Poco::PipeInputStream in(out);
  std::string text;
  Poco::StreamCopier::copyToString(in, text);
  process.wait();
  return text.find("tlsAlgorithms") != std::string::npos;
}

}  // namespace Tarn
