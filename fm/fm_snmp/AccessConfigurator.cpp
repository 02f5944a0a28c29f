// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "AccessConfigurator.h"

#include <LoggingWrapper.h>

#include "ConfigurationFault.h"
#include "MasterAgentTables.h"
#include "SnmpMaSession.h"
#include "SnmpPdu.h"

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

SnmpOid groupRow(Column& column, const AccessKey& key) {
  return SnmpOid::createSec2GroupOid(column, key.securityModel, key.securityName);
}

SnmpOid accessRow(Column& column, const AccessKey& key) {
  return SnmpOid::createAccessOid(column, key.securityName, contextPrefix, key.securityModel, key.securityLevel);
}

/** Sends one request; these tables have no spin lock. Its name is without the community, which belongs in no log. */
template <class AddVarbinds>
void send(SnmpMaSession& session, const char* requestName, AddVarbinds&& addVarbinds) {
  SnmpPdu pdu(SNMP_MSG_SET);
  addVarbinds(pdu);
  MasterAgentTables::send(session, requestName, pdu);
}

}  // namespace

AccessKey AccessConfigurator::accessKeyOf(const SnmpBaseTarget& target) {
  AccessKey key{target.getSecurityModel(), target.getSecurityName(), LevelNoAuthNoPriv};
  if (key.securityModel == SecurityModelTls)
    key.securityLevel = LevelAuthPriv;
  else if (const auto* usm = dynamic_cast<const SnmpTargetV3Usm*>(&target))
    key.securityLevel = usm->snmpSecurityLevel;
  return key;
}

bool AccessConfigurator::isWritten(const AccessKey& key, const AccessViews& views) const {
  const auto found = _written.find(key);
  return found != _written.end() && found->second == views;
}

std::vector<AccessKey> AccessConfigurator::getWritten() const {
  std::vector<AccessKey> keys;
  keys.reserve(_written.size());
  for (const auto& entry : _written) keys.push_back(entry.first);
  return keys;
}

void AccessConfigurator::configureAccess(SnmpMaSession& session, const SnmpBaseTarget& target, const AccessViews& views,
                                         bool add) {
  if (!add) {
    VELA_LOG(Vela::LogInfo, "Removing SNMP access for target %s, version :%u", target.name.c_str(), target.version());
    return removeAccess(session, accessKeyOf(target));
  }
  VELA_LOG(Vela::LogInfo, "Configuring SNMP access for target %s, version :%u", target.name.c_str(), target.version());
  if (const auto* v1 = dynamic_cast<const SnmpTargetV1*>(&target)) return configureAccessV1(session, *v1, views);
  if (const auto* v2 = dynamic_cast<const SnmpTargetV2C*>(&target)) return configureAccessV2(session, *v2, views);
  configureAccessV3(session, target, views);
}

void AccessConfigurator::configureAccessV1(SnmpMaSession& session, const SnmpTargetV1& target,
                                           const AccessViews& views) {
  addAccess(session, accessKeyOf(target), views, "Failed to configure v1 access for community " + target.community);
}

void AccessConfigurator::configureAccessV2(SnmpMaSession& session, const SnmpTargetV2C& target,
                                           const AccessViews& views) {
  addAccess(session, accessKeyOf(target), views, "Failed to configure v2c access for community " + target.community);
}

void AccessConfigurator::configureAccessV3(SnmpMaSession& session, const SnmpBaseTarget& target,
                                           const AccessViews& views) {
  addAccess(session, accessKeyOf(target), views,
            "Failed to configure Usm access for securityName " + target.getSecurityName());
}

void AccessConfigurator::addAccess(SnmpMaSession& session, const AccessKey& key, const AccessViews& views,
                                   const std::string& failure) {
  try {
    replaceAccess(session, key, views);
  } catch (const ConfigurationFault& fault) {
    VELA_LOG(Vela::LogError, "%s", fault.what());
    throw ConfigurationFault("%s", failure.c_str());
  }
}

void AccessConfigurator::replaceAccess(SnmpMaSession& session, const AccessKey& key, const AccessViews& views) {
  if (key.securityName.empty() || key.securityName.size() > maxSecurityName)
    throw ConfigurationFault("security name must be between 1 and %zu octets in length", maxSecurityName);
  vacmDeleteSec2Group(session, key);
  vacmDeleteAccess(session, key);
  _written[key] = AccessViews();
  vacmCreateSec2Group(session, key);
  vacmCreateAccess(session, key, views);
  _written[key] = views;
}

void AccessConfigurator::removeAccess(SnmpMaSession& session, const AccessKey& key) {
  if (!isGroupShared(key)) vacmDeleteSec2Group(session, key);
  vacmDeleteAccess(session, key);
  _written.erase(key);
}

bool AccessConfigurator::isGroupShared(const AccessKey& key) const {
  // The keys of one group differ in the level only, so they stand side by side.
  const auto first = _written.lower_bound({key.securityModel, key.securityName, 0});
  for (auto entry = first; entry != _written.end(); ++entry) {
    if (entry->first.securityModel != key.securityModel || entry->first.securityName != key.securityName) return false;
    if (entry->first.securityLevel != key.securityLevel) return true;
  }
  return false;
}

void AccessConfigurator::vacmCreateSec2Group(SnmpMaSession& session, const AccessKey& key) {
  send(session, "vacmCreateSec2Group", [&](SnmpPdu& pdu) {
    pdu.addVarbind(groupRow(groupName, key), key.securityName);
    pdu.addVarbind(groupRow(groupStatus, key), RowCreateAndGo);
  });
}

void AccessConfigurator::vacmDeleteSec2Group(SnmpMaSession& session, const AccessKey& key) {
  send(session, "vacmDeleteSec2Group", [&](SnmpPdu& pdu) { pdu.addVarbind(groupRow(groupStatus, key), RowDestroy); });
}

void AccessConfigurator::vacmCreateAccess(SnmpMaSession& session, const AccessKey& key, const AccessViews& views) {
  send(session, "vacmCreateAccess", [&](SnmpPdu& pdu) {
    pdu.addVarbind(accessRow(accessContextMatch, key), contextMatchExact);
    pdu.addVarbind(accessRow(accessReadView, key), views.readView);
    pdu.addVarbind(accessRow(accessWriteView, key), views.writeView);
    pdu.addVarbind(accessRow(accessStatus, key), RowCreateAndGo);
  });
}

void AccessConfigurator::vacmDeleteAccess(SnmpMaSession& session, const AccessKey& key) {
  send(session, "vacmDeleteAccess", [&](SnmpPdu& pdu) { pdu.addVarbind(accessRow(accessStatus, key), RowDestroy); });
}

}  // namespace VelaFmSnmp
