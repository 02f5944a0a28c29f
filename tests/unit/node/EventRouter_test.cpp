#include "framework/EventRouter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>

namespace VelaNode {

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto Soon = 20s;

/** A router whose consumers, numbered by a template argument, run functions that the test sets. */
class EventRouterTest : public testing::Test {
 protected:
  using Handler = std::function<void(const char* eventType, const void* value)>;

  ~EventRouterTest() override {
    for (Handler& handler : _handlers) handler = nullptr;
  }

  template <int Number>
  std::uint32_t consumer(Handler handler) {
    _handlers[Number] = std::move(handler);
    static const VelaOamSpiEventConsumer_1T callback = {
        [](const char* eventType, const void* value) { _handlers[Number](eventType, value); }};
    std::uint32_t id = 0;
    EXPECT_EQ(_table.registerConsumer(&callback, &id), VELA_OK);
    return id;
  }
  VelaReturnT subscribe(std::uint32_t consumerId, const char* eventType,
                        const std::vector<const char*>& expressions = {}, std::uint32_t* subscription = nullptr) {
    std::vector<VelaOamSpiEventFilter_1T> filters;
    for (const char* expression : expressions) filters.push_back({DAX_CM_EVENT_FILTER_REGEXP, expression});
    std::vector<const VelaOamSpiEventFilter_1T*> pointers;
    for (const VelaOamSpiEventFilter_1T& filter : filters) pointers.push_back(&filter);
    pointers.push_back(nullptr);
    std::uint32_t ignored = 0;
    return _table.addSubscription(consumerId, eventType, pointers.data(), subscription ? subscription : &ignored);
  }
  void deliverAll() { ASSERT_TRUE(_router->waitUntilDelivered(Soon)); }

  /** Writes a CM notification as one text: "1 dn attribute attribute; 4 dn; ". */
  static std::string show(const void* value) {
    std::string shown;
    const auto& notification = *static_cast<const DaxOamSpiCmEvent_Notification_1T*>(value);
    for (const auto* event = notification.events; *event != nullptr; ++event) {
      shown += std::to_string((*event)->eventType) + " " + (*event)->dn;
      for (const auto* attribute = (*event)->attributes; attribute != nullptr && *attribute != nullptr; ++attribute) {
        shown += std::string(" ") + (*attribute)->name;
      }
      shown += "; ";
    }
    return shown;
  }

  static inline Handler _handlers[3];
  std::unique_ptr<EventRouter> _router = std::make_unique<EventRouter>();
  const VelaOamSpiEventRouter_1T& _table = *EventRouter::getTable();
};

}  // namespace

TEST_F(EventRouterTest, ConsumersGetTheChangesThatPassTheirFilters) {
  std::vector<std::string> alarms, others, all;
  const std::uint32_t first = consumer<0>([&](const char*, const void* value) { alarms.push_back(show(value)); });
  const std::uint32_t second = consumer<1>([&](const char*, const void* value) { others.push_back(show(value)); });
  const std::uint32_t third = consumer<2>([&](const char*, const void* value) { all.push_back(show(value)); });
  EXPECT_EQ(subscribe(first, DAX_CM_EVENT_TYPE, {"^Root=.*,Alarm=.*$"}), VELA_OK);
  EXPECT_EQ(subscribe(second, DAX_CM_EVENT_TYPE, {"Bogus", "Target"}), VELA_OK);
  EXPECT_EQ(subscribe(second, DAX_CM_EVENT_TYPE, {"=t$"}), VELA_OK);
  EXPECT_EQ(subscribe(third, DAX_CM_EVENT_TYPE), VELA_OK);
  EXPECT_EQ(subscribe(third, "another type"), VELA_OK);

  const auto post = [&](MoChanges changes) {
    _router->postChanges(std::make_shared<const MoChanges>(std::move(changes)));
  };
  post({{DAX_CM_EVENT_MODIFIED, "Root=1", {"sum", "last"}},
        {DAX_CM_EVENT_CREATED, "Root=1,Alarm=7", {}},
        {DAX_CM_EVENT_MODIFIED, "Root=1,Target=t", {"port"}}});
  post({{DAX_CM_EVENT_DELETED, "Root=1,Alarm=7", {}}});
  deliverAll();
  EXPECT_THAT(alarms, ElementsAre("2 Root=1,Alarm=7; ", "4 Root=1,Alarm=7; "));
  EXPECT_THAT(others, ElementsAre("1 Root=1,Target=t port; ")) << "once, though both subscriptions let it pass";
  EXPECT_THAT(all, ElementsAre("1 Root=1 sum last; 2 Root=1,Alarm=7; 1 Root=1,Target=t port; ", "4 Root=1,Alarm=7; "));

  // What was said of a DN holds for the filters of then.
  others.clear();
  std::uint32_t added = 0;
  EXPECT_EQ(subscribe(second, DAX_CM_EVENT_TYPE, {"^Root=.*,Alarm=.*$", "^Root=1$"}, &added), VELA_OK);
  post({{DAX_CM_EVENT_MODIFIED, "Root=1", {"sum"}}, {DAX_CM_EVENT_DELETED, "Root=1,Alarm=7", {}}});
  deliverAll();
  EXPECT_EQ(_table.removeSubscription(second, added), VELA_OK);
  post({{DAX_CM_EVENT_MODIFIED, "Root=1", {"sum"}}, {DAX_CM_EVENT_DELETED, "Root=1,Alarm=7", {}}});
  deliverAll();
  EXPECT_THAT(others, ElementsAre("1 Root=1 sum; 4 Root=1,Alarm=7; "));
  EXPECT_EQ(4U, alarms.size()) << "a filter that two consumers have works for both";
}

