#ifndef VELA_NODE_NODE_OPTIONS_H
#define VELA_NODE_NODE_OPTIONS_H

#include <string>

namespace VelaNode {

/** The command line of vela-node. */
struct NodeOptions {
  std::string directory;
  std::string modelFile;         /**< empty: the folder's own, or the default */
  std::string configurationFile; /**< empty: the folder's own, or the default */
  std::string agentUser;         /**< empty: VELA_AGENT_USER, or the default */
  int logLevel;
  bool isVerbose = false;
  bool isHelpWanted = false;

  /** Throws Vela::VelaException with what is wrong. */
  static NodeOptions parse(int argc, char** argv);
  static const char* getHelp();
};

}  // namespace VelaNode
#endif
