#include "UsmUser.h"

#include <TarnSpi.h>

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "ConfigurationFault.h"
#include "SnmpTypes.h"

namespace VelaFmSnmp {

namespace {

constexpr std::size_t MaxUserName = 32;
constexpr std::size_t MinPassPhrase = 8;

bool isTemplate(const std::string& name) {
  return std::any_of(std::begin(Vela::TarnSpi::TemplateUsers), std::end(Vela::TarnSpi::TemplateUsers),
                     [&](const auto& candidate) { return name == candidate.name; });
}

bool isKnownAuth(int protocol) { return protocol >= AuthNone && protocol <= AuthSha; }
bool isKnownPriv(int protocol) { return protocol >= PrivNone && protocol <= PrivAes; }

void requireProtocols(const SnmpTargetV3Usm& target) {
  if (!isKnownAuth(target.authProtocol) && !isKnownPriv(target.privProtocol))
    throw ConfigurationFault("unknown AuthProtocol or PrivProtocol");
  if (!isKnownAuth(target.authProtocol)) throw ConfigurationFault("unknown authProtocol %d", target.authProtocol);
  if (!isKnownPriv(target.privProtocol)) throw ConfigurationFault("unknown privProtocol %d", target.privProtocol);
}

}  // namespace

void requireUserName(const std::string& name) {
  if (name.empty() || name.size() > MaxUserName)
    throw ConfigurationFault("target user must be between 1 and 32 characters in length");
}

void requirePassPhrase(const std::string& passPhrase, const char* which) {
  if (passPhrase.size() < MinPassPhrase)
    throw ConfigurationFault("%s passphrase must be greater than %zu characters in length.", which, MinPassPhrase - 1);
}

UsmUser UsmUser::of(const SnmpTargetV3Usm& target) {
  requireUserName(target.user);
  if (isTemplate(target.user))
    throw ConfigurationFault("can not create v3 trap targets for built-in usm user (%s)!", target.user.c_str());
  UsmUser user{target.user, AuthNone, PrivNone, std::string(), std::string()};
  if (target.snmpSecurityLevel < LevelNoAuthNoPriv || target.snmpSecurityLevel > LevelAuthPriv)
    throw ConfigurationFault("Unknown securityLevel :%d", target.snmpSecurityLevel);
  requireProtocols(target);
  switch (target.snmpSecurityLevel) {
    case LevelNoAuthNoPriv:
      return user;
    case LevelAuthNoPriv:
      if (target.authProtocol == AuthNone)
        throw ConfigurationFault("SNMP_SEC_LEVEL_AUTHNOPRIV selected, but no AuthProtocol specified");
      break;
    case LevelAuthPriv:
      if (target.authProtocol == AuthNone || target.privProtocol == PrivNone)
        throw ConfigurationFault("SNMP_SEC_LEVEL_AUTHPRIV selected, but no Auth- or PrivProtocol specified");
      requirePassPhrase(target.privKey, "New");
      user.privProtocol = target.privProtocol;
      user.privKey = target.privKey;
      break;
    default:
      break;
  }
  requirePassPhrase(target.authKey, "New");
  user.authProtocol = target.authProtocol;
  user.authKey = target.authKey;
  return user;
}

bool UsmUser::covers(const UsmUser& other) const {
  if (name != other.name) return false;
  const bool isAuthCovered =
      other.authProtocol == AuthNone || (authProtocol == other.authProtocol && authKey == other.authKey);
  const bool isPrivCovered =
      other.privProtocol == PrivNone || (privProtocol == other.privProtocol && privKey == other.privKey);
  return isAuthCovered && isPrivCovered;
}

}  // namespace VelaFmSnmp
