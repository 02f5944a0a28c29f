#ifndef VELA_FM_SNMP_TARGET_NAMES_H
#define VELA_FM_SNMP_TARGET_NAMES_H

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace VelaFmSnmp {

class SnmpBaseTarget;

/** Names of the master agent's rows, one per target, kept as long as the target is known. */
class TargetNames {
 public:
  /**
   * The name of a target's rows: the prefix and the target's name, or a generated one where that is longer than 31
   * characters, has characters that a tag list or an index would not carry, or is taken.
   */
  const std::string& getUniqueName(const std::string& prefix, const SnmpBaseTarget& target);
  /** Forgets a target's name, which may then be given to another. */
  void eraseNotificationNames(const SnmpBaseTarget& target);
  void clear();

 private:
  std::string generateName(const std::string& prefix, const std::string& targetName);

  std::map<std::string, std::string> _names;
  std::set<std::string> _used;
  std::uint64_t _counter = 0;
};

}  // namespace VelaFmSnmp
#endif
