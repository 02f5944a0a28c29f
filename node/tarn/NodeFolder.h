#ifndef TARN_NODE_FOLDER_H
#define TARN_NODE_FOLDER_H

#include <filesystem>
#include <string>

namespace Tarn {

/** Where one node keeps what belongs to its master agent. All paths are absolute. */
class NodeFolder {
 public:
  /** Reads VELA_NODE_DIR and the variables that refine it. Throws Failure when a value is missing or unusable. */
  static NodeFolder fromEnvironment();

  std::filesystem::path noBackup() const { return _root / "no-backup"; }
  std::filesystem::path configuration() const { return noBackup() / "etc" / "snmp"; }
  std::filesystem::path parts() const { return configuration() / "parts"; }
  std::filesystem::path agentConfiguration() const { return configuration() / "snmpd.conf"; }
  std::filesystem::path tls() const { return configuration() / "tls"; }
  std::filesystem::path certificates() const { return tls() / "certs"; }
  std::filesystem::path privateKeys() const { return tls() / "private"; }
  std::filesystem::path persistent() const { return _root / "persist"; }
  std::filesystem::path run() const { return _root / "run"; }
  std::filesystem::path pidFile() const { return run() / "snmpd.pid"; }
  std::filesystem::path lockFile() const { return run() / "tarn.lock"; }
  std::filesystem::path log() const { return _root / "log" / "snmpd.log"; }
  const std::filesystem::path& agentXSocket() const { return _agentXSocket; }
  const std::filesystem::path& passwordFile() const { return _passwordFile; }
  /** Empty when the node has none. */
  const std::filesystem::path& plugin() const { return _plugin; }

  /** Makes every folder of the above that is missing. */
  void make() const;

 private:
  std::filesystem::path _root;
  std::filesystem::path _agentXSocket;
  std::filesystem::path _passwordFile;
  std::filesystem::path _plugin;
};

}  // namespace Tarn
#endif
