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
#include "SnmpOid.h"
#include "adaptor/StateTestSupport.h"
#include "kavrelAlarmMIB.h"

extern "C" int callback_master_num;

namespace AlarmTest {

using namespace VelaFmSnmp;

namespace {

const std::string root = ".1.3.6.1.4.1.61234.183.4";
constexpr long agentxVersion = 0xC0;
const std::string entry = root + ".1.3.5.1";

struct Varbind {
  std::string name;
  int type = 0;
  std::string value; /**< numbers in decimal, identifiers dotted, octets as they are */

  bool operator==(const Varbind&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Varbind& varbind) {
  return out << varbind.name << " (" << varbind.type << ") = " << varbind.value;
}

Varbind toVarbind(const netsnmp_variable_list& variable) {
  Varbind varbind{SnmpOid(variable.name, static_cast<unsigned int>(variable.name_length)).toString(), variable.type,
                  ""};
  switch (variable.type) {
    case ASN_INTEGER:
    case ASN_UNSIGNED:
      varbind.value = std::to_string(*variable.val.integer);
      break;
    case ASN_OCTET_STR:
      varbind.value.assign(variable.val.string, variable.val.string + variable.val_len);
      break;
    case ASN_OBJECT_ID:
      varbind.value = SnmpOid(variable.val.objid, static_cast<unsigned int>(variable.val_len / sizeof(oid))).toString();
      break;
    default:
      break;
  }
  return varbind;
}

using Pdu = std::unique_ptr<netsnmp_pdu, decltype(&snmp_free_pdu)>;

/** The agent library with the alarm MIB registered, asked through its in-process transport as a manager would. */
class Agent {
 public:
  static Agent& getInstance() {
    static Agent agent;
    return agent;
  }

  std::vector<Varbind> request(int command, const std::vector<std::string>& names, long maxRepetitions = 0) {
    netsnmp_pdu* const pdu = snmp_pdu_create(command);
    if (command == SNMP_MSG_GETBULK) {
      pdu->non_repeaters = 0;
      pdu->max_repetitions = maxRepetitions;
    }
    for (const std::string& name : names) {
      const SnmpOid id(name.c_str());
      snmp_add_null_var(pdu, id.getOidPtr(), id.length());
    }
    return exchange(pdu);
  }
  Varbind get(const std::string& name) { return request(SNMP_MSG_GET, {name}).at(0); }
  Varbind getNext(const std::string& name) { return request(SNMP_MSG_GETNEXT, {name}).at(0); }
  void set(const std::string& name, unsigned char type, long value) {
    netsnmp_pdu* const pdu = snmp_pdu_create(SNMP_MSG_SET);
    const SnmpOid id(name.c_str());
    snmp_pdu_add_variable(pdu, id.getOidPtr(), id.length(), type, &value, sizeof value);
    exchange(pdu);
  }
  long errorStatus() const { return _errorStatus; }

 private:
  Agent() {
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_NO_CONNECTION_WARNINGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    init_agent("unit_alarm");
    init_kavrelAlarmMIB();
    AlarmScalars::getInstance().initHandlers();
    _session = netsnmp_callback_open(callback_master_num, nullptr, nullptr, nullptr);
  }

