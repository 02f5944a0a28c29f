#ifndef VELA_FM_SNMP_SNMP_CONFIG_HANDLER_H
#define VELA_FM_SNMP_SNMP_CONFIG_HANDLER_H

#include <memory>
#include <string>
#include <vector>

#include "SnmpTypes.h"

namespace Poco::XML {
class Element;
}

namespace Vela {
class VelaConfiguration;
}

namespace VelaFmSnmp {

class SnmpTarnWrapper;

/**
 * The component's static settings, read once from its configuration file before the adaptor thread starts, and the
 * wrapper of the tool that manages the master agent. The getters may be called from any thread afterwards.
 */
class SnmpConfigHandler {
 public:
  SnmpConfigHandler();
  virtual ~SnmpConfigHandler();
  SnmpConfigHandler(const SnmpConfigHandler&) = delete;
  SnmpConfigHandler& operator=(const SnmpConfigHandler&) = delete;

  /** Reads the file; what it does not say is at its default. 0, or -1 after a log line (unreadable, not exactly one
      "VelaFmSnmp", a value of a wrong type): the settings are as they were then. */
  int load(const std::string& fileName);
  /** Releases the file's document; the settings stay. */
  void unload();

  /** Milliseconds; what they do not hold is as long as they can say. */
  unsigned long long getPollInterval() const;
  bool isInternalTrapListenerEnabled() const { return _settings.useInternalTrapListener; }
  bool isInformTimeoutWorkaroundEnabled() const { return _settings.informTimeoutWorkaround; }
  bool isIpv6PortWorkaroudEnabled() const { return _settings.ipv6PortWorkaroud; }
  int getAgentxPingInterval() const { return _settings.agentxPingInterval; } /**< seconds; 0: unset */
  int getAgentxTimeout() const { return _settings.agentxTimeout; }           /**< seconds; 0: unset */
  int getAgentxRetries() const { return _settings.agentxRetries; }           /**< 0: unset */
  /** "IPv4" or "IPv6" in the case that the file has; empty: no preference (or a faulty value). */
  const std::string& getIpVersion() const { return _settings.ipVersion; }
  const std::string& getSnmpMasterAgentPwdFile() const { return _settings.masterAgentPwdFile; }
  void setSnmpMasterAgentPwdFile(const std::string& path) { _settings.masterAgentPwdFile = path; }
  const std::string& getSnmpMasterAgentAgentxSocket() const { return _settings.masterAgentAgentxSocket; }
  void setSnmpMasterAgentAgentxSocket(const std::string& path) { _settings.masterAgentAgentxSocket = path; }

  /** Completes a configuration from the model with the static TLS settings, when the file has both of them. */
  void getStaticTlsConfig(SnmpConfig& config) const;
  /** Loop-back address by which the component itself reaches the master agent: "127.0.0.1" or "::1". */
  std::string getInternalHost(const SnmpConfig& config) const;
  /** Whether a text is a fingerprint of 20 octets in hexadecimal. */
  bool validateFingerprint(const std::string& fingerprint) const;

  SnmpTarnWrapper& getTarnWrapper() { return *_tarnWrapper; }

 private:
  struct Settings {
    int fallbackPort = 45769;
    unsigned long long pollIntervalSeconds = 15;
    bool useInternalTrapListener = true;
    bool informTimeoutWorkaround = false;
    bool ipv6PortWorkaroud = true;
    int agentxPingInterval = 0;
    int agentxTimeout = 0;
    int agentxRetries = 0;
    std::string ipVersion;
    std::string masterAgentPwdFile = "/home/vela/etc/snmp/snmp_pwd_file";
    std::string masterAgentAgentxSocket = "/tmp/agentx-socket";
    std::string nodeCredential;
    std::vector<std::string> trustCategories;
  };

  Settings loadSettings(const Poco::XML::Element& root) const;
  static void loadPath(const Poco::XML::Element& root, const char* key, std::string& path);
  static void loadIpVersion(const Poco::XML::Element& root, std::string& ipVersion);
  void loadTlsContainer(const Poco::XML::Element& root, Settings& settings) const;
  std::vector<std::string> loadFingerprints(const Poco::XML::Element& tls, const char* container) const;

  std::unique_ptr<Vela::VelaConfiguration> _document;
  Settings _settings;
  std::unique_ptr<SnmpTarnWrapper> _tarnWrapper;
};

}  // namespace VelaFmSnmp
#endif
