#ifndef VELA_NODE_NODE_OPTIONS_H
#define VELA_NODE_NODE_OPTIONS_H

#include <cstddef>
#include <string>

namespace VelaNode {

/** The command line of vela-node. */
struct NodeOptions {
  std::string directory;
  std::string modelFile;         /**< empty: the folder's own, or the default */
  std::string configurationFile; /**< empty: the folder's own, or the default */
  std::string agentUser;         /**< empty: VELA_AGENT_USER, or the default */
  int logLevel;
  int logSize;  /**< MiB, of each file */
  int logFiles; /**< of each log */
  std::size_t logOctets() const { return static_cast<std::size_t>(logSize) * 1024 * 1024; }
  bool isVerbose = false;
  bool isHelpWanted = false;

  /** Throws Vela::VelaException with what is wrong. */
  static NodeOptions parse(int argc, char** argv);
  static const char* getHelp();
};

}  // namespace VelaNode
#endif
