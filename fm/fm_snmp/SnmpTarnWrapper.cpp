#include "SnmpTarnWrapper.h"

#include <LoggingWrapper.h>
#include <TarnSpi.h>
#include <VelaException.h>

#include <Poco/Net/IPAddress.h>
#include <Poco/String.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

#include "AgentAddresses.h"
#include "ConfigurationFault.h"
#include "SecretFile.h"
#include "SnmpTypes.h"
#include "SnmpUtil.h"
#include "TlsConfigurator.h"

namespace VelaFmSnmp {

namespace {

constexpr int statusTimeoutMs = 2000;
constexpr int infoTimeoutMs = 5000;
constexpr int queryTimeoutMs = 20000;
constexpr std::size_t maxToldOctets = 500;

/** Octets of an engine id (RFC 3411, SnmpEngineID), in hexadecimal digits. */
constexpr std::size_t minEngineIdDigits = std::size_t{2} * 5;
constexpr std::size_t maxEngineIdDigits = std::size_t{2} * 32;

const char* manageWord(TarnManageOption option) {
  switch (option) {
    case TarnManageStart:
      return "start";
    case TarnManageStop:
      return "stop";
    case TarnManageRestart:
      return "restart";
    case TarnManageConfigure:
      return "configure";
    case TarnManageStatus:
      return "status";
  }
  throw Vela::VelaException("Failed to manage snmpd, unknown option %d", static_cast<int>(option));
}

/** Whether a text may stand in a line-based file between tabulators. */
bool isPlainField(const std::string& text) {
  return !text.empty() && std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

/** Appends the addresses in the agent's notation; one that is no literal address is logged and left out. */
void appendAddresses(const SnmpConfig::AddressList& addresses, const char* ipv4Domain, const char* ipv6Domain,
                     const char* failure, std::vector<std::string>& result) {
  SnmpConfig::AddressList faulty;
  for (const AgentAddress& address : usableAddresses(addresses, &faulty)) {
    const bool isIpv6 = address.host.family() == Poco::Net::IPAddress::IPv6;
    const std::string text = isIpv6 ? "[" + address.host.toString() + "]" : address.host.toString();
    result.push_back((isIpv6 ? ipv6Domain : ipv4Domain) + (":" + text) + ":" + std::to_string(address.port));
  }
  for (const auto& [host, port] : faulty) VELA_LOG(Vela::LogError, "%s%s' (port %u)", failure, host.c_str(), port);
}

std::string agentAddresses(const SnmpConfig& config) {
  std::vector<std::string> addresses;
  appendAddresses(config.agentAddress, "udp", "udp6", "Error while parsing address '", addresses);
  if (config.tlsOptions.isEnabled())
    appendAddresses(config.tlsOptions.agentAddressDtls, "dtlsudp", "dtlsudp6", "Error while parsing tls address '",
                    addresses);
  // Without any address the master agent would listen everywhere on the standard port.
  if (addresses.empty() && !config.agentAddress.empty())
    throw Vela::VelaException("None of the agent addresses can be used");
  return Poco::cat(std::string(","), addresses.begin(), addresses.end());
}

std::string communityLines(const SnmpConfig& config) {
  std::string lines;
  const auto add = [&](const std::string& community, const std::string& source) {
    if (isPlainField(community) && isPlainField(source)) {
      lines.append(community).append("\t").append(source).append("\n");
    } else {
      VELA_LOG(Vela::LogError, "A community or its source cannot be configured, it is empty or not printable");
    }
  };
  if (config.enableSourceCheckForV1V2C) {
    for (const auto& [community, source] : config.getV1V2communitiesAndAddrWithPrefixLength()) add(community, source);
  } else {
    const std::vector<std::string> communities = config.getV1AndV2communities();
    for (const std::string& community : std::set<std::string>(communities.begin(), communities.end()))
      add(community, "default");
  }
  return lines;
}

std::string trapsessLines(const SnmpConfig& config) {
  std::string lines;
  const auto add = [&](const std::vector<std::string>& directives) {
    for (const std::string& directive : directives) {
      if (isPlainField(directive)) {
        lines.append(directive).append("\n");
      } else {
        VELA_LOG(Vela::LogError, "An inform target cannot be configured, an attribute of it is not printable");
      }
    }
  };
  add(config.getInformTrapsessConfig());
  add(config.getInformDtlsTrapsessConfig());
  return lines;
}

/** An engine id that the agent would refuse counts as none, so that a typing error does not take SNMP down. */
std::string engineIdArgument(const std::string& engineId) {
  if (engineId.empty()) return "engineId=";
  const bool hasPrefix = engineId.compare(0, 2, "0x") == 0 || engineId.compare(0, 2, "0X") == 0;
  const std::string digits = hasPrefix ? engineId.substr(2) : engineId;
  const bool isHex = std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
  // All zeros and all ones identify nobody (RFC 3411, SnmpEngineID).
  const bool isNobody =
      digits.find_first_not_of('0') == std::string::npos || digits.find_first_not_of("fF") == std::string::npos;
  if (isHex && !isNobody && digits.size() % 2 == 0 && digits.size() >= minEngineIdDigits &&
      digits.size() <= maxEngineIdDigits)
    return "engineId=0x" + digits;
  VELA_LOG(Vela::LogError, "The engineId '%s' is no engine id of 5 to 32 octets in hexadecimal, not using it",
           engineId.c_str());
  return "engineId=";
}

/** As engineIdArgument: without a usable credential there is no DTLS, but everything else. */
std::string nodeCredentialArgument(const std::string& fingerprint) {
  const std::string argument = "dtlsNodeCredential=";
  if (fingerprint.empty()) return argument;
  try {
    return argument + SnmpUtil::toHex(TlsConfigurator::encodeFingerPrint(fingerprint.c_str()).substr(1));
  } catch (const ConfigurationFault&) {
    VELA_LOG(Vela::LogError, "The nodeCredential '%s' is no fingerprint, not using it", fingerprint.c_str());
    return argument;
  }
}

/** What the tool wrote, in the length of a log line; one that is broken may write any amount. */
std::string told(const std::string& output) { return Poco::trim(output.substr(0, maxToldOctets)); }

/** The hosts that the tool names as left out in its answer to a start. */
std::set<std::string> receiversLeftOut(const std::string& answer) {
  std::set<std::string> hosts;
  std::istringstream lines(answer);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string word;
    std::string host;
    if (words >> word >> host && word == Vela::TarnSpi::ReceiverLeftOut) hosts.insert(host);
  }
  return hosts;
}

}  // namespace

const Vela::TarnSpiVersion SnmpTarnWrapper::_minimumVersionSupportingDtls = Vela::TarnSpi::DtlsRevision;
const Vela::TarnSpiVersion SnmpTarnWrapper::_minimumVersionSupportingTrapSessAndCipherFilter =
    Vela::TarnSpi::TrapSessAndCipherRevision;
const Vela::TarnSpiVersion SnmpTarnWrapper::_minimumVersionSupportingIpv6PortReverseByteOrder =
    Vela::TarnSpi::Ipv6PortOrderRevision;
const Vela::TarnSpiVersion SnmpTarnWrapper::_minimumVersionSupportingEngineId = Vela::TarnSpi::EngineIdRevision;

SnmpTarnWrapper::SnmpTarnWrapper(const std::string& tool) : _tool(tool) {}

void SnmpTarnWrapper::setCancellation(const Vela::ScriptCancellation* cancellation) {
  _tool.setCancellation(cancellation);
}

std::string SnmpTarnWrapper::runTool(const std::vector<std::string>& arguments, int timeoutMs, const char* what) const {
  std::string output;
  const int status = _tool.run(arguments, timeoutMs, output);
  if (status != 0) {
    throw Vela::VelaException(status, "%s failed with exit status %d: %s", what, status, told(output).c_str());
  }
  return Poco::trim(output);
}

std::string SnmpTarnWrapper::runChange(const std::vector<std::string>& arguments, int timeoutMs,
                                       const char* what) const {
  std::string answer = runTool(arguments, timeoutMs, what);
  if (!answer.empty()) VELA_LOG(Vela::LogInfo, "%s: %s", what, told(answer).c_str());
  return answer;
}

void SnmpTarnWrapper::manage(TarnManageOption option, int timeoutMs) const {
  const char* word = manageWord(option);
  const std::string answer = runChange({"snmp", word}, timeoutMs, (_tool.getCommand() + " snmp " + word).c_str());
  if (option == TarnManageStart || option == TarnManageRestart) _receiversLeftOut = receiversLeftOut(answer);
  VELA_TRACE(" << Succeeded to %s snmpd", word);
}

bool SnmpTarnWrapper::isRunning() const {
  try {
    std::string output;
    _tool.run({"snmp", "status"}, statusTimeoutMs, output);
    return output.find("running on pid") != std::string::npos;
  } catch (const Vela::VelaException& ex) {
    VELA_LOG(Vela::LogError, "Failed to get the status of snmpd: %s", ex.what());
    return false;
  }
}

std::string SnmpTarnWrapper::getTarnNoBackupDir() const {
  std::string directory = runTool({"pso", "no-backup"}, infoTimeoutMs, "query of the no-backup directory");
  if (!isPlainField(directory) || directory.front() != '/') throw Vela::VelaException("No no-backup directory is told");
  return directory;
}

Vela::TarnSpiVersion SnmpTarnWrapper::getTarnSpiRevision() const {
  if (_revision) return *_revision;
  std::string output;
  const int status = _tool.run({"spi-revision"}, infoTimeoutMs, output);
  const std::string text = told(output);
  VELA_LOG(Vela::LogInfo, "tarn spi-revision returned: '%s'", text.c_str());
  if (status != 0 || text.empty()) throw Vela::VelaException("tarn spi version not found");
  _revision = Vela::TarnSpiVersion::fromString(text);
  return *_revision;
}

bool SnmpTarnWrapper::isTooOld(const Vela::TarnSpiVersion& minimum, const char* message) const {
  if (!(getTarnSpiRevision() < minimum)) return false;
  VELA_LOG(Vela::LogInfo, "%s", message);
  return true;
}

bool SnmpTarnWrapper::query(const char* word, const char* failure) const {
  try {
    return runTool({"snmp", word}, queryTimeoutMs, word).find("yes") != std::string::npos;
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "exception while checking %s support: %s", failure, Vela::textOf(ex).c_str());
    return false;
  }
}

