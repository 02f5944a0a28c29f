#include "SnmpTypes.h"

#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstddef>
#include <limits>
#include <set>

#include "AddressResolver.h"
#include "LoggingWrapper.h"
#include "TarnSpi.h"

namespace VelaFmSnmp {

namespace {

constexpr std::uint32_t InformTimeoutWorkaroundFactor = 10;
constexpr std::uint32_t HundredthsPerSecond = 100;
/** The agent cuts a word of a configuration line at 2560 octets; escaping at most doubles a word. */
constexpr std::size_t MaxWordLength = 1024;

std::atomic<bool (*)()> informTimeoutWorkaround{nullptr};

bool isPlain(char c) {
  static const std::string plainPunctuation = "._-:@+,=/[]%";
  const auto octet = static_cast<unsigned char>(c);
  return octet < 0x80 && (std::isalnum(octet) != 0 || plainPunctuation.find(c) != std::string::npos);
}

/** Whether the syntax of the agent's configuration has any form for a text. */
bool canBeWord(const std::string& text) {
  return !text.empty() && text.size() <= MaxWordLength && std::none_of(text.begin(), text.end(), [](char c) {
    return std::iscntrl(static_cast<unsigned char>(c)) != 0;
  });
}

/** A text as one word of a line of the agent's configuration. */
std::string toWord(const std::string& text) {
  if (std::all_of(text.begin(), text.end(), isPlain)) return text;
  std::string word = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') word += '\\';
    word += c;
  }
  return word + '"';
}

/** Fingerprints are compared in lower case and without separators by the agent's library. */
std::string toPlainFingerprint(const std::string& fingerprint) {
  std::string plain;
  for (const char c : fingerprint) {
    const auto octet = static_cast<unsigned char>(c);
    if (std::isxdigit(octet) != 0) plain += static_cast<char>(std::tolower(octet));
  }
  return plain;
}

std::string toSeconds(const SnmpBaseTarget& target, std::uint32_t hundredths) {
  if (hundredths >= HundredthsPerSecond) return std::to_string(hundredths / HundredthsPerSecond);
  VELA_LOG(Vela::LogNotice, "The inform time-out of target %s is below one second, using one second",
           target.name.c_str());
  return "1";
}

std::string toEndpoint(const std::string& prefix, const std::string& host, std::uint32_t port) {
  return toWord(prefix + host + ":" + std::to_string(port));
}

std::string dtlsEndpoint(const SnmpBaseTarget& target) {
  Poco::Net::IPAddress parsed;
  if (!AddressResolver::parse(parsed, target.address)) {
    VELA_LOG(Vela::LogInfo, "Error while parsing tls target address %s. Using default dtlsudp tag",
             target.address.c_str());
  } else if (parsed.family() == Poco::Net::IPAddress::IPv6) {
    return toEndpoint("dtlsudp6:", "[" + target.address + "]", target.port);
  }
  return toEndpoint("dtlsudp:", target.address, target.port);
}

/** Whether an inform target can be written into the agent's configuration; logs why not, without the texts. */
bool canBeTrapsess(const SnmpBaseTarget& target, const std::vector<const std::string*>& words) {
  if (!target.isComplete) {
    VELA_LOG(Vela::LogInfo, "No trapsess line for target %s: a mandatory attribute is missing", target.name.c_str());
    return false;
  }
  if (canBeWord(target.address) && std::all_of(words.begin(), words.end(), [](const auto* w) { return canBeWord(*w); }))
    return true;
  VELA_LOG(Vela::LogError,
           "No trapsess line for target %s: its address, user or a pass phrase is empty, too long or holds control "
           "characters",
           target.name.c_str());
  return false;
}

bool usesAuth(const SnmpTargetV3Usm& target) { return target.authProtocol != AuthNone; }
bool usesPriv(const SnmpTargetV3Usm& target) {
  return target.snmpSecurityLevel == LevelAuthPriv && target.privProtocol != PrivNone;
}

std::string usmTrapsess(const SnmpTargetV3Usm& target) {
  std::string line = "trapsess -Ci -v 3";
  line += " -u " + toWord(target.user);
  line += " -r " + std::to_string(target.informRetryCount);
  line += " -t " + toSeconds(target, target.informTimeout);
  if (target.snmpSecurityLevel == LevelAuthNoPriv) line += " -l authNoPriv";
  if (target.snmpSecurityLevel == LevelAuthPriv) line += " -l authPriv";
  if (usesAuth(target)) {
    line += " -a ";
    if (target.authProtocol == AuthMd5) line += "MD5";
    if (target.authProtocol == AuthSha) line += "SHA";
    line += " -A " + toWord(target.authKey);
  }
  if (usesPriv(target)) {
    line += " -x ";
    if (target.privProtocol == PrivDes) line += "DES";
    if (target.privProtocol == PrivAes) line += "AES";
    line += " -X " + toWord(target.privKey);
  }
  return line + " " + toEndpoint("", target.address, target.port);
}

/**
 * Whom the agent takes for the receiver before the trust categories are written into its tables: a session of its
 * configuration sends from the start on. A single category is all there is to know. Of several, a line can name one.
 */
std::string receiverIdentity(const std::vector<std::string>& trustCategories) {
  const char* option = trustCategories.size() == 1 ? " -T their_identity=" : " -T trust_cert=";
  return option + toPlainFingerprint(trustCategories.front());
}

std::string dtlsTrapsess(const SnmpTargetV3Usm& target, const SnmpConfig::tlsOptions_t& tls) {
  std::string line = "trapsess -Ci -v 3 -l authPriv ";
  line += "-T our_identity=" + toPlainFingerprint(tls.nodeCredential);
  line += receiverIdentity(tls.trustCategories);
  line += " -r " + std::to_string(target.informRetryCount);
  line += " -t " + toSeconds(target, target.informTimeout);
  return line + " " + dtlsEndpoint(target);
}

/** The unlocked inform targets of a security model. */
std::vector<const SnmpTargetV3Usm*> informTargets(const SnmpConfig::TargetMap& targets, int securityModel) {
  std::vector<const SnmpTargetV3Usm*> found;
  for (const auto& [name, target] : targets) {
    if (target.isNull() || target->version() != SnmpProtocolV3 || target->getSecurityModel() != securityModel) continue;
    const auto* v3 = static_cast<const SnmpTargetV3Usm*>(target.get());
    if (v3->administrativeState && v3->transportMethod == TransportInform) found.push_back(v3);
  }
  return found;
}

const std::string* communityOf(const SnmpBaseTarget& target) {
  switch (target.version()) {
    case SnmpProtocolV1:
      return &static_cast<const SnmpTargetV1&>(target).community;
    case SnmpProtocolV2c:
      return &static_cast<const SnmpTargetV2C&>(target).community;
    default:
      return nullptr;
  }
}

std::int32_t networkPrefixLengthOf(const SnmpBaseTarget& target) {
  return target.version() == SnmpProtocolV1 ? static_cast<const SnmpTargetV1&>(target).networkPrefixLength
                                            : static_cast<const SnmpTargetV2C&>(target).networkPrefixLength;
}

/** Compares two targets of one name. DTLS targets are equal then: their contents are compared by the digest. */
bool equalTargets(const SnmpBaseTarget& own, const SnmpBaseTarget& other) {
  if (own.version() != other.version() || own.getSecurityModel() != other.getSecurityModel()) return false;
  if (own.getSecurityModel() == SecurityModelTls) return true;
  switch (own.version()) {
    case SnmpProtocolV1:
      return static_cast<const SnmpTargetV1&>(own) == static_cast<const SnmpTargetV1&>(other);
    case SnmpProtocolV2c:
      return static_cast<const SnmpTargetV2C&>(own) == static_cast<const SnmpTargetV2C&>(other);
    case SnmpProtocolV3:
      return static_cast<const SnmpTargetV3Usm&>(own) == static_cast<const SnmpTargetV3Usm&>(other);
    default:
      return true;
  }
}

/** Whether every entry of a map has an equal one in another map. */
template <class Map, class Equal>
bool allFoundIn(const Map& own, const Map& other, Equal equal) {
  return std::all_of(own.begin(), own.end(), [&](const auto& entry) {
    const auto found = other.find(entry.first);
    if (found == other.end() || entry.second.isNull() || found->second.isNull()) return false;
    return equal(*entry.second, *found->second);
  });
}

}  // namespace

