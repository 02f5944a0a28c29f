#include "NodeFolder.h"

#include <algorithm>
#include <cstdlib>

#include "Failure.h"
#include "Files.h"

namespace Tarn {

namespace {

// struct sockaddr_un holds no more, its terminating zero included.
constexpr size_t MaxSocketPathLength = 107;

std::filesystem::path pathFromEnvironment(const char* name, const std::filesystem::path& otherwise) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return otherwise;
  const std::string text = value;
  // A path ends up in the agent's configuration, where a control character would end or split its line.
  if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }))
    throw Failure(std::string(name) + " holds a control character");
  if (text.front() != '/') throw Failure(std::string(name) + " is not an absolute path: " + text);
  return text;
}

}  // namespace

NodeFolder NodeFolder::fromEnvironment() {
  NodeFolder folder;
  const std::filesystem::path root = pathFromEnvironment("VELA_NODE_DIR", {});
  if (root.empty()) throw Failure("VELA_NODE_DIR is not set: it must name the node's folder");
  makePrivateFolder(root);
  folder._root = std::filesystem::canonical(root);
  // It would end the folder's name in snmpd's search path.
  if (folder._root.string().find(':') != std::string::npos)
    throw Failure("the name of the node's folder holds a colon: " + folder._root.string());
  folder._agentXSocket = pathFromEnvironment("VELA_AGENTX_SOCKET", folder.run() / "agentx");
  folder._passwordFile = pathFromEnvironment("VELA_SNMP_PWD_FILE", folder.configuration() / "snmp_pwd_file");
  folder._plugin = pathFromEnvironment("VELA_SNMPD_PLUGIN", {});
  // The agent splits the line that names its plugin at blanks, and takes the rest for a comment behind these.
  if (folder._plugin.string().find_first_of(" #;") != std::string::npos)
    throw Failure("VELA_SNMPD_PLUGIN holds a blank, '#' or ';': " + folder._plugin.string());
  if (folder._agentXSocket.string().size() > MaxSocketPathLength)
    throw Failure("the path of the AgentX socket is longer than " + std::to_string(MaxSocketPathLength) +
                  " characters: " + folder._agentXSocket.string());
  return folder;
}

void NodeFolder::make() const {
  for (const auto& folder : {parts(), certificates(), privateKeys(), persistent(), run(), log().parent_path(),
                             agentXSocket().parent_path(), passwordFile().parent_path()})
    makePrivateFolder(folder);
}

}  // namespace Tarn
