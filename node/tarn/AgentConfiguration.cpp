#include "AgentConfiguration.h"

#include <openssl/rand.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "Failure.h"
#include "Files.h"
#include "OwnAddress.h"
#include "PersistentState.h"
#include "ReceiverNames.h"
#include "Revision.h"
#include "TarnSpi.h"

namespace Tarn {

namespace {

using Warnings = std::vector<std::string>;

/** One thing that can be configured: the argument that carries it, the part file that keeps it, how it is rendered. */
struct Part {
  const char* argument;
  const char* file;
  Vela::TarnSpiVersion since;
  bool isFile; /**< the argument's value names a file that holds the value */
  std::string (*render)(const std::string& value, const NodeFolder& folder, Warnings& warnings);
};

constexpr const char* AddressesPart = "addresses";
constexpr const char* EngineIdPart = "engine_id";

const Part Parts[] = {
    {"ipAddress", AddressesPart, Vela::TarnSpi::FirstRevision, false,
     [](const std::string& value, const NodeFolder&, Warnings&) { return renderAddresses(value); }},
    {"snmpId", "system_name", Vela::TarnSpi::FirstRevision, false,
     [](const std::string& value, const NodeFolder&, Warnings&) { return renderSystemName(value); }},
    {"communities", "communities", Vela::TarnSpi::FirstRevision, true,
     [](const std::string& value, const NodeFolder&, Warnings& warnings) {
       return renderCommunities(value, warnings);
     }},
    {"trapsess", "trapsess", Vela::TarnSpi::TrapSessAndCipherRevision, true,
     [](const std::string& value, const NodeFolder&, Warnings& warnings) {
       return renderTrapSessions(value, warnings);
     }},
    {"dtlsNodeCredential", "node_credential", Vela::TarnSpi::DtlsRevision, false,
     [](const std::string& value, const NodeFolder& folder, Warnings& warnings) {
       return renderNodeCredential(value, folder.tls(), warnings);
     }},
    {"setCipherString", "cipher_string", Vela::TarnSpi::TrapSessAndCipherRevision, false,
     [](const std::string& value, const NodeFolder&, Warnings&) { return renderCipherString(value); }},
    {"engineId", EngineIdPart, Vela::TarnSpi::EngineIdRevision, false,
     [](const std::string& value, const NodeFolder&, Warnings&) { return renderEngineId(value); }},
};

using Vela::TarnSpi::TemplateUser;
using Vela::TarnSpi::TemplateUsers;

const char* wordOf(Vela::TarnSpi::AuthProtocol protocol) { return protocol == Vela::TarnSpi::Sha ? "SHA" : "MD5"; }
const char* wordOf(Vela::TarnSpi::PrivProtocol protocol) { return protocol == Vela::TarnSpi::Aes ? "AES" : "DES"; }

constexpr size_t PassPhraseOctets = 24;
constexpr size_t MinPassPhrase = 8;        // RFC 3414, 11.2
constexpr unsigned OwnEngineIdOctets = 8;  // random ones behind the prefix
// Enterprise 8072 (net-snmp), format 128: octets of the enterprise's own making (RFC 3411, SnmpEngineID).
constexpr const char* OwnEngineIdPrefix = "0x80001f8880";

// A sub-agent that answers a table from a large snapshot may need more than the default second. A line per request
// would fill the log. A response longer than a datagram of UDP can be would never be sent; without a limit of its own
// the agent knows none for versions 1 and 2c.
constexpr const char* FixedDirectives =
    "dontLogTCPWrappersConnects yes\n"
    "master agentx\n"
    "agentXPerms 0600 0700\n"
    "agentXTimeout 5\n"
    "agentXRetries 1\n"
    "[snmp] sendMessageMaxSize 65507\n";

std::string randomHex(size_t octets) {
  std::string bytes(octets, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(octets)) != 1)
    throw Failure("no random numbers are to be had");
  static constexpr char Digits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char c : bytes) {
    text += Digits[c >> 4];
    text += Digits[c & 0xf];
  }
  return text;
}

const Part& findPart(const std::string& argument) {
  const auto part =
      std::find_if(std::begin(Parts), std::end(Parts), [&](const Part& p) { return argument == p.argument; });
  if (part == std::end(Parts)) throw Failure("unknown configure option '" + argument + "'", Failure::WrongUsage);
  return *part;
}

}  // namespace

bool isOwnUser(const std::string& name) {
  return std::any_of(std::begin(TemplateUsers), std::end(TemplateUsers),
                     [&](const TemplateUser& user) { return name == user.name; });
}

std::string AgentConfiguration::partValue(const char* part) const {
  return readFile(_folder.parts() / part).value_or("");
}

