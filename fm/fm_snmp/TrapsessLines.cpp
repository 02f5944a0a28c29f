#include "TrapsessLines.h"

#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <vector>

#include "AddressResolver.h"
#include "LoggingWrapper.h"

namespace VelaFmSnmp {

namespace {

constexpr std::uint32_t HundredthsPerSecond = 100;
/** The agent cuts a word of a configuration line at 2560 octets; escaping at most doubles a word. */
constexpr std::size_t MaxWordLength = 1024;

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

/**
 * Whom the agent takes for the receiver before the trust categories are written into its tables: a session of its
 * configuration sends from the start on. A single category is all there is to know. Of several, a line can name one.
 */
std::string receiverIdentity(const std::vector<std::string>& trustCategories) {
  const char* option = trustCategories.size() == 1 ? " -T their_identity=" : " -T trust_cert=";
  return option + toPlainFingerprint(trustCategories.front());
}

}  // namespace

std::string usmTrapsess(const SnmpTargetV3Usm& target) {
  std::vector<const std::string*> words = {&target.user};
  if (usesAuth(target)) words.push_back(&target.authKey);
  if (usesPriv(target)) words.push_back(&target.privKey);
  if (!canBeTrapsess(target, words)) return {};
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

std::string dtlsTrapsess(const SnmpTargetV3Tls& target, const SnmpTlsOptions& tls) {
  if (!canBeTrapsess(target, {&target.user})) return {};
  std::string line = "trapsess -Ci -v 3 -l authPriv -u " + toWord(target.user);
  line += " -T our_identity=" + toPlainFingerprint(tls.nodeCredential);
  line += receiverIdentity(tls.trustCategories);
  line += " -r " + std::to_string(target.informRetryCount);
  line += " -t " + toSeconds(target, target.informTimeout);
  return line + " " + dtlsEndpoint(target);
}

}  // namespace VelaFmSnmp
