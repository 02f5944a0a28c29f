#include "Directives.h"

#include <CertificateFolder.h>
#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <initializer_list>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

#include "AgentConfiguration.h"
#include "Failure.h"
#include "TarnSpi.h"

namespace Tarn {

namespace {

constexpr std::string_view Transports[] = {"udp", "udp6", "dtlsudp", "dtlsudp6"};
constexpr std::string_view SecurityNamePrefix = Vela::TarnSpi::SecurityNamePrefix;
constexpr size_t MaxSecurityName = 32;   // SnmpAdminString of the VACM and USM tables
constexpr size_t MaxSystemName = 255;    // DisplayString of sysName
constexpr size_t MinEngineIdOctets = 5;  // RFC 3411, SnmpEngineID
constexpr size_t MaxEngineIdOctets = 32;
constexpr size_t MaxTrapSessionWord = 2000;  // the agent cuts longer words
constexpr size_t MinPassPhrase = 8;          // RFC 3414, 11.2

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

template <typename Number>
std::optional<Number> toNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return number;
}

bool isHexadecimal(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

bool isHostName(const std::string& text) {
  return !text.empty() && text.front() != '-' && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
  });
}

bool isAddress(int family, const std::string& text) {
  in6_addr buffer{};
  return inet_pton(family, text.c_str(), &buffer) == 1;
}

ListenAddress parseAddress(const std::string& text) {
  const std::string error = "not an address of the form TRANSPORT:HOST:PORT: '" + text + "'";
  if (hasControlCharacter(text)) throw Failure("an agent address holds a control character");
  ListenAddress address;
  const size_t first = text.find(':');
  const size_t last = text.rfind(':');
  if (first == std::string::npos || first == last) throw Failure(error);
  address.transport = text.substr(0, first);
  if (std::find(std::begin(Transports), std::end(Transports), address.transport) == std::end(Transports))
    throw Failure("unknown transport '" + address.transport + "' in '" + text + "'");
  address.host = text.substr(first + 1, last - first - 1);
  const auto port = toNumber<uint16_t>(std::string_view(text).substr(last + 1));
  if (!port || *port == 0) throw Failure("no port between 1 and 65535 in '" + text + "'");
  address.port = *port;
  if (address.isIpv6()) {
    if (address.host.size() < 2 || address.host.front() != '[' || address.host.back() != ']')
      throw Failure("an IPv6 address stands in brackets: '" + text + "'");
    address.host = address.host.substr(1, address.host.size() - 2);
    if (!isAddress(AF_INET6, address.host) && !isHostName(address.host)) throw Failure(error);
  } else if (!isHostName(address.host)) {
    throw Failure(error);
  }
  return address;
}

/** A source of requests as com2sec takes it. The host part of a prefix is cleared, which the agent insists on. */
struct Source {
  std::string text;
  bool isIpv4 = true;
  bool isIpv6 = true;
};

std::optional<Source> parseSource(const std::string& text) {
  if (text == "default") return Source{text};
  const size_t slash = text.find('/');
  const std::string host = text.substr(0, slash);
  const bool isIpv4 = isAddress(AF_INET, host);
  const bool isIpv6 = isAddress(AF_INET6, host);
  if (!isIpv4 && !isIpv6) {
    if (slash != std::string::npos || !isHostName(host)) return std::nullopt;
    return Source{host};
  }
  if (slash == std::string::npos) return Source{host, isIpv4, isIpv6};
  const auto prefix = toNumber<unsigned>(std::string_view(text).substr(slash + 1));
  if (!prefix || *prefix > (isIpv4 ? 32U : 128U)) return std::nullopt;
  unsigned char octets[sizeof(in6_addr)] = {};
  inet_pton(isIpv4 ? AF_INET : AF_INET6, host.c_str(), octets);
  for (unsigned bit = *prefix; bit < sizeof(octets) * 8; ++bit)
    octets[bit / 8] = static_cast<unsigned char>(octets[bit / 8] & ~(0x80U >> (bit % 8)));
  char network[INET6_ADDRSTRLEN];
  inet_ntop(isIpv4 ? AF_INET : AF_INET6, octets, network, sizeof(network));
  return Source{network + ("/" + std::to_string(*prefix)), isIpv4, isIpv6};
}

/** The directives for one line of the communities file; throws the reason when there are none. */
std::string renderCommunity(const std::string& line) {
  const size_t tab = line.rfind('\t');
  if (tab == std::string::npos) throw Failure("no tabulator between community and source");
  const std::string community = line.substr(0, tab);
  if (community.empty()) throw Failure("the community is empty");
  if (hasControlCharacter(community)) throw Failure("the community holds a control character");
  const std::string securityName = std::string(SecurityNamePrefix) + community;
  if (securityName.size() > MaxSecurityName)
    throw Failure("the community has more than " + std::to_string(MaxSecurityName - SecurityNamePrefix.size()) +
                  " characters");
  const auto source = parseSource(line.substr(tab + 1));
  if (!source) throw Failure("the source is neither 'default' nor an address with an optional prefix length");
  const std::string rest = " " + asWord(securityName) + " " + source->text + " " + asWord(community) + "\n";
  return (source->isIpv4 ? "com2sec" + rest : "") + (source->isIpv6 ? "com2sec6" + rest : "");
}

