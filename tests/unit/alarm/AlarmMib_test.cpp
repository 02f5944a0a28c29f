// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/library/snmpCallbackDomain.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "AlarmScalars.h"
#include "AlarmTestSupport.h"
#include "SnmpAlarmSnapshot.h"
#include "adaptor/StateTestSupport.h"
#include "kavrelAlarmMIB.h"

extern "C" int callback_master_num;

namespace AlarmTest {

using namespace VelaFmSnmp;

namespace {

constexpr long agentxVersion = 0xC0;
const std::string entry = "R.1.3.5.1";

using Lines = std::vector<std::string>;

std::string nameIn(const std::string& line) { return line.substr(0, line.find(' ')); }

/** The agent library with the alarm MIB registered, asked through its in-process transport as a manager would. */
class Agent {
 public:
  static Agent& getInstance() {
    static Agent agent;
    return agent;
  }

  /** The answer's varbinds as show() writes them. */
  Lines request(int command, const std::string& name, long maxRepetitions = 0) {
    netsnmp_pdu* const pdu = snmp_pdu_create(command);
    if (command == SNMP_MSG_GETBULK) {
      pdu->non_repeaters = 0;
      pdu->max_repetitions = maxRepetitions;
    }
    const SnmpOid id = oidOf(name);
    snmp_add_null_var(pdu, id.getOidPtr(), id.length());
    return exchange(pdu);
  }
  std::string get(const std::string& name) { return request(SNMP_MSG_GET, name).at(0); }
  std::string getNext(const std::string& name) { return request(SNMP_MSG_GETNEXT, name).at(0); }
  /** Sets objects to one value, a text if that is the type; the answer's error status. */
  long set(const Lines& names, unsigned char type, long value) {
    netsnmp_pdu* const pdu = snmp_pdu_create(SNMP_MSG_SET);
    for (const std::string& name : names) {
      const SnmpOid id = oidOf(name);
      snmp_pdu_add_variable(pdu, id.getOidPtr(), id.length(), type, &value, type == ASN_OCTET_STR ? 4 : sizeof value);
    }
    exchange(pdu);
    return _errorStatus;
  }
  long set(const std::string& name, unsigned char type, long value) { return set(Lines{name}, type, value); }

  static constexpr const char* failingObject = ".1.3.6.1.4.1.61234.999.1";

 private:
  static int failToSet(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info* info,
                       netsnmp_request_info* requests) {
    if (info->mode == MODE_SET_ACTION) netsnmp_set_request_error(info, requests, SNMP_ERR_RESOURCEUNAVAILABLE);
    return SNMP_ERR_NOERROR;
  }

  Agent() {
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_NO_CONNECTION_WARNINGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    init_agent("unit_alarm");
    // An object that accepts a value and then fails to take it.
    const SnmpOid failing = oidOf(failingObject);
    netsnmp_register_scalar(netsnmp_create_handler_registration("failing", &failToSet, failing.getOidPtr(),
                                                                failing.length(), HANDLER_CAN_RWRITE));
    init_kavrelAlarmMIB();
    AlarmScalars::getInstance().initHandlers();
    _session = netsnmp_callback_open(callback_master_num, nullptr, nullptr, nullptr);
  }

  Lines exchange(netsnmp_pdu* pdu) {
    netsnmp_pdu* answer = nullptr;
    _errorStatus = -1;
    // As the library's own AgentX side hands a master's request on.
    pdu->version = agentxVersion;
    pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
    const int status = snmp_synch_response(_session, pdu, &answer);
    const std::unique_ptr<netsnmp_pdu, decltype(&snmp_free_pdu)> owned(answer, &snmp_free_pdu);
    EXPECT_EQ(status, STAT_SUCCESS) << snmp_api_errstring(snmp_errno);
    Lines lines;
    if (answer == nullptr) return lines;
    _errorStatus = answer->errstat;
    for (const netsnmp_variable_list* variable = answer->variables; variable; variable = variable->next_variable)
      lines.push_back(show(*variable));
    return lines;
  }

