#ifndef TARN_AGENT_CONFIGURATION_H
#define TARN_AGENT_CONFIGURATION_H

#include <string>
#include <vector>

#include "Directives.h"
#include "NodeFolder.h"

namespace Tarn {

/** Whether a name is that of a user which the node itself gives the agent. */
bool isOwnUser(const std::string& name);

/**
 * The master agent's configuration: parts with the values of the configure options, one file each, from which
 * snmpd.conf is made, and the node's own pass phrase.
 */
class AgentConfiguration {
 public:
  explicit AgentConfiguration(const NodeFolder& folder) : _folder(folder) {}

  /**
   * Takes over "NAME=VALUE" arguments and makes snmpd.conf anew. All arguments are checked before the first one is
   * stored. Yields warnings about list entries that were left out. Throws Failure (exit status 2 for an unknown
   * option).
   */
  std::vector<std::string> configure(const std::vector<std::string>& arguments) const;

  /** Makes snmpd.conf from the stored parts, and before that the password file when there is none. */
  void generate() const;
  /** The same, with addresses in the place of names; yields the names of the receivers that were left out. */
  std::vector<std::string> generateForStart() const;

  /** The engine id that the generated configuration gives the agent: "0x" and hexadecimal digits. */
  std::string engineId() const;

 private:
  std::string partValue(const char* part) const;
  std::string passPhrase() const;
  std::string ownEngineId() const;
  std::string fixedDirectives() const;
  std::string render() const;

  const NodeFolder& _folder;
};

}  // namespace Tarn
#endif
