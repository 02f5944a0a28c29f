#include "SnmpConfigHandler.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/String.h>

#include <exception>

#include "AddressResolver.h"
#include "HexMask.h"
#include "LoggingWrapper.h"
#include "SnmpTarnWrapper.h"
#include "VelaConfiguration.h"

namespace VelaFmSnmp {

namespace {

const char* const RootElement = "VelaFmSnmp";
const char* const TlsElement = "tls";
const char* const NodeCredentialElement = "nodeCredential";
const char* const TrustCategoryElement = "trustCategory";
const char* const FingerprintElement = "fingerprint";
const char* const TarnTool = "tarn";

constexpr int FingerprintSize = 20;
constexpr int MaxFingerprintSize = 64;

}  // namespace

SnmpConfigHandler::SnmpConfigHandler() : _tarnWrapper(std::make_unique<SnmpTarnWrapper>(TarnTool)) {}

SnmpConfigHandler::~SnmpConfigHandler() = default;

int SnmpConfigHandler::load(const std::string& fileName) {
  try {
    Vela::VelaConfiguration configuration;
    configuration.load(fileName);
    const std::vector<Poco::XML::Element*> roots = configuration.findElements(RootElement);
    if (roots.size() != 1) {
      VELA_LOG(Vela::LogError, "%s",
               roots.empty() ? "No VelaFmSnmp configuration found" : "More VelaFmSnmp configuration found");
      return -1;
    }
    loadSettings(*roots.front());
    return 0;
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Caught exception: %s", ex.what());
    return -1;
  }
}

void SnmpConfigHandler::loadSettings(const Poco::XML::Element& root) {
  using Vela::VelaConfiguration;
  VelaConfiguration::getInt(root, "snmpFallbackPort", _fallbackPort);
  VelaConfiguration::getUInt64(root, "snmpPollInterval", _pollIntervalSeconds);
  VelaConfiguration::getBool(root, "useInternalTrapListener", _useInternalTrapListener);
  VelaConfiguration::getBool(root, "informTimeout", _informTimeoutWorkaround);
  VelaConfiguration::getBool(root, "ipv6PortWorkaroudEnabled", _ipv6PortWorkaroud);
  VelaConfiguration::getInt(root, "agentxPingInterval", _agentxPingInterval);
  VelaConfiguration::getInt(root, "agentxTimeout", _agentxTimeout);
  VelaConfiguration::getInt(root, "agentxRetries", _agentxRetries);
  loadIpVersion(root);
  loadPath(root, "snmpMasterAgentPwdFile", _masterAgentPwdFile);
  loadPath(root, "snmpMasterAgentAgentxSocket", _masterAgentAgentxSocket);
  loadTlsContainer(root);
}

void SnmpConfigHandler::loadPath(const Poco::XML::Element& root, const char* key, std::string& path) const {
  if (Vela::VelaConfiguration::getText(root, key, path)) {
    VELA_LOG(Vela::LogInfo, "VelaFmSnmp/%s tag found: %s.", key, path.c_str());
  } else {
    VELA_LOG(Vela::LogInfo, "%s not found in configuration, using default '%s'.", key, path.c_str());
  }
}

void SnmpConfigHandler::loadIpVersion(const Poco::XML::Element& root) {
  if (!Vela::VelaConfiguration::getText(root, "ipVersion", _ipVersion)) {
    VELA_LOG(Vela::LogInfo, "ipVersion is not found in the configuration.");
    return;
  }
  VELA_LOG(Vela::LogInfo, "VelaFmSnmp/ipVersion tag found: %s", _ipVersion.c_str());
  if (_ipVersion.empty() || Poco::icompare(_ipVersion, "IPv4") == 0 || Poco::icompare(_ipVersion, "IPv6") == 0) return;
  VELA_LOG(Vela::LogError, "Faulty Configuration has been set for the ipVersion tag: '%s'.", _ipVersion.c_str());
  _ipVersion.clear();
}

void SnmpConfigHandler::loadTlsContainer(const Poco::XML::Element& root) {
  for (const Poco::XML::Element* tls : Vela::VelaConfiguration::children(root, TlsElement)) {
    const std::vector<std::string> credentials = loadFingerprints(*tls, NodeCredentialElement);
    if (credentials.size() > 1) {
      VELA_LOG(Vela::LogWarning, "More than one nodeCredential fingerprint in configuration file, using the first");
    }
    if (!credentials.empty()) _nodeCredential = credentials.front();
    const std::vector<std::string> trusted = loadFingerprints(*tls, TrustCategoryElement);
    _trustCategories.insert(_trustCategories.end(), trusted.begin(), trusted.end());
  }
}

std::vector<std::string> SnmpConfigHandler::loadFingerprints(const Poco::XML::Element& tls,
                                                             const char* container) const {
  std::vector<std::string> fingerprints;
  for (const Poco::XML::Element* element : Vela::VelaConfiguration::children(tls, container)) {
    for (const Poco::XML::Element* child : Vela::VelaConfiguration::children(*element, FingerprintElement)) {
      std::string fingerprint = Vela::VelaConfiguration::text(*child);
      if (validateFingerprint(fingerprint)) {
        fingerprints.push_back(std::move(fingerprint));
      } else {
        VELA_LOG(Vela::LogError, "invalid fingerprint in configuration file: %s", fingerprint.c_str());
      }
    }
  }
  return fingerprints;
}

bool SnmpConfigHandler::validateFingerprint(const std::string& fingerprint) const {
  unsigned char octets[MaxFingerprintSize];
  int size = 0;
  if (!fingerprint.empty() && convertHexMask(octets, &size, MaxFingerprintSize, fingerprint.c_str()) &&
      size == FingerprintSize) {
    return true;
  }
  VELA_LOG(Vela::LogWarning, "faulty fingerprint in configuration: '%s'", fingerprint.c_str());
  return false;
}

std::string SnmpConfigHandler::getInternalHost(const SnmpConfig& config) const {
  const SnmpConfig::AddressList& addresses = config.tlsOptions.agentAddressDtls;
  Poco::Net::IPAddress parsed;
  const bool isIpv6 = !addresses.empty() && AddressResolver::parse(parsed, addresses.front().first) &&
                      parsed.family() == Poco::Net::IPAddress::IPv6;
  return isIpv6 ? "::1" : "127.0.0.1";
}

void SnmpConfigHandler::getStaticTlsConfig(SnmpConfig& config) const {
  if (_nodeCredential.empty() || _trustCategories.empty()) return;
  config.tlsOptions.nodeCredential = _nodeCredential;
  config.tlsOptions.trustCategories = _trustCategories;
  if (config.tlsOptions.agentAddressDtls.empty() || !config.agentAddress.empty()) return;
  const std::string host = getInternalHost(config);
  VELA_LOG(Vela::LogInfo, "Using %s:%d for master agent internal configuration access", host.c_str(), _fallbackPort);
  config.agentAddress.emplace_back(host, static_cast<std::uint32_t>(_fallbackPort));
}

}  // namespace VelaFmSnmp
