// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "UsmUserConfigurator.h"

#include <LoggingWrapper.h>
#include <TarnSpi.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "ConfigurationFault.h"
#include "MasterAgentTables.h"
#include "SnmpMaSession.h"
#include "SnmpOid.h"
#include "SnmpPdu.h"
#include "SnmpTypes.h"

namespace VelaFmSnmp {

namespace {

using Column = const unsigned long[12];

// usmUserTable (RFC 3414): table entry and column.
constexpr Column usmUserSecurityName = {1, 3, 6, 1, 6, 3, 15, 1, 2, 2, 1, 3};
constexpr Column usmUserCloneFrom = {1, 3, 6, 1, 6, 3, 15, 1, 2, 2, 1, 4};
constexpr Column usmUserAuthProtocol = {1, 3, 6, 1, 6, 3, 15, 1, 2, 2, 1, 5};
constexpr Column usmUserAuthKeyChange = {1, 3, 6, 1, 6, 3, 15, 1, 2, 2, 1, 6};
constexpr Column usmUserPrivProtocol = {1, 3, 6, 1, 6, 3, 15, 1, 2, 2, 1, 8};
constexpr Column usmUserPrivKeyChange = {1, 3, 6, 1, 6, 3, 15, 1, 2, 2, 1, 9};
constexpr Column usmUserStatus = {1, 3, 6, 1, 6, 3, 15, 1, 2, 2, 1, 13};

/** DES (with its salt) and AES-128 take keys of 16 octets. */
constexpr std::size_t privKeyLength = 16;

using Vela::TarnSpi::TemplateUser;
using Vela::TarnSpi::TemplateUsers;

const TemplateUser* findTemplate(int authProtocol, int privProtocol) {
  const auto* found =
      std::find_if(std::begin(TemplateUsers), std::end(TemplateUsers), [=](const TemplateUser& candidate) {
        return (authProtocol == AuthNone || candidate.auth == authProtocol) &&
               (privProtocol == PrivNone || candidate.priv == privProtocol);
      });
  if (found != std::end(TemplateUsers)) return found;
  VELA_LOG(Vela::LogError, "No default user found for authProtocol = %d and privProtocol = %d", authProtocol,
           privProtocol);
  return nullptr;
}

SnmpOid authProtocolOid(int protocol) {
  return protocol == AuthSha ? SnmpOid(usmHMACSHA1AuthProtocol, OID_LENGTH(usmHMACSHA1AuthProtocol))
                             : SnmpOid(usmHMACMD5AuthProtocol, OID_LENGTH(usmHMACMD5AuthProtocol));
}

std::string engineIdOf(const SnmpMaSession& session) {
  std::string engineId = session.securityEngineID();
  if (engineId.empty()) throw Vela::VelaException("The engine id of the master agent is not known");
  return engineId;
}

SnmpOid row(Column& column, const std::string& engineId, const std::string& userName) {
  return SnmpOid::createUsmUserOid(column, engineId, userName);
}

}  // namespace

const char* UsmUserConfigurator::findSuitableUser(int authProtocol, int privProtocol) {
  const TemplateUser* found = findTemplate(authProtocol, privProtocol);
  return found ? found->name : nullptr;
}

bool UsmUserConfigurator::isWritten(const UsmUser& user) const {
  const auto found = _written.find(user.name);
  return found != _written.end() && found->second == user;
}

std::vector<std::string> UsmUserConfigurator::getWrittenNames() const {
  std::vector<std::string> names;
  names.reserve(_written.size());
  for (const auto& entry : _written) names.push_back(entry.first);
  return names;
}

void UsmUserConfigurator::clear() {
  _written.clear();
  endPass();
}

void UsmUserConfigurator::endPass() {
  _planned.clear();
  _derivedKeys.clear();
}

void UsmUserConfigurator::planUsers(const std::vector<const SnmpBaseTarget*>& targets, TargetFaults& faults) {
  _planned.clear();
  // Whoever has the user that is written keeps it from those who want another one of its name.
  std::vector<const SnmpBaseTarget*> holdersFirst = targets;
  std::stable_partition(holdersFirst.begin(), holdersFirst.end(), [this](const SnmpBaseTarget* target) {
    const std::optional<UsmUser> user = target->usmUser();
    const auto written = user ? _written.find(user->name) : _written.end();
    return written != _written.end() && (written->second.covers(*user) || user->covers(written->second));
  });
  for (const SnmpBaseTarget* target : holdersFirst) {
    std::optional<UsmUser> user = target->usmUser();
    if (!user) continue;
    const auto [planned, isNew] = _planned.emplace(user->name, *user);
    if (isNew || planned->second.covers(*user)) continue;
    if (user->covers(planned->second))
      planned->second = std::move(*user);
    else
      faults.emplace(target->name, "another target has user " + user->name + " with other protocols or pass phrases");
  }
}

void UsmUserConfigurator::createUsers(const ConfigurationPass& pass, const std::vector<const SnmpBaseTarget*>& targets,
                                      TargetFaults& faults) {
  std::map<std::string, std::string> failed;
  for (const auto& [name, user] : _planned) {
    if (!pass.writesAnew && isWritten(user)) continue;
    try {
      usmCreateUser(pass.session, user);
    } catch (const ConfigurationFault& fault) {
      failed.emplace(name, fault.what());
    }
  }
  if (failed.empty()) return;
  for (const SnmpBaseTarget* target : targets) {
    const std::optional<UsmUser> user = target->usmUser();
    const auto fault = user ? failed.find(user->name) : failed.end();
    if (fault != failed.end()) faults.emplace(target->name, fault->second);
  }
}

void UsmUserConfigurator::deleteUnusedUsers(const ConfigurationPass& pass) {
  for (const std::string& name : getWrittenNames()) {
    if (_planned.count(name) != 0) continue;
    try {
      usmDeleteUser(pass.session, name);
    } catch (const ConfigurationFault& fault) {
      VELA_LOG(Vela::LogError, "Failed to delete USM user %s: %s", name.c_str(), fault.what());
    }
  }
}

void UsmUserConfigurator::usmCreateUser(SnmpMaSession& session, const UsmUser& user) {
  const TemplateUser* source = findTemplate(user.authProtocol, user.privProtocol);
  if (source == nullptr) throw ConfigurationFault("No suitable preconfigured user found!");
  VELA_LOG(Vela::LogInfo, "creating USM user %s (clone of %s)", user.name.c_str(), source->name);
  usmDeleteUser(session, user.name);
  // Until the last step has succeeded the row is not the user wanted, and must be deleted before another try.
  _written[user.name] = UsmUser{};
  usmCloneUser(session, user.name, source->name);
  usmChangePassword(session, user, source->auth);
  usmResetAuthPrivProtcol(session, user);
  usmSetUserStatus(session, user.name, RowActive);
  _written[user.name] = user;
}

void UsmUserConfigurator::usmDeleteUser(SnmpMaSession& session, const std::string& userName) {
  usmSetUserStatus(session, userName, RowDestroy);
  _written.erase(userName);
}

void UsmUserConfigurator::usmSetUserStatus(SnmpMaSession& session, const std::string& userName, int rowStatus) {
  SnmpPdu pdu(SNMP_MSG_SET);
  MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::usmUserSpinLock);
  pdu.addVarbind(row(usmUserStatus, engineIdOf(session), userName), rowStatus);
  MasterAgentTables::send(session, "usmSetUserStatus(" + userName + ")", pdu);
}