  std::vector<Varbind> exchange(netsnmp_pdu* pdu) {
    netsnmp_pdu* answer = nullptr;
    _errorStatus = -1;
    // As the library's own AgentX side hands a master's request on.
    pdu->version = agentxVersion;
    pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
    const int status = snmp_synch_response(_session, pdu, &answer);
    const Pdu owned(answer, &snmp_free_pdu);
    EXPECT_EQ(status, STAT_SUCCESS) << snmp_api_errstring(snmp_errno);
    std::vector<Varbind> varbinds;
    if (answer == nullptr) return varbinds;
    _errorStatus = answer->errstat;
    for (const netsnmp_variable_list* variable = answer->variables; variable; variable = variable->next_variable)
      varbinds.push_back(toVarbind(*variable));
    return varbinds;
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
  std::vector<Varbind> walk(const std::string& below, long maxRepetitions) {
    std::vector<Varbind> found;
    const SnmpOid prefix(below.c_str());
    for (std::string name = below;;) {
      const std::vector<Varbind> answer = maxRepetitions > 0 ? agent.request(SNMP_MSG_GETBULK, {name}, maxRepetitions)
                                                             : agent.request(SNMP_MSG_GETNEXT, {name});
      if (answer.empty()) return found;
      for (const Varbind& varbind : answer) {
        const SnmpOid id(varbind.name.c_str());
        if (!id.beginsWith(prefix) || varbind.type == SNMP_ENDOFMIBVIEW) return found;
        if (!(SnmpOid(name.c_str()) < id)) {
          ADD_FAILURE() << "no progress from " << name << " to " << varbind.name;
          return found;
        }
        found.push_back(varbind);
        name = varbind.name;
      }
    }
  }

  TimeZone zone{"UTC"};
  StateTest::CapturedLog log;
  ConnectorStandIn connector;
  Agent& agent = Agent::getInstance();
};

const std::string lastChanged("\x07\xE1\x03\x0E\x09\x00\x00\x07+\x00\x00", 11);

TEST_F(AlarmMibTest, AnswersEveryScalar) {
  connector.lastSequenceNo = 0x12345F0000007ULL;
  const std::vector<Varbind> expected = {
      {root + ".1.1.1.0", ASN_UNSIGNED, "0"},          {root + ".1.1.2.0", ASN_UNSIGNED, "1"},
      {root + ".1.1.3.0", ASN_UNSIGNED, "2"},          {root + ".1.1.4.0", ASN_UNSIGNED, "3"},
      {root + ".1.1.5.0", ASN_UNSIGNED, "4"},          {root + ".1.3.1.0", ASN_UNSIGNED, "4294967295"},
      {root + ".1.3.2.0", ASN_OCTET_STR, lastChanged}, {root + ".1.3.3.0", ASN_UNSIGNED, "4026531847"},
      {root + ".1.3.4.0", ASN_OCTET_STR, ""},          {root + ".1.4.1.0", ASN_UNSIGNED, "0"},
      {root + ".1.4.2.0", ASN_OCTET_STR, lastChanged}, {root + ".1.4.3.0", ASN_UNSIGNED, "0"},
      {root + ".1.4.4.0", ASN_OCTET_STR, ""},          {root + ".1.5.1.0", ASN_UNSIGNED, "60"},
  };
  EXPECT_EQ(walk(root, 0), expected);
  for (const Varbind& scalar : expected) EXPECT_EQ(agent.get(scalar.name), scalar);
}

TEST_F(AlarmMibTest, ScalarsThatCannotBeReadAreNoSuchInstance) {
  const auto expectUnreadable = [&] {
    for (const char* name : {".1.1.2.0", ".1.3.1.0", ".1.3.2.0", ".1.3.3.0", ".1.4.2.0", ".1.5.1.0"})
      EXPECT_EQ(agent.get(root + name).type, SNMP_NOSUCHINSTANCE) << name;
    EXPECT_EQ(agent.get(root + ".1.1.1.0").type, ASN_UNSIGNED);
  };
  connector.isBroken = true;
  expectUnreadable();
  AlarmScalars::getInstance().init(nullptr);
  expectUnreadable();
}

TEST_F(AlarmMibTest, HeartbeatIntervalIsWrittenThroughTheConnector) {
  const std::string name = root + ".1.5.1.0";
  agent.set(name, ASN_UNSIGNED, 4000000000L);
  EXPECT_EQ(agent.errorStatus(), SNMP_ERR_NOERROR);
  EXPECT_EQ(connector.heartbeatInterval, 4000000000U);
  EXPECT_EQ(agent.get(name).value, "4000000000");

  agent.set(name, ASN_INTEGER, 5);
  EXPECT_EQ(agent.errorStatus(), SNMP_ERR_WRONGTYPE);
  EXPECT_EQ(connector.heartbeatInterval, 4000000000U);

  connector.isBroken = true;
  agent.set(name, ASN_UNSIGNED, 5);
  EXPECT_EQ(agent.errorStatus(), SNMP_ERR_GENERR);
  EXPECT_EQ(log.count(Vela::LogInfo, "SET of heartbeatInterval, value = 5"), 1);
  EXPECT_EQ(log.count(Vela::LogError, "Could not set heartbeatInterval."), 1);
}

TEST_F(AlarmMibTest, EverythingElseIsReadOnly) {
  connector.alarms = {makeAlarm(4)};
  for (const std::string& name : {root + ".1.1.2.0", root + ".1.3.3.0", entry + ".2.4"}) {
    agent.set(name, ASN_UNSIGNED, 5);
    EXPECT_EQ(agent.errorStatus(), SNMP_ERR_NOTWRITABLE) << name;
  }
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

std::vector<Varbind> rowOf4() {
  const auto name = [](int column) { return entry + "." + std::to_string(column) + ".4"; };
  return {
      {name(2), ASN_UNSIGNED, "193"},
      {name(3), ASN_UNSIGNED, "4000000000"},
      {name(4), ASN_OCTET_STR, "Link failure"},
      {name(5), ASN_OCTET_STR, "ManagedElement=1,Port=4"},
      {name(6), ASN_INTEGER, "2"},
      {name(7), ASN_OCTET_STR, std::string("\x07\xE1\x07\x0E\x02\x28\x00\x09+\x00\x00", 11)},
      {name(8), ASN_OCTET_STR, std::string("\x07\xE1\x03\x0E\x09\x00\x00\x00+\x00\x00", 11)},
      {name(9), ASN_INTEGER, "505"},
      {name(10), ASN_INTEGER, "4"},
      {name(11), ASN_INTEGER, "6"},
      {name(12), ASN_OCTET_STR, std::string(300, 't')},
      {name(13), ASN_OCTET_STR, "weak light"},
      {name(14), ASN_OBJECT_ID, ".0.0"},
      {name(15), ASN_OCTET_STR, "a=1;b\\;c=x\\=y"},
  };
}

TEST_F(AlarmMibTest, ShowsARowWhole) {
  connector.alarms = {makeAlarm(4)};
  connector.alarms[0].setAdditionalText(std::string(300, 't'));
  EXPECT_EQ(walk(entry, 0), rowOf4());
  for (const Varbind& cell : rowOf4()) EXPECT_EQ(agent.get(cell.name), cell);
}

TEST_F(AlarmMibTest, AnOriginalSeverityThatIsNoneShowsAsIndeterminate) {
  connector.alarms = {makeAlarm(4)};
  connector.alarms[0].setOriginalSeverity(9);
  EXPECT_EQ(agent.get(entry + ".11.4").value, "2");
}

TEST_F(AlarmMibTest, WalksColumnByColumnInTheOrderOfTheIndices) {
  std::vector<std::string> expected;
  for (int column = 2; column <= 15; ++column) {
    for (const char* index : {".0", ".2", ".9", ".4294967295"})
      expected.push_back(entry + "." + std::to_string(column) + index);
  }
  for (const unsigned int index : {9U, 4294967295U, 0U, 2U}) connector.alarms.push_back(makeAlarm(index));
  for (const long maxRepetitions : {0L, 1L, 7L, 100L}) {
    std::vector<std::string> names;
    for (const Varbind& varbind : walk(root + ".1.3.5", maxRepetitions)) names.push_back(varbind.name);
    EXPECT_EQ(names, expected) << maxRepetitions;
  }
}

TEST_F(AlarmMibTest, FindsTheNextObjectFromAnywhere) {
  connector.alarms = {makeAlarm(2), makeAlarm(4)};
  const struct {
    std::string from, next;
  } cases[] = {
      {root + ".1.3.4.0", entry + ".2.2"},
      {root + ".1.3.5", entry + ".2.2"},
      {entry, entry + ".2.2"},
      {entry + ".1", entry + ".2.2"},
      {entry + ".1.4", entry + ".2.2"},
      {entry + ".0.7", entry + ".2.2"},
      {entry + ".2", entry + ".2.2"},
      {entry + ".2.0", entry + ".2.2"},
      {entry + ".2.2", entry + ".2.4"},
      {entry + ".2.2.7", entry + ".2.4"},
      {entry + ".2.3", entry + ".2.4"},
      {entry + ".2.4", entry + ".3.2"},
      {entry + ".2.4294967295", entry + ".3.2"},
      {entry + ".15.2", entry + ".15.4"},
      {entry + ".15.4", root + ".1.4.1.0"},
      {entry + ".15", entry + ".15.2"},
      {entry + ".16", root + ".1.4.1.0"},
      {root + ".1.3.5.0.9", entry + ".2.2"},
      {root + ".1.3.5.2", root + ".1.4.1.0"},
      {root + ".1.4.5.1.2", root + ".1.5.1.0"},
      {root + ".1.4.5", root + ".1.5.1.0"},
  };
  for (const auto& [from, next] : cases) EXPECT_EQ(agent.getNext(from).name, next) << from;
}

TEST_F(AlarmMibTest, GetsOfWhatIsNotThere) {
  connector.alarms = {makeAlarm(4)};
  const struct {
    std::string name;
    int type;
  } cases[] = {
      {entry + ".2.5", SNMP_NOSUCHINSTANCE},       {entry + ".2.4.1", SNMP_NOSUCHINSTANCE},
      {entry + ".2", SNMP_NOSUCHINSTANCE},         {entry + ".1.4", SNMP_NOSUCHOBJECT},
      {entry + ".16.4", SNMP_NOSUCHOBJECT},        {root + ".1.4.5.1.2.0", SNMP_NOSUCHINSTANCE},
      {root + ".1.4.5.1.13.0", SNMP_NOSUCHOBJECT}, {root + ".1.1.2.1", SNMP_NOSUCHINSTANCE},
      {root + ".1.9.0", SNMP_NOSUCHOBJECT},
  };
  for (const auto& [name, type] : cases) EXPECT_EQ(agent.get(name).type, type) << name;
}

TEST_F(AlarmMibTest, AFailingAlarmListLeavesTheTableEmptyUntilItCanBeRead) {
  connector.alarms = {makeAlarm(4)};
  EXPECT_EQ(agent.get(entry + ".2.4").value, "193");
  connector.isBroken = true;
  SnmpAlarmSnapshot::getInstance().invalidateSnapshot();
  EXPECT_EQ(agent.getNext(entry).name, root + ".1.4.1.0");
  connector.isBroken = false;
  EXPECT_EQ(agent.getNext(entry).name, entry + ".2.4");
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
  const std::vector<Varbind> row = rowOf4();
  const std::vector<std::string> expected = {"193",      "4000000000", "Link failure", "ManagedElement=1,Port=4",
                                             "2",        row[5].value, "505",          "4",
                                             "no light", ".0.0",       row[13].value};
  for (unsigned int column = 2; column <= 12; ++column) {
    netsnmp_variable_list variable = {};
    netsnmp_request_info request = {};
    request.requestvb = &variable;
    netsnmp_table_request_info table = {};
    table.colnum = column;
    handleAlertColumn(&request, &alert, &info, &table);
    EXPECT_EQ(toVarbind(variable).value, expected[column - 2]) << column;
    snmp_free_var_internals(&variable);
  }
}

}  // namespace

}  // namespace AlarmTest
