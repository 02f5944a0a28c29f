#ifndef VELA_TESTS_SUB_AGENT_STAND_IN_H
#define VELA_TESTS_SUB_AGENT_STAND_IN_H

#include <algorithm>
#include <deque>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "AgentXSubAgent.h"

namespace AdaptorTest {

/** A connection to a master agent that answers when the test says so. */
class SubAgentStandIn : public VelaFmSnmp::AgentXSubAgent {
 public:
  void presetLibrary() override {}
  bool attach(const Settings& settings, const std::function<void()>&) override {
    close();
    attached.push_back(settings);
    unanswered.clear();
    answers.clear();
    isConnected = canAttach;
    return isConnected;
  }
  void close() override {
    if (isConnected) ++closes;
    isConnected = false;
  }
  void interrupt() override { isInterrupted = true; }
  void resume() override { isInterrupted = false; }
  bool isAttached() const override { return isConnected; }
  void addDescriptors(int& count, netsnmp_large_fd_set& descriptors, timeval&) override {
    if (descriptor >= 0) {
      NETSNMP_LARGE_FD_SET(descriptor, &descriptors);
      count = std::max(count, descriptor + 1);
    }
  }
  void read(netsnmp_large_fd_set&) override { ++reads; }
  void runTimers() override {}
  void checkOutstandingRequests() override {}
  Sent notify(const VelaFmSnmp::Varbinds& varbinds) override {
    const netsnmp_variable_list& first = *varbinds.list();
    const int notification = static_cast<int>(first.val.objid[first.val_len / sizeof(oid) - 1]);
    const netsnmp_variable_list& second = *first.next_variable;
    const int index = static_cast<int>(second.name[second.name_length - 1]);
    if (!isConnected || breaking.count(index) != 0) return {};
    if (tooLong.count(index) != 0) return {Outcome::TooLong, 0, 70000};
    sent.push_back(notification);
    indexes.push_back(index);
    return request();
  }
  Sent ping() override {
    if (!isConnected) return {};
    ++pings;
    return request();
  }
  std::vector<Answer> takeAnswers() override { return std::exchange(answers, {}); }
  bool hasUnread() const override { return isUnread; }
  unsigned long long getAnswerTimeout() const override { return answerTimeout; }

  /** Answers one of the requests that are not answered yet, the oldest first. */
  void answer(int error = 0, std::size_t place = 0) {
    answers.push_back({unanswered.at(place), error});
    unanswered.erase(unanswered.begin() + static_cast<std::ptrdiff_t>(place));
  }

  bool isConnected = true;
  bool isInterrupted = false;
  unsigned long long answerTimeout = 6000;
  bool canAttach = true;
  std::vector<int> sent;    /**< the notifications' numbers */
  std::vector<int> indexes; /**< the alarms' indexes in them */
  int pings = 0;
  std::set<int> tooLong;     /**< indexes */
  std::set<int> breaking;    /**< indexes with which the connection turns out to be closed */
  std::size_t octets = 1000; /**< of each message */
  std::deque<Request> unanswered;
  std::vector<Answer> answers;
  bool isUnread = false;
  std::vector<Settings> attached; /**< of the calls of attach */
  int closes = 0;
  int reads = 0;
  int descriptor = -1; /**< to be waited for */

 private:
  Sent request() {
    unanswered.push_back(++_lastRequest);
    return {Outcome::Sent, _lastRequest, octets};
  }

  Request _lastRequest = 100;
};

}  // namespace AdaptorTest
#endif
