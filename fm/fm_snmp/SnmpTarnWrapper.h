#ifndef VELA_FM_SNMP_TARN_WRAPPER_H
#define VELA_FM_SNMP_TARN_WRAPPER_H

#include <ScriptWrapper.h>
#include <TarnSpiVersion.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace VelaFmSnmp {

class SnmpConfig;

/** What the management tool is asked to do with the master agent; 3 is no option. */
enum TarnManageOption {
  TarnManageStart = 0,
  TarnManageStop = 1,
  TarnManageRestart = 2,
  TarnManageConfigure = 4,
  TarnManageStatus = 5
};

/** The parts of the master agent's configuration that the tool writes, each replaced as a whole. */
enum TarnConfigureOption {
  TarnConfigureAgentAddress = 0,
  TarnConfigureCommunities = 1,
  TarnConfigureTrapSess = 2,
  TarnConfigureDtlsNodeCredential = 3,
  TarnConfigureCipherString = 4,
  TarnConfigureEngineId = 5
};

/**
 * The way to the master agent's process: starts, stops, queries and configures snmpd by the node's management tool.
 * Calls block until the tool has ended; time-outs are in milliseconds. The adaptor thread only. What the tool prints
 * goes into exceptions and logs, secrets only into files of mode 600 that live as long as the call.
 */
class SnmpTarnWrapper {
 public:
  /** @param tool  name of the management tool, found through PATH */
  explicit SnmpTarnWrapper(const std::string& tool);

  /** Lets another thread end a running tool; not owned, null: none. */
  void setCancellation(const Vela::ScriptCancellation* cancellation);

  /** Throws Vela::VelaException when the tool fails or exceeds the time-out, and for an unknown option. */
  void manage(TarnManageOption option, int timeoutMs) const;
  /** Hands one part of the configuration to the tool. A part that the tool is too old for is skipped with a log line.
   *  Throws as manage. */
  void configure(TarnConfigureOption option, const SnmpConfig& config, int timeoutMs);

  /** Whether the tool left an inform receiver out at the last start, since its name had no address then. */
  bool isReceiverLeftOut(const std::string& host) const { return _receiversLeftOut.count(host) != 0; }
  /** Whether the master agent runs; false too when the tool cannot tell. */
  bool isRunning() const;
  /** The tool's directory for data that is not backed up. Throws Vela::VelaException. */
  std::string getTarnNoBackupDir() const;
  /** The tool's interface revision, asked for once. Throws Vela::VelaException when it cannot be read. */
  Vela::TarnSpiVersion getTarnSpiRevision() const;

  /** Feature checks: false when the tool is too old or the query fails; an unreadable revision throws. */
  bool isDtlsSupported() const;
  bool isExactEngineIdSupported() const;
  /**
   * Asks in which order the master agent reads the port octets of an IPv6 target.
   * @param reverse  set to whether the order is reversed; false when the query fails or the tool is too old
   * @return whether the tool's revision offers the query; an unreadable revision throws Vela::VelaException
   */
  bool isIpv6PortReverseByteOrder(bool& reverse) const;

 private:
  static const Vela::TarnSpiVersion _minimumVersionSupportingDtls;
  static const Vela::TarnSpiVersion _minimumVersionSupportingTrapSessAndCipherFilter;
  static const Vela::TarnSpiVersion _minimumVersionSupportingIpv6PortReverseByteOrder;
  static const Vela::TarnSpiVersion _minimumVersionSupportingEngineId;

  bool isTooOld(const Vela::TarnSpiVersion& minimum, const char* message) const;
  std::string runTool(const std::vector<std::string>& arguments, int timeoutMs, const char* what) const;
  /** As runTool, for a command that need not answer; logs what it does answer. */
  std::string runChange(const std::vector<std::string>& arguments, int timeoutMs, const char* what) const;
  bool query(const char* word, const char* failure) const;
  void runConfigure(const std::vector<std::string>& arguments, int timeoutMs) const;
  void configureWithFile(const char* key, const std::string& content, int timeoutMs) const;

  Vela::ScriptWrapper _tool;
  mutable std::optional<Vela::TarnSpiVersion> _revision;
  mutable std::set<std::string> _receiversLeftOut;
};

}  // namespace VelaFmSnmp
#endif
