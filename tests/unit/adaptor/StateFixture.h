#ifndef VELA_TESTS_STATE_FIXTURE_H
#define VELA_TESTS_STATE_FIXTURE_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SnmpAdaptorRunnable.h"
#include "SnmpConfigHandler.h"
#include "SnmpStateMachine.h"
#include "SnmpTarnWrapper.h"
#include "StateTestSupport.h"
#include "ThreadWPipes.h"
#include "VelaException.h"

namespace StateTest {

using namespace VelaFmSnmp;

/** What was called, in order; any thread. */
class Journal {
 public:
  void add(const std::string& line) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _lines.push_back(line);
  }
  std::vector<std::string> take() {
    const std::lock_guard<std::mutex> lock(_mutex);
    return std::exchange(_lines, {});
  }

 private:
  std::mutex _mutex;
  std::vector<std::string> _lines;
};

/** Of the test that runs. */
inline Journal journal;

/** A master agent of a few lines: answers every request, with an engine id and a boot count. */
struct MasterAgent {
  std::atomic<int> boots{1};
  std::atomic<int> mutePolls{0};    /**< so many requests time out */
  std::atomic<int> refusedOpens{0}; /**< so many sessions cannot be opened */
  std::atomic<int> requests{0};     /**< answered or not */
  std::atomic<int> rowsSet{0};      /**< varbinds of SET requests */
};

class SessionStandIn : public SnmpMaSession {
 public:
  SessionStandIn(MasterAgent& agent, std::string name) : _agent(agent), _name(std::move(name)) {}

  void initSessionWithPwdFile(const std::string& host, int port, const std::string& user,
                              const std::string& pwdFile) override {
    journal.add(_name + " open " + host + " " + std::to_string(port) + " " + user + " " + pwdFile);
    if (_agent.refusedOpens > 0) {
      --_agent.refusedOpens;
      throw SnmpSessionException("nobody there");
    }
    _isOpen = true;
  }
  void close() override {
    if (_isOpen) journal.add(_name + " close");
    _isOpen = false;
  }
  bool isOpen() const override { return _isOpen; }
  std::string contextEngineID() const override { return "engine"; }
  std::string securityEngineID() const override { return "engine"; }
  std::string getPeername() const override { return "stand-in"; }

 protected:
  int snmp_synch_response(SnmpPdu& request, SnmpPdu* response) const override {
    const std::unique_ptr<snmp_pdu, decltype(&snmp_free_pdu)> taken(request.release(), &snmp_free_pdu);
    ++_agent.requests;
    if (_agent.mutePolls > 0) {
      --_agent.mutePolls;
      return STAT_TIMEOUT;
    }
    snmp_pdu* answer = snmp_pdu_create(SNMP_MSG_RESPONSE);
    answer->errstat = SNMP_ERR_NOERROR;
    response->set(answer);
    static const SnmpOid engineId(".1.3.6.1.6.3.10.2.1.1.0");
    for (variable_list* variable = taken->variables; variable; variable = variable->next_variable) {
      if (taken->command == SNMP_MSG_SET) {
        ++_agent.rowsSet;
        snmp_pdu_add_variable(answer, variable->name, variable->name_length, variable->type, variable->val.string,
                              variable->val_len);
      } else if (SnmpOid(variable->name, static_cast<unsigned int>(variable->name_length)) == engineId) {
        snmp_pdu_add_variable(answer, variable->name, variable->name_length, ASN_OCTET_STR, "engine", 6);
      } else {
        const long boots = _agent.boots;
        snmp_pdu_add_variable(answer, variable->name, variable->name_length, ASN_INTEGER, &boots, sizeof boots);
      }
    }
    return STAT_SUCCESS;
  }

 private:
  MasterAgent& _agent;
  const std::string _name;
  bool _isOpen = false;
};

