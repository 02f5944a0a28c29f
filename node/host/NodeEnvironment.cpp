#include "host/NodeEnvironment.h"

#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include <Poco/Path.h>

#include "InstallLayout.h"
#include "VelaException.h"

namespace VelaNode {

namespace {

constexpr const char* componentName = "libvela_fm_snmp.so";
constexpr const char* pluginName = "vela_snmpd_plugin.so";
/** A build's, an installation's, and everything in one folder. */
constexpr InstallLayout layouts[] = {{".", "../lib"}, installedLayout, {".", "."}};
constexpr const char* systemTools = "/usr/sbin:/sbin";
constexpr const char* defaultPath = "/usr/local/bin:/usr/bin:/bin";

void setVariable(const char* name, const std::string& value) {
  if (::setenv(name, value.c_str(), 1) != 0)
    throw Vela::VelaException("The environment variable %s can not be set", name);
}

}  // namespace

NodeEnvironment::NodeEnvironment() {
  std::error_code error;
  const std::filesystem::path programs = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  for (const InstallLayout& layout : layouts) {
    const auto folder = [&](const char* name) { return std::filesystem::weakly_canonical(programs / name, error); };
    _tools = folder(layout.tools);
    _libraries = folder(layout.libraries);
    _component = _libraries / componentName;
    if (std::filesystem::exists(_component, error)) return;
  }
  throw Vela::VelaException("%s is not found beside %s", componentName, programs.c_str());
}

void NodeEnvironment::set(const std::filesystem::path& nodeFolder) const {
  const char* path = std::getenv("PATH");
  setVariable("PATH",
              _tools.string() + ":" + (path != nullptr && *path != '\0' ? path : defaultPath) + ":" + systemTools);
  setVariable("VELA_NODE_DIR", nodeFolder);
  setVariable("VELA_SNMPD_PLUGIN", _libraries / pluginName);
  setVariable("VELA_SEC_API_LIB_DIR", _libraries);
  // The SNMP library would complain about each MIB module that the machine does not have; nothing here needs one.
  setVariable("MIBS", "");
}

void NodeEnvironment::set(const ComponentPaths& paths) {
  setVariable("VELA_AGENTX_SOCKET", paths.agentxSocket);
  setVariable("VELA_SNMP_PWD_FILE", paths.passwordFile);
}

void NodeEnvironment::setAgentUser(const std::string& name) { setVariable("VELA_AGENT_USER", name); }

void NodeEnvironment::setLogBounds(std::size_t octets, unsigned files) {
  setVariable("VELA_LOG_SIZE", std::to_string(octets));
  setVariable("VELA_LOG_FILES", std::to_string(files));
}

void NodeEnvironment::requireProgram(const std::string& program, const std::string& package) {
  Poco::Path found;
  const char* path = std::getenv("PATH");
  if (path == nullptr || !Poco::Path::find(std::string(path), program, found) ||
      ::access(found.toString().c_str(), X_OK) != 0) {
    throw Vela::VelaException("%s is not found in PATH; install it with: apt-get install %s", program.c_str(),
                              package.c_str());
  }
}

}  // namespace VelaNode