// --- Targets

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

std::string SnmpTargetV1::getSecurityName() const { return Vela::TarnSpi::SecurityNamePrefix + community; }

bool SnmpTargetV1::operator==(const SnmpTargetV1& other) const {
  return SnmpBaseTarget::operator==(other) && community == other.community &&
         networkPrefixLength == other.networkPrefixLength;
}

std::string SnmpTargetV2C::getSecurityName() const { return Vela::TarnSpi::SecurityNamePrefix + community; }

bool SnmpTargetV2C::operator==(const SnmpTargetV2C& other) const {
  return SnmpBaseTarget::operator==(other) && community == other.community &&
         informRetryCount == other.informRetryCount && informTimeout == other.informTimeout &&
         transportMethod == other.transportMethod && networkPrefixLength == other.networkPrefixLength;
}

bool SnmpTargetV3Usm::operator==(const SnmpTargetV3Usm& other) const {
  return SnmpBaseTarget::operator==(other) && user == other.user && authKey == other.authKey &&
         privKey == other.privKey && authProtocol == other.authProtocol && privProtocol == other.privProtocol &&
         informRetryCount == other.informRetryCount && informTimeout == other.informTimeout &&
         transportMethod == other.transportMethod && snmpSecurityLevel == other.snmpSecurityLevel;
}

