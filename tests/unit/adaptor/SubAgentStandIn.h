#ifndef VELA_TESTS_SUB_AGENT_STAND_IN_H
#define VELA_TESTS_SUB_AGENT_STAND_IN_H

#include <functional>
#include <vector>

#include "AgentXSubAgent.h"

namespace AdaptorTest {

/** A connection to a master agent that acknowledges when the test says so. */
class SubAgentStandIn : public VelaFmSnmp::AgentXSubAgent {
 public:
  void presetLibrary() override {}
  bool attach(const Settings& settings, const std::function<void()>&) override {
    close();
    sockets.push_back(settings.socket);
    counts = {};
    isConnected = canAttach;
    return isConnected;
  }
  void close() override {
    if (isConnected) ++closes;
    isConnected = false;
  }
  bool isAttached() const override { return isConnected; }
  void addDescriptors(int& count, netsnmp_large_fd_set& descriptors, timeval& timeout) override {
    if (descriptor >= 0) {
      NETSNMP_LARGE_FD_SET(descriptor, &descriptors);
      count = std::max(count, descriptor + 1);
    }
    if (!due.empty()) timeout = {0, 0};
  }
  void read(netsnmp_large_fd_set&) override { ++reads; }
  void runTimers() override {
    for (const auto& call : std::exchange(due, {})) call();
  }
  void checkOutstandingRequests() override {}
  void callSoon(SNMPAlarmCallback* callback, void* argument) override {
    due.push_back([=] { callback(1, argument); });
  }
  void send(const std::function<void()>& sending) override { sending(); }
  NotificationCounts getNotificationCounts() const override { return counts; }

  bool isConnected = true;
  bool canAttach = true;
  NotificationCounts counts;
  std::vector<std::function<void()>> due;
  std::vector<std::string> sockets; /**< of the calls of attach */
  int closes = 0;
  int reads = 0;
  int descriptor = -1; /**< to be waited for */
};

}  // namespace AdaptorTest
#endif
