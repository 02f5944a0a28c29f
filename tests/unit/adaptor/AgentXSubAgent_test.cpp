// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "AgentXSubAgent.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <net-snmp/agent/ds_agent.h>

#include "AlarmScalars.h"
#include "NotificationQueue.h"
#include "SnmpMessages.h"
#include "StateFixture.h"
#include "kavrelAlarmMIB.h"

namespace {

using namespace VelaFmSnmp;
using Clock = std::chrono::steady_clock;

/** Receives notifications. */
class Receiver : public StateTest::TakenPort {
 public:
  /** Reads what is there: the marks (texts of the form "mark:number.") of the datagrams, in order. The master agent's
     own notifications have none. */
  std::vector<int> takeMarks() const {
    std::vector<int> marks;
    char buffer[65536];
    for (ssize_t length; (length = recv(_fd, buffer, sizeof buffer, 0)) > 0;) {
      const std::string text(buffer, static_cast<std::size_t>(length));
      const std::size_t mark = text.find("mark:");
      if (mark != std::string::npos) marks.push_back(std::stoi(text.substr(mark + 5)));
    }
    return marks;
  }
};

/** The library's one sub-agent, a real master agent that forwards to a socket, and the loop between them. */
class AgentXSubAgentTest : public testing::Test {
 protected:
  AgentXSubAgentTest() {
    signal(SIGPIPE, SIG_IGN);
    char name[] = "/tmp/agentx_test_XXXXXX";
    folder = mkdtemp(name);
    settings.socket = folder + "/agentx";
    std::ofstream(folder + "/snmpd.conf") << "master agentx\nagentXSocket unix:" << settings.socket
                                          << "\nagentAddress udp:127.0.0.1:" << agentPort << "\n"
                                          << "trap2sink 127.0.0.1:" << receiver.port() << " public\n";
    subAgent.presetLibrary();
  }
  ~AgentXSubAgentTest() override {
    subAgent.close();
    kill();
    std::filesystem::remove_all(folder);
  }

  void startMasterAgent() {
    std::filesystem::remove(settings.socket);
    master = fork();
    if (master == 0) {
      setenv("PATH", "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", 1);
      setenv("MIBS", "", 1);
      setenv("SNMPCONFPATH", folder.c_str(), 1);
      setenv("SNMP_PERSISTENT_DIR", (folder + "/persist").c_str(), 1);
      execlp("snmpd", "snmpd", "-f", "-Lf", (folder + "/log").c_str(), "-p", (folder + "/pid").c_str(),
             static_cast<char*>(nullptr));
      _exit(127);
    }
    ASSERT_TRUE(spin([&] { return std::filesystem::exists(settings.socket) && subAgent.attach(settings, handlers); }));
  }
  void kill() {
    if (master <= 0) return;
    ::kill(master, SIGKILL);
    waitpid(master, nullptr, 0);
    master = 0;
  }

  /** Runs the loop until a condition holds. */
  bool spin(const std::function<bool()>& condition) {
    netsnmp_large_fd_set set;
    netsnmp_large_fd_set_init(&set, FD_SETSIZE);
    const auto end = Clock::now() + std::chrono::seconds(30);
    bool holds = false;
    while (!(holds = condition()) && Clock::now() < end) {
      NETSNMP_LARGE_FD_ZERO(&set);
      int count = 0;
      timeval timeout = {0, 10000};
      if (subAgent.isAttached()) subAgent.addDescriptors(count, set, timeout);
      if (netsnmp_large_fd_set_select(count, &set, nullptr, nullptr, &timeout) > 0) subAgent.read(set);
      subAgent.runTimers();
      queue.pump();
      subAgent.checkOutstandingRequests();
      for (const int mark : receiver.takeMarks()) received.push_back(mark);
    }
    netsnmp_large_fd_set_cleanup(&set);
    return holds;
  }

  void add(int first, int last) {
    for (int mark = first; mark <= last; ++mark) {
      SnmpAlarm alarm;
      alarm.setStateful(true);
      alarm.setSeverity(4);
      alarm.setAdditionalText("mark:" + std::to_string(mark) + ".");
      alarm.setSpecificProblem(std::string(700, 'x'));
      queue.add(std::make_unique<SnmpAlarmMessage>(alarm));
    }
  }

