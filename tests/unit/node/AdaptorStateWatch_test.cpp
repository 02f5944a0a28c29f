#include "host/AdaptorStateWatch.h"

#include <gtest/gtest.h>

#include "VelaException.h"
#include "VelaMwSpiLog.h"
#include "framework/NodeServices.h"
#include "host/ComponentHost.h"

namespace VelaNode {
namespace {

class AdaptorStateWatchTest : public testing::Test {
 protected:
  AdaptorStateWatchTest() {
    _services.getLog().setSink([this](const HostLog::Line& line) { _lines.emplace_back(line.text); });
    VelaMgmtSpiInterfacePortal_1T* portal = AdaptorStateWatch::getAccessor()->getPortal("1");
    void* log = nullptr;
    EXPECT_EQ(VELA_OK, portal->getInterface(nullptr, VELA_LOG_INTERFACE, VELA_LOG_VERSION, &log));
    _log = static_cast<const VelaMwSpiLog_1T*>(log);
  }

  NodeServices _services;
  AdaptorStateWatch _watch{_services.getLog()};
  std::vector<std::string> _lines;
  const VelaMwSpiLog_1T* _log = nullptr;
};

TEST_F(AdaptorStateWatchTest, RemembersTheLastChangeOfState) {
  EXPECT_EQ("", _watch.getState().name);
  std::vector<std::string> entered;
  _watch.setListener(
      [&](const AdaptorStateWatch::State& state) { entered.push_back(state.name + ": " + state.reason); });
  _log->write(6, "c", "f", "Changing state from OneTimeInit to WaitForTrap : first");
  _log->write(6, "c", "f", "Changing state from WaitForTrap to IdleEnabled : got it: from a to b : c");
  for (const char* other : {"Changing state", "Changing state from A", "Changing state from A to B", "anything"}) {
    _log->write(6, "c", "f", other);
  }
  EXPECT_EQ("IdleEnabled", _watch.getState().name);
  EXPECT_EQ("got it: from a to b : c", _watch.getState().reason);
  EXPECT_EQ(6U, _lines.size());
  EXPECT_EQ(entered, (std::vector<std::string>{"WaitForTrap: first", "IdleEnabled: got it: from a to b : c"}));
  _watch.reset();
  EXPECT_EQ("", _watch.getState().name);

  // It knows the state at every log level.
  _lines.clear();
  _services.getLog().setLevel(3);
  ASSERT_GE(_log->getLevel(), 6);
  _log->write(6, "c", "f", "Changing state from A to B : c");
  EXPECT_EQ("B", _watch.getState().name);
  EXPECT_TRUE(_lines.empty());
  _services.getLog().setLevel(9);
  EXPECT_EQ(9, _log->getLevel());
}

TEST_F(AdaptorStateWatchTest, FindsTheLastComplaintThatMentionsAName) {
  _log->write(3, "c", "f", "Failed to configure snmp target nms: first");
  _log->write(3, "c", "f", "Failed to configure snmp target nms: second");
  _log->write(4, "c", "f", "Failed to configure snmp target nms-2: third");
  _log->write(4, "c", "f", "[state IdleDisabled] queueing trap for alarm: nms");
  _log->write(6, "c", "f", "target nms is new");
  EXPECT_EQ("Failed to configure snmp target nms: second", _watch.findComplaint({"Snmp=1,SnmpTarget=nms", "nms", ""}));
  EXPECT_EQ("", _watch.findComplaint({"s"}));
  for (int i = 0; i < 300; ++i) _log->write(3, "c", "f", "anything");
  EXPECT_EQ("", _watch.findComplaint({"nms"}));
}

TEST_F(AdaptorStateWatchTest, OtherVersionsAndInterfacesAreTheHosts) {
  EXPECT_EQ(nullptr, AdaptorStateWatch::getAccessor()->getPortal("2"));
  EXPECT_EQ(nullptr, AdaptorStateWatch::getAccessor()->getPortal(nullptr));
  VelaMgmtSpiInterfacePortal_1T* portal = AdaptorStateWatch::getAccessor()->getPortal("1");
  void* table = nullptr;
  EXPECT_EQ(VELA_OK, portal->getInterface(VELA_MO_COMPONENT, VELA_MO_INTERFACE, VELA_MO_VERSION, &table));
  EXPECT_EQ(ManagedObjectService::getTable(), table);
  EXPECT_EQ(VELA_NOT_FOUND, portal->getInterface(nullptr, "none", nullptr, &table));
}

TEST_F(AdaptorStateWatchTest, HostRefusesWhatIsNoComponent) {
  ComponentHost host(_services.getPortal());
  EXPECT_THROW(host.load("/nonexistent.so", AdaptorStateWatch::getAccessor(), ""), Vela::VelaException);
  EXPECT_THROW(host.load("libm.so.6", AdaptorStateWatch::getAccessor(), ""), Vela::VelaException);
  EXPECT_THROW(host.start(), Vela::VelaException);
  EXPECT_EQ(ComponentHost::Unloaded, host.getState());
}

}  // namespace
}  // namespace VelaNode
