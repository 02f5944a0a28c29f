#ifndef VELA_FM_SNMP_SNMP_CONFIG_HANDLER_H
#define VELA_FM_SNMP_SNMP_CONFIG_HANDLER_H

#include <memory>
#include <string>
#include <vector>

#include "SnmpTypes.h"

namespace Poco::XML {
class Element;
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

  /** Reads the file. 0, or -1 after a log line: unreadable, not exactly one "VelaFmSnmp", a value of a wrong type. */
  int load(const std::string& fileName);

  unsigned long long getPollInterval() const { return _pollIntervalSeconds * 1000; } /**< milliseconds */
  bool isInternalTrapListenerEnabled() const { return _useInternalTrapListener; }
  bool isInformTimeoutWorkaroundEnabled() const { return _informTimeoutWorkaround; }
  bool isIpv6PortWorkaroudEnabled() const { return _ipv6PortWorkaroud; }
  int getAgentxPingInterval() const { return _agentxPingInterval; } /**< seconds; 0: unset */
  int getAgentxTimeout() const { return _agentxTimeout; }           /**< seconds; 0: unset */
  int getAgentxRetries() const { return _agentxRetries; }           /**< 0: unset */
  /** "IPv4" or "IPv6" in the case that the file has; empty: no preference (or a faulty value). */
  const std::string& getIpVersion() const { return _ipVersion; }
  const std::string& getSnmpMasterAgentPwdFile() const { return _masterAgentPwdFile; }
  void setSnmpMasterAgentPwdFile(const std::string& path) { _masterAgentPwdFile = path; }
  const std::string& getSnmpMasterAgentAgentxSocket() const { return _masterAgentAgentxSocket; }
  void setSnmpMasterAgentAgentxSocket(const std::string& path) { _masterAgentAgentxSocket = path; }

  /** Completes a configuration from the model with the static TLS settings, when the file has both of them. */
  void getStaticTlsConfig(SnmpConfig& config) const;
  /** Loop-back address by which the component itself reaches the master agent: "127.0.0.1" or "::1". */
  std::string getInternalHost(const SnmpConfig& config) const;
  /** Whether a text is a fingerprint of 20 octets in hexadecimal. */
  bool validateFingerprint(const std::string& fingerprint) const;

  SnmpTarnWrapper& getTarnWrapper() { return *_tarnWrapper; }

 private:
  void loadSettings(const Poco::XML::Element& root);
  void loadPath(const Poco::XML::Element& root, const char* key, std::string& path) const;
  void loadIpVersion(const Poco::XML::Element& root);
  void loadTlsContainer(const Poco::XML::Element& root);
  std::vector<std::string> loadFingerprints(const Poco::XML::Element& tls, const char* container) const;

  int _fallbackPort = 45769;
  unsigned long long _pollIntervalSeconds = 15;
  bool _useInternalTrapListener = true;
  bool _informTimeoutWorkaround = false;
  bool _ipv6PortWorkaroud = true;
  int _agentxPingInterval = 0;
  int _agentxTimeout = 0;
  int _agentxRetries = 0;
  std::string _ipVersion;
  std::string _masterAgentPwdFile = "/home/vela/etc/snmp/snmp_pwd_file";
  std::string _masterAgentAgentxSocket = "/tmp/agentx-socket";
  std::string _nodeCredential;
  std::vector<std::string> _trustCategories;
  std::unique_ptr<SnmpTarnWrapper> _tarnWrapper;
};

}  // namespace VelaFmSnmp
#endif