  netsnmp_session* _session = nullptr;
  long _errorStatus = 0;
};

class AlarmMibTest : public testing::Test {
 protected:
  AlarmMibTest() {
    AlarmScalars::getInstance().init(&connector);
    SnmpAlarmSnapshot::getInstance().setDataProvider(&connector);
  }
  ~AlarmMibTest() override {
    SnmpAlarmSnapshot::getInstance().setDataProvider(nullptr);
    AlarmScalars::getInstance().init(nullptr);
  }

  /** Reads on from a name while answers lie below it. */
  Lines walk(const std::string& below, long maxRepetitions) {
    Lines found;
    for (std::string name = below;;) {
      const Lines answer = maxRepetitions > 0 ? agent.request(SNMP_MSG_GETBULK, name, maxRepetitions)
                                              : agent.request(SNMP_MSG_GETNEXT, name);
      if (answer.empty()) return found;
      for (const std::string& line : answer) {
        const std::string next = nameIn(line);
        if (!next.starts_with(below + ".") || line == next + " end") return found;
        if (!(oidOf(name) < oidOf(next))) {
          ADD_FAILURE() << "no progress from " << name << " to " << next;
          return found;
        }
        found.push_back(line);
        name = next;
      }
    }
  }

  TimeZone zone{"UTC"};
  StateTest::CapturedLog log;
  ConnectorStandIn connector;
  Agent& agent = Agent::getInstance();
};

TEST_F(AlarmMibTest, AnswersEveryScalar) {
  connector.lastSequenceNo = 0x12345F0000007ULL;
  const std::string lastChanged = "t 07e1030e090000072b0000";
  const Lines expected = {
      "R.1.1.1.0 u 0",
      "R.1.1.2.0 u 1",
      "R.1.1.3.0 u 2",
      "R.1.1.4.0 u 3",
      "R.1.1.5.0 u 4",
      "R.1.3.1.0 u 4294967295",
      "R.1.3.2.0 " + lastChanged,
      "R.1.3.3.0 u 4026531847",
      "R.1.3.4.0 s ",
      "R.1.4.1.0 u 0",
      "R.1.4.2.0 " + lastChanged,
      "R.1.4.3.0 u 0",
      "R.1.4.4.0 s ",
      "R.1.5.1.0 u 60",
  };
  EXPECT_EQ(walk("R", 0), expected);
  for (const std::string& scalar : expected) EXPECT_EQ(agent.get(nameIn(scalar)), scalar);

  const auto expectUnreadable = [&] {
    for (const char* name : {"R.1.1.2.0", "R.1.3.1.0", "R.1.3.2.0", "R.1.3.3.0", "R.1.4.2.0", "R.1.5.1.0"})
      EXPECT_EQ(agent.get(name), name + std::string(" no instance"));
    EXPECT_EQ(agent.get("R.1.1.1.0"), "R.1.1.1.0 u 0");
  };
  connector.isBroken = true;
  expectUnreadable();
  AlarmScalars::getInstance().init(nullptr);
  expectUnreadable();
}

TEST_F(AlarmMibTest, OnlyTheHeartbeatIntervalIsWrittenAndThroughTheConnector) {
  const std::string name = "R.1.5.1.0";
  EXPECT_EQ(agent.set(name, ASN_UNSIGNED, 4000000000L), SNMP_ERR_NOERROR);
  EXPECT_EQ(connector.heartbeatInterval, 4000000000U);
  EXPECT_EQ(agent.get(name), name + " u 4000000000");
  for (const unsigned char type : {ASN_INTEGER, ASN_OCTET_STR, ASN_COUNTER})
    EXPECT_EQ(agent.set(name, type, 5), SNMP_ERR_WRONGTYPE) << int{type};
  EXPECT_EQ(connector.heartbeatInterval, 4000000000U);
  connector.isBroken = true;
  EXPECT_EQ(agent.set(name, ASN_UNSIGNED, 5), SNMP_ERR_GENERR);
  EXPECT_EQ(log.count(Vela::LogInfo, "SET of heartbeatInterval, value = 5"), 1);
  EXPECT_EQ(log.count(Vela::LogError, "Could not set heartbeatInterval."), 1);

  connector.isBroken = false;
  connector.alarms = {makeAlarm(4)};
  for (const std::string& other : {std::string("R.1.1.2.0"), std::string("R.1.3.3.0"), entry + ".2.4"})
    EXPECT_EQ(agent.set(other, ASN_UNSIGNED, 5), SNMP_ERR_NOTWRITABLE) << other;
}

TEST_F(AlarmMibTest, ASetThatIsRefusedForAnotherObjectChangesNothing) {
  const std::string name = "R.1.5.1.0";
  const std::string failing = std::string(Agent::failingObject) + ".0";
  for (const Lines& names : {Lines{name, failing}, Lines{failing, name}, Lines{name, name, failing}}) {
    EXPECT_EQ(agent.set(names, ASN_UNSIGNED, 5), SNMP_ERR_RESOURCEUNAVAILABLE);
    EXPECT_EQ(connector.heartbeatInterval, 60U);
  }
  EXPECT_EQ(agent.set(name, ASN_UNSIGNED, 7), SNMP_ERR_NOERROR);
  EXPECT_EQ(agent.set(Lines{name, failing}, ASN_UNSIGNED, 5), SNMP_ERR_RESOURCEUNAVAILABLE);
  EXPECT_EQ(connector.heartbeatInterval, 7U);
}

TEST_F(AlarmMibTest, ScalarHandlersServeOnlyGet) {
  netsnmp_agent_request_info info = {};
  netsnmp_request_info request = {};
  for (const int mode : {static_cast<int>(MODE_GETNEXT), MODE_SET_RESERVE1, MODE_SET_ACTION}) {
    info.mode = mode;
    EXPECT_EQ(handle_kavAlarmSumMajor(nullptr, nullptr, &info, &request), SNMP_ERR_GENERR);
    EXPECT_EQ(handle_kavAlarmActiveTableURL(nullptr, nullptr, &info, &request), SNMP_ERR_GENERR);
  }
}

TEST_F(AlarmMibTest, ShowsARowWhole) {
  const Lines values = {"u 193",
                        "u 4000000000",
                        "s Link failure",
                        "s ManagedElement=1,Port=4",
                        "i 2",
                        "t 07e1070e022800092b0000",
                        "t 07e1030e090000002b0000",
                        "i 505",
                        "i 4",
                        "i 6",
                        "s " + std::string(300, 't'),
                        "s weak light",
                        "o .0.0",
                        "s a=1;b\\;c=x\\=y"};
  Lines row;
  for (const std::string& value : values) row.push_back(entry + "." + std::to_string(row.size() + 2) + ".4 " + value);
  connector.alarms = {makeAlarm(4)};
  connector.alarms[0].setAdditionalText(std::string(300, 't'));
  EXPECT_EQ(walk(entry, 0), row);
  for (const std::string& cell : row) EXPECT_EQ(agent.get(nameIn(cell)), cell);

  connector.alarms[0].setOriginalSeverity(9);
  SnmpAlarmSnapshot::getInstance().invalidateSnapshot();
  EXPECT_EQ(agent.get(entry + ".11.4"), entry + ".11.4 i 2") << "what is no severity shows as indeterminate";
}

TEST_F(AlarmMibTest, WalksColumnByColumnInTheOrderOfTheIndices) {
  Lines expected;
  for (int column = 2; column <= 15; ++column) {
    for (const char* index : {".0", ".2", ".9", ".4294967295"})
      expected.push_back(entry + "." + std::to_string(column) + index);
  }
  for (const unsigned int index : {9U, 4294967295U, 0U, 2U}) connector.alarms.push_back(makeAlarm(index));
  for (const long maxRepetitions : {0L, 1L, 7L, 100L}) {
    Lines names;
    for (const std::string& line : walk("R.1.3.5", maxRepetitions)) names.push_back(nameIn(line));
    EXPECT_EQ(names, expected) << maxRepetitions;
  }
}

TEST_F(AlarmMibTest, FindsTheNextObjectFromAnywhere) {
  connector.alarms = {makeAlarm(2), makeAlarm(4)};
  const struct {
    Lines from;
    std::string next;
  } cases[] = {
      {{"R.1.3.4.0", "R.1.3.5", "R.1.3.5.0.9", entry, entry + ".0.7", entry + ".1", entry + ".1.4", entry + ".2",
        entry + ".2.0"},
       entry + ".2.2"},
      {{entry + ".2.2", entry + ".2.2.7", entry + ".2.3"}, entry + ".2.4"},
      {{entry + ".2.4", entry + ".2.4294967295"}, entry + ".3.2"},
      {{entry + ".15"}, entry + ".15.2"},
      {{entry + ".15.2"}, entry + ".15.4"},
      {{entry + ".15.4", entry + ".16", "R.1.3.5.2"}, "R.1.4.1.0"},
      {{"R.1.4.5.1.2", "R.1.4.5"}, "R.1.5.1.0"},
  };
  for (const auto& [names, next] : cases) {
    for (const std::string& from : names) EXPECT_EQ(nameIn(agent.getNext(from)), next) << from;
  }
}

TEST_F(AlarmMibTest, GetsOfWhatIsNotThere) {
  connector.alarms = {makeAlarm(4)};
  for (const std::string& name :
       {entry + ".2.5", entry + ".2.4.1", entry + ".2", std::string("R.1.4.5.1.2.0"), std::string("R.1.1.2.1")})
    EXPECT_EQ(agent.get(name), name + " no instance");
  for (const std::string& name :
       {entry + ".1.4", entry + ".16.4", std::string("R.1.4.5.1.13.0"), std::string("R.1.9.0")})
    EXPECT_EQ(agent.get(name), name + " no object");
}

TEST_F(AlarmMibTest, WalksPassOverWhatNoMessageCanCarry) {
  connector.alarms = {makeAlarm(4), makeAlarm(5), makeAlarm(6)};
  connector.alarms[0].setAdditionalText(std::string(65001, 'x'));
  connector.alarms[1].setAdditionalText(std::string(65000, 'x'));
  connector.alarms[2].setFormattedAdditionalInfo(std::string(70000, 'x'));
  for (int time = 1; time <= 2; ++time) {
    EXPECT_EQ(nameIn(agent.getNext(entry + ".12")), entry + ".12.5");
    EXPECT_EQ(nameIn(agent.getNext(entry + ".15.5")), "R.1.4.1.0") << "the last row of the last column";
  }
  EXPECT_EQ(walk(entry, 7).size(), 3U * 14 - 2);
  EXPECT_EQ(agent.get(entry + ".12.4").size(), (entry + ".12.4 s ").size() + 65001);
  EXPECT_EQ(log.lines(Vela::LogWarning),
            (Lines{"Column 12 of alarm 4 is left out of walks: no message can carry its 65001 octets",
                   "Column 15 of alarm 6 is left out of walks: no message can carry its 70000 octets"}));
}

TEST_F(AlarmMibTest, AnswersARequestForManyObjectsFromOnePull) {
  for (unsigned int index = 0; index < 500; ++index) connector.alarms.push_back(makeAlarm(index));
  EXPECT_EQ(walk(entry, 50).size(), 500U * 14);
  EXPECT_EQ(connector.visits, 1);
}

/** The columns of an alert, whose table has no rows to read them from. */
TEST_F(AlarmMibTest, AnswersAlertColumns) {
  SnmpAlarm alert = makeAlarm(4);
  netsnmp_agent_request_info info = {};
  info.mode = MODE_GET;
  const Lines expected = {"u 193",
                          "u 4000000000",
                          "s Link failure",
                          "s ManagedElement=1,Port=4",
                          "i 2",
                          "t 07e1070e022800092b0000",
                          "i 505",
                          "i 4",
                          "s no light",
                          "o .0.0",
                          "s a=1;b\\;c=x\\=y"};
  for (unsigned int column = 2; column <= 12; ++column) {
    netsnmp_variable_list variable = {};
    netsnmp_request_info request = {};
    request.requestvb = &variable;
    netsnmp_table_request_info table = {};
    table.colnum = column;
    handleAlertColumn(&request, &alert, &info, &table);
    EXPECT_EQ(showValue(variable), expected[column - 2]) << column;
    snmp_free_var_internals(&variable);
  }
}

}  // namespace

}  // namespace AlarmTest
