// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include "PduParser.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AlarmTestSupport.h"
#include "Listener.h"
#include "TrapSender.h"
#include "adaptor/StateTestSupport.h"

namespace AlarmTest {

using namespace VelaFmSnmp;

namespace {

using Octets = std::basic_string<unsigned char>;

/** A copy on the heap without slack, so that a sanitizer sees every read beside it. */
class Datagram {
 public:
  explicit Datagram(const Octets& octets)
      : _data(std::make_unique<unsigned char[]>(octets.size())), _parser(_data.get(), octets.size()) {
    std::copy(octets.begin(), octets.end(), _data.get());
    _isGood = _parser.parse();
  }
  bool isGood() const { return _isGood; }
  const PduParser& parser() const { return _parser; }

 private:
  std::unique_ptr<unsigned char[]> _data;
  PduParser _parser;
  bool _isGood = false;
};

netsnmp_variable_list* captured = nullptr;

/** What a v2c target on the loopback interface receives when `send` hands a notification over. */
Octets receiveNotification(const std::function<void()>& send, int command = SNMP_MSG_TRAP2) {
  takeNotification = [](netsnmp_variable_list* list) { captured = snmp_clone_varbind(list); };
  send();
  takeNotification = nullptr;

  Listener listener;
  listener.open(AF_INET, 0);
  std::string peer = "127.0.0.1:" + std::to_string(listener.getPort());
  std::string community = "VelaDummy";
  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_VERSION_2c;
  session.peername = peer.data();
  session.community = reinterpret_cast<unsigned char*>(community.data());
  session.community_len = community.size();
  void* const opened = snmp_sess_open(&session);
  netsnmp_pdu* const pdu = snmp_pdu_create(command);
  const oid sysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
  const long ticks = 1;
  snmp_pdu_add_variable(pdu, sysUpTime, 9, ASN_TIMETICKS, &ticks, sizeof ticks);
  pdu->variables->next_variable = captured;
  EXPECT_NE(snmp_sess_send(opened, pdu), 0);

  pollfd descriptor = {listener.getFD(), POLLIN, 0};
  EXPECT_EQ(poll(&descriptor, 1, 10000), 1);
  Octets octets(Listener::maxDatagram, 0);
  octets.resize(static_cast<std::size_t>(listener.read(octets.data(), Listener::maxDatagram)));
  snmp_sess_close(opened);
  return octets;
}

Octets receiveAlarm(const SnmpAlarm& alarm, int command = SNMP_MSG_TRAP2) {
  return receiveNotification(
      [&] { alarm.isStateful() ? TrapSender::sendAlarmTrap(alarm) : TrapSender::sendAlertTrap(alarm); }, command);
}

TEST(PduParser, RecognisesAlarmsAndAlerts) {
  const StateTest::CapturedLog log;
  for (const bool isStateful : {true, false}) {
    for (const int command : {SNMP_MSG_TRAP2, SNMP_MSG_INFORM}) {
      SnmpAlarm alarm = makeAlarm(4294967295U);
      alarm.setStateful(isStateful);
      alarm.setManagedObject(std::string(300, 'm'));
      const Datagram datagram(receiveAlarm(alarm, command));
      ASSERT_TRUE(datagram.isGood());
      const PduParser& parser = datagram.parser();
      EXPECT_EQ(parser.getTrapOid(), TrapSender::getNotificationOid(alarm));
      EXPECT_EQ(parser.getMajorType(), 193U);
      EXPECT_EQ(parser.getMinorType(), 4000000000U);
      EXPECT_EQ(parser.getManagedObject(), alarm.getManagedObject());
      EXPECT_FALSE(parser.isAlarmListRebuilt());
      EXPECT_TRUE(parser.matches(alarm));

      const std::vector<std::function<void(SnmpAlarm&)>> changes = {
          [](SnmpAlarm& other) { other.setMajorType(194); }, [](SnmpAlarm& other) { other.setMinorType(0); },
          [](SnmpAlarm& other) { other.setManagedObject("m"); }, [](SnmpAlarm& other) { other.setSeverity(0); },
          [](SnmpAlarm& other) { other.setStateful(!other.isStateful()); }};
      for (std::size_t i = 0; i < changes.size(); ++i) {
        SnmpAlarm other = alarm;
        changes[i](other);
        EXPECT_FALSE(parser.matches(other)) << i;
      }
    }
  }
  EXPECT_TRUE(log.hasTrace("Trap version: 1, community: VelaDummy"));
  EXPECT_TRUE(log.hasTrace("trap oid is .1.3.6.1.4.1.61234.183.4.2.0.4"));
  EXPECT_TRUE(log.hasTrace("major 193"));
  EXPECT_TRUE(log.hasTrace("managed object is " + std::string(300, 'm')));
}

TEST(PduParser, TellsAppendInfosAndRebuiltListsFromAlarms) {
  SnmpAlarm alarm = makeAlarm(1);
  const Datagram appended(receiveNotification([&] { TrapSender::sendAlarmAppendInfo(alarm); }));
  ASSERT_TRUE(appended.isGood());
  EXPECT_EQ(appended.parser().getManagedObject(), alarm.getManagedObject());
  EXPECT_FALSE(appended.parser().matches(alarm));
  const Datagram rebuilt(receiveNotification([] { TrapSender::sendAlarmListRebuilt(""); }));
  ASSERT_TRUE(rebuilt.isGood());
  EXPECT_TRUE(rebuilt.parser().matchesAlarmListRebuilt());
  EXPECT_FALSE(rebuilt.parser().matches(SnmpAlarm()));
}

TEST(PduParser, RefusesEveryTruncation) {
  const Octets whole = receiveAlarm(makeAlarm(1));
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(Datagram(whole.substr(0, length)).isGood()) << length;
}

Octets tlv(unsigned char tag, const Octets& contents) {
  Octets octets(1, tag);
  if (contents.size() >= 0x80) {
    octets += 0x82;
    octets += static_cast<unsigned char>(contents.size() >> 8);
  }
  octets += static_cast<unsigned char>(contents.size());
  return octets + contents;
}

const Octets sequenceOf(const Octets& contents) { return tlv(0x30, contents); }

/** Identifier of a column of the alarm table with index 1, and any value. */
Octets columnVarbind(unsigned char column, const Octets& value) {
  return sequenceOf(tlv(0x06, Octets{0x2B, 6, 1, 4, 1, 0x83, 0xDE, 0x32, 0x81, 0x37, 4, 1, 3, 5, 1, column, 1}) +
                    value);
}

Octets message(const Octets& varbinds) {
  const Octets zero = tlv(0x02, {0});
  return sequenceOf(tlv(0x02, {1}) + tlv(0x04, {'c'}) + tlv(0xA7, zero + zero + zero + sequenceOf(varbinds)));
}

TEST(PduParser, DecodesNumbers) {
  const struct {
    Octets contents;
    bool isGood;
    unsigned int value;
  } cases[] = {
      {{0}, true, 0},
      {{0x7F}, true, 127},
      {{0, 0xFF, 0xFF, 0xFF, 0xFF}, true, 4294967295U},
      {{0, 0, 0, 0, 0, 0, 0, 5}, true, 5},
      {{1, 0, 0, 0, 0}, false, 0},
      {{0xFF}, false, 0},
      {{}, false, 0},
      {{0, 0, 0, 0, 0, 0, 0, 0, 5}, false, 0},
  };
  for (const auto& [contents, isGood, value] : cases) {
    const Datagram datagram(message(columnVarbind(2, tlv(0x42, contents))));
    EXPECT_EQ(datagram.isGood(), isGood) << contents.size();
    EXPECT_EQ(datagram.parser().getMajorType(), value);
  }
}

TEST(PduParser, DecodesIdentifiers) {
  const Octets name = {0x2B, 6, 1, 6, 3, 1, 1, 4, 1, 0};
  const auto arcs = [](std::size_t count) { return Octets(count, 1); };
  const struct {
    Octets contents;
    std::string text; /**< empty: bad */
  } cases[] = {
      {{0}, ".0.0"},
      {{39}, ".0.39"},
      {{40}, ".1.0"},
      {{79}, ".1.39"},
      {{0x88, 0x37}, ".2.999"},
      {{0x2B, 0x8F, 0xFF, 0xFF, 0xFF, 0x7F}, ".1.3.4294967295"},
      {{0x2B, 0x90, 0x80, 0x80, 0x80, 0x00}, ""},
      {{0x2B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, ""},
      {{0x2B, 0x86}, ""},
      {{}, ""},
      {arcs(128), ""},
  };
  for (const auto& [contents, text] : cases) {
    const Datagram datagram(message(sequenceOf(tlv(0x06, name) + tlv(0x06, contents))));
    EXPECT_EQ(datagram.isGood(), !text.empty()) << text;
    if (!text.empty()) {
      EXPECT_EQ(datagram.parser().getTrapOid().toString(), text);
    }
  }
  const Datagram longest(message(sequenceOf(tlv(0x06, name) + tlv(0x06, arcs(127)))));
  EXPECT_EQ(longest.parser().getTrapOid().length(), 128U);
}

TEST(PduParser, TakesColumnsOnlyWithAnIndexBehindThem) {
  const Octets value = tlv(0x42, {7});
  const Octets column = {0x2B, 6, 1, 4, 1, 0x83, 0xDE, 0x32, 0x81, 0x37, 4, 1, 3, 5, 1, 2};
  for (const auto& [suffix, expected] : std::vector<std::pair<Octets, unsigned int>>{{{}, 0}, {{9}, 7}, {{9, 9}, 0}}) {
    const Datagram datagram(message(sequenceOf(tlv(0x06, column + suffix) + value)));
    EXPECT_TRUE(datagram.isGood());
    EXPECT_EQ(datagram.parser().getMajorType(), expected) << suffix.size();
  }
}

TEST(PduParser, MalformedMessages) {
  const StateTest::CapturedLog log;
  const Octets number = tlv(0x02, {0});
  const Octets good = message(columnVarbind(2, tlv(0x42, {7})));
  ASSERT_TRUE(Datagram(good).isGood());
  const auto changed = [&](std::size_t place, unsigned char octet) {
    Octets octets = good;
    octets[place] = octet;
    return octets;
  };
  const struct {
    Octets octets;
    std::string trace;
  } cases[] = {
      {{}, "not a sequence"},
      {Octets(65535, 0), "not a sequence (0, expected 30)"},
      {Octets(65535, 0x30), "not a sequence"},
      {changed(0, 0x31), "not a sequence (31, expected 30)"},
      {changed(0, 0x3F), "not a sequence"},
      {changed(1, 0x80), "not a sequence"},
      {changed(1, 0xFF), "not a sequence"},
      {changed(8, 0xA4), "not a sequence (a4, expected a7)"},
      {{0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0x02}, "not a sequence"},
      {{0x30, 0x85, 0, 0, 0, 0, 1, 0x02}, "not a sequence"},
      {sequenceOf(tlv(0x02, {1}) + tlv(0x02, {1})), "unexpected type (2, expected 4)"},
      {sequenceOf(tlv(0x02, {1}) + tlv(0x04, {'c'}) + tlv(0xA7, number + number + number)), "not a sequence"},
      {sequenceOf(tlv(0x02, {1}) + tlv(0x04, {'c'}) + tlv(0xA7, number + number + number + sequenceOf({}) + number)),
       "pop sequence"},
      {message(columnVarbind(2, {})), "element without its contents"},
      {message(columnVarbind(2, tlv(0x42, {7}) + number)), "pop sequence"},
      {message(columnVarbind(2, {0x42, 0x7F, 7})), "element without its contents"},
      {message(columnVarbind(2, tlv(0x04, {7}))), "unexpected type (4, expected 42)"},
      {message(columnVarbind(5, tlv(0x42, {7}))), "unexpected type (42, expected 4)"},
      {message(number), "not a sequence (2, expected 30)"},
  };
  for (const auto& [octets, trace] : cases) {
    EXPECT_FALSE(Datagram(octets).isGood()) << trace;
    EXPECT_TRUE(log.hasTrace("parse: " + trace)) << trace;
  }
}

TEST(PduParser, NestingIsNotFollowed) {
  Octets nested;
  for (int depth = 0; depth < 5000; ++depth) nested = tlv(0x30, nested).substr(0, 60000);
  EXPECT_TRUE(Datagram(message(columnVarbind(9, nested))).isGood());
}

}  // namespace

}  // namespace AlarmTest
