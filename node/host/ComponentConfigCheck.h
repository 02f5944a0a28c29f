#ifndef VELA_NODE_COMPONENT_CONFIG_CHECK_H
#define VELA_NODE_COMPONENT_CONFIG_CHECK_H

#include <string>

namespace VelaNode {

/** What the node itself needs to know of a component configuration. */
struct ComponentPaths {
  std::string agentxSocket;
  std::string passwordFile;
};

/**
 * Checks a component configuration before a component is started on it: it must be XML with the root element
 * "VelaFmSnmp", and hold numbers and booleans where such belong. What a value means is left to the component.
 */
class ComponentConfigCheck {
 public:
  /** Root element and the component's own default paths. */
  static constexpr const char* rootName = "VelaFmSnmp";
  static constexpr const char* defaultAgentxSocket = "/tmp/agentx-socket";
  static constexpr const char* defaultPasswordFile = "/home/vela/etc/snmp/snmp_pwd_file";

  /** Configuration of a node that was given none; also the text of the sample file. */
  static const char* getDefaultText();

  /**
   * Checks a file and returns the paths in it, environment variables replaced. Throws Vela::VelaException with one line
   * "FILE:LINE: reason" ("FILE: reason" when the file cannot be read).
   */
  static ComponentPaths check(const std::string& fileName);
};

}  // namespace VelaNode
#endif
