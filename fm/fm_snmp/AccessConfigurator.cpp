// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "AccessConfigurator.h"

#include <LoggingWrapper.h>

#include <algorithm>

#include "ConfigurationFault.h"
#include "MasterAgentTables.h"
#include "SnmpMaSession.h"
#include "SnmpPdu.h"
#include "SnmpSessionException.h"

namespace VelaFmSnmp {

namespace {

using Column = const unsigned long[11];

// vacmSecurityToGroupTable and vacmAccessTable (RFC 3415): table entry and column.
constexpr Column groupName = {1, 3, 6, 1, 6, 3, 16, 1, 2, 1, 3};
constexpr Column groupStatus = {1, 3, 6, 1, 6, 3, 16, 1, 2, 1, 5};
constexpr Column accessContextMatch = {1, 3, 6, 1, 6, 3, 16, 1, 4, 1, 4};
constexpr Column accessReadView = {1, 3, 6, 1, 6, 3, 16, 1, 4, 1, 5};
constexpr Column accessWriteView = {1, 3, 6, 1, 6, 3, 16, 1, 4, 1, 6};
constexpr Column accessStatus = {1, 3, 6, 1, 6, 3, 16, 1, 4, 1, 9};

constexpr int contextMatchExact = 1;
const char* const contextPrefix = "";
/** The tables take security names of 1 to 32 octets. */
constexpr std::size_t maxSecurityName = 32;

SnmpOid groupRow(Column& column, const std::pair<int, std::string>& group) {
  return SnmpOid::createSec2GroupOid(column, group.first, group.second);
}

SnmpOid accessRow(Column& column, const std::pair<int, std::string>& group, int level) {
  return SnmpOid::createAccessOid(column, group.second, contextPrefix, group.first, level);
}

/** Sends one request; these tables have no spin lock. */
template <class AddVarbinds>
void send(SnmpMaSession& session, const std::string& requestName, AddVarbinds&& addVarbinds) {
  SnmpPdu pdu(SNMP_MSG_SET);
  addVarbinds(pdu);
  MasterAgentTables::send(session, requestName, pdu);
}

/** The levels that a group's rules can have, the highest first. */
std::vector<int> possibleLevels(int securityModel) {
  if (securityModel == SecurityModelUsm) return {LevelAuthPriv, LevelAuthNoPriv, LevelNoAuthNoPriv};
  return {securityModel == SecurityModelTls ? LevelAuthPriv : LevelNoAuthNoPriv};
}

}  // namespace

void AccessConfigurator::clear() {
  _written.clear();
  _unnameable.clear();
}

std::set<std::string> AccessConfigurator::configureEffectiveAccess(const ConfigurationPass& pass,
                                                                   const std::vector<const SnmpBaseTarget*>& targets,
                                                                   const ViewConfigurator& views) {
  std::map<Group, WantedRules> planned = plan(targets);
  removeUnneededGroups(pass, planned);
  _failed.clear();
  const Told told = std::exchange(_unnameable, {});
  for (auto& [group, wanted] : planned) {
    if (!isNameable(group, wanted, told)) continue;
    findViews(wanted, views);
    configureGroup(pass, group, wanted);
  }
  return std::move(_failed);
}

std::map<AccessConfigurator::Group, AccessConfigurator::WantedRules> AccessConfigurator::plan(
    const std::vector<const SnmpBaseTarget*>& targets) {
  std::map<Group, WantedRules> planned;
  for (const SnmpBaseTarget* target : targets) {
    WantedRule& rule = planned[{target->getSecurityModel(), target->getSecurityName()}][target->securityLevel()];
    rule.isWritable = rule.isWritable || target->isMibWritable;
    rule.targets.push_back(target);
  }
  return planned;
}

bool AccessConfigurator::isNameable(const Group& group, const WantedRules& wanted, const Told& told) {
  if (!group.second.empty() && group.second.size() <= maxSecurityName) return true;
  for (const auto& [level, rule] : wanted) {
    for (const SnmpBaseTarget* target : rule.targets) {
      _failed.insert(target->name);
      const auto [entry, isNew] = _unnameable.emplace(group, target->name);
      if (!isNew || told.count(*entry) != 0) continue;
      VELA_LOG(Vela::LogError, "security name must be between 1 and %zu octets in length", maxSecurityName);
      VELA_LOG(Vela::LogError, "Failed to configure snmp access for %s: %s", target->name.c_str(),
               target->accessFailure().c_str());
    }
  }
  return false;
}

void AccessConfigurator::findViews(WantedRules& wanted, const ViewConfigurator& views) {
  for (auto entry = wanted.begin(); entry != wanted.end();) {
    WantedRule& rule = entry->second;
    try {
      rule.views = views.getAccessViews(rule.targets.front()->viewOwner(), rule.isWritable);
      ++entry;
    } catch (const ConfigurationFault& fault) {
      fail(rule, fault.what());
      entry = wanted.erase(entry);
    }
  }
}

void AccessConfigurator::fail(const WantedRule& rule, const std::string& reason) {
  for (const SnmpBaseTarget* target : rule.targets) {
    VELA_LOG(Vela::LogError, "Failed to configure snmp access for %s: %s", target->name.c_str(), reason.c_str());
    _failed.insert(target->name);
  }
}

void AccessConfigurator::removeUnneededGroups(const ConfigurationPass& pass,
                                              const std::map<Group, WantedRules>& planned) {
  for (auto entry = _written.begin(); entry != _written.end();) {
    const Group group = entry->first;
    ++entry;
    if (planned.count(group) == 0) removeGroup(pass, group);
  }
}

void AccessConfigurator::configureGroup(const ConfigurationPass& pass, const Group& group, const WantedRules& wanted) {
  if (wanted.empty()) return removeGroup(pass, group);
  try {
    writeGroup(pass, group, wanted);
  } catch (const ConfigurationFault& fault) {
    // The group, or what is in its way, failed, and so nothing of it is known for sure.
    VELA_LOG(Vela::LogError, "%s", fault.what());
    _written[group].isMapped = false;
    for (const auto& [level, rule] : wanted) fail(rule, rule.targets.front()->accessFailure());
  }
}

void AccessConfigurator::writeGroup(const ConfigurationPass& pass, const Group& group, const WantedRules& wanted) {
  WrittenGroup& written = _written[group];
  const bool isAnew = pass.writesAnew || !written.isMapped;
  int top = 0;
  for (const auto& [level, rule] : wanted) {
    const auto present = written.rules.find(level);
    const bool isWritten = !isAnew && present != written.rules.end() && present->second.views == rule.views;
    if (!isWritten) top = std::max(top, level);
  }
  std::vector<int> inTheWay = possibleLevels(group.first);
  std::erase_if(inTheWay, [&](int level) {
    const bool isUnneeded = written.rules.count(level) != 0 && wanted.count(level) == 0;
    return !isAnew && level > top && !isUnneeded;
  });
  for (const auto& [level, rule] : written.rules) {
    if (wanted.count(level) == 0)
      VELA_LOG(Vela::LogInfo, "Removing SNMP access for target %s, version :%u", rule.targetName.c_str(), rule.version);
  }
  if (isAnew) {
    written.isMapped = false;
    vacmDeleteSec2Group(pass, group);
  }
  if (!inTheWay.empty()) vacmDeleteAccess(pass, group, inTheWay);
  for (const int level : inTheWay) written.rules.erase(level);
  if (isAnew) vacmCreateSec2Group(pass, group, wanted.begin()->second);
  written.isMapped = true;
  for (auto rule = wanted.lower_bound(top); rule != wanted.end(); ++rule)
    configureAccess(pass, group, rule->first, rule->second);
}

void AccessConfigurator::configureAccess(const ConfigurationPass& pass, const Group& group, int level,
                                         const WantedRule& rule) {
  const SnmpBaseTarget& target = *rule.targets.front();
  VELA_LOG(Vela::LogInfo, "Configuring SNMP access for target %s, version :%u", target.name.c_str(), target.version());
  try {
    vacmCreateAccess(pass, group, level, rule);
    _written[group].rules[level] = {rule.views, target.name, target.version()};
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "%s", fault.what());
    fail(rule, target.accessFailure());
  } catch (const SnmpSessionException&) {
    fail(rule, target.accessFailure());
    throw;
  }
}