TEST_F(EventRouterTest, NotificationsAreCopiedWhole) {
  std::string seen;
  const std::uint32_t id = consumer<0>([&](const char* eventType, const void* value) {
    const auto& copy = *static_cast<const VelaOamApiFmNotificationEventValue_4T*>(value);
    const DaxOamSpiNotificationFmT& report = *copy.notification;
    ASSERT_EQ(report.additionalInfo.size, 2u);
    seen = std::string(eventType) + "|" + report.dn + "|" + copy.specificProblem + "|" +
           report.additionalInfo.items[1].value + "|" + std::to_string(copy.index);
    EXPECT_EQ(report.additionalInfo.items[0].name, nullptr);
    EXPECT_EQ(report.additionalText, nullptr);
    EXPECT_EQ(copy.originalAdditionalText, nullptr);
  });
  subscribe(id, VELA_FM_NOTIFICATION_EVENT);
  std::string dn = "a dn long enough to live on the heap", problem = "a problem long enough to live on the heap";
  const DaxOamSpiFmAdditionalInfoT info[] = {{nullptr, nullptr}, {"n", "v"}};
  DaxOamSpiNotificationFmT notification{};
  notification.dn = dn.c_str();
  notification.additionalInfo = {2, info};
  VelaOamApiFmNotificationEventValue_4T event{};
  event.notification = &notification;
  event.specificProblem = problem.c_str();
  event.index = 42;
  const std::string expected = VELA_FM_NOTIFICATION_EVENT + ("|" + dn) + "|" + problem + "|v|42";
  _router->postNotification(event);
  dn.assign(dn.size(), 'x');
  problem.assign(problem.size(), 'x');
  deliverAll();
  EXPECT_EQ(seen, expected);

  VelaOamApiFmNotificationEventValue_4T empty{};
  bool isNull = false;
  _handlers[0] = [&](const char*, const void* value) {
    isNull = static_cast<const VelaOamApiFmNotificationEventValue_4T*>(value)->notification == nullptr;
  };
  _router->postNotification(empty);
  deliverAll();
  EXPECT_TRUE(isNull);
}

TEST_F(EventRouterTest, EventsComeInOrderAndACallbackMayPost) {
  std::vector<std::uint32_t> seen;
  const std::uint32_t id = consumer<0>([&](const char*, const void* value) {
    const std::uint32_t number = static_cast<const VelaOamApiFmHeartbeatEventValue_4T*>(value)->lastAlarmSequenceNumber;
    seen.push_back(number);
    if (number == 0) _router->postHeartbeat({0, 1000, 0, 0});
  });
  subscribe(id, VELA_FM_HEARTBEAT_EVENT);
  for (std::uint32_t i = 0; i < 1000; ++i) _router->postHeartbeat({0, i, 0, 0});
  deliverAll();
  deliverAll();
  ASSERT_EQ(seen.size(), 1001u);
  EXPECT_EQ(std::erase(seen, 1000u), 1u);
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TEST_F(EventRouterTest, NoCallbackRunsAfterUnregistering) {
  std::promise<void> entered, released;
  std::atomic<bool> isInside = false;
  const std::uint32_t id = consumer<0>([&](const char*, const void*) {
    isInside = true;
    entered.set_value();
    released.get_future().wait();
    isInside = false;
  });
  subscribe(id, "e");
  _router->post("e", nullptr);
  _router->post("e", nullptr);  // a second call would fail at the promise
  entered.get_future().wait();
  std::future<bool> unregistering = std::async(std::launch::async, [&] {
    EXPECT_EQ(_table.unregisterConsumer(id), VELA_OK);
    return isInside.load();
  });
  EXPECT_EQ(unregistering.wait_for(50ms), std::future_status::timeout);
  released.set_value();
  EXPECT_FALSE(unregistering.get());
  deliverAll();
  EXPECT_EQ(_table.unregisterConsumer(id), VELA_NOT_FOUND);
}

TEST_F(EventRouterTest, ACallbackMayChangeSubscriptions) {
  std::vector<std::string> seen;
  std::uint32_t id = 0, subscription = 0;
  id = consumer<0>([&](const char* eventType, const void*) {
    seen.emplace_back(eventType);
    if (seen.size() == 1) {
      EXPECT_EQ(_table.removeSubscription(id, subscription), VELA_OK);
      EXPECT_EQ(subscribe(id, "b"), VELA_OK);
    } else {
      EXPECT_EQ(_table.unregisterConsumer(id), VELA_OK) << "does not wait for itself";
    }
  });
  subscribe(id, "a", {}, &subscription);
  for (const char* type : {"a", "a", "b", "b"}) _router->post(type, nullptr);
  deliverAll();
  EXPECT_THAT(seen, ElementsAre("a", "b"));
}

TEST_F(EventRouterTest, FaultyCallsAreRefused) {
  const std::uint32_t id = consumer<0>([](const char*, const void*) {});
  EXPECT_EQ(subscribe(id, DAX_CM_EVENT_TYPE, {"(unclosed"}), VELA_INVALID);
  EXPECT_EQ(subscribe(id, DAX_CM_EVENT_TYPE, {nullptr}), VELA_INVALID);
  EXPECT_EQ(subscribe(id, VELA_FM_HEARTBEAT_EVENT, {"a filter that this type does not know"}), VELA_INVALID);
  EXPECT_EQ(subscribe(id, nullptr), VELA_INVALID);
  EXPECT_EQ(subscribe(id + 1, "e"), VELA_NOT_FOUND);
  EXPECT_EQ(_table.removeSubscription(id, 99), VELA_NOT_FOUND);
  EXPECT_EQ(_table.registerConsumer(nullptr, nullptr), VELA_INVALID);
  _router.reset();
  EXPECT_EQ(subscribe(id, "e"), VELA_ERROR);
}

}  // namespace VelaNode
