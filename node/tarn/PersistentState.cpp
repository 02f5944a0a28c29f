#include "PersistentState.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "Files.h"

namespace Tarn {

namespace {

constexpr const char* AgentFile = "snmpd.conf";
constexpr const char* BootsDirective = "engineBoots";
// snmpEngineBoots latches there (RFC 3414, 2.3), and then no message is accepted until the engine gets a new id.
constexpr long MaxBoots = 2147483646;

/** The agent's file and the backups that it leaves when it is killed while it writes; it reads them all. */
std::vector<std::filesystem::path> stateFiles(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (entry.is_regular_file() && name.rfind("snmpd.", 0) == 0 && entry.path().extension() == ".conf")
      files.push_back(entry.path());
  }
  return files;
}

long highestBootCount(const std::filesystem::path& file, uid_t agent) {
  long boots = 0;
  std::istringstream in(readOwnFile(file, agent).value_or(""));
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string word;
    long number = 0;
    if (words >> word >> number && word == BootsDirective) boots = std::max(boots, number);
  }
  return boots;
}

}  // namespace

void PersistentState::prepareStart(const std::string& engineId) const {
  long boots = 0;
  for (const auto& file : stateFiles(_folder)) boots = std::max(boots, highestBootCount(file, _agent));
  boots = std::min(boots, MaxBoots - 1);
  writePrivateFile(_folder / AgentFile,
                   std::string(BootsDirective) + " " + std::to_string(boots) + "\noldEngineID " + engineId + "\n");
  std::vector<std::filesystem::path> others;
  for (const auto& entry : std::filesystem::directory_iterator(_folder))
    if (entry.path().filename() != AgentFile && entry.path().filename() != engineIdFile) others.push_back(entry.path());
  for (const auto& path : others) std::filesystem::remove_all(path);
}

}  // namespace Tarn
