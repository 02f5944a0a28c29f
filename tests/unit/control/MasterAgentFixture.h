#ifndef VELA_TESTS_MASTER_AGENT_FIXTURE_H
#define VELA_TESTS_MASTER_AGENT_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "SnmpMaSession.h"
#include "SnmpTypes.h"

/** A real snmpd on a free loop-back port, with the template users; ended, by its process id, with the object. */
class MasterAgent {
 public:
  /** @param communities  mapped to the security names "Vela_<community>" */
  explicit MasterAgent(const std::vector<std::string>& communities = {"public"});
  ~MasterAgent();
  MasterAgent(const MasterAgent&) = delete;
  MasterAgent& operator=(const MasterAgent&) = delete;

  int getPort() const { return _port; }
  const std::string& getFolder() const { return _folder; }
  /** Ends the agent and starts it again on the same port. */
  void restart();
  /** Lets the agent stop answering, or go on. */
  void setStopped(bool isStopped) const;
  /** Opens a session as the configuring user; waits until the agent is up. */
  void open(VelaFmSnmp::SnmpMaSession& session) const;

  static const char* const user;
  static const char* const passPhrase;

 private:
  void start();
  void end();

  std::string _folder;
  int _port = 0;
  pid_t _pid = -1;
};

/** A session that counts and remembers what is SET through it. */
class WatchedSession : public VelaFmSnmp::SnmpMaSession {
 public:
  /** Requests of one kind since the last reset. */
  mutable int sets = 0;
  mutable int gets = 0;
  /** Dotted identifiers of all objects SET. */
  mutable std::vector<std::string> objects;

  void reset();
  bool hasSet(const std::string& part) const;

 protected:
  int snmp_synch_response(VelaFmSnmp::SnmpPdu& request, VelaFmSnmp::SnmpPdu* response) const override;
};

/** Runs one of the agent's tools ("snmpget"...): exit status 0, and the output. */
struct ToolResult {
  bool isSuccess;
  std::string output;
};
ToolResult runTool(std::vector<std::string> arguments);

/** "dotted index" as an IMPLIED text index of a row. */
std::string impliedIndex(const std::string& name);

Poco::AutoPtr<VelaFmSnmp::SnmpTargetV1> targetV1(const std::string& name, const std::string& community = "public");
Poco::AutoPtr<VelaFmSnmp::SnmpTargetV2C> targetV2(const std::string& name, const std::string& community = "public");
Poco::AutoPtr<VelaFmSnmp::SnmpTargetV3Usm> targetV3(const std::string& name, const std::string& user);
Poco::AutoPtr<VelaFmSnmp::SnmpTargetV3Tls> targetTls(const std::string& name, const std::string& user);

/** An enabled configuration with these targets. */
VelaFmSnmp::SnmpConfig configWith(const std::vector<Poco::AutoPtr<VelaFmSnmp::SnmpBaseTarget>>& targets);

#endif