/** A word of a trapsess line and where it stands. */
struct Word {
  size_t begin;
  size_t end;
};

/** Where the quoted word that begins here ends, behind its closing quote; nothing when it is none. */
std::optional<size_t> endOfQuoted(const std::string& line, size_t begin) {
  if (line[begin] != '"') return std::nullopt;
  for (size_t at = begin + 1; at < line.size(); ++at) {
    if (line[at] == '\\')
      ++at;
    else if (line[at] == '"')
      return at + 1 == line.size() || line[at + 1] == ' ' ? std::optional<size_t>(at + 1) : std::nullopt;
  }
  return std::nullopt;
}

std::vector<Word> words(const std::string& line) {
  std::vector<Word> result;
  for (size_t at = line.find_first_not_of(' '); at != std::string::npos; at = line.find_first_not_of(' ', at)) {
    const size_t end = endOfQuoted(line, at).value_or(std::min(line.find(' ', at), line.size()));
    result.push_back({at, end});
    at = end;
  }
  return result;
}

/** The text of a word that asWord may have quoted. */
std::string unquoted(const std::string& word) {
  if (word.empty() || endOfQuoted(word, 0) != word.size()) return word;
  std::string text;
  for (size_t at = 1; at + 1 < word.size(); ++at) {
    if (word[at] == '\\') ++at;
    text += word[at];
  }
  return text;
}

constexpr std::string_view TrapSessionOptions[] = {"-v", "-u", "-r", "-t", "-l", "-a",
                                                   "-A", "-x", "-X", "-T", "-e", "-n"};

bool isTrapSessionOption(std::string_view word) {
  return std::find(std::begin(TrapSessionOptions), std::end(TrapSessionOptions), word) != std::end(TrapSessionOptions);
}

bool isOneOf(const std::string& value, std::initializer_list<const char*> allowed) {
  return std::find(allowed.begin(), allowed.end(), value) != allowed.end();
}

void checkTrapSessionValue(std::string_view option, std::string& value) {
  const auto refuse = [&] { throw Failure("option " + std::string(option) + " has no usable value"); };
  if (value.empty() || value.size() > MaxTrapSessionWord) refuse();
  // snmpd would know the receiver's user of that name as well, whose requests its rules take for the node's own.
  if (option == "-u" && isOwnUser(value)) throw Failure("the user is one of the node's own");
  if (option == "-v" && value != "3") refuse();
  if (option == "-u" && value.size() > MaxSecurityName) refuse();
  if (option == "-l" && !isOneOf(value, {"noAuthNoPriv", "authNoPriv", "authPriv"})) refuse();
  if (option == "-a" && !isOneOf(value, {"MD5", "SHA"})) refuse();
  if (option == "-x" && !isOneOf(value, {"DES", "AES"})) refuse();
  if ((option == "-A" || option == "-X") && value.size() < MinPassPhrase) refuse();
  if (option == "-r" || option == "-t") {
    if (!toNumber<unsigned>(value)) refuse();
    // The agent drops the rest of a line whose time-out is zero.
    if (option == "-t" && toNumber<unsigned>(value) == 0U) value = "1";
  }
}

/** What a level lacks, the agent would complain of at every notification, or do without. */
void checkTrapSessionSecurity(const std::map<std::string, std::string>& given) {
  if (given.count("-T") != 0) return;  // the keys are in a certificate
  const auto level = given.find("-l");
  const bool needsPriv = level != given.end() && level->second == "authPriv";
  const bool needsAuth = needsPriv || (level != given.end() && level->second == "authNoPriv");
  if (needsAuth != (given.count("-A") != 0) || (needsPriv && given.count("-X") == 0))
    throw Failure("the security level and the pass phrases do not fit together");
}

/**
 * The directive for one trapsess line. A pass phrase or user name stands in it as a quoted word, or as it is, blanks
 * and quotes included, so that it reaches up to the next option. It goes out quoted.
 */