  static void handlers() {
    AlarmScalars::getInstance().initHandlers();
    init_kavrelAlarmMIB();
  }

  std::string folder;
  AgentXSubAgent::Settings settings;
  const unsigned int agentPort = StateTest::TakenPort().port();
  Receiver receiver;
  pid_t master = 0;
  StateTest::CapturedLog log;
  AgentXSubAgent subAgent;
  NotificationQueue queue{subAgent};
  std::vector<int> received;
};

TEST_F(AgentXSubAgentTest, AKilledMasterAgentIsSeenAndItsSuccessorGetsTheRest) {
  EXPECT_FALSE(subAgent.attach(settings, handlers)) << "there is no master agent yet";
  startMasterAgent();
  add(1, 10);
  ASSERT_TRUE(spin([&] { return queue.size() == 0; }));
  ::kill(master, SIGSTOP);
  add(11, 100);
  queue.pump();
  kill();
  ASSERT_TRUE(spin([&] { return !subAgent.isAttached(); }));
  EXPECT_EQ(queue.size(), 90U);
  queue.onConnectionLost();
  received.clear();

  startMasterAgent();
  ASSERT_TRUE(spin([&] { return queue.size() == 0 && received.size() >= 90; }));
  std::vector<int> rest(90);
  std::iota(rest.begin(), rest.end(), 11);
  EXPECT_EQ(received, rest);
}

TEST_F(AgentXSubAgentTest, ClosingTowardsAStoppedMasterAgentDoesNotWait) {
  startMasterAgent();
  add(1, 5);
  ::kill(master, SIGSTOP);
  queue.pump();
  const auto begin = Clock::now();
  subAgent.close();
  queue.onConnectionLost();
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
  EXPECT_FALSE(subAgent.isAttached());
  ::kill(master, SIGCONT);
  ASSERT_TRUE(spin([&] { return subAgent.attach(settings, handlers); }));
  ASSERT_TRUE(spin([&] { return queue.size() == 0; }));
}

TEST_F(AgentXSubAgentTest, PingsTellAMasterAgentThatHangsFromOneThatIsGone) {
  settings.pingInterval = settings.timeout = settings.retries = 1;
  for (const bool isHanging : {false, true}) {
    startMasterAgent();
    const auto began = Clock::now();
    const auto pings = [&] { return Clock::now() - began > std::chrono::milliseconds(3200); };
    ASSERT_TRUE(spin([&] { return pings() || !subAgent.isAttached(); }));
    EXPECT_TRUE(subAgent.isAttached()) << "its pings are answered";
    ::kill(master, isHanging ? SIGSTOP : SIGKILL);
    ASSERT_TRUE(spin([&] { return !subAgent.isAttached(); }));
    EXPECT_EQ(subAgent.takeMute(), isHanging);
    EXPECT_EQ(log.count(Vela::LogWarning, "The master agent does not answer AgentX pings"), isHanging ? 1 : 0);
    kill();
  }
}

/** A master agent that answers so many requests of a connection and then no more. */
class HangingMaster {
 public:
  HangingMaster(const std::string& path, int answersPerConnection)
      : answers(answersPerConnection), _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    bind(_fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(_fd, 5);
    _thread = std::thread([this] { serve(); });
  }
  ~HangingMaster() {
    shutdown(_fd, SHUT_RDWR);
    _thread.join();
    close(_fd);
  }
  HangingMaster(const HangingMaster&) = delete;
  HangingMaster& operator=(const HangingMaster&) = delete;

  std::atomic<int> answers;    /**< so many requests of a connection are answered */
  std::atomic<int> ignored{0}; /**< requests that were not answered */

 private:
  void serve() {
    for (int connection; (connection = accept(_fd, nullptr, nullptr)) >= 0; close(connection)) {
      for (int given = 0; answer(connection, given < answers); ++given) {
      }
    }
  }

