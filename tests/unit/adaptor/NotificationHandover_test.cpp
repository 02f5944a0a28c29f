#include "NotificationHandover.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <numeric>
#include <vector>

#include "StateTestSupport.h"
#include "SubAgentStandIn.h"

namespace {

using namespace VelaFmSnmp;
using Outcome = NotificationHandover::Outcome;

/** The message's type is its number. */
class NotificationHandoverTest : public testing::Test {
 protected:
  struct Message : Vela::PipeMessage {
    using PipeMessage::PipeMessage;
  };

  void add(int first, int last) {
    for (int number = first; number <= last; ++number) handover.add(std::make_unique<Message>(number));
  }
  void acknowledge(unsigned int pdus) {
    subAgent.counts.acknowledged += pdus;
    handover.pump();
  }
  void acknowledgeAll() {
    while (subAgent.counts.acknowledged < subAgent.counts.sent) acknowledge(1);
  }
  void reconnect() {
    subAgent.close();
    handover.onConnectionLost();
    subAgent.attach({}, {});
  }
  std::vector<int> takeSent() { return std::exchange(sent, {}); }
  static std::vector<int> range(int first, int last) {
    std::vector<int> numbers(static_cast<std::size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
  }

  int send(const Vela::PipeMessage& message) {
    const int number = message.getMessageType();
    if (unsendable.count(number) != 0) {
      ++subAgent.counts.failed;
      return 0;
    }
    const unsigned int pdus = pdusOf.count(number) != 0 ? pdusOf[number] : 1;
    if (pdus == 0) return -1;
    subAgent.counts.sent += pdus;
    sent.push_back(number);
    return 0;
  }

  StateTest::CapturedLog log;
  StateTest::ControlledClock clock;
  AdaptorTest::SubAgentStandIn subAgent;
  std::map<int, unsigned int> pdusOf; /**< other than 1; 0: no form on the wire */
  std::map<int, bool> unsendable;
  std::vector<int> sent;
  NotificationHandover handover{subAgent, [this](const Vela::PipeMessage& message) { return send(message); }};
};

TEST_F(NotificationHandoverTest, AcknowledgementsMakeRoomInTheWindow) {
  constexpr int Window = static_cast<int>(NotificationHandover::window);
  add(1, Window + 10);
  EXPECT_TRUE(sent.empty());
  handover.pump();
  EXPECT_EQ(takeSent(), range(1, Window));
  handover.pump();
  EXPECT_TRUE(sent.empty());
  acknowledge(3);
  EXPECT_EQ(takeSent(), range(Window + 1, Window + 3));
  EXPECT_EQ(handover.size(), static_cast<std::size_t>(Window) + 7);
  acknowledgeAll();
  EXPECT_EQ(takeSent(), range(Window + 4, Window + 10));
  EXPECT_TRUE(handover.isEmpty());
}

TEST_F(NotificationHandoverTest, WhatHasNoFormOnTheWireIsPassedOver) {
  pdusOf[1] = pdusOf[3] = 0;
  add(1, 4);
  handover.pump();
  EXPECT_EQ(takeSent(), (std::vector<int>{2, 4}));
  EXPECT_EQ(handover.size(), 2U);
}

TEST_F(NotificationHandoverTest, WhatWasNotAcknowledgedGoesOutAgainInOrder) {
  add(1, 40);
  handover.pump();
  takeSent();
  // The last acknowledgements may have arrived together with the end of the connection.
  subAgent.counts.acknowledged += 5;
  subAgent.isConnected = false;
  handover.pump();
  add(41, 42);
  handover.pump();
  EXPECT_TRUE(sent.empty()) << "nothing leaves while the connection is closed";
  reconnect();
  handover.pump();
  acknowledgeAll();
  EXPECT_EQ(takeSent(), range(6, 42));
  EXPECT_TRUE(handover.isEmpty());
}

TEST_F(NotificationHandoverTest, EveryPduIsWaitedForAndAHalfAcknowledgedMessageGoesOutAgainWhole) {
  pdusOf[1] = 2;
  add(1, 2);
  handover.pump();
  acknowledge(1);
  EXPECT_EQ(handover.size(), 2U);
  reconnect();
  handover.pump();
  EXPECT_EQ(takeSent(), (std::vector<int>{1, 2, 1, 2}));
  for (const std::size_t left : {2U, 1U, 0U}) {
    acknowledge(1);
    EXPECT_EQ(handover.size(), left);
  }
  EXPECT_TRUE(handover.isEmpty());
}

TEST_F(NotificationHandoverTest, ABorrowedMessageIsCountedButNotSentAgain) {
  const Message probe(100);
  add(1, 2);
  handover.pump();
  EXPECT_EQ(handover.sendNow(probe), Outcome::Sent);
  add(3, 3);
  EXPECT_EQ(takeSent(), (std::vector<int>{1, 2, 100}));
  acknowledge(2);
  EXPECT_EQ(handover.size(), 2U) << "the probe and the message behind it";
  reconnect();
  handover.pump();
  EXPECT_EQ(takeSent(), (std::vector<int>{3, 3})) << "before and after the connection was lost";

  pdusOf[101] = 0;
  EXPECT_EQ(handover.sendNow(Message(101)), Outcome::NothingToSend);
  subAgent.isConnected = false;
  EXPECT_EQ(handover.sendNow(probe), Outcome::Failed);
}

TEST_F(NotificationHandoverTest, AMasterAgentThatDoesNotAcknowledgeInTimeCountsAsGone) {
  add(1, 2);
  handover.pump();
  clock.advance(NotificationHandover::acknowledgementTimeout);
  handover.collect();
  EXPECT_TRUE(subAgent.isConnected);
  acknowledge(1);  // the time starts anew for the next one
  clock.advance(NotificationHandover::acknowledgementTimeout);
  handover.collect();
  EXPECT_TRUE(subAgent.isConnected);
  clock.advance(1);
  handover.collect();
  EXPECT_FALSE(subAgent.isConnected);
  EXPECT_TRUE(subAgent.takeMute());
  EXPECT_FALSE(subAgent.takeMute());
  EXPECT_EQ(log.count(Vela::LogWarning, "1 notifications were not acknowledged and go out again, 0 more wait"), 1);
  reconnect();
  takeSent();
  handover.pump();
  EXPECT_EQ(takeSent(), (std::vector<int>{2}));
  acknowledgeAll();
  clock.advance(10 * NotificationHandover::acknowledgementTimeout);
  handover.collect();
  EXPECT_TRUE(subAgent.isConnected) << "nothing is waited for";
}

TEST_F(NotificationHandoverTest, WhatIsDroppedDoesNotComeBackWithTheNextConnection) {
  add(1, 40);
  handover.pump();
  EXPECT_TRUE(handover.hasDue());
  handover.clear();
  EXPECT_FALSE(handover.hasDue());
  reconnect();
  add(41, 41);
  takeSent();
  handover.pump();
  EXPECT_EQ(takeSent(), (std::vector<int>{41}));
}

TEST_F(NotificationHandoverTest, AClockThatIsSetForwardLosesNothing) {
  add(1, 3);
  handover.pump();
  clock.advance(3600000);
  handover.pump();
  EXPECT_FALSE(subAgent.isConnected) << "it looks as if nothing had been acknowledged for an hour";
  reconnect();
  takeSent();
  handover.pump();
  EXPECT_EQ(takeSent(), range(1, 3));
}

TEST_F(NotificationHandoverTest, AMessageThatBreaksTheConnectionEachTimeIsGivenUp) {
  unsendable[2] = true;
  add(1, 3);
  for (int attempt = 1; attempt <= 3; ++attempt) {
    handover.pump();
    EXPECT_FALSE(subAgent.isConnected) << attempt;
    reconnect();
  }
  takeSent();
  handover.pump();
  EXPECT_EQ(takeSent(), (std::vector<int>{1, 3}));
  EXPECT_EQ(log.lines(Vela::LogError).size(), 1U);
}

}  // namespace
