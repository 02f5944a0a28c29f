#include "fault/FmService.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "TemporaryFolder.h"
#include "VelaException.h"
#include "fault/ListRebuiltNotice.h"
#include "framework/NodeServices.h"
#include "model/ModelFile.h"

namespace VelaNode {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::Pair;

constexpr const char* fmDn = "ManagedElement=1,SystemFunctions=1,Fm=1";
constexpr const char* eventTypes[] = {VELA_FM_NOTIFICATION_EVENT, VELA_FM_HEARTBEAT_EVENT,
                                      VELA_FM_ALARM_LIST_REBUILT_EVENT};
constexpr milliseconds deliveryTimeout{10000};

/** An event as a consumer saw it. */
struct Event {
  std::string type;
  VelaOamApiFmNotificationEventValue_4T notification{};
  DaxOamSpiNotificationFmT report{};
  std::string dn;
  std::string text;
  std::string problem;
  std::string originalText;
  FmAdditionalInfo info;
  VelaOamApiFmHeartbeatEventValue_4T heartbeat{};
};

std::mutex recordMutex;
std::vector<Event> record;

void recordEvent(const char* type, const void* value) {
  Event event;
  event.type = type;
  if (event.type == VELA_FM_NOTIFICATION_EVENT) {
    event.notification = *static_cast<const VelaOamApiFmNotificationEventValue_4T*>(value);
    event.report = *event.notification.notification;
    event.dn = event.report.dn;
    event.text = event.report.additionalText;
    event.problem = event.notification.specificProblem;
    event.originalText = event.notification.originalAdditionalText;
    for (std::uint32_t i = 0; i < event.report.additionalInfo.size; ++i) {
      event.info.emplace_back(event.report.additionalInfo.items[i].name, event.report.additionalInfo.items[i].value);
    }
  } else if (event.type == VELA_FM_HEARTBEAT_EVENT) {
    event.heartbeat = *static_cast<const VelaOamApiFmHeartbeatEventValue_4T*>(value);
  }
  const std::lock_guard lock(recordMutex);
  record.push_back(event);
}

class FmServiceTest : public testing::Test {
 protected:
  FmServiceTest() {
    _services.getStore().install(ModelFile::parse(ModelFile::getDefaultText(), "default"));
    record.clear();
    static const VelaOamSpiEventConsumer_1T consumer = {&recordEvent};
    std::uint32_t id = 0;
    _services.getRouter().registerConsumer(&consumer, &id);
    for (const char* type : eventTypes) {
      std::uint32_t subscription = 0;
      _services.getRouter().addSubscription(id, type, nullptr, &subscription);
    }
  }

  static FmReport linkFailure() {
    FmReport report;
    report.key = {"ManagedElement=1,Port=7", 193, 12, "Link failure"};
    report.severity = FmMajor;
    report.additionalText = "no light";
    report.eventType = 2;
    report.probableCause = 29;
    report.additionalInfo = {{"slot", "3"}, {"port", "7"}};
    return report;
  }

  std::vector<Event> events() {
    EXPECT_TRUE(_services.getRouter().waitUntilDelivered(deliveryTimeout));
    const std::lock_guard lock(recordMutex);
    return record;
  }

  MoObjectPtr fmObject() { return _services.getStore().getTree().find(fmDn); }
  MoObjectPtr alarmObject(std::uint32_t index) {
    return _services.getStore().getTree().find(std::string(fmDn) + ",FmAlarm=" + std::to_string(index));
  }
  /** Critical, major, minor, warning, total. */
  std::vector<std::uint64_t> sums() {
    std::vector<std::uint64_t> result;
    for (const char* name : {"sumCritical", "sumMajor", "sumMinor", "sumWarning", "totalActive"}) {
      result.push_back(fmObject()->getUnsigned(name).value());
    }
    return result;
  }

