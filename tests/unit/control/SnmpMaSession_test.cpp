// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <gmock/gmock.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <string>

#include "MasterAgentFixture.h"

using namespace VelaFmSnmp;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

const char* const sysDescr = ".1.3.6.1.2.1.1.1.0";
const char* const sysObjectId = ".1.3.6.1.2.1.1.2.0";
const char* const engineBoots = ".1.3.6.1.6.3.10.2.1.2.0";

/** Answers every request with the same status and error. */
class AnsweringSession : public SnmpMaSession {
 public:
  int status = STAT_SUCCESS;
  bool hasResponse = true;
  long errorStatus = SNMP_ERR_NOERROR;
  long errorIndex = 0;

  bool isOpen() const override { return true; }
  std::string getPeername() const override { return "127.0.0.1"; }

 protected:
  int snmp_synch_response(SnmpPdu& request, SnmpPdu* response) const override {
    snmp_pdu* answer = request.release();
    answer->command = SNMP_MSG_RESPONSE;
    answer->errstat = errorStatus;
    answer->errindex = errorIndex;
    SnmpPdu owner;
    owner.set(answer);
    if (hasResponse) response->set(owner.release());
    return status;
  }
  std::string snmp_error(int* libErr, int* sysErr) const override {
    *libErr = -5;
    *sysErr = 111;
    return "no route";
  }
};

/** Rewrites a file line by line; a line that becomes empty goes. */
void edit(const std::string& file, const std::function<std::string(const std::string&)>& change) {
  std::ifstream in(file);
  std::string text;
  for (std::string line; std::getline(in, line);) {
    const std::string changed = change(line);
    if (!changed.empty()) text += changed + "\n";
  }
  in.close();
  std::ofstream(file, std::ios::trunc) << text;
}

bool sendSet(const SnmpMaSession& session) {
  SnmpPdu request(SNMP_MSG_SET);
  request.addVarbind(sysDescr, "text");
  return session.sendPdu("rename", request, nullptr);
}

}  // namespace

TEST(SnmpMaSession, judgesAnswersByTheirStatus) {
  AnsweringSession session;
  EXPECT_TRUE(sendSet(session));

  session.errorStatus = SNMP_ERR_NOTWRITABLE;
  session.errorIndex = 1;
  EXPECT_FALSE(sendSet(session));
  session.errorIndex = 7;  // no such varbind
  EXPECT_FALSE(sendSet(session));

  session.errorStatus = SNMP_ERR_INCONSISTENTVALUE;
  EXPECT_THAT(failureOf<SnmpSessionException>([&] { sendSet(session); }),
              AllOf(StartsWith("Request rename"), HasSubstr(" failed. Reason: ")));

  session.status = STAT_TIMEOUT;
  EXPECT_EQ(failureOf<SnmpSessionException>([&] { sendSet(session); }),
            "Timeout: No Response from 127.0.0.1 (in rename)");
  session.status = STAT_ERROR;
  EXPECT_EQ(failureOf([&] { sendSet(session); }), "Failed to send rename pdu, Status: 1 (-5,111:no route)");
  session.status = STAT_SUCCESS;
  session.hasResponse = false;
  EXPECT_EQ(failureOf([&] { sendSet(session); }), "Failed to send rename pdu, Status: 0 (-5,111:no route)");
}

TEST(SnmpMaSession, refusesRequestsWhileClosedAndShortPassPhrases) {
  SnmpMaSession session;
  EXPECT_EQ(failureOf([&] { sendSet(session); }), "Session not active!");
  EXPECT_EQ(session.getPeername(), "");
  EXPECT_EQ(session.securityEngineID(), "");
  EXPECT_THAT(failureOf([&] { session.initSession("127.0.0.1", 1, "user", "1234567", "12345678"); }),
              HasSubstr("at least 8"));
  EXPECT_FALSE(session.isOpen());
}

TEST(SnmpMaSession, decodesNumbersOfEveryType) {
  struct Case {
    u_char type;
    long value;
    bool isNumber;
  };
  for (const Case& test :
       {Case{ASN_INTEGER, -7, true}, Case{ASN_COUNTER, 4000000000, true}, Case{ASN_GAUGE, 4000000000, true},
        Case{ASN_TIMETICKS, 9, true}, Case{ASN_IPADDRESS, 9, false}, Case{ASN_OCTET_STR, 9, false}}) {
    SnmpPdu pdu(SNMP_MSG_RESPONSE);
    pdu.addVarbind(sysDescr, &test.value, test.type == ASN_IPADDRESS ? 4 : sizeof test.value, test.type);
    long long value = 0;
    EXPECT_EQ(SnmpMaSession::extractInt(pdu.get()->variables, &value), test.isNumber) << int(test.type);
    EXPECT_EQ(value, test.isNumber ? test.value : 0);
  }
  SnmpPdu pdu(SNMP_MSG_RESPONSE);
  const counter64 big{1, 2};
  pdu.addVarbind(sysDescr, &big, sizeof big, ASN_COUNTER64);
  long long value = 0;
  EXPECT_TRUE(SnmpMaSession::extractInt(pdu.get()->variables, &value));
  EXPECT_EQ(value, (1LL << 32) + 2);
  EXPECT_FALSE(SnmpMaSession::extractInt(nullptr, &value));
}