std::string renderTrapSession(const std::string& line) {
  if (hasControlCharacter(line)) throw Failure("the line holds a control character");
  const std::vector<Word> list = words(line);
  const auto word = [&](size_t i) { return line.substr(list[i].begin, list[i].end - list[i].begin); };
  if (list.size() < 3 || word(0) != "trapsess" || word(1) != "-Ci") throw Failure("no trapsess line of an inform");
  std::string directive = "trapsess -Ci";
  std::map<std::string, std::string> given;
  const size_t addressAt = list.size() - 1;
  size_t at = 2;
  while (at < addressAt) {
    const std::string option = word(at++);
    if (!isTrapSessionOption(option)) throw Failure("an unknown option stands at word " + std::to_string(at));
    const size_t valueAt = at;
    while (at < addressAt && !isTrapSessionOption(word(at))) ++at;
    if (at == valueAt) throw Failure("option " + option + " has no usable value");
    std::string value =
        unquoted(line.substr(list[valueAt - 1].end + 1, list[at].begin - 1 - (list[valueAt - 1].end + 1)));
    checkTrapSessionValue(option, value);
    given[option] = value;
    directive += " " + option + " " + asWord(value);
  }
  checkTrapSessionSecurity(given);
  const std::string address = word(addressAt);
  if (std::any_of(address.begin(), address.end(), [](unsigned char c) {
        return std::isalnum(c) == 0 && std::string_view(".-_:[]%").find(static_cast<char>(c)) == std::string_view::npos;
      }))
    throw Failure("the receiver's address is malformed");
  return directive + " " + address + "\n";
}

/** Renders each line of a list; a line that is refused is left out with a warning that does not show its text. */
std::string renderLines(const std::string& file, const char* what, std::string (*render)(const std::string&),
                        std::vector<std::string>& warnings) {
  std::string directives;
  size_t number = 0;
  for (const std::string& line : split(file, '\n')) {
    ++number;
    if (line.empty()) continue;
    try {
      directives += render(line);
    } catch (const Failure& failure) {
      warnings.push_back(std::string(what) + " in line " + std::to_string(number) + " is left out: " + failure.what());
    }
  }
  return directives;
}

}  // namespace

std::string ListenAddress::toString() const {
  return transport + ":" + (isIpv6() ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool hasControlCharacter(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; });
}

std::string asWord(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

std::vector<ListenAddress> parseAddresses(const std::string& value) {
  std::vector<ListenAddress> addresses;
  for (const std::string& text : split(value, ',')) addresses.push_back(parseAddress(text));
  return addresses;
}

std::string renderAddresses(const std::string& value) {
  std::string list;
  for (const ListenAddress& address : parseAddresses(value)) list += (list.empty() ? "" : ",") + address.toString();
  return list.empty() ? "" : "agentaddress " + list + "\n";
}

std::string renderSystemName(const std::string& value) {
  if (value.empty()) return {};
  if (hasControlCharacter(value)) throw Failure("snmpId holds a control character");
  if (value.size() > MaxSystemName) throw Failure("snmpId has more than 255 octets");
  return "sysName " + value + "\n";
}

std::string renderCommunities(const std::string& file, std::vector<std::string>& warnings) {
  return renderLines(file, "the community", renderCommunity, warnings);
}

std::string renderTrapSessions(const std::string& file, std::vector<std::string>& warnings) {
  return renderLines(file, "the inform receiver", renderTrapSession, warnings);
}

std::string renderNodeCredential(const std::string& fingerprint, const std::filesystem::path& tls,
                                 std::vector<std::string>& warnings) {
  if (fingerprint.empty()) return {};
  const std::string wanted = NodeTls::plainFingerprint(fingerprint);
  if (wanted.empty()) throw Failure("dtlsNodeCredential is no fingerprint in hexadecimal digits");
  try {
    const NodeTls::CertificateFolder folder(tls);
    const std::string known = NodeTls::libraryFingerprintOf(folder.identity(wanted).certificate);
    return "[snmp] localCert " + (known.empty() ? wanted : known) + "\n";
  } catch (const NodeTls::TlsFault& fault) {
    warnings.push_back(std::string("DTLS is not available: ") + fault.what());
    return {};
  }
}

std::string renderCipherString(const std::string& value) {
  if (value.empty()) return {};
  if (hasControlCharacter(value)) throw Failure("setCipherString holds a control character");
  return "[snmp] tlsAlgorithms " + asWord(value) + "\n";
}

std::string renderEngineId(const std::string& value) {
  if (value.empty()) return {};
  const std::string digits = value.substr(std::min<size_t>(2, value.size()));
  if (value.compare(0, 2, "0x") != 0 || !isHexadecimal(digits) || digits.size() % 2 != 0)
    throw Failure("engineId is not of the form 0x and an even count of hexadecimal digits");
  if (digits.size() < 2 * MinEngineIdOctets || digits.size() > 2 * MaxEngineIdOctets)
    throw Failure("engineId has not 5 to 32 octets");
  const auto isAll = [&](const char* pattern) { return digits.find_first_not_of(pattern) == std::string::npos; };
  if (isAll("0") || isAll("fF")) throw Failure("engineId must not be all zeros or all ones");
  return "exactEngineID " + value + "\n";
}

}  // namespace Tarn
