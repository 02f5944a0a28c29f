#ifndef VELA_TESTS_MASTER_AGENT_FIXTURE_H
#define VELA_TESTS_MASTER_AGENT_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "SnmpMaSession.h"
#include "SnmpTypes.h"
#include "VelaException.h"

/** A real snmpd on a free loop-back port, with the template users and the community public; ended, by its process id,
 * with the object. */
class MasterAgent {
 public:
  MasterAgent();
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

/** Runs one of the agent's tools ("snmpget"...): exit status 0, and the output. */
struct ToolResult {
  bool isSuccess;
  std::string output;
};
ToolResult runTool(std::vector<std::string> arguments);

/** What an action throws, as text. */
template <class Exception = Vela::VelaException, class Action>
std::string failureOf(Action&& action) {
  try {
    action();
  } catch (const Exception& ex) {
    return ex.what();
  }
  return "no failure";
}

/** "dotted index" as an IMPLIED text index of a row. */
std::string impliedIndex(const std::string& name);

Poco::AutoPtr<VelaFmSnmp::SnmpTargetV1> targetV1(const std::string& name, const std::string& community = "public");
Poco::AutoPtr<VelaFmSnmp::SnmpTargetV2C> targetV2(const std::string& name, const std::string& community = "public");
Poco::AutoPtr<VelaFmSnmp::SnmpTargetV3Usm> targetV3(const std::string& name, const std::string& user);
Poco::AutoPtr<VelaFmSnmp::SnmpTargetV3Tls> targetTls(const std::string& name, const std::string& user);

/** An enabled configuration with these targets. */
VelaFmSnmp::SnmpConfig configWith(const std::vector<Poco::AutoPtr<VelaFmSnmp::SnmpBaseTarget>>& targets);

#endif