void AccessConfigurator::removeGroup(const ConfigurationPass& pass, const Group& group) {
  const auto entry = _written.find(group);
  if (entry == _written.end()) return;
  std::string concerned = "a former target";
  std::vector<int> levels;
  for (const auto& [level, rule] : entry->second.rules) {
    VELA_LOG(Vela::LogInfo, "Removing SNMP access for target %s, version :%u", rule.targetName.c_str(), rule.version);
    concerned = rule.targetName;
    levels.push_back(level);
  }
  if (!entry->second.isMapped) levels = possibleLevels(group.first);
  entry->second.isMapped = false;
  try {
    vacmDeleteSec2Group(pass, group);
    if (!levels.empty()) vacmDeleteAccess(pass, group, levels);
    _written.erase(entry);
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "Failed to configure snmp access for %s: %s", concerned.c_str(), fault.what());
  }
}

void AccessConfigurator::vacmCreateSec2Group(const ConfigurationPass& pass, const Group& group,
                                             const WantedRule& rule) {
  send(pass.session, "vacmCreateSec2Group(" + rule.targets.front()->name + ")", [&](SnmpPdu& pdu) {
    pdu.addVarbind(groupRow(groupName, group), group.second);
    pdu.addVarbind(groupRow(groupStatus, group), RowCreateAndGo);
  });
}

void AccessConfigurator::vacmDeleteSec2Group(const ConfigurationPass& pass, const Group& group) {
  send(pass.session, "vacmDeleteSec2Group",
       [&](SnmpPdu& pdu) { pdu.addVarbind(groupRow(groupStatus, group), RowDestroy); });
}

void AccessConfigurator::vacmCreateAccess(const ConfigurationPass& pass, const Group& group, int level,
                                          const WantedRule& rule) {
  send(pass.session, "vacmCreateAccess(" + rule.targets.front()->name + ")", [&](SnmpPdu& pdu) {
    pdu.addVarbind(accessRow(accessContextMatch, group, level), contextMatchExact);
    pdu.addVarbind(accessRow(accessReadView, group, level), rule.views.readView);
    pdu.addVarbind(accessRow(accessWriteView, group, level), rule.views.writeView);
    pdu.addVarbind(accessRow(accessStatus, group, level), RowCreateAndGo);
  });
}

void AccessConfigurator::vacmDeleteAccess(const ConfigurationPass& pass, const Group& group,
                                          const std::vector<int>& levels) {
  send(pass.session, "vacmDeleteAccess", [&](SnmpPdu& pdu) {
    for (const int level : levels) pdu.addVarbind(accessRow(accessStatus, group, level), RowDestroy);
  });
}

}  // namespace VelaFmSnmp