bool SnmpTarnWrapper::isDtlsSupported() const {
  return !isTooOld(_minimumVersionSupportingDtls, "tarn spi-revision to old to support isDtlsSupported") &&
         query("isDtlsSupported", "dtls");
}

bool SnmpTarnWrapper::isExactEngineIdSupported() const {
  return !isTooOld(_minimumVersionSupportingEngineId, "tarn spi-revision to old to support isExactEngineIdSupported") &&
         query("isExactEngineIdSupported", "engineId");
}

bool SnmpTarnWrapper::isIpv6PortReverseByteOrder(bool& reverse) const {
  reverse = false;
  if (isTooOld(_minimumVersionSupportingIpv6PortReverseByteOrder,
               "tarn spi-revision too old to support isIpv6PortReverseByteOrder"))
    return false;
  reverse = query("ipv6PortReverseByteOrder", "ipv6PortReverseByteOrder");
  return true;
}

void SnmpTarnWrapper::runConfigure(const std::vector<std::string>& arguments, int timeoutMs) const {
  std::vector<std::string> all{"snmp", "configure"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  runChange(all, timeoutMs, (_tool.getCommand() + " snmp configure").c_str());
  VELA_TRACE(" << Succeeded to %s snmpd %s", "configure", arguments.front().c_str());
}

void SnmpTarnWrapper::configureWithFile(const char* key, const std::string& content, int timeoutMs) const {
  const SecretFile file(content);
  runConfigure({key + ("=" + file.getPath())}, timeoutMs);
}

void SnmpTarnWrapper::configure(TarnConfigureOption option, const SnmpConfig& config, int timeoutMs) {
  VELA_TRACE(" >> TarnConfigureOption: %d", static_cast<int>(option));
  try {
    switch (option) {
      case TarnConfigureAgentAddress: {
        std::vector<std::string> arguments{"ipAddress=" + agentAddresses(config)};
        if (!config.snmpId.empty()) arguments.push_back("snmpId=" + config.snmpId);
        return runConfigure(arguments, timeoutMs);
      }
      case TarnConfigureCommunities:
        return configureWithFile("communities", communityLines(config), timeoutMs);
      case TarnConfigureTrapSess:
        if (isTooOld(_minimumVersionSupportingTrapSessAndCipherFilter,
                     "tarn spi-revision too old to support trapsess. Inform with authentication-enabled may not work. "
                     "Refer VELA TR HT67423."))
          return;
        return configureWithFile("trapsess", trapsessLines(config), timeoutMs);
      case TarnConfigureDtlsNodeCredential:
        if (isTooOld(_minimumVersionSupportingDtls, "tarn spi-revision to old to support dtlsNodeCredential")) return;
        return runConfigure({nodeCredentialArgument(config.tlsOptions.nodeCredential)}, timeoutMs);
      case TarnConfigureCipherString:
        if (isTooOld(_minimumVersionSupportingTrapSessAndCipherFilter,
                     "tarn spi-revision too old to support setCipherString."))
          return;
        return runConfigure({"setCipherString=" + config.tlsOptions.cipherFilter}, timeoutMs);
      case TarnConfigureEngineId:
        if (isTooOld(_minimumVersionSupportingEngineId,
                     "tarn spi-revision too old to support configuration of engineId."))
          return;
        return runConfigure({engineIdArgument(config.engineId)}, timeoutMs);
    }
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "exception while configuring: %s", Vela::textOf(ex).c_str());
    throw;
  }
  throw Vela::VelaException("Failed to configure snmpd, unknown option %d", static_cast<int>(option));
}

}  // namespace VelaFmSnmp
