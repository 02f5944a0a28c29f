#include "ScriptWrapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "TemporaryFolder.h"
#include "VelaException.h"
#include "support/CapturedLog.h"

namespace {

using Clock = std::chrono::steady_clock;

/** Waits until the condition holds, at most ten seconds. */
template <class Condition>
bool eventually(Condition&& condition) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

class ScriptWrapperTest : public ::testing::Test {
 protected:
  int run(const std::string& script, int timeoutMs = 10000) {
    return Vela::ScriptWrapper("sh").run({"-c", script}, timeoutMs, _output);
  }
  std::string path(const char* name) const { return _folder.file(name); }

  TemporaryFolder _folder;
  std::string _output;
  StateTest::CapturedLog _log;
};

TEST_F(ScriptWrapperTest, ArgumentsReachTheCommandAsTheyAre) {
  const std::string hostile = "a b;$(touch x)'\"\n*";
  EXPECT_EQ(Vela::ScriptWrapper("printf").run({"%s|", hostile, ""}, 5000, _output), 0);
  EXPECT_EQ(_output, hostile + "||");
  try {
    Vela::ScriptWrapper("no-such-command-at-all").run({}, 5000, _output);
    FAIL() << "ran";
  } catch (const Vela::VelaException& ex) {
    EXPECT_NE(std::string(ex.what()).find("no-such-command-at-all: No such file"), std::string::npos) << ex.what();
  }
}

TEST_F(ScriptWrapperTest, TheAnswerIsStandardOutputAndAFailureTellsStandardError) {
  const struct {
    const char* script;
    int status;
    const char* output;
  } cases[] = {
      {"exit 0", 0, ""},
      {"echo out; echo err >&2", 0, "out\n"},
      {"echo out; echo err >&2; exit 3", 3, "err\n"},
      {"echo out; exit 3", 3, "out\n"},
      {"kill -9 $$", 128 + SIGKILL, ""},
      {"cat; echo done", 0, "done\n"},  // standard input is empty, not the host's
  };
  for (const auto& test : cases) {
    _output = "left over";
    EXPECT_EQ(run(test.script), test.status) << test.script;
    EXPECT_EQ(_output, test.output) << test.script;
  }
  EXPECT_THAT(_log.lines(Vela::LogWarning), testing::ElementsAre("sh -c echo out; echo err >&2: err"));
  // A long output does not block the command.
  EXPECT_EQ(run("head -c 300000 /dev/zero | tr '\\0' x | tee /dev/stderr"), 0);
  EXPECT_EQ(_output.size(), 300000u);
}

// The grandchild ignores SIGTERM: only a kill of the whole group gets rid of it.
TEST_F(ScriptWrapperTest, ATimeOutKillsTheWholeProcessGroup) {
  const std::string script =
      "(trap '' TERM; sleep 600 & echo $! > " + path("grandchild") + "; wait) & trap '' TERM; wait";
  const Clock::time_point start = Clock::now();
  EXPECT_THROW(run("echo stuck >&2; exec yes", 300), Vela::VelaException) << "it never stops writing";
  EXPECT_THAT(_log.lines(Vela::LogWarning), testing::ElementsAre("sh -c echo stuck >&2; exec yes: stuck"));
  EXPECT_THROW(run(script, 300), Vela::VelaException);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  int pid = 0;
  std::ifstream(path("grandchild")) >> pid;
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(eventually([&] {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string word;
    std::string state;
    return !(stat >> word >> word >> state) || state == "Z";
  }));
}

TEST_F(ScriptWrapperTest, ADaemonLeftBehindDoesNotHoldTheCommand) {
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(run("setsid sleep 3 & echo started"), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(_output, "started\n");
}

TEST_F(ScriptWrapperTest, CancellingEndsARunningCommandAndRefusesNewOnesUntilReset) {
  Vela::ScriptCancellation cancellation;
  Vela::ScriptWrapper script("sh");
  script.setCancellation(&cancellation);
  const std::string started = path("started");
  std::jthread canceller([&] {
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
    cancellation.cancel();
  });
  const Clock::time_point start = Clock::now();
  EXPECT_THROW(script.run({"-c", "touch " + started + "; exec sleep 600"}, 60000, _output), Vela::VelaException);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
  EXPECT_THROW(script.run({"-c", "touch " + path("refused")}, 5000, _output), Vela::VelaException);
  EXPECT_FALSE(std::filesystem::exists(path("refused")));
  cancellation.reset();
  EXPECT_EQ(script.run({"-c", "exit 4"}, 5000, _output), 4);
}

}  // namespace
