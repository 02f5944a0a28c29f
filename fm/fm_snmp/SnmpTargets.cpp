#include <algorithm>
#include <atomic>
#include <limits>

#include "ConfigurationFault.h"
#include "LoggingWrapper.h"
#include "SnmpTypes.h"
#include "TarnSpi.h"
#include "TrapsessLines.h"

namespace VelaFmSnmp {

namespace {

constexpr std::uint32_t InformTimeoutWorkaroundFactor = 10;
constexpr std::size_t MaxCommunity = 32;
constexpr std::int32_t NoPrefix = -1;

std::atomic<bool (*)()> informTimeoutWorkaround{nullptr};

/** The comparison of a class, which the base class' operator does not reach. */
template <class Target>
bool areEqual(const Target& own, const SnmpBaseTarget& other) {
  const auto* same = dynamic_cast<const Target*>(&other);
  return same != nullptr && own.getSecurityModel() == other.getSecurityModel() && own == *same;
}

void requireCommunity(const std::string& community) {
  if (community.empty() || community.size() > MaxCommunity)
    throw ConfigurationFault("target community must be between 1 and 32 characters in length");
}

std::string sourceOf(const std::string& address, std::int32_t prefixLength) {
  return prefixLength == NoPrefix ? address : address + "/" + std::to_string(prefixLength);
}

NotifyType notifyTypeOf(std::int32_t transportMethod) {
  return transportMethod == TransportTrap ? NotifyTrap : NotifyInform;
}

/** Authenticated informs are sent by a session of the master agent's own, from its configuration: through the tables
 *  they would not arrive, and hold everybody else's up. */
bool isSentByAgentSession(const SnmpTargetV3Usm& target) {
  return target.transportMethod == TransportInform && target.securityLevel() != LevelNoAuthNoPriv;
}

TrapRows v3Rows(const SnmpTargetV3Usm& target, const std::string& tlsFingerprint) {
  TrapRows rows{MpModelV3, target.securityLevel(), std::nullopt, tlsFingerprint};
  if (!isSentByAgentSession(target)) rows.notifyType = notifyTypeOf(target.transportMethod);
  return rows;
}

}  // namespace

// --- SnmpBaseTarget

void SnmpBaseTarget::setInformTimeoutWorkaround(bool (*isEnabled)()) { informTimeoutWorkaround = isEnabled; }

std::uint32_t SnmpBaseTarget::effectiveInformTimeout(std::uint32_t informTimeout) {
  bool (*const isEnabled)() = informTimeoutWorkaround;
  if (isEnabled == nullptr || !isEnabled()) return informTimeout;
  constexpr std::uint32_t limit = std::numeric_limits<std::uint32_t>::max() / InformTimeoutWorkaroundFactor;
  return std::min(informTimeout, limit) * InformTimeoutWorkaroundFactor;
}

bool SnmpBaseTarget::operator==(const SnmpBaseTarget& other) const {
  return name == other.name && version() == other.version() && administrativeState == other.administrativeState &&
         address == other.address && port == other.port && isMibWritable == other.isMibWritable &&
         hasNameAttribute == other.hasNameAttribute && moName == other.moName &&
         missingAttributes == other.missingAttributes && defaultedAttributes == other.defaultedAttributes;
}

bool SnmpBaseTarget::equals(const SnmpBaseTarget&) const {
  VELA_LOG(Vela::LogError, "unkown version %u in compare", version());
  return false;
}

std::optional<UsmUser> SnmpBaseTarget::usmUser() const { return std::nullopt; }

std::string SnmpBaseTarget::trapsess(const SnmpTlsOptions&) const { return {}; }

// --- SnmpTargetV1

std::string SnmpTargetV1::getSecurityName() const { return Vela::TarnSpi::SecurityNamePrefix + community; }

bool SnmpTargetV1::operator==(const SnmpTargetV1& other) const {
  return SnmpBaseTarget::operator==(other) && community == other.community &&
         networkPrefixLength == other.networkPrefixLength;
}

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV1::clone() const { return new SnmpTargetV1(*this); }

bool SnmpTargetV1::equals(const SnmpBaseTarget& other) const { return areEqual(*this, other); }

void SnmpTargetV1::check() const { requireCommunity(community); }

TrapRows SnmpTargetV1::trapRows(const std::string&) const { return {MpModelV1, securityLevel(), NotifyTrap, {}}; }

std::string SnmpTargetV1::accessFailure() const { return "Failed to configure v1 access for community " + community; }

std::string SnmpTargetV1::getSource() const { return sourceOf(address, networkPrefixLength); }

// --- SnmpTargetV2C

std::string SnmpTargetV2C::getSecurityName() const { return Vela::TarnSpi::SecurityNamePrefix + community; }

bool SnmpTargetV2C::operator==(const SnmpTargetV2C& other) const {
  return SnmpBaseTarget::operator==(other) && community == other.community &&
         informRetryCount == other.informRetryCount && informTimeout == other.informTimeout &&
         transportMethod == other.transportMethod && networkPrefixLength == other.networkPrefixLength;
}

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV2C::clone() const { return new SnmpTargetV2C(*this); }

bool SnmpTargetV2C::equals(const SnmpBaseTarget& other) const { return areEqual(*this, other); }

void SnmpTargetV2C::check() const { requireCommunity(community); }

TrapRows SnmpTargetV2C::trapRows(const std::string&) const {
  return {MpModelV2c, securityLevel(), notifyTypeOf(transportMethod), {}};
}

std::string SnmpTargetV2C::accessFailure() const { return "Failed to configure v2c access for community " + community; }

std::string SnmpTargetV2C::getSource() const { return sourceOf(address, networkPrefixLength); }

// --- SnmpTargetV3Usm

bool SnmpTargetV3Usm::operator==(const SnmpTargetV3Usm& other) const {
  return SnmpBaseTarget::operator==(other) && user == other.user && authKey == other.authKey &&
         privKey == other.privKey && authProtocol == other.authProtocol && privProtocol == other.privProtocol &&
         informRetryCount == other.informRetryCount && informTimeout == other.informTimeout &&
         transportMethod == other.transportMethod && snmpSecurityLevel == other.snmpSecurityLevel;
}

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV3Usm::clone() const { return new SnmpTargetV3Usm(*this); }

bool SnmpTargetV3Usm::equals(const SnmpBaseTarget& other) const { return areEqual(*this, other); }

void SnmpTargetV3Usm::check() const { UsmUser::of(*this); }

TrapRows SnmpTargetV3Usm::trapRows(const std::string&) const { return v3Rows(*this, {}); }

std::optional<UsmUser> SnmpTargetV3Usm::usmUser() const { return UsmUser::of(*this); }

std::string SnmpTargetV3Usm::accessFailure() const {
  return "Failed to configure Usm access for securityName " + getSecurityName();
}

std::string SnmpTargetV3Usm::trapsess(const SnmpTlsOptions&) const {
  return administrativeState && isSentByAgentSession(*this) ? usmTrapsess(*this) : std::string();
}

// --- SnmpTargetV3Tls

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV3Tls::clone() const { return new SnmpTargetV3Tls(*this); }

void SnmpTargetV3Tls::check() const { requireUserName(user); }

TrapRows SnmpTargetV3Tls::trapRows(const std::string& nodeFingerprint) const { return v3Rows(*this, nodeFingerprint); }

std::optional<UsmUser> SnmpTargetV3Tls::usmUser() const { return std::nullopt; }

std::string SnmpTargetV3Tls::trapsess(const SnmpTlsOptions& tlsOptions) const {
  return administrativeState && isSentByAgentSession(*this) ? dtlsTrapsess(*this, tlsOptions) : std::string();
}

std::string SnmpTargetV3Tls::digestText() const {
  std::string digested;
  const auto add = [&digested](const std::string& text) { digested += std::to_string(text.size()) + ":" + text; };
  for (const std::string& text : {name, moName, address, user}) add(text);
  for (const std::uint32_t number :
       {static_cast<std::uint32_t>(administrativeState), port, static_cast<std::uint32_t>(isMibWritable),
        static_cast<std::uint32_t>(hasNameAttribute), missingAttributes, defaultedAttributes, informRetryCount,
        informTimeout, static_cast<std::uint32_t>(transportMethod)}) {
    add(std::to_string(number));
  }
  return digested;
}

}  // namespace VelaFmSnmp
