#include "SnmpConfigHandler.h"

#include <Poco/Net/IPAddress.h>
#include <Poco/String.h>

#include <algorithm>
#include <exception>
#include <limits>

#include "AddressResolver.h"
#include "HexMask.h"
#include "LoggingWrapper.h"
#include "SnmpTarnWrapper.h"
#include "VelaConfiguration.h"
#include "VelaException.h"

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
    _document = std::make_unique<Vela::VelaConfiguration>();
    _document->load(fileName);
    const std::vector<Poco::XML::Element*> roots = _document->findElements(RootElement);
    if (roots.size() != 1) {
      VELA_LOG(Vela::LogError, "%s",
               roots.empty() ? "No VelaFmSnmp configuration found" : "More VelaFmSnmp configuration found");
      return -1;
    }
    _settings = loadSettings(*roots.front());
    return 0;
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Caught exception: %s", Vela::textOf(ex).c_str());
    return -1;
  }
}

unsigned long long SnmpConfigHandler::getPollInterval() const {
  constexpr unsigned long long MillisecondsPerSecond = 1000;
  constexpr unsigned long long Longest = std::numeric_limits<unsigned long long>::max() / MillisecondsPerSecond;
  return std::min(_settings.pollIntervalSeconds, Longest) * MillisecondsPerSecond;
}

void SnmpConfigHandler::unload() { _document.reset(); }

SnmpConfigHandler::Settings SnmpConfigHandler::loadSettings(const Poco::XML::Element& root) const {
  using Vela::VelaConfiguration;
  Settings settings;
  VelaConfiguration::getInt(root, "snmpFallbackPort", settings.fallbackPort);
  VelaConfiguration::getUInt64(root, "snmpPollInterval", settings.pollIntervalSeconds);
  VelaConfiguration::getBool(root, "useInternalTrapListener", settings.useInternalTrapListener);
  VelaConfiguration::getBool(root, "informTimeout", settings.informTimeoutWorkaround);
  VelaConfiguration::getBool(root, "ipv6PortWorkaroudEnabled", settings.ipv6PortWorkaroud);
  VelaConfiguration::getInt(root, "agentxPingInterval", settings.agentxPingInterval);
  VelaConfiguration::getInt(root, "agentxTimeout", settings.agentxTimeout);
  VelaConfiguration::getInt(root, "agentxRetries", settings.agentxRetries);
  loadIpVersion(root, settings.ipVersion);
  loadPath(root, "snmpMasterAgentPwdFile", settings.masterAgentPwdFile);
  loadPath(root, "snmpMasterAgentAgentxSocket", settings.masterAgentAgentxSocket);
  loadTlsContainer(root, settings);
  return settings;
}

void SnmpConfigHandler::loadPath(const Poco::XML::Element& root, const char* key, std::string& path) {
  if (Vela::VelaConfiguration::getText(root, key, path)) {
    VELA_LOG(Vela::LogInfo, "VelaFmSnmp/%s tag found: %s.", key, path.c_str());
  } else {
    VELA_LOG(Vela::LogInfo, "%s not found in configuration, using default '%s'.", key, path.c_str());
  }
}

void SnmpConfigHandler::loadIpVersion(const Poco::XML::Element& root, std::string& ipVersion) {
  if (!Vela::VelaConfiguration::getText(root, "ipVersion", ipVersion)) {
    VELA_LOG(Vela::LogInfo, "ipVersion is not found in the configuration.");
    return;
  }
  VELA_LOG(Vela::LogInfo, "VelaFmSnmp/ipVersion tag found: %s", ipVersion.c_str());
  if (ipVersion.empty() || Poco::icompare(ipVersion, "IPv4") == 0 || Poco::icompare(ipVersion, "IPv6") == 0) return;
  VELA_LOG(Vela::LogError, "Faulty Configuration has been set for the ipVersion tag: '%s'.", ipVersion.c_str());
  ipVersion.clear();
}

void SnmpConfigHandler::loadTlsContainer(const Poco::XML::Element& root, Settings& settings) const {
  for (const Poco::XML::Element* tls : Vela::VelaConfiguration::children(root, TlsElement)) {
    const std::vector<std::string> credentials = loadFingerprints(*tls, NodeCredentialElement);
    if (credentials.size() > 1) {
      VELA_LOG(Vela::LogWarning, "More than one nodeCredential fingerprint in configuration file, using the first");
    }
    if (!credentials.empty()) settings.nodeCredential = credentials.front();
    const std::vector<std::string> trusted = loadFingerprints(*tls, TrustCategoryElement);
    settings.trustCategories.insert(settings.trustCategories.end(), trusted.begin(), trusted.end());
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
  if (_settings.nodeCredential.empty() || _settings.trustCategories.empty()) return;
  config.tlsOptions.nodeCredential = _settings.nodeCredential;
  config.tlsOptions.trustCategories = _settings.trustCategories;
  if (config.tlsOptions.agentAddressDtls.empty() || !config.agentAddress.empty()) return;
  const std::string host = getInternalHost(config);
  VELA_LOG(Vela::LogInfo, "Using %s:%d for master agent internal configuration access", host.c_str(),
           _settings.fallbackPort);
  config.agentAddress.emplace_back(host, static_cast<std::uint32_t>(_settings.fallbackPort));
}

}  // namespace VelaFmSnmp
