#ifndef VELA_NODE_COMMANDS_H
#define VELA_NODE_COMMANDS_H

#include <vector>

#include "ctl/CommandLine.h"

namespace VelaNode {

/** The commands of vela-nodectl. */
class Commands {
 public:
  static std::vector<OptionSpec> getCommonOptions();
  static std::vector<CommandSpec> getSpecs();
  /** Carries a command out. Throws UsageError, or CommandError when it fails; then nothing has changed. */
  static void run(const CommandSpec& command, const Arguments& arguments);
};

}  // namespace VelaNode
#endif
