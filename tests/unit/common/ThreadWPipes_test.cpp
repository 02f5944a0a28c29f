#include "ThreadWPipes.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <memory>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "VelaException.h"

namespace {

struct Numbered : Vela::PipeMessage {
  Numbered(int source, int count) : PipeMessage(source), number(count) {}
  const int number;
};

bool isReadable(int fd) {
  pollfd watched{fd, POLLIN, 0};
  return ::poll(&watched, 1, 0) == 1;
}

// Nobody reads while the burst is pushed: a pipe that carried one octet per message would be full after 65,536.
TEST(ThreadWPipes, ABurstFromSeveralThreadsNeitherBlocksNorLosesAnOrder) {
  constexpr int sources = 4;
  constexpr int perSource = 25000;
  Vela::ThreadWPipes pipe("test");
  {
    std::vector<std::jthread> threads;
    for (int source = 0; source < sources; ++source) {
      threads.emplace_back([&pipe, source] {
        for (int i = 0; i < perSource; ++i) pipe.pushToInput(std::make_unique<Numbered>(source, i));
      });
    }
  }
  ASSERT_TRUE(isReadable(pipe.getInputReadFD()));

  std::vector<int> next(sources, 0);
  const auto messages = pipe.popFromInput();
  ASSERT_EQ(messages.size(), static_cast<size_t>(sources) * perSource);
  for (const auto& message : messages) {
    ASSERT_EQ(static_cast<const Numbered&>(*message).number, next[static_cast<size_t>(message->getMessageType())]++);
  }
  EXPECT_FALSE(isReadable(pipe.getInputReadFD()));
}

TEST(ThreadWPipes, MessagesPushedWhileReadingAllArrive) {
  constexpr int count = 100000;
  Vela::ThreadWPipes pipe("test");
  std::jthread writer([&pipe] {
    for (int i = 0; i < count; ++i) pipe.pushToInput(std::make_unique<Numbered>(0, i));
  });
  int next = 0;
  while (next < count) {
    pollfd watched{pipe.getInputReadFD(), POLLIN, 0};
    ASSERT_EQ(::poll(&watched, 1, 10000), 1) << "not readable although only " << next << " messages were taken";
    for (const auto& message : pipe.popFromInput()) ASSERT_EQ(static_cast<const Numbered&>(*message).number, next++);
  }
  EXPECT_TRUE(pipe.popFromInput().empty());
}

TEST(ThreadWPipes, AJoinWaitsNoLongerThanItIsTold) {
  struct Body : Poco::Runnable {
    void run() override { end.acquire(); }
    std::binary_semaphore end{0};
  } body;
  Vela::ThreadWPipes thread("test");
  EXPECT_TRUE(thread.join(0)) << "it never ran";
  for (int run = 1; run <= 2; ++run) {
    thread.start(body);
    EXPECT_TRUE(Vela::ThreadWPipes::isAnyLeft());
    EXPECT_FALSE(thread.join(10)) << run;
    EXPECT_THROW(thread.start(body), Vela::VelaException) << run;
    body.end.release();
    EXPECT_TRUE(thread.join(20000)) << run;
    EXPECT_FALSE(Vela::ThreadWPipes::isAnyLeft());
  }
}

}  // namespace
