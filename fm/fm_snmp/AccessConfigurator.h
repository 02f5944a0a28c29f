#ifndef VELA_FM_SNMP_ACCESS_CONFIGURATOR_H
#define VELA_FM_SNMP_ACCESS_CONFIGURATOR_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ConfigurationPass.h"
#include "SnmpTypes.h"
#include "ViewConfigurator.h"

namespace VelaFmSnmp {

/**
 * Groups and access rules in the master agent (vacmSecurityToGroupTable, vacmAccessTable; RFC 3415).
 *
 * Every community and user is a group of its own, with one rule per security level that its targets ask for. The agent
 * looks a rule up as it does for a request, by the highest level that is not above the wanted one: it refuses to create
 * a rule while the group has one of a lower level, and a change meant for it goes to the lower one. So the rules of a
 * group are written from the highest level down, and those below one that is written are taken away before and written
 * again after it.
 *
 * A group or rule that the agent refuses is logged and costs the targets that need it their access.
 */
class AccessConfigurator {
 public:
  /** Forgets what was written, without a request. */
  void clear();

  /**
   * Brings groups and rules in line with the targets that may have access. Throws as SnmpMaSession::sendPdu; the next
   * pass has to write anew then.
   * @return names of the targets whose access failed
   */
  std::set<std::string> configureEffectiveAccess(const ConfigurationPass& pass,
                                                 const std::vector<const SnmpBaseTarget*>& targets,
                                                 const ViewConfigurator& views);

 private:
  /** Security model, and the name that is both the group's and its one security name's. */
  using Group = std::pair<int, std::string>;
  /** By security level, the highest first. */
  template <class Rule>
  using ByLevel = std::map<int, Rule, std::greater<>>;
  /** A rule as the targets of one community or user ask for it. */
  struct WantedRule {
    bool isWritable = false;
    std::vector<const SnmpBaseTarget*> targets;
    AccessViews views;
  };
  /** A rule that may stand in the master agent. */
  struct WrittenRule {
    AccessViews views;
    std::string targetName; /**< of the first target that asked for it */
    unsigned version = 0;
  };
  struct WrittenGroup {
    bool isMapped = false; /**< its security name leads to the group; without it nothing is known for sure */
    ByLevel<WrittenRule> rules;
  };
  using WantedRules = ByLevel<WantedRule>;
  using Told = std::set<std::pair<Group, std::string>>;

  static std::map<Group, WantedRules> plan(const std::vector<const SnmpBaseTarget*>& targets);

  void configureGroup(const ConfigurationPass& pass, const Group& group, const WantedRules& wanted);
  void writeGroup(const ConfigurationPass& pass, const Group& group, const WantedRules& wanted);
  void configureAccess(const ConfigurationPass& pass, const Group& group, int level, const WantedRule& rule);
  void removeGroup(const ConfigurationPass& pass, const Group& group);
  void removeUnneededGroups(const ConfigurationPass& pass, const std::map<Group, WantedRules>& planned);
  bool isNameable(const Group& group, const WantedRules& wanted, const Told& told);
  void findViews(WantedRules& wanted, const ViewConfigurator& views);
  void fail(const WantedRule& rule, const std::string& reason);

  static void vacmCreateSec2Group(const ConfigurationPass& pass, const Group& group, const WantedRule& rule);
  static void vacmDeleteSec2Group(const ConfigurationPass& pass, const Group& group);
  static void vacmCreateAccess(const ConfigurationPass& pass, const Group& group, int level, const WantedRule& rule);
  static void vacmDeleteAccess(const ConfigurationPass& pass, const Group& group, const std::vector<int>& levels);

  std::map<Group, WrittenGroup> _written;
  std::set<std::string> _failed; /**< targets of this pass */
  Told _unnameable;              /**< groups, and their targets, of which was told that the agent cannot have them */
};

}  // namespace VelaFmSnmp
#endif