TEST(SnmpMaSession, readsAndWritesARealAgent) {
  const MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  EXPECT_EQ(session.getPeername(), "127.0.0.1");
  EXPECT_EQ(session.getRemotePort(), agent.getPort());
  EXPECT_GE(session.securityEngineID().size(), 5U);
  EXPECT_EQ(session.getSecurityAuthProto().toString(), ".1.3.6.1.6.3.10.1.1.2");
  EXPECT_EQ(session.getSecurityPrivProto().toString(), ".1.3.6.1.6.3.10.1.2.2");

  std::string text;
  long long number = 0;
  SnmpOid objectId;
  EXPECT_TRUE(session.getString(sysDescr, text));
  EXPECT_THAT(text, HasSubstr("Linux"));
  EXPECT_TRUE(session.getInt(engineBoots, &number, "boots"));
  EXPECT_GE(number, 1);
  EXPECT_TRUE(session.getOid(sysObjectId, &objectId));
  EXPECT_TRUE(objectId.beginsWith(".1.3.6.1.4.1.8072"));
  EXPECT_FALSE(session.getInt(sysDescr, &number, "descr"));
  EXPECT_FALSE(session.getString(".1.3.6.1.2.1.1.99.0", text));
  EXPECT_FALSE(sendSet(session)) << "sysDescr is not writable";

  const auto createTwice = [&] {
    SnmpPdu request(SNMP_MSG_SET);
    request.addVarbind(".1.3.6.1.6.3.13.1.1.1.2.65", "tag");
    request.addVarbind(".1.3.6.1.6.3.13.1.1.1.5.65", 4);
    return session.sendPdu("create", request, nullptr);
  };
  EXPECT_TRUE(createTwice());
  EXPECT_THAT(failureOf<SnmpSessionException>(createTwice), StartsWith("Request create failed. Reason: "));

  session.close();
  EXPECT_FALSE(session.isOpen());
  EXPECT_EQ(failureOf([&] { sendSet(session); }), "Session not active!");
}

TEST(SnmpMaSession, opensWithThePasswordFileOverIpv6) {
  const MasterAgent agent;
  const std::string file = agent.getFolder() + "/pwd";
  SnmpMaSession session;
  agent.open(session);
  std::ofstream(file) << MasterAgent::passPhrase << "\nsecond line\n";
  session.initSessionWithPwdFile("udp6:[::1]", agent.getPort(), MasterAgent::user, file);
  long long number = 0;
  EXPECT_TRUE(session.getInt(engineBoots, &number, "boots"));

  std::ofstream(file, std::ios::trunc).close();
  EXPECT_EQ(failureOf([&] { session.initSessionWithPwdFile("127.0.0.1", 1, "user", file); }),
            "Failed to read password file (" + file + ")");
  EXPECT_FALSE(session.isOpen()) << "the session before is closed";
  EXPECT_EQ(failureOf([&] { session.initSessionWithPwdFile("127.0.0.1", 1, "user", file + "x"); }),
            "Failed to open password file (" + file + "x)");
}

TEST(SnmpMaSession, tellsASilentAgent) {
  const MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  agent.setStopped(true);
  long long number = 0;
  EXPECT_EQ(failureOf<SnmpSessionException>([&] { session.getInt(engineBoots, &number, "boots"); }),
            "Timeout: No Response from " + session.getPeername() + " (in boots(" + engineBoots + "))");
  SnmpMaSession other;
  EXPECT_THAT(failureOf<SnmpSessionException>([&] {
                other.initSession("127.0.0.1", agent.getPort(), MasterAgent::user, "anotherSecret", "anotherSecret");
              }),
              StartsWith("Failed to open snmp session to 127.0.0.1, error: "));
  agent.setStopped(false);
}

TEST(SnmpMaSession, meetsAnAgentThatHasAnotherPassPhraseAndLostItsBootCount) {
  MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  agent.restart();
  agent.open(session);
  session.close();
  edit(agent.getFolder() + "/snmpd.conf", [](std::string line) {
    const std::string old = MasterAgent::passPhrase;
    for (std::size_t at; (at = line.find(old)) != std::string::npos;) line.replace(at, old.size(), "anotherSecret");
    return line;
  });
  edit(agent.getFolder() + "/persist/snmpd.conf", [](const std::string& line) {
    if (line.rfind("usmUser", 0) == 0) return std::string();
    return line.rfind("engineBoots", 0) == 0 ? std::string("engineBoots 0") : line;
  });
  agent.restart();
  const auto open = [&] {
    session.initSession("127.0.0.1", agent.getPort(), MasterAgent::user, "anotherSecret", "anotherSecret");
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (failureOf<SnmpSessionException>(open) != "no failure" && std::chrono::steady_clock::now() < end) {
  }
  long long boots = 0;
  ASSERT_TRUE(session.isOpen());
  EXPECT_TRUE(session.getInt(engineBoots, &boots, "boots"));
  EXPECT_EQ(boots, 1);
}