void UsmUserConfigurator::usmCloneUser(SnmpMaSession& session, const std::string& userName,
                                       const std::string& templateName) {
  if (userName.empty() || templateName.empty()) throw ConfigurationFault("user name must not be empty");
  if (userName == templateName) throw ConfigurationFault("can not clone user to itself");
  const std::string engineId = engineIdOf(session);
  SnmpPdu pdu(SNMP_MSG_SET);
  MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::usmUserSpinLock);
  pdu.addVarbind(row(usmUserStatus, engineId, userName), RowCreateAndWait);
  // The source is named by the row pointer of its first accessible column, which is the security name.
  pdu.addVarbind(row(usmUserCloneFrom, engineId, userName), row(usmUserSecurityName, engineId, templateName));
  MasterAgentTables::send(session, "usmCloneUser(" + userName + ")", pdu);
}

void UsmUserConfigurator::usmChangePassword(SnmpMaSession& session, const UsmUser& user, int templateAuthProtocol) {
  if (user.authProtocol == AuthNone) return;
  const std::string engineId = engineIdOf(session);
  SnmpPdu pdu(SNMP_MSG_SET);
  MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::usmUserSpinLock);
  const auto add = [&](Column& column, const std::string& oldPassPhrase, const std::string& newPassPhrase,
                       std::size_t keyLength) {
    pdu.addVarbind(row(column, engineId, user.name),
                   encodeKeyChange(engineId, templateAuthProtocol, oldPassPhrase, newPassPhrase, keyLength));
  };
  add(usmUserAuthKeyChange, session.getRootAuthPwd(), user.authKey, 0);
  if (user.privProtocol != PrivNone)
    add(usmUserPrivKeyChange, session.getRootPrivPwd(), user.privKey, privKeyLength);
  else if (!user.privKey.empty())
    throw ConfigurationFault("no encryption type specified, which I need in order to know to change the key");
  MasterAgentTables::send(session, "usmChangePassword(" + user.name + ")", pdu);
}

