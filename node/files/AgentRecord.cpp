#include "AgentRecord.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Trust.h"

namespace NodeFiles {

namespace {

std::filesystem::path processFolder(pid_t pid) { return "/proc/" + std::to_string(pid); }

std::string contentOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool runsOn(pid_t pid, const std::filesystem::path& pidFile) {
  std::istringstream in(contentOf(processFolder(pid) / "cmdline"));
  for (std::string word; std::getline(in, word, '\0');)
    if (word == pidFile.string()) return true;
  return false;
}

/** A process that gives up root keeps being the caller's until then. */
bool runsAs(pid_t pid, uid_t user, uid_t otherUser) {
  constexpr const char* Label = "Uid:";
  std::istringstream in(contentOf(processFolder(pid) / "status"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string label;
    uid_t real = 0;
    if (words >> label >> real && label == Label) return real == user || real == otherUser;
  }
  return false;
}

}  // namespace

std::optional<AgentRecord> AgentRecord::of(pid_t pid) {
  constexpr int WordsBefore = 19;  // between the state and the start (proc(5), stat)
  const std::string text = contentOf(processFolder(pid) / "stat");
  const size_t nameEnd = text.rfind(')');  // the name before may hold anything
  if (nameEnd == std::string::npos) return std::nullopt;
  std::istringstream words(text.substr(nameEnd + 1));
  std::string word;
  words >> word;
  if (word == "Z") return std::nullopt;
  for (int i = 1; i < WordsBefore; ++i) words >> word;
  AgentRecord record{pid, 0};
  if (!(words >> record.start)) return std::nullopt;
  return record;
}

std::string AgentRecord::toText() const { return std::to_string(pid) + " " + std::to_string(start) + "\n"; }

std::optional<AgentRecord> AgentRecord::find(const std::filesystem::path& nodeFolder) {
  const int fd = openOwn(fileIn(nodeFolder), O_RDONLY, 0, geteuid());
  if (fd < 0) return std::nullopt;
  std::array<char, 64> text{};
  const ssize_t length = read(fd, text.data(), text.size() - 1);
  close(fd);
  std::istringstream words(length > 0 ? text.data() : "");
  AgentRecord recorded{};
  if (!(words >> recorded.pid >> recorded.start) || recorded.pid <= 0) return std::nullopt;
  const auto running = of(recorded.pid);
  if (!running || running->start != recorded.start || !runsOn(recorded.pid, pidFileIn(nodeFolder)) ||
      !runsAs(recorded.pid, geteuid(), AgentUser::find().uid))
    return std::nullopt;
  return running;
}

}  // namespace NodeFiles