// --- Views

bool SnmpBaseView::operator==(const SnmpBaseView& other) const {
  return name == other.name && community == other.community && readOids == other.readOids &&
         writeOids == other.writeOids && version() == other.version();
}

// --- SnmpConfig

void SnmpConfig::tlsOptions_t::clear() { *this = tlsOptions_t(); }

void SnmpConfig::clear() {
  targets.clear();
  views.clear();
  leftOut.clear();
  agentAddress.clear();
  snmpId.clear();
  tlsOptions.clear();
  engineId.clear();
}

bool SnmpConfig::operator==(const SnmpConfig& other) const {
  const auto equalViews = [](const SnmpBaseView& own, const SnmpBaseView& others) { return own == others; };
  return administrativeState == other.administrativeState && targets.size() == other.targets.size() &&
         views.size() == other.views.size() && agentAddress == other.agentAddress && snmpId == other.snmpId &&
         tlsOptions == other.tlsOptions && enableSourceCheckForV1V2C == other.enableSourceCheckForV1V2C &&
         engineId == other.engineId && allFoundIn(targets, other.targets, equalTargets) &&
         allFoundIn(views, other.views, equalViews);
}

std::size_t SnmpConfig::countReadableLater() const {
  const auto isReadableLater = [](const auto& entry) { return entry.second->mayBeReadLater; };
  return static_cast<std::size_t>(std::count_if(targets.begin(), targets.end(), isReadableLater));
}

bool SnmpConfig::allTargetsOperational() const {
  return std::all_of(targets.begin(), targets.end(), [this](const auto& entry) {
    const SnmpBaseTarget& target = *entry.second;
    if (!target.administrativeState) return true;
    if (target.getSecurityModel() == SecurityModelTls && !tlsOptions.isEnabled()) return true;
    return target.operational;
  });
}

std::vector<std::string> SnmpConfig::getV1AndV2communities() const {
  std::vector<std::string> communities;
  for (const auto& [name, target] : targets) {
    if (const std::string* community = communityOf(*target)) communities.push_back(*community);
  }
  return communities;
}

std::multimap<std::string, std::string> SnmpConfig::getV1V2communitiesAndAddrWithPrefixLength() const {
  std::set<std::pair<std::string, std::string>> sources;
  for (const auto& [name, target] : targets) {
    const std::string* community = communityOf(*target);
    if (community == nullptr || !target->administrativeState) continue;
    const std::int32_t prefixLength = networkPrefixLengthOf(*target);
    sources.emplace(*community,
                    prefixLength == -1 ? target->address : target->address + "/" + std::to_string(prefixLength));
  }
  return {sources.begin(), sources.end()};
}

std::vector<std::string> SnmpConfig::getInformTrapsessConfig() const {
  std::vector<std::string> lines;
  for (const SnmpTargetV3Usm* target : informTargets(targets, SecurityModelUsm)) {
    if (target->snmpSecurityLevel == LevelNoAuthNoPriv) continue;
    std::vector<const std::string*> words = {&target->user};
    if (usesAuth(*target)) words.push_back(&target->authKey);
    if (usesPriv(*target)) words.push_back(&target->privKey);
    if (canBeTrapsess(*target, words)) lines.push_back(usmTrapsess(*target));
  }
  return lines;
}

std::vector<std::string> SnmpConfig::getInformDtlsTrapsessConfig() const {
  if (!tlsOptions.isEnabled()) {
    VELA_LOG(Vela::LogInfo, "SNMP over DTLS is not enabled");
    return {};
  }
  std::vector<std::string> lines;
  for (const SnmpTargetV3Usm* target : informTargets(targets, SecurityModelTls)) {
    if (canBeTrapsess(*target, {})) lines.push_back(dtlsTrapsess(*target, tlsOptions));
  }
  return lines;
}

}  // namespace VelaFmSnmp
