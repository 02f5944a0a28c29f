#include "NotificationQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "SnmpMessages.h"
#include "StateTestSupport.h"
#include "SubAgentStandIn.h"

namespace {

using namespace VelaFmSnmp;
using Numbers = std::vector<int>;

constexpr int Window = static_cast<int>(NotificationQueue::window);
constexpr unsigned long long Timeout = NotificationQueue::acknowledgementTimeout;

/** Alarms are told by their index; a heartbeat's number is that of its notification. */
class NotificationQueueTest : public testing::Test {
 protected:
  static NotificationQueue::Message alarm(int index, std::size_t textLength = 0, bool isStateful = true,
                                          int severity = 4) {
    SnmpAlarm value;
    value.setStateful(isStateful);
    value.setSeverity(severity);
    value.setIndex(static_cast<unsigned int>(index));
    value.setManagedObject("ManagedElement=1");
    value.setAdditionalText(std::string(textLength, 'x'));
    return std::make_unique<SnmpAlarmMessage>(value);
  }
  void add(int first, int last) {
    for (int index = first; index <= last; ++index) queue.add(alarm(index));
  }
  void acknowledge(int count = 1) {
    for (; count > 0; --count) subAgent.answer();
    queue.pump();
  }
  void acknowledgeAll() {
    while (!subAgent.unanswered.empty()) acknowledge();
  }
  /** As the adaptor does it when it has seen the end of a connection. */
  void reconnect() {
    subAgent.close();
    queue.onConnectionLost();
    subAgent.attach({}, {});
    takeSent();
    queue.pump();
  }
  /** Time in which the adaptor looks after its connection. */
  void wait(unsigned long long milliseconds) {
    constexpr unsigned long long step = 500;
    for (; milliseconds >= step; milliseconds -= step) {
      clock.advance(step);
      queue.pump();
    }
  }
  Numbers takeSent() {
    subAgent.sent.clear();
    return std::exchange(subAgent.indexes, {});
  }
  static Numbers range(int first, int last) {
    Numbers numbers(static_cast<std::size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
  }

  StateTest::CapturedLog log;
  StateTest::ControlledClock clock;
  AdaptorTest::SubAgentStandIn subAgent;
  NotificationQueue queue{subAgent};
};

TEST_F(NotificationQueueTest, AcknowledgementsMakeRoom) {
  add(1, Window + 10);
  EXPECT_TRUE(takeSent().empty());
  queue.pump();
  EXPECT_EQ(takeSent(), range(1, Window));
  queue.pump();
  EXPECT_TRUE(takeSent().empty());
  acknowledge(3);
  EXPECT_EQ(takeSent(), range(Window + 1, Window + 3));
  EXPECT_EQ(queue.size(), static_cast<std::size_t>(Window) + 7);
  acknowledgeAll();
  EXPECT_EQ(takeSent(), range(Window + 4, Window + 10));
  EXPECT_EQ(queue.size(), 0U);

  subAgent.octets = NotificationQueue::maxOctetsOnWay / 2;
  add(1, 4);
  queue.pump();
  EXPECT_EQ(takeSent(), range(1, 2)) << "more would block both ends";
  acknowledgeAll();
  EXPECT_EQ(takeSent(), range(3, 4));
}

TEST_F(NotificationQueueTest, WhatCannotBeSentIsPassedOverAndNamedOnce) {
  subAgent.tooLong = {3};
  queue.add(alarm(1, 0, false, 0));
  add(2, 4);
  queue.pump();
  EXPECT_EQ(takeSent(), (Numbers{2, 4}));
  acknowledge(1);
  subAgent.answer(268);
  reconnect();
  EXPECT_EQ(queue.size(), 0U);
  EXPECT_EQ(log.lines(Vela::LogError),
            (std::vector<std::string>{
                "What severity is set (0)?",
                "The notification of alarm 3 of ManagedElement=1 (type 0/0) is given up: a message cannot carry its "
                "70000 octets",
                "The notification of alarm 4 of ManagedElement=1 (type 0/0) is given up: the master agent refuses it "
                "(error 268)"}));
}

TEST_F(NotificationQueueTest, WhatWasNotAcknowledgedGoesOutAgainInOrderAndAloneFirst) {
  add(1, 40);
  queue.pump();
  takeSent();
  // The last acknowledgements may have arrived together with the end of the connection.
  for (int i = 0; i < 5; ++i) subAgent.answer();
  subAgent.isConnected = false;
  add(41, 42);
  queue.pump();
  EXPECT_TRUE(takeSent().empty()) << "nothing leaves while the connection is closed";
  reconnect();
  EXPECT_EQ(log.count(Vela::LogWarning, "27 notifications were not acknowledged and go out again, 10 more wait"), 1);
  for (int index = 6; index <= 32; ++index) {
    EXPECT_EQ(takeSent(), (Numbers{index}));
    acknowledge();
  }
  EXPECT_EQ(takeSent(), range(33, 42));
  acknowledgeAll();
  EXPECT_EQ(queue.size(), 0U);
}

TEST_F(NotificationQueueTest, HeartbeatsAreNotSentAgain) {
  add(1, Window - 1);
  const auto heartbeat = [] { return std::make_unique<SnmpHeartbeatMessage>(SnmpHeartbeat()); };
  queue.add(heartbeat());
  queue.add(heartbeat());
  queue.pump();
  EXPECT_EQ(subAgent.sent.back(), 20);
  EXPECT_EQ(queue.size(), static_cast<std::size_t>(Window) + 1);
  reconnect();
  EXPECT_EQ(queue.size(), static_cast<std::size_t>(Window) - 1);
}

TEST_F(NotificationQueueTest, EveryPduIsWaitedForAndAHalfAcknowledgedMessageGoesOutAgainWhole) {
  queue.add(alarm(1, 300));
  add(2, 2);
  queue.pump();
  EXPECT_EQ(takeSent(), (Numbers{1, 1, 2}));
  acknowledge();
  EXPECT_EQ(queue.size(), 2U);
  reconnect();
  EXPECT_EQ(takeSent(), (Numbers{1, 1}));
  acknowledge(2);
  EXPECT_EQ(takeSent(), (Numbers{2}));
  acknowledge();
  EXPECT_EQ(queue.size(), 0U);
}

TEST_F(NotificationQueueTest, AProbeStaysHeldUntilItCameBack) {
  add(1, 40);
  queue.pump();
  subAgent.tooLong = {50};
  for (const int index : {50, 51, 52}) queue.hold(alarm(index));
  EXPECT_FALSE(queue.sendProbe()) << "eight are older and wait for their turn";
  acknowledge(8);
  takeSent();
  EXPECT_TRUE(queue.sendProbe());
  EXPECT_EQ(takeSent(), (Numbers{51}));
  EXPECT_EQ(queue.heldCount(), 2U) << "what cannot be sent is no probe";
  acknowledgeAll();
  EXPECT_EQ(queue.size(), 2U) << "acknowledged, but not received";
  EXPECT_TRUE(queue.sendProbe());
  reconnect();
  EXPECT_TRUE(takeSent().empty()) << "it waits for being sent as a probe";
  EXPECT_TRUE(queue.sendProbe());
  queue.release(1);
  queue.pump();
  EXPECT_EQ(takeSent(), (Numbers{51, 51}));
  EXPECT_EQ(queue.heldCount(), 1U);
  subAgent.isConnected = false;
  EXPECT_TRUE(queue.sendProbe());
  EXPECT_EQ(queue.heldCount(), 1U);
}

TEST_F(NotificationQueueTest, AMasterAgentThatDoesNotAnswerAPingEitherCountsAsGone) {
  add(1, 2);
  queue.pump();
  wait(Timeout);
  EXPECT_TRUE(subAgent.isConnected);
  EXPECT_EQ(subAgent.pings, 1);
  acknowledge();  // the time starts anew for the next one
  wait(Timeout);
  EXPECT_TRUE(subAgent.isConnected);
  EXPECT_EQ(subAgent.pings, 2);
  wait(500);
  EXPECT_FALSE(subAgent.isConnected);
  EXPECT_TRUE(subAgent.takeMute());
  EXPECT_FALSE(subAgent.takeMute());
  EXPECT_EQ(log.count(Vela::LogWarning, "1 notifications were not acknowledged and go out again, 0 more wait"), 1);
  reconnect();
  EXPECT_EQ(takeSent(), (Numbers{2}));
  acknowledgeAll();
  wait(10 * Timeout);
  EXPECT_TRUE(subAgent.isConnected) << "nothing is waited for";

  subAgent.answerTimeout = 3 * Timeout;
  add(3, 3);
  queue.pump();
  wait(3 * Timeout);
  EXPECT_TRUE(subAgent.isConnected) << "a master agent that is given more time has it here, too";
  wait(500);
  EXPECT_FALSE(subAgent.isConnected);
}

TEST_F(NotificationQueueTest, ABusyAdaptorAndAClockSetForwardJudgeNobody) {
  add(1, 3);
  queue.pump();
  // A step takes its time while the acknowledgements lie in the socket.
  wait(Timeout / 2 + 500);
  subAgent.isUnread = true;
  clock.advance(3 * Timeout);
  queue.pump();
  EXPECT_TRUE(subAgent.isConnected);
  subAgent.isUnread = false;
  acknowledgeAll();
  EXPECT_EQ(queue.size(), 0U);

  add(4, 4);
  queue.pump();
  clock.advance(3600000);
  queue.pump();
  acknowledgeAll();
  EXPECT_TRUE(subAgent.isConnected);
  EXPECT_EQ(queue.size(), 0U);
  EXPECT_TRUE(log.lines(Vela::LogWarning).empty());
}

TEST_F(NotificationQueueTest, OneThatIsPassedOverInSilenceIsGivenUpForItsOwnSake) {
  constexpr const char* GivenUp =
      "The notification of alarm 1 of ManagedElement=1 (type 0/0) is given up: the master agent answers, but not to it";
  for (const bool isFollowed : {true, false}) {
    add(1, isFollowed ? 2 : 1);
    queue.pump();
    subAgent.unanswered.pop_front();
    if (isFollowed) acknowledge();
    wait(Timeout);
    EXPECT_EQ(queue.size(), 1U);
    acknowledgeAll();  // the ping's, where there was one
    EXPECT_EQ(subAgent.pings, isFollowed ? 0 : 1);
    wait(500);
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_EQ(log.count(Vela::LogError, GivenUp), isFollowed ? 1 : 2);
  }
  EXPECT_TRUE(subAgent.isConnected);
}

TEST_F(NotificationQueueTest, OnlyWhatIsAloneWhenAConnectionEndsCountsAsItsCause) {
  add(1, 3);
  const auto endConnection = [this] {
    subAgent.isConnected = false;
    reconnect();
  };
  queue.pump();
  for (int i = 0; i < 2; ++i) endConnection();
  takeSent();
  acknowledge();
  for (unsigned int failure = 1; failure < NotificationQueue::maxFailures; ++failure) {
    EXPECT_EQ(takeSent(), (Numbers{2})) << failure;
    endConnection();
  }
  EXPECT_TRUE(log.lines(Vela::LogError).empty());
  endConnection();
  EXPECT_EQ(takeSent(), (Numbers{3}));
  EXPECT_EQ(log.lines(Vela::LogError),
            (std::vector<std::string>{"The notification of alarm 2 of ManagedElement=1 (type 0/0) is given up: the "
                                      "connection to the master agent ended 3 times with no other on its way"}));

  subAgent.breaking = {3};
  acknowledgeAll();
  add(3, 3);
  for (unsigned int failure = 0; failure < 2 * NotificationQueue::maxFailures; ++failure) reconnect();
  subAgent.breaking.clear();
  reconnect();
  EXPECT_EQ(takeSent(), (Numbers{3})) << "what the master agent never got did not end the connection";
}

TEST_F(NotificationQueueTest, WhatIsDroppedDoesNotComeBackWithTheNextConnection) {
  add(1, 40);
  queue.hold(alarm(50));
  queue.pump();
  queue.dropDue();
  EXPECT_EQ(log.count(Vela::LogWarning, "40 notifications that were not acknowledged are dropped"), 1);
  EXPECT_EQ(queue.size(), 1U);
  queue.dropHeld();
  EXPECT_EQ(log.count(Vela::LogWarning, "1 queued notifications are dropped"), 1);
  acknowledgeAll();
  reconnect();
  add(41, 41);
  queue.pump();
  EXPECT_EQ(takeSent(), (Numbers{41}));
}

}  // namespace
