#include "Listener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "AlarmTestSupport.h"
#include "adaptor/StateTestSupport.h"

namespace AlarmTest {

using VelaFmSnmp::Listener;

namespace {

/** A socket of somebody else, bound to a free port of 127.0.0.1. */
class ForeignSocket {
 public:
  explicit ForeignSocket(bool reusesAddress) : _fd(socket(AF_INET, SOCK_DGRAM, 0)) {
    const int on = reusesAddress ? 1 : 0;
    setsockopt(_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = loopback(0);
    EXPECT_EQ(bind(_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    _port = ntohs(address.sin_port);
  }
  ~ForeignSocket() { close(_fd); }
  ForeignSocket(const ForeignSocket&) = delete;
  ForeignSocket& operator=(const ForeignSocket&) = delete;

  int port() const { return _port; }
  void send(const std::string& text, int port) const {
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(sendto(_fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address), sizeof address),
              static_cast<ssize_t>(text.size()));
  }

 private:
  static sockaddr_in loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<unsigned short>(port));
    return address;
  }

  int _fd;
  int _port = 0;
};

bool waitReadable(const Listener& listener) {
  pollfd descriptor = {listener.getFD(), POLLIN, 0};
  return poll(&descriptor, 1, 10000) == 1;
}

TEST(Listener, OpensOnTheLoopbackInterface) {
  Listener listener;
  EXPECT_FALSE(listener.isOpen());
  EXPECT_EQ(listener.getFD(), -1);
  listener.open(AF_INET, 0);
  EXPECT_TRUE(listener.isOpen());
  EXPECT_GT(listener.getFD(), 0);
  EXPECT_EQ(listener.getAddress(), "127.0.0.1");
  EXPECT_GT(listener.getPort(), 0);
  listener.open(12345, 0);
  EXPECT_EQ(listener.getAddress(), "127.0.0.1");
  listener.open(AF_INET6, 0);
  EXPECT_EQ(listener.getAddress(), "::1");
  EXPECT_GT(listener.getPort(), 0);
  listener.close();
  EXPECT_EQ(listener.getFD(), -1);
  EXPECT_EQ(failureOf([&] { listener.getPort(); }), "getsockname failed");
}

TEST(Listener, ReadsDatagramsAndNeverWaits) {
  const StateTest::CapturedLog log;
  const ForeignSocket sender(false);
  Listener listener;
  listener.open(AF_INET, 0);
  unsigned char buffer[8];
  EXPECT_EQ(listener.read(buffer, sizeof buffer), 0);
  sender.send("hello", listener.getPort());
  ASSERT_TRUE(waitReadable(listener));
  EXPECT_EQ(listener.read(buffer, sizeof buffer), 5);
  EXPECT_EQ(std::string(buffer, buffer + 5), "hello");
  EXPECT_TRUE(log.hasTrace("Got 5 bytes of data from 127.0.0.1:" + std::to_string(sender.port()) + "!\n"));
  sender.send("longer than it", listener.getPort());
  ASSERT_TRUE(waitReadable(listener));
  EXPECT_EQ(listener.read(buffer, sizeof buffer), 8);
  EXPECT_EQ(listener.read(buffer, sizeof buffer), 0);
  listener.close();
  EXPECT_EQ(failureOf([&] { listener.read(buffer, sizeof buffer); }), "recvfrom failed.");
}

TEST(Listener, NobodyElseTakesItsPortOver) {
  Listener listener;
  listener.open(AF_INET, 0);
  const int other = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ASSERT_EQ(setsockopt(other, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<unsigned short>(listener.getPort()));
  EXPECT_NE(bind(other, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(other);
}

TEST(Listener, TheProbeFindsATakenPort) {
  const StateTest::CapturedLog log;
  for (const bool reusesAddress : {false, true}) {
    const ForeignSocket holder(reusesAddress);
    for (const char* address : {"127.0.0.1", "0.0.0.0"}) {
      Listener probe;
      EXPECT_EQ(failureOf([&] { probe.open(std::string(address), holder.port()); }), "failed to bind socket");
      EXPECT_FALSE(probe.isOpen());
      EXPECT_EQ(log.count(Vela::LogError,
                          "failed to bind socket " + std::string(address) + "/" + std::to_string(holder.port())),
                1);
    }
    // The IPv6 port of the same number is another port.
    Listener probe;
    EXPECT_EQ(failureOf([&] { probe.open(std::string("::"), holder.port()); }), "none");
  }
}

/** Binds a privileged port as an ordinary user; the process' result tells what came of it. */
[[noreturn]] void bindPrivilegedPort() {
  if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
  Listener listener;
  try {
    listener.open(std::string("127.0.0.1"), 1);
  } catch (const Listener::NoAccessException& ex) {
    _exit(std::string(ex.what()) == "failed to bind socket (no access)" && !listener.isOpen() ? 0 : 3);
  } catch (const Vela::VelaException&) {
    _exit(4);
  }
  _exit(5);
}

TEST(Listener, TellsAMissingPermissionApart) {
  int firstUnprivileged = 0;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> firstUnprivileged;
  if (getuid() != 0 || firstUnprivileged < 2) GTEST_SKIP() << "needs root, and ports that are root's";
  EXPECT_EXIT(bindPrivilegedPort(), testing::ExitedWithCode(0), "failed to bind socket 127.0.0.1/1 - no access");
}

TEST(Listener, RefusesWhatIsNoAddress) {
  Listener listener;
  listener.open(AF_INET, 0);
  EXPECT_EQ(failureOf([&] { listener.open("localhost", AF_INET, 0); }), "localhost is not a valid ipv4 address.");
  EXPECT_FALSE(listener.isOpen());
  EXPECT_EQ(failureOf([&] { listener.open("127.0.0.1", AF_INET6, 0); }), "127.0.0.1 is not a valid ipv6 address.");
  EXPECT_EQ(failureOf([&] { listener.open(std::string("1:2"), 0); }), "1:2 is not a valid ipv6 address.");
  EXPECT_EQ(failureOf([&] { listener.open(std::string(""), 0); }), " is not a valid ipv4 address.");
  EXPECT_EQ(failureOf([&] { listener.open("x", 12345, 0); }), "failed to create socket");
  EXPECT_EQ(failureOf([&] { listener.open("192.0.2.1", AF_INET, 0); }), "failed to bind socket");
}

}  // namespace

}  // namespace AlarmTest
