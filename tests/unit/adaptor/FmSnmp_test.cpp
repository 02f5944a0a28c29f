#include "FmSnmp.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "FmSnmpCM.h"
#include "SnmpMessages.h"
#include "StateTestSupport.h"
#include "config/ModelFixture.h"
#include "fault/FmService.h"

namespace {

using namespace VelaFmSnmp;

/** A configuration change notification, from event types, names and attribute names. */
class Notification {
 public:
  struct Event {
    const char* dn;
    int type;
    bool hasAttributes;
    std::vector<const char*> attributes;
  };

  explicit Notification(const std::vector<Event>& events) {
    for (const Event& event : events) {
      std::vector<const Attribute*>& list = _lists.emplace_back();
      for (const char* name : event.attributes) list.push_back(&_attributes.emplace_back(Attribute{name}));
      list.push_back(nullptr);
      _events.push_back({event.dn, event.type, event.hasAttributes ? list.data() : nullptr});
      _pointers.push_back(&_events.back());
    }
    _pointers.push_back(nullptr);
    value.events = _pointers.data();
  }
  DaxOamSpiCmEvent_Notification_1T value{};

 private:
  using Attribute = DaxOamSpiCmEvent_Attribute_1T;
  // What is pointed at stays where it is.
  std::deque<Attribute> _attributes;
  std::deque<std::vector<const Attribute*>> _lists;
  std::deque<DaxOamSpiCmEvent_Event_1T> _events;
  std::vector<const DaxOamSpiCmEvent_Event_1T*> _pointers;
};

/** The component while its adaptor thread does not run: what it posts stays in the thread's input. */
class FmSnmpTest : public testing::Test {
 protected:
  FmSnmpTest() { component.getAdaptorThread().popFromInput(); }

  std::vector<std::unique_ptr<Vela::PipeMessage>> take() { return component.getAdaptorThread().popFromInput(); }

  StateTest::CapturedLog log;
  FmSnmp& component = FmSnmp::getInstance();
};

TEST_F(FmSnmpTest, WhichChangesOfTheModelArePosted) {
  const struct {
    const char* what;
    std::vector<Notification::Event> events;
    bool onlyState, address;
  } cases[] = {
      {"nothing", {}, true, false},
      {"state only",
       {{"a", 1, true, {"operationalState"}}, {"b", 1, true, {nullptr, "operationalState"}}},
       true,
       false},
      {"another attribute", {{"a", 1, true, {"operationalState", "port"}}}, false, false},
      {"created", {{"a", 2, true, {"operationalState"}}}, false, false},
      {"deleted", {{"a", 1, true, {"operationalState"}}, {"b", 4, true, {}}}, false, false},
      {"no attributes", {{"a", 1, false, {}}}, false, false},
      {"address in the second event", {{"a", 1, true, {"port"}}, {"b", 1, true, {nullptr, "address"}}}, false, true},
      {"created before an address", {{"a", 2, true, {}}, {"b", 1, true, {"address"}}}, false, false},
      {"an address before deleted", {{"a", 1, true, {"address"}}, {"b", 4, true, {}}}, false, true},
  };
  for (const auto& item : cases) {
    const Notification notification(item.events);
    component.onSnmpMoChange(notification.value);
    EXPECT_EQ(take().size(), item.onlyState ? 0U : 1U) << item.what;
    component.onOamAccessPointMoRefsMoChange(notification.value);
    EXPECT_EQ(take().size(), item.address ? 1U : 0U) << item.what;
    component.onOamAccessPointMoChange(notification.value);
    EXPECT_EQ(take().size(), 1U) << item.what;
  }
  const DaxOamSpiCmEvent_Notification_1T none = {nullptr};
  EXPECT_TRUE(component.onlyOperationalStateChanged(none));
  EXPECT_FALSE(component.isAddressAttributeChanged(none));
  component.onDiffServCategoryMoChangeNotification(none);
  EXPECT_TRUE(take().empty());
}

TEST_F(FmSnmpTest, EachChangedCategoryIsPosted) {
  const Notification notification({{"X=1,DiffServCategory=OamCM", 1, true, {"dscp"}},
                                   {nullptr, 1, true, {}},
                                   {"X=1,DiffServCategory=OamFM", 1, true, {"dscp"}},
                                   {"X=1,DiffServCategory=OamFM", 2, true, {"dscp"}},
                                   {"X=1,DiffServCategory=Other", 1, true, {"dscp"}}});
  component.onDiffServCategoryMoChangeNotification(notification.value);
  const auto messages = take();
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages.front()->getMessageType(), 16);
  EXPECT_TRUE(log.hasTrace("CM Event type, 1 received with NULL dn value"));
  EXPECT_TRUE(log.hasTrace("CM Event type, 1 received with incorrect dn value - X=1,DiffServCategory=Other"));
}

