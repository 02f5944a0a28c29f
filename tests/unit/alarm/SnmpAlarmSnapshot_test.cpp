#include "SnmpAlarmSnapshot.h"

#include <gtest/gtest.h>

#include <vector>

#include "AlarmTestSupport.h"
#include "adaptor/StateTestSupport.h"

namespace AlarmTest {

using VelaFmSnmp::SnmpAlarm;
using VelaFmSnmp::SnmpAlarmSnapshot;

namespace {

class SnapshotTest : public testing::Test {
 protected:
  std::vector<unsigned int> indices() {
    std::vector<unsigned int> found;
    for (const SnmpAlarm* alarm = snapshot.getFirstAlarm(); alarm != nullptr;
         alarm = snapshot.getNextAlarm(alarm->getIndex()))
      found.push_back(alarm->getIndex());
    return found;
  }
  void setAlarms(const std::vector<unsigned int>& sourceIndices) {
    source.alarms.clear();
    for (const unsigned int index : sourceIndices) source.alarms.push_back(makeAlarm(index));
  }

  using Indices = std::vector<unsigned int>;
  StateTest::CapturedLog log;
  ConnectorStandIn source;
  SnmpAlarmSnapshot snapshot;
};

TEST_F(SnapshotTest, IsEmptyUntilItIsInvalidated) {
  EXPECT_EQ(snapshot.getFirstAlarm(), nullptr);
  EXPECT_TRUE(log.lines(Vela::LogError).empty());
  snapshot.invalidateSnapshot();
  EXPECT_EQ(snapshot.getFirstAlarm(), nullptr);
  EXPECT_EQ(log.count(Vela::LogError, "No DataProvider, can not sync"), 1);
}

TEST_F(SnapshotTest, KeepsActiveAlarmsOnly) {
  setAlarms({7, 3, 5});
  source.alarms[1].setSeverity(0);
  source.alarms[2].setStateful(false);
  EXPECT_EQ(snapshot.setDataProvider(&source), nullptr);
  EXPECT_EQ(indices(), Indices{7});
  EXPECT_EQ(snapshot.getAlarm(7)->toString(), source.alarms[0].toString());
  EXPECT_EQ(snapshot.getAlarm(3), nullptr);
  EXPECT_EQ(snapshot.getAlert(5), nullptr);
  EXPECT_EQ(snapshot.getFirstAlert(), nullptr);
  EXPECT_EQ(snapshot.getNextAlert(0), nullptr);
}

TEST_F(SnapshotTest, PullsAgainOnlyWhenInvalidated) {
  setAlarms({1});
  snapshot.setDataProvider(&source);
  EXPECT_EQ(indices(), Indices{1});
  setAlarms({2});
  EXPECT_EQ(indices(), Indices{1});
  EXPECT_EQ(source.visits, 1);
  EXPECT_FALSE(snapshot.syncWithSourceIfNeeded());
  snapshot.invalidateSnapshot();
  EXPECT_TRUE(snapshot.syncWithSourceIfNeeded());
  EXPECT_EQ(indices(), Indices{2});
  EXPECT_EQ(source.visits, 2);
}

TEST_F(SnapshotTest, UpdatesInPlaceAndDropsWhatIsGone) {
  setAlarms({4, 5, 6});
  snapshot.setDataProvider(&source);
  const SnmpAlarm* const kept = snapshot.getAlarm(5);
  setAlarms({5, 6, 8});
  source.alarms[0].setAdditionalText("changed");
  source.alarms[1].setSeverity(0);
  snapshot.invalidateSnapshot();
  EXPECT_EQ(indices(), (Indices{5, 8}));
  EXPECT_EQ(snapshot.getAlarm(5), kept);
  EXPECT_EQ(kept->getAdditionalText(), "changed");
  EXPECT_EQ(log.count(Vela::LogDebug, "Removed 2 alarms"), 1);
  snapshot.invalidateSnapshot();
  EXPECT_EQ(indices(), (Indices{5, 8}));
}

TEST_F(SnapshotTest, AFailedPullAndALostProviderEmptyIt) {
  setAlarms({4, 5});
  snapshot.setDataProvider(&source);
  EXPECT_EQ(indices(), (Indices{4, 5}));
  source.isBroken = true;
  EXPECT_FALSE(snapshot.syncWithSource());
  EXPECT_EQ(indices(), Indices{});
  source.isBroken = false;
  EXPECT_EQ(indices(), (Indices{4, 5})) << "it is tried again";
  EXPECT_EQ(snapshot.setDataProvider(nullptr), &source);
  EXPECT_EQ(indices(), Indices{});
}

}  // namespace

}  // namespace AlarmTest