  /** RFC 2741, 6.1 and 6.2.16: the header of the request comes back as a response's, without an error. */
  bool answer(int connection, bool isWanted) {
    unsigned char header[20];
    if (recv(connection, header, sizeof header, MSG_WAITALL) != sizeof header) return false;
    const bool isNetworkOrder = (header[2] & 0x10) != 0;
    std::uint32_t length = 0;
    std::memcpy(&length, header + 16, sizeof length);
    std::vector<unsigned char> payload(isNetworkOrder ? ntohl(length) : length);
    if (!payload.empty()) recv(connection, payload.data(), payload.size(), MSG_WAITALL);
    if (!isWanted) {
      ++ignored;
      return true;
    }
    constexpr unsigned char ResponseType = 18;
    const unsigned char noError[8] = {};
    header[1] = ResponseType;
    length = isNetworkOrder ? htonl(sizeof noError) : sizeof noError;
    std::memcpy(header + 16, &length, sizeof length);
    send(connection, header, sizeof header, MSG_NOSIGNAL);
    return send(connection, noError, sizeof noError, MSG_NOSIGNAL) == sizeof noError;
  }

  int _fd;
  std::thread _thread;
};

TEST_F(AgentXSubAgentTest, AMasterAgentThatHangsWhileTheMibIsRegisteredIsGivenUpSoon) {
  settings.timeout = 1;
  settings.retries = 1;
  for (const int answers : {1, 3}) {
    const HangingMaster hanging(settings.socket, answers);
    const auto begin = Clock::now();
    EXPECT_FALSE(subAgent.attach(settings, handlers)) << answers;
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5))
        << "as long as one answer is waited for, not one per region";
    EXPECT_FALSE(subAgent.isAttached());
    EXPECT_TRUE(subAgent.takeMute());
    std::filesystem::remove(settings.socket);
  }
}

TEST_F(AgentXSubAgentTest, AnInterruptEndsEveryWaitHoweverLongItIsConfigured) {
  settings = {settings.socket, 1, INT_MAX, INT_MAX};
  for (const int answers : {0, 1, 3, 1000}) {
    const bool isForAPing = answers == 1000;
    HangingMaster hanging(settings.socket, answers);
    std::thread stopping([&] {
      EXPECT_TRUE(StateTest::eventually([&] { return hanging.ignored > 0; }));
      subAgent.interrupt();
    });
    EXPECT_EQ(subAgent.attach(settings, handlers), isForAPing) << answers;
    hanging.answers = 0;
    EXPECT_TRUE(spin([&] { return !subAgent.isAttached(); })) << answers;
    stopping.join();
    EXPECT_FALSE(subAgent.attach(settings, handlers)) << "until it is allowed again";
    subAgent.resume();
    std::filesystem::remove(settings.socket);
  }
}

TEST_F(AgentXSubAgentTest, TheLibraryIsGivenTheSettings) {
  const auto number = [](int store, int which) { return netsnmp_ds_get_int(store, which); };
  constexpr unsigned long long Seconds = 1000;
  const struct {
    int timeout, retries;
    int openTimeout; /**< seconds, which the master agent is told */
    unsigned long long answerTimeout;
  } cases[] = {{4, 2, 4, 12 * Seconds},
               {3000, 9, 255, 30000 * Seconds},
               {INT_MAX, INT_MAX, 255, 100ULL * 365 * 24 * 3600 * Seconds}};
  for (const auto& item : cases) {
    const HangingMaster hanging(settings.socket, 1000);
    settings.timeout = item.timeout;
    settings.retries = item.retries;
    ASSERT_TRUE(subAgent.attach(settings, handlers));
    EXPECT_EQ(subAgent.getAnswerTimeout(), item.answerTimeout);
    EXPECT_EQ(number(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_TIMEOUT), item.openTimeout * 1000000);
    EXPECT_EQ(number(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_TIMEOUT), item.timeout);
    EXPECT_EQ(number(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_RETRIES), item.retries);
    EXPECT_EQ(number(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES), item.retries);
    subAgent.close();
    EXPECT_EQ(subAgent.getAnswerTimeout(), 0U);
    std::filesystem::remove(settings.socket);
  }
}

TEST_F(AgentXSubAgentTest, ASocketPathThatDoesNotFitIsRefused) {
  settings.socket = "/tmp/" + std::string(110, 'x');
  EXPECT_FALSE(subAgent.attach(settings, handlers));
}

}  // namespace