/** The model: hands out one configuration. */
class ModelStandIn : public MoConnector {
 public:
  void getSnmpConfig(SnmpConfig& config, bool dtlsSupported) const override {
    journal.add(dtlsSupported ? "read with dtls" : "read");
    if (failures > 0) {
      --failures;
      throw Vela::VelaException("no model");
    }
    config = snmpConfig;
  }
  int setEngineId(const std::string& engineId) const override {
    journal.add("engineId '" + engineId + "'");
    return 0;
  }
  void setSnmpOperationalState(bool) const override {}
  void setTargetOperationalState(const char*, bool) const override {}
  std::vector<std::string> setOperationalStates(const std::map<std::string, bool>&, bool) const override { return {}; }

  SnmpConfig snmpConfig;
  mutable int failures = 0;
};

class DscpStandIn : public SnmpDscpRuleHandler {
 public:
  void setCmRule(const SnmpConfig&) const override { journal.add("cm rule"); }
  void setFmRule(const SnmpConfig&) const override { journal.add("fm rule"); }
  void removeCmRule() const override { journal.add("no cm rule"); }
  void removeFmRule() const override { journal.add("no fm rule"); }
  bool isNameMissing() const override { return isMissing; }

  bool isMissing = false;
};

/** The adaptor with its surroundings replaced; configurator, tool wrapper and listener are the real ones. */
class Adaptor : public SnmpAdaptorRunnable {
 public:
  Adaptor(Vela::ThreadWPipes& input, MasterAgent& agent) : SnmpAdaptorRunnable(input), session(agent, "adaptor") {}
  ~Adaptor() override { leaveState(); }

  bool hasQueuedAlarms() const override { return queued > 0; }
  void sendQueuedAlarms(int count) override { journal.add("send " + std::to_string(count)); }
  bool trySendOneQueuedAlarm() override {
    journal.add("try one");
    if (failingSends > 0) {
      --failingSends;
      throw Vela::VelaException("cannot send");
    }
    return isSendable;
  }
  void clearQueuedAlarms() override { journal.add("clear queue"); }
  void clearHandover() override { journal.add("clear hand-over"); }
  void masterAgentStarted() override { journal.add("master agent started"); }
  void initSubAgentAfterRestart() override {
    journal.add("attach");
    if (failingAttaches > 0) {
      --failingAttaches;
      throw Vela::VelaException("no socket");
    }
    isAttached = true;
  }
  bool isSubAgentActive() const override { return isAttached; }
  void stopMasterAgent() override {
    journal.add("stop agent");
    failOrNot();
  }
  void resetToolCancellation() override { journal.add("tools again"); }
  void onReconfigSuccess() override { journal.add("success"); }
  void onReconfigFail() override {
    journal.add("fail");
    failOrNot();
  }
  void closeListener() override {
    journal.add("close listener");
    SnmpAdaptorRunnable::closeListener();
  }
  void setRunning(bool running) override { journal.add(running ? "running" : "not running"); }
  SnmpMaSession& getMaSession() override { return session; }
  MoConnector& getMoConnector() override { return model; }
  SnmpDscpRuleHandler& getDscpRuleHandler() override { return dscp; }
  void getStaticTlsConfiguration() override { journal.add("static tls"); }

  ModelStandIn model;
  SessionStandIn session;
  DscpStandIn dscp;
  int queued = 0;
  bool isSendable = true;
  int failingSends = 0;
  int failingAttaches = 0;
  bool isAttached = false;
  bool failsToStopAndReport = false;

 private:
  void failOrNot() const {
    if (failsToStopAndReport) throw Vela::VelaException("not now");
  }
};

/** A UDP socket on a port of its own on the loopback interface, for as long as it lives. */
class TakenPort {
 public:
  explicit TakenPort(int family = AF_INET) : _fd(socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    // The port lies at the same place in the addresses of both families.
    sockaddr_in6 address = {};
    if (family == AF_INET) {
      reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      address.sin6_addr = in6addr_loopback;
    }
    address.sin6_family = static_cast<sa_family_t>(family);
    socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    bind(_fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &length);
    _port = ntohs(address.sin6_port);
  }
  ~TakenPort() { release(); }
  TakenPort(const TakenPort&) = delete;
  TakenPort& operator=(const TakenPort&) = delete;

