// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "MasterAgentFixture.h"
#include "NetSnmpLock.h"
#include "adaptor/StateTestSupport.h"

using namespace VelaFmSnmp;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
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

/** A peer that counts what it is sent, and never answers. */
class MutePeer {
 public:
  MutePeer() : _fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback();
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(_fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    _port = ntohs(address.sin_port);
  }
  ~MutePeer() { close(_fd); }
  MutePeer(const MutePeer&) = delete;
  MutePeer& operator=(const MutePeer&) = delete;

  int getPort() const { return _port; }
  /** Datagrams that came since the last call. */
  int countDatagrams() const {
    char octets[2048];
    int count = 0;
    while (recv(_fd, octets, sizeof octets, MSG_DONTWAIT) > 0) ++count;
    return count;
  }
  /** The address that the sender of the next datagram is bound to, as the kernel lists it. */
  std::string senderOfNext() const {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    char octet = 0;
    if (recvfrom(_fd, &octet, 1, MSG_PEEK, reinterpret_cast<sockaddr*>(&sender), &length) < 0) return {};
    char port[8];
    std::snprintf(port, sizeof port, ":%04X", ntohs(sender.sin_port));
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);) {
      std::istringstream words(line);
      std::string slot;
      std::string local;
      if (words >> slot >> local && local.size() > 5 && local.substr(local.size() - 5) == port)
        return local.substr(0, 8);
    }
    return "nobody";
  }

 private:
  static sockaddr_in loopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }

  int _fd;
  int _port = 0;
};

usmUser* findConfigUser() {
  usmUser* user = usm_get_userList();
  while (user != nullptr && (user->secName == nullptr || std::string(user->secName) != MasterAgent::user))
    user = user->next;
  return user;
}

std::atomic<int> requestsSent = 0;
std::atomic<int> callsWithoutLock = 0;

bool sendSet(const SnmpMaSession& session) {
  SnmpPdu request(SNMP_MSG_SET);
  request.addVarbind(sysDescr, "text");
  request.addVarbind(sysObjectId, SnmpOid(sysDescr));
  return session.sendPdu("rename", request, nullptr);
}

}  // namespace

/** What the library calls for every message; it counts in the process. */
extern "C" __attribute__((visibility("default"))) long snmp_get_next_msgid(void) {
  static const auto next = reinterpret_cast<long (*)()>(dlsym(RTLD_NEXT, "snmp_get_next_msgid"));
  ++requestsSent;
  if (!NetSnmpLock::isHeld()) ++callsWithoutLock;
  return next();
}

TEST(SnmpMaSession, judgesAnswersByTheirStatus) {
  AnsweringSession session;
  EXPECT_TRUE(sendSet(session));

  session.errorStatus = SNMP_ERR_NOTWRITABLE;
  const StateTest::CapturedLog log;
  for (const long index : {1, 2, 0, 7}) {  // 7: no such varbind
    session.errorIndex = index;
    EXPECT_FALSE(sendSet(session));
  }
  const std::string failed = std::string("Request rename failed. Reason: ") + snmp_errstring(SNMP_ERR_NOTWRITABLE);
  EXPECT_THAT(log.lines(Vela::LogError), ElementsAre(failed, std::string("Failed object: ") + sysDescr, failed,
                                                     std::string("Failed object: ") + sysObjectId, failed, failed));

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

TEST(SnmpMaSession, aFailedOpenLeavesOpenSessionsAlone) {
  const MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  SnmpMaSession other;
  const std::string wrong = "anotherSecret";
  EXPECT_THAT(failureOf<SnmpSessionException>(
                  [&] { other.initSession("127.0.0.1", agent.getPort(), MasterAgent::user, wrong, wrong); }),
              StartsWith("Failed to open snmp session to 127.0.0.1, error: Authentication failure"));
  EXPECT_FALSE(other.isOpen());

  const MutePeer mute;
  std::string sender;
  std::thread watch([&] { sender = mute.senderOfNext(); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THROW(other.initSession("127.0.0.1", mute.getPort(), MasterAgent::user, "12345678", "12345678"),
               SnmpSessionException);
  const auto passed = std::chrono::steady_clock::now() - start;
  watch.join();
  EXPECT_EQ(sender, "0100007F") << "bound to the loop-back interface";
  EXPECT_EQ(mute.countDatagrams(), 11) << "one and ten retries";
  EXPECT_GE(passed, std::chrono::milliseconds(2150));
  EXPECT_LT(passed, std::chrono::seconds(4));

  long long boots = 0;
  EXPECT_TRUE(session.getInt(engineBoots, &boots, "boots"));
  agent.open(other);
  session.close();
  EXPECT_TRUE(other.getInt(engineBoots, &boots, "boots"));
}

TEST(SnmpMaSession, aWrongPassPhraseOpensNoSession) {
  const MasterAgent agent;
  {
    SnmpMaSession session;
    agent.open(session);
  }
  SnmpMaSession other;
  EXPECT_THROW(other.initSession("127.0.0.1", agent.getPort(), MasterAgent::user, "anotherSecret", "anotherSecret"),
               SnmpSessionException);
  agent.open(other);
}

TEST(SnmpMaSession, aClosedSessionKeepsNoSecret) {
  const MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  const auto memory = [&] { return std::string(reinterpret_cast<const char*>(&session), sizeof session); };
  EXPECT_THAT(memory(), HasSubstr(MasterAgent::passPhrase)) << "it is short enough to lie in the object";
  EXPECT_NE(findConfigUser(), nullptr);
  session.close();
  EXPECT_THAT(memory(), Not(HasSubstr(MasterAgent::passPhrase)));
  EXPECT_EQ(session.getRootAuthPwd() + session.getRootPrivPwd(), "");
  EXPECT_EQ(findConfigUser(), nullptr);
}

TEST(SnmpMaSession, closesWhenItsUserIsUnknown) {
  const MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  usmUser* user = findConfigUser();
  ASSERT_NE(user, nullptr);
  usm_remove_user(user);
  usm_free_user(user);
  long long boots = 0;
  EXPECT_THAT(failureOf([&] { session.getInt(engineBoots, &boots, "boots"); }), HasSubstr("unknown security name"));
  EXPECT_FALSE(session.isOpen());
  agent.open(session);
  EXPECT_TRUE(session.getInt(engineBoots, &boots, "boots"));
}

TEST(SnmpMaSession, aRequestThatWaitsLeavesTheLibraryToOthersAndCanBeInterrupted) {
  const MasterAgent agent;
  const int interrupt = eventfd(0, EFD_CLOEXEC);
  SnmpMaSession session;
  session.setInterrupt(interrupt);
  agent.open(session);
  agent.setStopped(true);
  const int sentBefore = requestsSent;
  std::string failure;
  std::thread asking([&] {
    long long number = 0;
    failure = failureOf([&] { session.getInt(engineBoots, &number, "boots"); });
  });
  while (requestsSent == sentBefore) std::this_thread::yield();
  const auto begin = std::chrono::steady_clock::now();
  { const NetSnmpLock lock; }
  eventfd_write(interrupt, 1);
  asking.join();
  EXPECT_THAT(failure, StartsWith("Failed to send boots"));
  const auto open = [&] {
    session.initSession("127.0.0.1", agent.getPort(), MasterAgent::user, "password", "password");
  };
  EXPECT_THAT(failureOf(open), StartsWith("Failed to open snmp session")) << "opening waits as little";
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(callsWithoutLock, 0);
  agent.setStopped(false);
  close(interrupt);
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
