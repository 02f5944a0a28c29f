#ifndef VELA_NODE_NODE_ENVIRONMENT_H
#define VELA_NODE_NODE_ENVIRONMENT_H

#include <cstddef>
#include <filesystem>
#include <string>

#include "host/ComponentConfigCheck.h"

namespace VelaNode {

/** Where the node's own parts lie, and the environment through which its children find them. */
class NodeEnvironment {
 public:
  /** Finds the parts beside the running program. Throws Vela::VelaException when the component is not there. */
  NodeEnvironment();

  const std::filesystem::path& componentLibrary() const { return _component; }

  /** Sets what the component configuration may refer to, and the search path of the tools. Before other threads run. */
  void set(const std::filesystem::path& nodeFolder) const;
  /** Sets what the component configuration tells. Before other threads run. */
  static void set(const ComponentPaths& paths);
  /** Sets who the master agent runs as when the caller is root. Before other threads run. */
  static void setAgentUser(const std::string& name);
  /** Sets how large the master agent's log may grow. Before other threads run. */
  static void setLogBounds(std::size_t octets, unsigned files);
  /** Throws Vela::VelaException that names the Debian package when a program is not found in PATH. */
  static void requireProgram(const std::string& program, const std::string& package);

 private:
  std::filesystem::path _tools;
  std::filesystem::path _libraries;
  std::filesystem::path _component;
};

}  // namespace VelaNode
#endif