  unsigned int port() const { return _port; }
  void release() {
    if (_fd != -1) close(_fd);
    _fd = -1;
  }

 protected:
  int _fd;

 private:
  unsigned int _port = 0;
};

/** Adds a target to a configuration. One whose community is too long cannot be made operational. */
inline SnmpTargetV2C* addTarget(SnmpConfig& to, const std::string& name, const std::string& community = "public") {
  Poco::AutoPtr<SnmpTargetV2C> target(new SnmpTargetV2C);
  target->name = name;
  target->address = "127.0.0.1";
  target->port = 1162;
  target->community = community;
  target->networkPrefixLength = -1;
  to.targets[name] = target;
  return target.get();
}

class StatesTest : public testing::Test {
 protected:
  StatesTest() {
    configure(true);
    adaptor.setConfigurationHandler(&handler);
    SnmpMaSession::setFactory([this] { return std::make_unique<SessionStandIn>(agent, "supervision"); });
    FmStateIdleError::numReconfigAttempts = 0;
    agentPort = TakenPort().port();
    config().agentAddress = {{"127.0.0.1", agentPort}};
    journal.take();
  }
  ~StatesTest() override {
    adaptor.leaveState();
    SnmpMaSession::setFactory({});
  }

  /** Loads component settings. */
  void configure(bool useListener, int pollSeconds = 0) {
    const std::string file = testing::TempDir() + "states_" + std::to_string(getpid()) + ".xml";
    std::ofstream(file) << "<VelaFmSnmp><snmpPollInterval>" << pollSeconds
                        << "</snmpPollInterval><useInternalTrapListener>" << (useListener ? "true" : "false")
                        << "</useInternalTrapListener></VelaFmSnmp>";
    ASSERT_EQ(handler.load(file), 0);
    std::filesystem::remove(file);
    handler.setSnmpMasterAgentPwdFile("pwd-file");
  }

  SnmpConfig& config() { return adaptor.getNewConfig(); }
  /** The commands the tool was given, without the question for its revision. */
  std::vector<std::string> takeToolCommands() {
    std::vector<std::string> commands = tool.takeCommands();
    std::erase_if(commands, [](const std::string& line) { return line.rfind("tarn|snmp|", 0) != 0; });
    return commands;
  }

  /** Answers of the tool by the beginning of its command line: output, or a failure when it begins with "!". */
  int answer(const std::string& line, std::string& output) {
    output = line == "tarn|spi-revision" ? "1.10.0" : "";
    for (const auto& [beginning, text] : answers) {
      if (line.rfind(beginning, 0) != 0) continue;
      if (text.rfind('!', 0) == 0) throw Vela::VelaException("%s", text.c_str() + 1);
      output = text;
    }
    return 0;
  }

  std::map<std::string, std::string> answers;
  CapturedLog log;
  ControlledClock clock;
  CommandStandIn tool{[this](const std::string& line, std::string& output) { return answer(line, output); }};
  Vela::ThreadWPipes input{"test"};
  SnmpConfigHandler handler;
  MasterAgent agent;
  Adaptor adaptor{input, agent};
  unsigned int agentPort = 0;
};

/** "next state/reason/delay" of a change, "handled/delay", "unhandled/delay". */
inline std::string text(const StateTransition& transition) {
  const std::string delay = std::to_string(transition.delay);
  if (transition.type == TransitionUnhandled) return "unhandled/" + delay;
  if (transition.type == TransitionHandled) return "handled/" + delay;
  return std::to_string(transition.nextState) + "/" + transition.reason + "/" + delay;
}

}  // namespace StateTest
#endif
