#ifndef TARN_NODE_FOLDER_H
#define TARN_NODE_FOLDER_H

#include <filesystem>
#include <string>

#include "files/Trust.h"

namespace Tarn {

/** Where one node keeps what belongs to its master agent. All paths are absolute. */
class NodeFolder {
 public:
  /** Reads VELA_NODE_DIR and the variables that refine it. Throws Failure when a value is missing or unusable, and
      NodeFiles::FileFault when somebody else has a hand in what lies there. */
  static NodeFolder fromEnvironment();

  const std::filesystem::path& root() const { return _root; }
  std::filesystem::path noBackup() const { return _root / "no-backup"; }
  std::filesystem::path configuration() const { return noBackup() / "etc" / "snmp"; }
  std::filesystem::path parts() const { return configuration() / "parts"; }
  std::filesystem::path agentConfiguration() const { return configuration() / "snmpd.conf"; }
  std::filesystem::path tls() const { return configuration() / "tls"; }
  std::filesystem::path certificates() const { return tls() / "certs"; }
  std::filesystem::path privateKeys() const { return tls() / "private"; }
  std::filesystem::path revocations() const { return tls() / "crls"; }
  std::filesystem::path persistent() const { return _root / "persist"; }
  std::filesystem::path run() const { return _root / "run"; }
  std::filesystem::path pidFile() const;
  /** The record of the process that is the agent. */
  std::filesystem::path agentRecord() const;
  std::filesystem::path lockFile() const { return run() / "tarn.lock"; }
  std::filesystem::path log() const { return _root / "log" / "snmpd.log"; }
  const std::filesystem::path& agentXSocket() const { return _agentXSocket; }
  const std::filesystem::path& passwordFile() const { return _passwordFile; }
  /** Empty when the node has none. */
  const std::filesystem::path& plugin() const { return _plugin; }
  /** Whether the agent is to keep its notifications for managers to read (RFC 3014). */
  bool keepsNotificationLog() const { return _keepsNotificationLog; }

  /** Who the agent runs as, once it has bound its ports. */
  const NodeFiles::AgentUser& agentUser() const { return _agentUser; }

  /** Makes every folder of the above that is missing. */
  void make() const;
  /** Where the agent runs as another user: makes the certificates and keys that user's own, and lets it reach them. */
  void handOverCredentials() const;
  /** Where the agent runs as another user, which then owns its persistent state: takes that back, since the next agent
      reads it as root. */
  void takeBackPersistent() const;

 private:
  std::filesystem::path _root;
  std::filesystem::path _agentXSocket;
  std::filesystem::path _passwordFile;
  std::filesystem::path _plugin;
  NodeFiles::AgentUser _agentUser = NodeFiles::AgentUser::find();
  bool _keepsNotificationLog = false;
};

}  // namespace Tarn
#endif