TEST_F(FmSnmpTest, FmEventsAreCopiedIntoMessages) {
  DaxOamSpiNotificationFmT report = {};
  std::string dn = "ManagedElement=1";
  report.dn = dn.c_str();
  report.severity = 5;
  VelaOamApiFmNotificationEventValue_4T alarm = {};
  alarm.notification = &report;
  alarm.stateful = true;
  alarm.index = 7;
  const VelaOamApiFmHeartbeatEventValue_4T heartbeat = {1, 2, 3, 4};
  component.onFmEvent(VELA_FM_NOTIFICATION_EVENT, &alarm);
  component.onHeartbeat(VELA_FM_HEARTBEAT_EVENT, &heartbeat);
  component.onAlarmListRebuilt(VELA_FM_ALARM_LIST_REBUILT_EVENT, nullptr);
  component.onFmEvent(VELA_FM_NOTIFICATION_EVENT, nullptr);
  component.onHeartbeat(VELA_FM_HEARTBEAT_EVENT, nullptr);
  EXPECT_EQ(log.lines(Vela::LogWarning),
            (std::vector<std::string>{"Event " VELA_FM_NOTIFICATION_EVENT " without a value is ignored",
                                      "Event " VELA_FM_HEARTBEAT_EVENT " without a value is ignored"}));
  dn = "gone";
  const auto messages = take();
  ASSERT_EQ(messages.size(), 3U);
  ASSERT_EQ(messages[0]->getMessageType(), 17);
  const SnmpAlarm& copy = static_cast<const SnmpAlarmMessage&>(*messages[0]).getAlarm();
  EXPECT_EQ(copy.getManagedObject(), "ManagedElement=1");
  EXPECT_EQ(copy.getIndex(), 7U);
  ASSERT_EQ(messages[1]->getMessageType(), 18);
  EXPECT_EQ(static_cast<const SnmpHeartbeatMessage&>(*messages[1]).getHeartbeat().getAlertSeqNo(), 4U);
  EXPECT_EQ(messages[2]->getMessageType(), 19);
}

/** The component in a node's services, with tools that answer nothing useful. */
class FmSnmpNodeTest : public ModelFixture {
 protected:
  FmSnmpNodeTest() {
    services.getLog().setLevel(8);
    set(Snmp, "administrativeState", "LOCKED");
    std::ofstream(file) << "<VelaFmSnmp/>";
  }
  ~FmSnmpNodeTest() override {
    std::filesystem::remove(file);
    component.stop(VelaStateChangeDeactivate);
  }

  bool waitForLine(const std::string& text) const {
    return StateTest::eventually([&] { return isLogged(text); });
  }
  VelaReturnT init(const char* configuration) {
    static const VelaMgmtSpiInterfacePortalAccessor accessor = {
        [](const char* version) { return std::string(version) == "1" ? VelaNode::HostPortal::getTable() : nullptr; }};
    return FmSnmpCM::getInstance().velaLCMinit(&accessor, configuration);
  }

  StateTest::CommandStandIn tools{[](const std::string&, std::string&) { return 1; }};
  const std::string file = testing::TempDir() + "fm_snmp_" + std::to_string(getpid()) + ".xml";
  FmSnmp& component = FmSnmp::getInstance();
};

