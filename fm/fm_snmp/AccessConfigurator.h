#ifndef VELA_FM_SNMP_ACCESS_CONFIGURATOR_H
#define VELA_FM_SNMP_ACCESS_CONFIGURATOR_H

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "SnmpTypes.h"
#include "ViewConfigurator.h"

namespace VelaFmSnmp {

class SnmpMaSession;

/** What an access rule is found by: security model and level, and the security name, which is the group's name too. */
struct AccessKey {
  int securityModel = 0;
  std::string securityName;
  int securityLevel = LevelNoAuthNoPriv;

  auto tied() const { return std::tie(securityModel, securityName, securityLevel); }
  bool operator<(const AccessKey& other) const { return tied() < other.tied(); }
};

/**
 * Groups and access rules in the master agent (vacmSecurityToGroupTable, vacmAccessTable; RFC 3415). Requests throw
 * ConfigurationFault when the agent refuses them and as SnmpMaSession::sendPdu.
 */
class AccessConfigurator {
 public:
  static AccessKey accessKeyOf(const SnmpBaseTarget& target);

  /** Whether the rule stands in the master agent already, as far as known. */
  bool isWritten(const AccessKey& key, const AccessViews& views) const;
  /** The rules that may stand in the master agent. */
  std::vector<AccessKey> getWritten() const;
  /** Forgets what was written, without a request. */
  void clear() { _written.clear(); }

  /** Replaces the group mapping and the rule of a target's community or user, or removes them. */
  void configureAccess(SnmpMaSession& session, const SnmpBaseTarget& target, const AccessViews& views, bool add);
  /** Removes a rule, and the group mapping when no other rule needs it. */
  void removeAccess(SnmpMaSession& session, const AccessKey& key);

 private:
  void configureAccessV1(SnmpMaSession& session, const SnmpTargetV1& target, const AccessViews& views);
  void configureAccessV2(SnmpMaSession& session, const SnmpTargetV2C& target, const AccessViews& views);
  void configureAccessV3(SnmpMaSession& session, const SnmpBaseTarget& target, const AccessViews& views);
  void addAccess(SnmpMaSession& session, const AccessKey& key, const AccessViews& views, const std::string& failure);
  void replaceAccess(SnmpMaSession& session, const AccessKey& key, const AccessViews& views);
  bool isGroupShared(const AccessKey& key) const;

  static void vacmCreateSec2Group(SnmpMaSession& session, const AccessKey& key);
  static void vacmDeleteSec2Group(SnmpMaSession& session, const AccessKey& key);
  static void vacmCreateAccess(SnmpMaSession& session, const AccessKey& key, const AccessViews& views);
  static void vacmDeleteAccess(SnmpMaSession& session, const AccessKey& key);

  std::map<AccessKey, AccessViews> _written;
};

}  // namespace VelaFmSnmp
#endif
