#include <deque>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "MoConnector.h"
#include "ModelFixture.h"
#include "SnmpAlarmSnapshot.h"

namespace {

using namespace VelaFmSnmp;

/** Counts how often the whole list is read. */
class CountingConnector : public MoConnector {
 public:
  bool visit(ISnmpXmodDataProviderAlarmVisitor& visitor) override {
    ++wholePulls;
    return MoConnector::visit(visitor);
  }
  int wholePulls = 0;
};

/** A model whose alarms change, and a table that hears of each change by the alarm's id. */
class AlarmPullTest : public ModelFixture {
 protected:
  AlarmPullTest() {
    connector.init(VelaNode::HostPortal::getTable());
    reference.init(VelaNode::HostPortal::getTable());
    table.setDataProvider(&connector);
    whole.setDataProvider(&reference);
  }

  static constexpr unsigned int ids = 40;

  bool isActive(unsigned int id) const { return !names.at(id).empty(); }
  /** Raises, changes or clears an alarm. */
  void changeModel(bool isNamedById) {
    const unsigned int id = random() % ids;
    std::string& name = names[id];
    const std::string text = std::to_string(random());
    if (name.empty()) {
      name = create(Fm, "FmAlarm=" + std::to_string(isNamedById ? id : 1000 + id),
                    {{"fmAlarmId", std::to_string(id)}, {"activeSeverity", "3"}, {"additionalText", text}});
    } else if (random() % 2 == 0) {
      set(name, "additionalText", text);
    } else {
      remove(std::exchange(name, ""));
    }
    events.emplace_back(id, name.empty());
  }
  void deliver(std::size_t count) {
    for (; count > 0 && !events.empty(); --count) {
      table.invalidateAlarm(events.front().first, events.front().second);
      events.pop_front();
    }
  }
  static std::vector<std::string> rows(SnmpAlarmSnapshot& snapshot) {
    std::vector<std::string> found;
    for (const SnmpAlarm* alarm = snapshot.getFirstAlarm(); alarm; alarm = snapshot.getNextAlarm(alarm->getIndex()))
      found.push_back(alarm->toString());
    return found;
  }
  /** Changes, events and reads in any order; yields how often the table was found to be that of the model. */
  int run(int steps, unsigned int percentNamedById) {
    int compared = 0;
    for (int step = 0; step < steps; ++step) {
      switch (random() % 4) {
        case 0:
          deliver(random() % 4);
          break;
        case 1:
          table.getFirstAlarm();
          break;
        default:
          changeModel(random() % 100 < percentNamedById);
      }
      if (step % 5 != 0) continue;
      deliver(events.size());
      whole.invalidateSnapshot();
      EXPECT_EQ(rows(table), rows(whole)) << "step " << step;
      if (HasFailure()) break;
      ++compared;
    }
    return compared;
  }

  std::mt19937 random{7};
  std::vector<std::string> names = std::vector<std::string>(ids); /**< of the objects, by id; empty: none */
  std::deque<std::pair<unsigned int, bool>> events;
  CountingConnector connector;
  MoConnector reference;
  SnmpAlarmSnapshot table;
  SnmpAlarmSnapshot whole;
};

TEST_F(AlarmPullTest, TheTableFollowsTheModelByPullsOfWhatHasChanged) {
  const int compared = run(1500, 100);
  EXPECT_EQ(compared, 300);
  EXPECT_LT(connector.wholePulls, compared / 4) << "only where an event tells of an alarm that is gone meanwhile";
}

TEST_F(AlarmPullTest, TheTableFollowsAModelWhoseObjectsAreNamedInAnotherWay) {
  EXPECT_EQ(run(500, 0), 100);
  // From one way of naming to the other, and back.
  EXPECT_EQ(run(500, 90), 100);
  EXPECT_EQ(run(500, 100), 100);
}

TEST_F(AlarmPullTest, AnObjectThatCarriesAnotherIdThanItsNameIsNotMissed) {
  names[1] = create(Fm, "FmAlarm=1", {{"fmAlarmId", "1"}, {"activeSeverity", "3"}});
  EXPECT_EQ(rows(table).size(), 1U);
  create(Fm, "FmAlarm=2", {{"fmAlarmId", "3"}, {"activeSeverity", "3"}});
  table.invalidateAlarm(2, false);
  ASSERT_NE(table.getAlarm(3), nullptr);
  EXPECT_EQ(connector.wholePulls, 2);
  set("ManagedElement=1,SystemFunctions=1,Fm=1,FmAlarm=1", "activeSeverity", "1");
  table.invalidateAlarm(1, false);
  EXPECT_EQ(table.getAlarm(1), nullptr) << "cleared, though its object is still there";
}

TEST_F(AlarmPullTest, ManyChangesAndALostNodeLeadToAWholePull) {
  for (unsigned int id = 0; id < ids; ++id)
    create(Fm, "FmAlarm=" + std::to_string(id), {{"fmAlarmId", std::to_string(id)}});
  EXPECT_EQ(rows(table).size(), ids);
  for (unsigned int id = 0; id < ids; ++id) table.invalidateAlarm(id, false);
  EXPECT_EQ(rows(table).size(), ids);
  EXPECT_EQ(connector.wholePulls, 2);
  Vela::Portal::set(nullptr);
  table.invalidateAlarm(1, false);
  EXPECT_EQ(rows(table).size(), 0U) << "what cannot be read is not served";
  Vela::Portal::set(VelaNode::HostPortal::getTable());
  EXPECT_EQ(rows(table).size(), ids);
}

}  // namespace
