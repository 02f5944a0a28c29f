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
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <thread>

#include "Failure.h"
#include "Files.h"
#include "TarnSpi.h"
#include "files/AgentRecord.h"

namespace Tarn {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

/** Leaves time to say that it was not enough. */
constexpr seconds StartTimeout{Vela::TarnSpi::StartTimeoutMs / 1000 - 5};
constexpr seconds TerminateTimeout{4};
constexpr seconds KillTimeout{5};
constexpr milliseconds PollInterval{10};

/** A bound of the log: the variable that sets it, and its value without. */
struct LogBound {
  const char* variable;
  std::uintmax_t otherwise;
};
constexpr LogBound LogSize{"VELA_LOG_SIZE", std::uintmax_t{10} * 1024 * 1024};
constexpr LogBound LogFiles{"VELA_LOG_FILES", 5};

constexpr const char* AgentName = "snmpd";
constexpr const char* SystemFolders = ":/usr/local/sbin:/usr/sbin:/sbin";
constexpr int ExecFailed = 127;
constexpr const char* OwnFolder = "/proc/self/cwd";
/**
 * Modules of snmpd that the node's agent does without: what shows processes and their arguments, installed software and
 * the agent's own inside; what runs commands or speaks for others; DISMAN, with which a manager makes the agent ask and
 * set by itself; and "smux", which would listen on a privileged TCP port of its own.
 */
constexpr const char* LeftOutModules =
    "-smux,hrSWRunTable,hrSWRunPerfTable,swrun,hrSWInstalledTable,swinst,proc,"
    "versioninfo,pass,pass_persist,extend,errormib,file,logmatch,mta_sendmail,proxy,override,nsTransactionTable,"
    "nsModuleTable,nsDebug,nsCache,nsLogging,nsVacmAccessTable,mteScalars,mteTrigger,mteTriggerTable,"
    "mteTriggerDeltaTable,mteTriggerExistenceTable,mteTriggerBooleanTable,mteTriggerThresholdTable,mteTriggerConf,"
    "mteEvent,mteEventTable,mteEventSetTable,mteEventNotificationTable,mteEventConf,mteObjects,mteObjectsTable,"
    "mteObjectsConf,schedCore,schedConf,schedTable";
// snmpd's last line whatever it failed of; the line before has the reason.
constexpr std::string_view ExitLine = "Server Exiting";

std::uintmax_t logBound(const LogBound& bound) {
  const char* text = std::getenv(bound.variable);
  if (text == nullptr || *text == '\0') return bound.otherwise;
  char* end = nullptr;
  const unsigned long value = std::strtoul(text, &end, 10);
  if (*end != '\0' || value == 0) throw Failure(std::string(bound.variable) + " is no number above 0: " + text);
  return value;
}

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

/** Standard input from nothing, both outputs to the log, and not a descriptor more. */
void detach(const NodeFolder& folder) {
  setsid();
  const int null = open("/dev/null", O_RDONLY);
  const int out = open(folder.log().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  dup2(null, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(out, STDERR_FILENO);
  close_range(STDERR_FILENO + 1, ~0U, 0);
  umask(S_IRWXG | S_IRWXO);
  if (chdir(folder.root().c_str()) != 0) _exit(ExecFailed);
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
  const auto record = NodeFiles::AgentRecord::find(_folder.root());
  return record ? std::optional(record->pid) : std::nullopt;
}

pid_t AgentProcess::spawn() const {
  std::vector<std::string> arguments = {findExecutable(),       "-f", "-I",
                                        LeftOutModules,         "-A", "-Lf",
                                        _folder.log().string(), "-p", _folder.pidFile().string()};
  const NodeFiles::AgentUser& user = _folder.agentUser();
  if (user.isOther())
    arguments.insert(arguments.end(), {"-u", std::to_string(user.uid), "-g", std::to_string(user.gid)});
  // Once it has given up root it may not be able to come through to the node's folder, but it stands in it.
  const std::string root = user.isOther() ? OwnFolder : _folder.root().string();
  const auto below = [&](const std::filesystem::path& path) {
    return root + "/" + path.lexically_relative(_folder.root()).string();
  };
  // The persistent folder has to be on the configuration path: the boot count is only read back from there.
  std::vector<std::string> environment = {
      "SNMPCONFPATH=" + below(_folder.configuration()) + ":" + below(_folder.persistent()),
      "SNMP_PERSISTENT_DIR=" + below(_folder.persistent()), "MIBS=", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
      "HOME=" + below(_folder.configuration()),
      // The plugin bounds the log while the agent runs.
      "VELA_SNMPD_LOG=" + _folder.log().string(), "VELA_LOG_SIZE=" + std::to_string(logBound(LogSize)),
      "VELA_LOG_FILES=" + std::to_string(logBound(LogFiles))};
  const auto argv = pointers(arguments);
  const auto envp = pointers(environment);
  int gate[2];
  if (pipe2(gate, O_CLOEXEC) != 0) throw Failure("cannot start snmpd: " + systemError(errno));
  const Descriptor closed(gate[0]);
  const Descriptor opening(gate[1]);
  const pid_t pid = fork();
  if (pid < 0) throw Failure("cannot start snmpd: " + systemError(errno));
  if (pid == 0) {
    // An agent that nobody has recorded would be found by nobody.
    char recorded = 0;
    close(gate[1]);
    if (read(gate[0], &recorded, 1) != 1) _exit(ExecFailed);
    detach(_folder);
    execve(argv[0], argv.data(), envp.data());
    _exit(ExecFailed);
  }
  const auto record = NodeFiles::AgentRecord::of(pid);
  if (record) writePrivateFile(_folder.agentRecord(), record->toText());
  if (!record || write(gate[1], "", 1) != 1) throw Failure("cannot start snmpd: it cannot be recorded");
  return pid;
}

bool AgentProcess::acceptsAgentX() const {
  const Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  _folder.agentXSocket().string().copy(address.sun_path, sizeof(address.sun_path) - 1);
  return fd.isOpen() && connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool AgentProcess::isReady(pid_t pid) const {
  // It writes the file when it has bound its ports; what it cannot bind ends it before.
  return readFile(_folder.pidFile()).value_or("") == std::to_string(pid) + "\n" && acceptsAgentX();
}

void AgentProcess::rotateLog() const {
  std::error_code error;
  if (std::filesystem::file_size(_folder.log(), error) > logBound(LogSize) && !error)
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

void AgentProcess::start() const {
  rotateLog();
  const size_t logOffset = readFile(_folder.log()).value_or("").size();
  // A socket that a killed agent left behind would look like one that is not accepting yet.
  std::error_code error;
  std::filesystem::remove(_folder.agentXSocket(), error);
  std::filesystem::remove(_folder.pidFile(), error);
  const pid_t pid = spawn();
  for (const auto end = Clock::now() + StartTimeout; Clock::now() < end; std::this_thread::sleep_for(PollInterval)) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) throw Failure("snmpd did not start: " + lastLogLine(logOffset));
    if (isReady(pid)) return;
  }
  endProcess();
  throw Failure("snmpd was not ready within " + std::to_string(StartTimeout.count()) +
                " seconds: " + lastLogLine(logOffset));
}

void AgentProcess::endProcess() const {
  const auto recorded = find();
  if (!recorded) return;
  const std::string name = "snmpd (pid " + std::to_string(*recorded) + ")";
  const Descriptor process(pidfd_open(*recorded, 0));
  if (!process.isOpen()) {
    if (errno == ESRCH) return;
    throw Failure("cannot reach " + name + ": " + systemError(errno));
  }
  // From here on the descriptor stands for one process; that it is the recorded one is seen once more.
  if (find() != recorded) return;
  const auto send = [&](int signal) {
    if (pidfd_send_signal(process.get(), signal, nullptr, 0) != 0 && errno != ESRCH)
      throw Failure("cannot signal " + name + ": " + systemError(errno));
  };
  send(SIGTERM);
  send(SIGCONT);
  if (waitForEnd(process, TerminateTimeout)) return;
  send(SIGKILL);
  if (!waitForEnd(process, KillTimeout)) throw Failure(name + " does not end");
}

void AgentProcess::stop() const {
  endProcess();
  std::error_code error;
  std::filesystem::remove(_folder.agentRecord(), error);
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