std::vector<std::string> AgentConfiguration::configure(const std::vector<std::string>& arguments) const {
  Warnings warnings;
  std::map<const char*, std::string> values;
  for (const std::string& argument : arguments) {
    const size_t equals = argument.find('=');
    if (equals == std::string::npos)
      throw Failure("a configure option has the form NAME=VALUE: '" + argument + "'", Failure::WrongUsage);
    const Part& part = findPart(argument.substr(0, equals));
    require(part.argument, part.since);
    std::string value = argument.substr(equals + 1);
    if (part.isFile && !value.empty()) {
      auto content = readFile(value);
      if (!content) throw Failure("there is no file " + value);
      value = *content;
    }
    part.render(value, _folder, warnings);
    values[part.file] = value;
    // The system's name comes with the addresses, and only when it has one.
    if (part.file == AddressesPart) values.try_emplace(Parts[1].file, "");
  }
  for (const auto& [file, value] : values) writePrivateFile(_folder.parts() / file, value);
  generate();
  return warnings;
}

std::string AgentConfiguration::engineId() const {
  const std::string configured = partValue(EngineIdPart);
  return configured.empty() ? ownEngineId() : configured;
}

std::string AgentConfiguration::ownEngineId() const {
  const auto file = _folder.persistent() / PersistentState::engineIdFile;
  std::string id = readOwnFile(file, _folder.agentUser().uid).value_or("");
  if (!id.empty() && id.back() == '\n') id.pop_back();
  if (id.empty()) {
    id = OwnEngineIdPrefix + randomHex(OwnEngineIdOctets);
    writePrivateFile(file, id + "\n");
  }
  renderEngineId(id);
  return id;
}

std::string AgentConfiguration::passPhrase() const {
  const auto& file = _folder.passwordFile();
  auto content = readOwnFile(file, geteuid());
  // An empty one is what a full disk or a lost write leaves behind; it would keep the agent from ever starting again.
  if (!content || content->find_first_not_of(" \t\r\n") == std::string::npos) {
    content = randomHex(PassPhraseOctets) + "\n";
    writePrivateFile(file, *content);
  }
  std::string line = content->substr(0, content->find('\n'));
  if (line.size() < MinPassPhrase || hasControlCharacter(line))
    throw Failure("the first line of " + file.string() + " is no pass phrase of at least " +
                  std::to_string(MinPassPhrase) + " printable characters");
  return line;
}

std::string AgentConfiguration::fixedDirectives() const {
  std::string text = FixedDirectives;
  // A copy of each notification costs the agent more than sending it.
  if (!_folder.keepsNotificationLog()) text += "doNotRetainNotificationLogs yes\n";
  // Otherwise the agent asks the kernel for an address at each notification, and takes any one.
  text += "v1trapaddress " + ownIpv4Address(parseAddresses(partValue(AddressesPart))) + "\n";
  text += "agentXSocket unix:" + _folder.agentXSocket().string() + "\n";
  text += "exactEngineID " + engineId() + "\n";
  const std::string phrase = asWord(passPhrase());
  for (const TemplateUser& user : TemplateUsers)
    text.append("createUser ")
        .append(user.name)
        .append(" ")
        .append(wordOf(user.auth))
        .append(" ")
        .append(phrase)
        .append(" ")
        .append(wordOf(user.priv))
        .append(" ")
        .append(phrase)
        .append("\n");
  text += std::string("rwuser ") + Vela::TarnSpi::NodeUser + " authPriv\n";
  return text;
}

std::string AgentConfiguration::render() const {
  std::string text = "# Made by tarn at every configure and start; changes made here are lost.\n";
  // Before any trapsess line, so that the plugin sees those sessions being opened.
  if (!_folder.plugin().empty()) text += "dlmod vela_snmpd_plugin " + _folder.plugin().string() + "\n";
  text += fixedDirectives();
  // Without any address the agent would listen on its default port.
  if (partValue(AddressesPart).empty()) text += "agentaddress none\n";
  Warnings ignored;
  for (const Part& part : Parts)
    if (part.file != EngineIdPart) text += part.render(partValue(part.file), _folder, ignored);
  return text;
}

void AgentConfiguration::generate() const { writePrivateFile(_folder.agentConfiguration(), render()); }

std::vector<std::string> AgentConfiguration::generateForStart() const {
  // snmpd reads them besides its own file, and what they say may load code.
  for (const char* name : {"snmp.conf", "snmp.local.conf", "snmpd.local.conf"}) {
    const auto file = _folder.configuration() / name;
    if (std::filesystem::exists(std::filesystem::symlink_status(file)))
      throw Failure(file.string() + " is none of the node's files, and snmpd would read it: remove it");
  }
  std::vector<std::string> leftOut;
  writePrivateFile(_folder.agentConfiguration(), resolveReceivers(render(), leftOut));
  return leftOut;
}

}  // namespace Tarn