TEST_F(FmSnmpNodeTest, StartsForwardsStopsAndStartsAgain) {
  ASSERT_EQ(init(file.c_str()), 0);
  EXPECT_EQ(component.stop(VelaStateChangeDeactivate), 0) << "nothing runs yet";
  EXPECT_FALSE(isLogged("stopping snmpAdaptorThread ..."));
  VelaNode::FmService fm(services.getStore(), services.getRouter());
  for (int run = 1; run <= 2; ++run) {
    forgetLines();
    ASSERT_EQ(component.start(VelaStateChangeActivate), 0);
    EXPECT_TRUE(isLogged("Starting Fm Snmp Component, reason: 1"));
    EXPECT_TRUE(isLogged("Got first FM instance: ManagedElement=1,SystemFunctions=1,Fm=1."));
    EXPECT_TRUE(isLogged("Got first Snmp instance: " + Snmp + "."));
    forgetLines();
    EXPECT_EQ(component.start(VelaStateChangeActivate), -1) << "it runs";
    EXPECT_FALSE(isLogged("Got first FM instance: ")) << "nothing is touched";
    VelaNode::FmReport report;
    report.key.source = "ManagedElement=1";
    fm.alert(report);
    EXPECT_TRUE(waitForLine("queueing trap for alert: "));
    fm.sendHeartbeat();
    EXPECT_TRUE(waitForLine("Not sending heartbeat"));
    fm.rebuild();
    EXPECT_TRUE(waitForLine("queueing trap for alarmlistrebuilt"));
    ASSERT_TRUE(waitForLine("to IdleDisabled"));

    set(Snmp, "snmpId", "run " + std::to_string(run));
    EXPECT_TRUE(waitForLine("got IMM change event, reload configuration"));

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(component.stop(VelaStateChangeDeactivate), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_TRUE(isLogged("successfully stopped snmpAdaptorThread"));
    EXPECT_FALSE(component.getAdaptor().isRunning());
  }
  forgetLines();
  component.onAlarmListRebuilt("", nullptr);
  EXPECT_EQ(component.getAdaptorThread().popFromInput().size(), 1U) << "nobody reads any more";
}

TEST_F(FmSnmpNodeTest, AStopLeavesNoSubscriptionBehind) {
  static int subscriptions;
  static VelaOamSpiEventRouter_1T router;
  static VelaMgmtSpiInterfacePortal_1T portal;
  subscriptions = 0;
  router = *VelaNode::EventRouter::getTable();
  router.addSubscription = [](auto... arguments) -> VelaReturnT {
    ++subscriptions;
    return VelaNode::EventRouter::getTable()->addSubscription(arguments...);
  };
  router.removeSubscription = [](auto... arguments) -> VelaReturnT {
    --subscriptions;
    return VelaNode::EventRouter::getTable()->removeSubscription(arguments...);
  };
  portal = *VelaNode::HostPortal::getTable();
  portal.getInterface = [](const char* from, const char* name, const char* version, void** interface) {
    const VelaReturnT result = VelaNode::HostPortal::getTable()->getInterface(from, name, version, interface);
    if (name && std::string(name) == VELA_EVENT_ROUTER_INTERFACE) *interface = &router;
    return result;
  };
  const VelaMgmtSpiInterfacePortalAccessor accessor = {[](const char*) { return &portal; }};
  ASSERT_EQ(FmSnmpCM::getInstance().velaLCMinit(&accessor, file.c_str()), 0);
  ASSERT_EQ(component.start(VelaStateChangeActivate), 0);
  EXPECT_EQ(subscriptions, 7);
  component.startSubscriptionsOnOamAccessPointMoRefs({"^X=1$"});
  EXPECT_EQ(subscriptions, 8);
  EXPECT_EQ(component.stop(VelaStateChangeDeactivate), 0);
  EXPECT_EQ(subscriptions, 0);
  component.startSubscriptionsOnOamAccessPointMoRefs({"^X=1$"});
  component.startTemporarySubscriptionsOnOamAccessPointMoRefs({"^X=1$"});
  EXPECT_EQ(subscriptions, 0) << "a reader that is late watches nothing";
  FmSnmpCM::getInstance().velaLCMterminate();
}

TEST_F(FmSnmpNodeTest, AStartThatFailsSaysWhy) {
  ASSERT_EQ(init(file.c_str()), 0);
  component.setConfigurationHandler(nullptr);
  EXPECT_EQ(component.start(VelaStateChangeActivate), -1);
  EXPECT_TRUE(isLogged("Caught exception during Fm Snmp Component start: there is no component configuration."));
}

TEST_F(FmSnmpNodeTest, AnInitThatFailsSaysWhy) {
  EXPECT_EQ(init(nullptr), -1);
  EXPECT_TRUE(
      isLogged("Exception caught during initialization of Fm Snmp Component: "
               "basic_string::_M_construct null not valid "));
  FmSnmpCM::getInstance().velaLCMterminate();
  component.setConfigurationHandler(nullptr);
  EXPECT_EQ(init("/nowhere/file.xml"), -1);
  EXPECT_TRUE(isLogged("Failed to load components configuration! (-1)"));
  EXPECT_TRUE(isLogged("Could not load the configuration for Fm Snmp Component."));
  EXPECT_EQ(component.getConfigurationHandler(), nullptr);
}

TEST_F(FmSnmpNodeTest, TheFrameworksRefusalIsReturned) {
  static VelaMgmtSpiInterfacePortal_1T portal;
  portal = *VelaNode::HostPortal::getTable();
  portal.registerComponent = [](const VelaMgmtSpiComponent_1T* description) -> VelaReturnT {
    return std::string(description->componentName) == "VelaFmSnmp" ? -42 : 0;
  };
  portal.unregisterComponent = [](const VelaMgmtSpiComponent_1T*) -> VelaReturnT { return -1; };
  const VelaMgmtSpiInterfacePortalAccessor accessor = {[](const char*) { return &portal; }};
  EXPECT_EQ(FmSnmpCM::getInstance().velaLCMinit(&accessor, file.c_str()), -42);
  EXPECT_TRUE(isLogged("Could not register the Fm Snmp Component."));
  EXPECT_FALSE(isLogged("Could not load")) << "the configuration is not read then";
  FmSnmpCM::getInstance().velaLCMterminate();
  EXPECT_TRUE(isLogged("Could not unregister the Fm Snmp Component."));
  const VelaMgmtSpiInterfacePortalAccessor empty = {
      [](const char*) -> VelaMgmtSpiInterfacePortal_1T* { return nullptr; }};
  EXPECT_EQ(FmSnmpCM::getInstance().velaLCMinit(&empty, file.c_str()), -1);
}

TEST_F(FmSnmpNodeTest, TheDescriptionNamesWhatIsNeeded) {
  ASSERT_EQ(init(file.c_str()), 0);
  const VelaMgmtSpiComponent_1T& description = *component.getComponent();
  EXPECT_EQ(description.componentInterface.componentName, nullptr);
  EXPECT_STREQ(description.componentInterface.interfaceName, "VelaMgmtSpiComponent");
  EXPECT_EQ(description.offered[0], nullptr);
  std::vector<std::string> needed;
  for (const VelaMgmtSpiInterface_1* const* next = description.dependencies; *next; ++next) {
    const auto text = [](const char* value) { return std::string(value ? value : "any"); };
    needed.push_back(text((*next)->componentName) + "/" + text((*next)->interfaceName) + "/" +
                     text((*next)->interfaceVersion));
    EXPECT_TRUE(FmSnmpCM::getInstance().getInterface(**next)) << needed.back();
  }
  EXPECT_EQ(needed, (std::vector<std::string>{"any/VelaMwSpiLog/1", "any/DaxMwSpiTrace/any",
                                              "VelaOamSpiEventService/VelaOamSpiEventRouter/1",
                                              "VelaOamSpiCmRouterService/VelaOamSpiManagedObject/3"}));
}

}  // namespace