  std::uint64_t _wallNs = 1489482000123456000;
  std::uint64_t _steadyMs = 5000;
  NodeServices _services;
  std::optional<FmService> _service{std::in_place, _services.getStore(), _services.getRouter(),
                                    FmClock{[this] { return _wallNs; }, [this] { return _steadyMs; }}};
  FmService& _fm = *_service;
};

TEST_F(FmServiceTest, ListRebuiltIsToldOnceWhenServiceAndATargetWork) {
  constexpr const char* snmpDn = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1";
  const std::string targetDn = std::string(snmpDn) + ",SnmpTargetV2C=nms";
  MoTransaction preparation(_services.getStore());
  if (!preparation.find(targetDn)) preparation.create(targetDn);
  preparation.commit();
  ListRebuiltNotice notice(_services.getStore(), _services.getRouter());
  const auto tellWith = [&](const char* serviceState, const char* targetState) {
    MoTransaction transaction(_services.getStore());
    transaction.set(snmpDn, "operationalState", serviceState);
    transaction.set(targetDn, "operationalState", targetState);
    transaction.commit();
    notice.tell();
    return events().size();
  };
  EXPECT_EQ(0U, tellWith("ENABLED", "DISABLED")) << "nobody would get it";
  EXPECT_EQ(0U, tellWith("DISABLED", "ENABLED"));
  EXPECT_EQ(1U, tellWith("ENABLED", "ENABLED"));
  EXPECT_EQ(VELA_FM_ALARM_LIST_REBUILT_EVENT, events().front().type);
  EXPECT_EQ(1U, tellWith("ENABLED", "ENABLED")) << "once";
}

TEST_F(FmServiceTest, RaisedAlarmIsInTheModelAndEmitted) {
  EXPECT_EQ(1U, _fm.raise(linkFailure()));
  ASSERT_TRUE(alarmObject(1));
  std::ostringstream attributes;
  alarmObject(1)->toJson()->getObject("attributes")->stringify(attributes);
  EXPECT_EQ(R"({"fmAlarmId":1,"lastEventTime":"2017-03-14T09:00:00.123456Z",)"
            R"("originalEventTime":"2017-03-14T09:00:00.123456Z","activeSeverity":4,"originalSeverity":4,)"
            R"("additionalText":"no light","originalAdditionalText":"no light","specificProblem":"Link failure",)"
            R"("source":"ManagedElement=1,Port=7","majorType":193,"minorType":12,"probableCause":29,"eventType":2,)"
            R"("additionalInfo":[{"name":"slot","value":"3"},{"name":"port","value":"7"}]})",
            attributes.str());
  EXPECT_THAT(sums(), ElementsAre(0, 1, 0, 0, 1));
  EXPECT_EQ(1U, fmObject()->getUnsigned("lastSequenceNo"));
  EXPECT_EQ("2017-03-14T09:00:00.123456Z", fmObject()->getText("lastChanged"));

  ASSERT_EQ(1U, events().size());
  const Event event = record[0];
  EXPECT_TRUE(event.notification.stateful);
  EXPECT_FALSE(event.notification.alarmUpdate);
  EXPECT_EQ(1, event.notification.sequenceNumber);
  EXPECT_EQ(1U, event.notification.index);
  EXPECT_EQ(2U, event.notification.eventType);
  EXPECT_EQ(29U, event.notification.probableCause);
  EXPECT_EQ(_wallNs, event.report.eventTime);
  EXPECT_EQ(_wallNs, event.notification.originalEventTime);
  EXPECT_EQ(FmMajor, event.report.severity);
  EXPECT_EQ(FmMajor, event.notification.originalSeverity);
  EXPECT_EQ("ManagedElement=1,Port=7", event.dn);
  EXPECT_EQ("Link failure", event.problem);
  EXPECT_THAT(event.info, ElementsAre(Pair("slot", "3"), Pair("port", "7")));
}

TEST_F(FmServiceTest, RaisingAnActiveAlarmUpdatesItAndKeepsTheOriginal) {
  const std::uint64_t raised = _wallNs;
  const std::uint32_t index = _fm.raise(linkFailure());
  _wallNs += 1000000000;
  FmReport worse = linkFailure();
  worse.severity = FmCritical;
  worse.additionalText = "still no light";
  EXPECT_EQ(index, _fm.raise(worse));

  EXPECT_THAT(sums(), ElementsAre(1, 0, 0, 0, 1));
  EXPECT_EQ(3, alarmObject(index)->getSigned("activeSeverity"));
  EXPECT_EQ(4, alarmObject(index)->getSigned("originalSeverity"));
  EXPECT_EQ("no light", alarmObject(index)->getText("originalAdditionalText"));
  const Event event = events().at(1);
  EXPECT_TRUE(event.notification.alarmUpdate);
  EXPECT_EQ(2, event.notification.sequenceNumber);
  EXPECT_EQ(_wallNs, event.report.eventTime);
  EXPECT_EQ("still no light", event.text);
  EXPECT_EQ(raised, event.notification.originalEventTime);
  EXPECT_EQ("no light", event.originalText);
  EXPECT_EQ(FmMajor, event.notification.originalSeverity);
}

TEST_F(FmServiceTest, EachPartOfTheKeyMakesAnotherAlarm) {
  FmReport report = linkFailure();
  std::set<std::uint32_t> indexes = {_fm.raise(report)};
  const std::function<void(FmAlarmKey&)> changes[] = {
      [](FmAlarmKey& key) { key.source += "0"; }, [](FmAlarmKey& key) { key.majorType = 1; },
      [](FmAlarmKey& key) { key.minorType = 1; }, [](FmAlarmKey& key) { key.specificProblem = ""; }};
  for (const auto& change : changes) {
    change(report.key);
    indexes.insert(_fm.raise(report));
  }
  EXPECT_THAT(indexes, ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(FmServiceTest, ChangeAndClearAreOneTransactionEach) {
  const std::uint32_t index = _fm.raise(linkFailure());
  std::vector<std::size_t> changed;
  _services.getStore().setListener(
      [&](const std::shared_ptr<const MoChanges>& changes) { changed.push_back(changes->size()); });
  FmChange change;
  change.severity = FmWarning;
  _wallNs += 1000;
  _fm.change(index, change);
  EXPECT_THAT(sums(), ElementsAre(0, 0, 0, 1, 1));
  const Event event = events().at(1);
  EXPECT_EQ(FmWarning, event.report.severity);
  EXPECT_TRUE(event.notification.alarmUpdate);
  EXPECT_EQ("no light", event.text) << "a change touches only what it names";
  EXPECT_EQ(2U, event.info.size());

  _wallNs += 1000;
  _fm.clear(index);
  EXPECT_FALSE(alarmObject(index));
  EXPECT_THAT(sums(), ElementsAre(0, 0, 0, 0, 0));
  const Event clear = events().at(2);
  EXPECT_EQ(FmCleared, clear.report.severity);
  EXPECT_TRUE(clear.notification.alarmUpdate);
  EXPECT_EQ(index, clear.notification.index);
  EXPECT_EQ(FmMajor, clear.notification.originalSeverity);
  EXPECT_THAT(changed, ElementsAre(2, 2)) << "the alarm and the sums";
  EXPECT_EQ(index + 1, _fm.raise(linkFailure())) << "an index is not used again";
  EXPECT_FALSE(events().at(3).notification.alarmUpdate);
}

TEST_F(FmServiceTest, SumsFollowEverySeverity) {
  const FmSeverity severities[] = {FmIndeterminate, FmWarning, FmMinor, FmMajor, FmCritical, FmCritical};
  FmReport report = linkFailure();
  for (const FmSeverity severity : severities) {
    ++report.key.minorType;
    report.severity = severity;
    _fm.raise(report);
  }
  EXPECT_THAT(sums(), ElementsAre(2, 1, 1, 1, 6));
  EXPECT_EQ(2, alarmObject(1)->getSigned("activeSeverity"));
  EXPECT_EQ(6, alarmObject(2)->getSigned("activeSeverity"));
  EXPECT_EQ(5, alarmObject(3)->getSigned("activeSeverity"));
  EXPECT_EQ(6U, _fm.clearAll());
  EXPECT_THAT(sums(), ElementsAre(0, 0, 0, 0, 0));
  EXPECT_EQ(0U, _fm.countActive());
  EXPECT_EQ(12U, events().size());
}

TEST_F(FmServiceTest, WhatFailsChangesNothing) {
  const std::uint32_t index = _fm.raise(linkFailure());
  FmChange toCleared;
  toCleared.severity = FmCleared;
  EXPECT_THROW(_fm.change(index, toCleared), Vela::VelaException);
  EXPECT_THROW(_fm.change(index + 1, FmChange()), Vela::VelaException);
  EXPECT_THROW(_fm.clear(index + 1), Vela::VelaException);

  MoTransaction transaction(_services.getStore());
  transaction.remove(fmDn);
  transaction.commit();
  FmReport other = linkFailure();
  other.key.minorType = 1;
  EXPECT_THROW(_fm.raise(other), Vela::VelaException);
  other.severity = FmCleared;
  EXPECT_THROW(_fm.raise(other), Vela::VelaException);
  EXPECT_THROW(_fm.clear(index), Vela::VelaException);
  EXPECT_EQ(1U, _fm.countActive());
  EXPECT_EQ(1U, _fm.getLastAlarmSequenceNo());
  EXPECT_EQ(1U, events().size());
}

TEST_F(FmServiceTest, AlertsAreNumberedOnTheirOwnAndHeartbeatsTellTheLastOfBoth) {
  const std::uint64_t alarmTime = _wallNs;
  _fm.raise(linkFailure());
  _wallNs += 5000000;
  EXPECT_EQ(1U, _fm.alert(linkFailure()));
  EXPECT_EQ(2U, _fm.alert(linkFailure()));
  EXPECT_EQ(1U, _fm.countActive());
  EXPECT_EQ(1U, fmObject()->getUnsigned("lastSequenceNo"));
  const Event alert = events().at(2);
  EXPECT_FALSE(alert.notification.stateful);
  EXPECT_FALSE(alert.notification.alarmUpdate);
  EXPECT_EQ(2, alert.notification.sequenceNumber);
  EXPECT_EQ(FmMajor, alert.report.severity);

  _fm.sendHeartbeat();
  const VelaOamApiFmHeartbeatEventValue_4T heartbeat = events().at(3).heartbeat;
  EXPECT_EQ(alarmTime, heartbeat.lastAlarmTime);
  EXPECT_EQ(1U, heartbeat.lastAlarmSequenceNumber);
  EXPECT_EQ(_wallNs, heartbeat.lastAlertTime);
  EXPECT_EQ(2U, heartbeat.lastAlertSequenceNumber);
}

TEST_F(FmServiceTest, RegularHeartbeatFollowsTheInterval) {
  EXPECT_EQ(milliseconds(60000), _fm.updateHeartbeat());
  _steadyMs += 59999;
  EXPECT_EQ(milliseconds(1), _fm.updateHeartbeat());
  EXPECT_TRUE(events().empty());
  _steadyMs += 6;
  EXPECT_EQ(milliseconds(59995), _fm.updateHeartbeat()) << "a late heartbeat must not shift the next";
  EXPECT_EQ(1U, events().size());
  _steadyMs += 600000;
  EXPECT_EQ(milliseconds(60000), _fm.updateHeartbeat()) << "missed heartbeats are not made up for";
  EXPECT_EQ(2U, events().size());
}

TEST_F(FmServiceTest, ChangedIntervalTakesEffectAtOnce) {
  const auto setInterval = [&](unsigned seconds) {
    MoTransaction transaction(_services.getStore());
    transaction.set(fmDn, "heartbeatInterval", seconds);
    transaction.commit();
    EXPECT_TRUE(_services.getRouter().waitUntilDelivered(deliveryTimeout));
  };
  _fm.start();
  setInterval(0);
  EXPECT_EQ(milliseconds::max(), _fm.updateHeartbeat());
  setInterval(3600);
  EXPECT_EQ(milliseconds(3600000), _fm.updateHeartbeat());
  EXPECT_TRUE(events().empty());
  _fm.stop();
  _steadyMs += 20000;
  _fm.start();
  EXPECT_EQ(milliseconds(3580000), _fm.updateHeartbeat());
  setInterval(10);
  const auto deadline = std::chrono::steady_clock::now() + deliveryTimeout;
  while (events().empty() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_EQ(1U, events().size()) << "more than the new interval has passed since the last heartbeat";
}

TEST_F(FmServiceTest, RebuildMakesTheModelTrueAgain) {
  const std::uint32_t kept = _fm.raise(linkFailure());
  MoTransaction transaction(_services.getStore());
  transaction.remove(std::string(fmDn) + ",FmAlarm=" + std::to_string(kept));
  transaction.create(std::string(fmDn) + ",FmAlarm=77");
  transaction.set(fmDn, "totalActive", 9U);
  transaction.commit();
  _fm.rebuild();
  EXPECT_TRUE(alarmObject(kept));
  EXPECT_FALSE(alarmObject(77));
  EXPECT_THAT(sums(), ElementsAre(0, 1, 0, 0, 1));
  EXPECT_EQ(VELA_FM_ALARM_LIST_REBUILT_EVENT, events().at(1).type);
}

TEST_F(FmServiceTest, AnAlarmObjectReadsAndWritesAsAnyOther) {
  _fm.raise(linkFailure());
  const VelaOamSpiManagedObject_3T& table = *ManagedObjectService::getTable();
  const std::string dn = std::string(fmDn) + ",FmAlarm=1";
  VelaOamSpiMoTransactionT transaction = 0;
  const VelaOamSpiMoObjectT* object = nullptr;
  ASSERT_EQ(VELA_OK, table.beginTransaction(VELA_MO_LOCK_ON_WRITE, 5, &transaction));
  ASSERT_EQ(VELA_OK, table.openObject(transaction, dn.c_str(), &object));
  FmChange change;
  change.additionalText = "changed meanwhile";
  _fm.change(1, change);
  const VelaOamSpiMoAttribute_3T* text = nullptr;
  const VelaOamSpiMoAttribute_3T* info = nullptr;
  ASSERT_EQ(VELA_OK, table.getAttribute(object, "additionalText", &text));
  ASSERT_EQ(VELA_OK, table.getAttribute(object, "additionalInfo", &info));
  EXPECT_STREQ("no light", text->values[0].text) << "as it was when opened";
  ASSERT_EQ(2U, info->valueCount);
  EXPECT_STREQ("port", info->values[1].members[0].value.text);
  EXPECT_STREQ("7", info->values[1].members[1].value.text);
  table.closeObject(object);
  ASSERT_EQ(VELA_OK, table.commit(transaction));

  MoTransaction write(_services.getStore());
  write.set(dn, "activeSeverity", 9);
  const MoChanges changes = write.commit();
  ASSERT_EQ(1U, changes.size());
  EXPECT_THAT(changes[0].attributes, ElementsAre(testing::StrEq("activeSeverity")));
  EXPECT_EQ(9, alarmObject(1)->getSigned("activeSeverity"));
  EXPECT_EQ("changed meanwhile", alarmObject(1)->getText("additionalText"));
  EXPECT_EQ(193U, alarmObject(1)->getUnsigned("majorType"));
  FmReport report = linkFailure();
  report.additionalText = std::string("a\0b", 3);
  EXPECT_THROW(_fm.raise(report), Vela::VelaException);
}

#if defined(__GLIBC__)
/** Null without a sanitizer. */
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

TEST_F(FmServiceTest, AnAlarmWith200OctetsOfTextsTakesAtMost1500) {
  const auto used = [] {
    return __sanitizer_get_current_allocated_bytes != nullptr ? __sanitizer_get_current_allocated_bytes()
                                                              : ::mallinfo2().uordblks;
  };
  constexpr std::size_t count = 2000;
  FmReport report = linkFailure();
  report.key.specificProblem.assign(60, 'p');
  report.additionalText.assign(70, 't');
  const auto raiseAll = [&](std::uint32_t major) {
    report.key.majorType = major;
    for (report.key.minorType = 0; report.key.minorType < count; ++report.key.minorType) _fm.raise(report);
    events();
    record = {};
  };
  raiseAll(1);  // what the router keeps of names it has seen is there now
  raiseAll(2);
  const std::size_t before = used();
  raiseAll(3);
  const std::size_t perAlarm = (used() - before) / count;
  RecordProperty("octetsPerAlarm", static_cast<int>(perAlarm));
  EXPECT_LE(perAlarm, 1500U);
  EXPECT_GE(perAlarm, 400U) << "this measures nothing";
}
#endif

TEST_F(FmServiceTest, AlarmsAndNumbersOutliveTheService) {
  const TemporaryFolder folder;
  const std::string file = folder.file("alarms.journal");
  const auto clock = FmClock{[this] { return _wallNs; }, [this] { return _steadyMs; }};
  _service.reset();
  {
    FmService before(_services.getStore(), _services.getRouter(), clock);
    before.keepIn(file);
    before.start();
    FmReport report = linkFailure();
    const std::uint32_t cleared = before.raise(report);
    ++report.key.minorType;
    before.raise(report);
    ++report.key.minorType;
    report.severity = FmCritical;
    before.raise(report);
    before.alert(report);
    _wallNs += 1000;
    before.clear(cleared);
  }
  MoTransaction restart(_services.getStore());
  restart.remove(std::string(fmDn) + ",FmAlarm=2");
  restart.remove(std::string(fmDn) + ",FmAlarm=3");
  restart.set(fmDn, "lastSequenceNo", 0U);
  restart.commit();
  const std::uint64_t changed = _wallNs;
  _wallNs += 1000000000;
  const std::size_t seen = events().size();

  FmService after(_services.getStore(), _services.getRouter(), clock);
  after.keepIn(file);
  after.start();
  EXPECT_FALSE(alarmObject(1));
  EXPECT_EQ("no light", alarmObject(2)->getText("additionalText"));
  EXPECT_THAT(sums(), ElementsAre(1, 1, 0, 0, 2));
  EXPECT_EQ(4U, fmObject()->getUnsigned("lastSequenceNo"));
  EXPECT_EQ(formatTime(changed), fmObject()->getText("lastChanged"));
  EXPECT_EQ(seen, events().size()) << "what is told anew is told by the list-rebuilt event alone";

  FmReport report = linkFailure();
  ++report.key.minorType;
  EXPECT_EQ(2U, after.raise(report)) << "the alarm is known";
  EXPECT_EQ(4U, after.raise(linkFailure())) << "an index is not used again";
  EXPECT_EQ(2U, after.alert(report));
  EXPECT_EQ(5, events().at(seen).notification.sequenceNumber);
}

TEST_F(FmServiceTest, EventsOfManyThreadsComeInTheOrderOfTheirNumbers) {
  constexpr int threadCount = 4;
  constexpr int alarmsPerThread = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([&, t] {
      FmReport report = linkFailure();
      report.key.majorType = static_cast<std::uint32_t>(t);
      for (report.key.minorType = 0; report.key.minorType < alarmsPerThread; ++report.key.minorType) {
        const std::uint32_t index = _fm.raise(report);
        if (index % 2 == 0) _fm.clear(index);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::vector<Event> all = events();
  ASSERT_EQ(threadCount * alarmsPerThread * 3 / 2, static_cast<int>(all.size()));
  for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(static_cast<int>(i) + 1, all[i].notification.sequenceNumber);
  EXPECT_EQ(_fm.countActive(), sums().back());
}

}  // namespace
}  // namespace VelaNode