void UsmUserConfigurator::usmResetAuthPrivProtcol(SnmpMaSession& session, const UsmUser& user) {
  const std::string engineId = engineIdOf(session);
  const auto reset = [&](Column& column, const oid* protocol, std::size_t length) {
    SnmpPdu pdu(SNMP_MSG_SET);
    MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::usmUserSpinLock);
    pdu.addVarbind(row(column, engineId, user.name), SnmpOid(protocol, static_cast<unsigned int>(length)));
    MasterAgentTables::send(session, "usmResetAuthPrivProtcol(" + user.name + ")", pdu);
  };
  // The agent refuses a user with privacy and without authentication, so privacy goes first.
  if (user.privProtocol == PrivNone) reset(usmUserPrivProtocol, usmNoPrivProtocol, OID_LENGTH(usmNoPrivProtocol));
  if (user.authProtocol == AuthNone) reset(usmUserAuthProtocol, usmNoAuthProtocol, OID_LENGTH(usmNoAuthProtocol));
}

std::string UsmUserConfigurator::encodeKeyChange(const std::string& engineId, int authProtocol,
                                                 const std::string& oldPassPhrase, const std::string& newPassPhrase,
                                                 std::size_t keyLength) {
  requirePassPhrase(oldPassPhrase, "Old");
  requirePassPhrase(newPassPhrase, "New");
  std::string oldKey = localizedKey(engineId, authProtocol, oldPassPhrase, "old");
  std::string newKey = localizedKey(engineId, authProtocol, newPassPhrase, "new");
  if (keyLength != 0) {
    oldKey.resize(keyLength);
    newKey.resize(keyLength);
  }
  const SnmpOid protocol = authProtocolOid(authProtocol);
  u_char change[2 * USM_AUTH_KU_LEN];
  std::size_t changeLength = sizeof change;
  // The library takes the keys as modifiable unsigned octets, and does not modify them.
  if (encode_keychange(protocol.getOidPtr(), protocol.length(), reinterpret_cast<u_char*>(oldKey.data()), oldKey.size(),
                       reinterpret_cast<u_char*>(newKey.data()), newKey.size(), change,
                       &changeLength) != SNMPERR_SUCCESS)
    throw ConfigurationFault("encoding the keychange failed");
  return std::string(change, change + changeLength);
}

const std::string& UsmUserConfigurator::localizedKey(const std::string& engineId, int authProtocol,
                                                     const std::string& passPhrase, const char* which) {
  // Deriving a key takes milliseconds, and all users share the old ones.
  std::string& key = _derivedKeys[std::to_string(authProtocol) + engineId + passPhrase];
  if (!key.empty()) return key;
  const SnmpOid protocol = authProtocolOid(authProtocol);
  u_char ku[USM_AUTH_KU_LEN];
  std::size_t kuLength = sizeof ku;
  if (generate_Ku(protocol.getOidPtr(), protocol.length(), reinterpret_cast<const u_char*>(passPhrase.data()),
                  passPhrase.size(), ku, &kuLength) != SNMPERR_SUCCESS)
    throw ConfigurationFault(std::string(which) == "old" ? "generating the Ku failed" : "generating the new Ku failed");
  u_char kul[USM_AUTH_KU_LEN];
  std::size_t kulLength = sizeof kul;
  if (generate_kul(protocol.getOidPtr(), protocol.length(), reinterpret_cast<const u_char*>(engineId.data()),
                   engineId.size(), ku, kuLength, kul, &kulLength) != SNMPERR_SUCCESS)
    throw ConfigurationFault("generating the %s Kul failed", which);
  key.assign(kul, kul + kulLength);
  return key;
}

}  // namespace VelaFmSnmp
