#include "OperationalStates.h"

#include <gmock/gmock.h>

#include <map>

#include "MasterAgentFixture.h"
#include "MoConnector.h"
#include "adaptor/StateTestSupport.h"

using namespace VelaFmSnmp;
using ::testing::ElementsAre;
using ::testing::Pair;

namespace {

class ModelStandIn : public MoConnector {
 public:
  std::vector<std::string> setOperationalStates(const std::map<std::string, bool>& targets,
                                                bool service) const override {
    written = targets;
    isServiceEnabled = service;
    if (isBusy) throw Vela::VelaException("no lock");
    return failures;
  }

  bool isBusy = false;
  std::vector<std::string> failures;
  mutable std::map<std::string, bool> written;
  mutable bool isServiceEnabled = false;
};

}  // namespace

TEST(OperationalStates, reachTheObjectsOfTheirTargets) {
  auto works = targetV2("works");
  auto fails = targetV2("fails");
  auto locked = targetV2("locked");
  locked->administrativeState = false;
  works->moName = "first";
  fails->moName = "second";
  locked->moName = "third";
  SnmpConfig config = configWith({works, fails, locked});
  config.leftOut = {"left out"};
  const ModelStandIn model;
  OperationalStates states;
  states.set("works", true);
  states.setOperationalStates(config);
  states.updateAllOperationalStates(model, config, true);
  EXPECT_THAT(model.written,
              ElementsAre(Pair("first", true), Pair("left out", false), Pair("second", false), Pair("third", false)));
  EXPECT_TRUE(model.isServiceEnabled);
  states.updateAllOperationalStates(model, config, false);
  EXPECT_THAT(model.written,
              ElementsAre(Pair("first", false), Pair("left out", false), Pair("second", false), Pair("third", false)));
  EXPECT_FALSE(model.isServiceEnabled);
}

TEST(OperationalStates, theServiceWorksUnlessAllThatIsWantedFails) {
  auto locked = targetV2("locked");
  locked->administrativeState = false;
  const struct {
    std::vector<Poco::AutoPtr<SnmpBaseTarget>> targets;
    bool isServiceEnabled;
    const char* line;
  } cases[] = {{{}, true, "Number of operational targets 0 of 0 enabled"},
               {{locked, targetTls("dtls", "u")}, true, "Number of operational targets 0 of 0 enabled"},
               {{targetV2("a"), locked}, false, "Number of operational targets 0 of 1 enabled"},
               {{targetV2("a"), targetV2("works")}, true, "Number of operational targets 1 of 2 enabled"}};
  for (const auto& test : cases) {
    const StateTest::CapturedLog log;
    const ModelStandIn model;
    OperationalStates states;
    states.set("works", true);
    SnmpConfig config = configWith(test.targets);
    states.setOperationalStates(config);
    states.updateAllOperationalStates(model, config, true);
    EXPECT_EQ(model.isServiceEnabled, test.isServiceEnabled) << test.line;
    EXPECT_EQ(log.count(Vela::LogInfo, test.line), 1);
  }
}

TEST(OperationalStates, whatCouldNotBeWrittenIsOverdueAfterAWhile) {
  const StateTest::CapturedLog log;
  const StateTest::ControlledClock clock;
  ModelStandIn model;
  OperationalStates states;
  SnmpConfig config = configWith({targetV2("a")});
  EXPECT_FALSE(states.areOverdue());
  for (const bool isBusy : {true, false}) {
    model.isBusy = isBusy;
    model.failures = {"gone"};
    states.updateAllOperationalStates(model, config, true);
    clock.advance(29999);
    EXPECT_FALSE(states.areOverdue());
    clock.advance(1);
    EXPECT_TRUE(states.areOverdue());
  }
  EXPECT_EQ(log.count(Vela::LogError, "Failed to set operationalState! (no lock)"), 1);
  EXPECT_EQ(log.count(Vela::LogError, "Failed to set operationalState! (gone)"), 1);
  model.failures.clear();
  states.updateAllOperationalStates(model, config, true);
  clock.advance(60000);
  EXPECT_FALSE(states.areOverdue());
}
