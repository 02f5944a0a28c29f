#include "model/MoTransaction.h"

#include <Poco/JSON/Stringifier.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <thread>

#include "VelaException.h"
#include "model/ModelFile.h"

namespace VelaNode {

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string SystemFunctions = "ManagedElement=1,SystemFunctions=1";
const std::string Fm = SystemFunctions + ",Fm=1";
const std::string Snmp = SystemFunctions + ",SysM=1,Snmp=1";
const std::string Target = Snmp + ",SnmpTargetV2C=local";
const std::string TargetV3 = Snmp + ",SnmpTargetV3=nms";

std::string alarmDn(unsigned id) { return Fm + ",FmAlarm=" + std::to_string(id); }

std::string json(const MoObject& object, const std::string& attribute) {
  const Poco::Dynamic::Var value = object.toJson()->getObject("attributes")->get(attribute);
  if (value.isString()) return value.toString();
  std::ostringstream text;
  Poco::JSON::Stringifier::condense(value, text);
  return text.str();
}

class MoTransactionTest : public testing::Test {
 protected:
  MoTransactionTest() {
    _store.install(ModelFile::parse(ModelFile::getDefaultText(), "default"));
    _store.setListener([this](const std::shared_ptr<const MoChanges>& changes) {
      for (const MoChange& change : *changes) {
        std::string line = std::to_string(change.eventType) + " " + change.dn;
        for (const char* name : change.attributes) line += std::string(" ") + name;
        _notified.push_back(line);
      }
    });
    _store.setPersister([this](const MoTree& tree) {
      if (!_persistFault.empty()) throw Vela::VelaException("%s", _persistFault.c_str());
      _persisted.push_back(ModelFile::format(tree));
    });
  }

  MoChanges commit(const auto& operation) {
    MoTransaction transaction(_store);
    operation(transaction);
    return transaction.commit();
  }
  std::string errorOf(int code, const auto& operation) {
    try {
      operation();
    } catch (const Vela::VelaException& ex) {
      EXPECT_EQ(ex.getCode(), code) << ex.what();
      return ex.what();
    }
    return "nothing thrown";
  }
  MoObjectPtr committed(const std::string& dn) { return _store.getTree().find(dn); }

  MoStore _store;
  std::vector<std::string> _notified;
  std::vector<std::string> _persisted;
  std::string _persistFault;
};

}  // namespace

TEST_F(MoTransactionTest, TextBecomesTypedValues) {
  const struct {
    std::string dn, name, text, shown;
  } cases[] = {
      {Target, "port", " 70000 ", "70000"},
      {Target, "port", "", "162"},
      {Target, "networkPrefixLength", "-32768", "-32768"},
      {Target, "isMibWritable", "1", "true"},
      {Target, "transportMethod", "INFORM", "INFORM"},
      {Target, "transportMethod", "2", "INFORM"},
      {Target, "transportMethod", "-9", "-9"},
      {Target, "address", " no address\tat all ", " no address\tat all "},
      {Target, "community", "\xC3\xA4<&>\"'", "\xC3\xA4<&>\"'"},
      {Snmp, "agentAddress", R"([{"host":"::1","port":0},{"host":""}])", R"([{"host":"::1","port":0},{"host":""}])"},
      {Snmp, "agentAddress", "[]", "[]"},
      {Snmp, "agentAddress", "", "[]"},
      {TargetV3, "authKey", R"({"cleartext":false,"password":"abc"})", R"({"cleartext":false,"password":"********"})"},
  };
  for (const auto& item : cases) {
    commit([&](MoTransaction& transaction) {
      if (!transaction.find(item.dn)) transaction.create(item.dn);
      transaction.setText(item.dn, item.name, item.text);
    });
    EXPECT_EQ(json(*committed(item.dn), item.name), item.shown) << item.name << "=" << item.text;
  }
  commit([](MoTransaction& transaction) { transaction.setText(Target, "community", ""); });
  EXPECT_FALSE(committed(Target)->findAttribute("community")->isSet);
}

TEST_F(MoTransactionTest, ValuesOfTheWrongTypeAreRefusedInOneLine) {
  const struct {
    std::string dn, name, text, reason;
  } cases[] = {
      {Target, "port", "-1", "-1 is not a number from 0 to 4294967295"},
      {Target, "port", "4294967296", "4294967296 is not a number from 0 to 4294967295"},
      {Target, "port", "0x10", "\"0x10\" is not a number from 0 to 4294967295"},
      {Target, "networkPrefixLength", "32768", "32768 is not a number from -32768 to 32767"},
      {Target, "isMibWritable", "yes", "\"yes\" is not true or false"},
      {Target, "administrativeState", "OPEN", "\"OPEN\" is not one of LOCKED, UNLOCKED"},
      {Target, "address", "a\x01z", "control characters and malformed UTF-8 are not allowed in a text"},
      {Target, "address", "a\xC0\xAF", "control characters and malformed UTF-8 are not allowed in a text"},
      {Snmp, "agentAddress", "127.0.0.1", R"(JSON is expected, such as [{"host": ..., "port": ...}, ...])"},
      {Snmp, "agentAddress", R"({"host":"h"})",
       R"(a JSON array is expected, such as [{"host": ..., "port": ...}, ...])"},
      {Snmp, "agentAddress", R"([{"host":"h","prot":1}])", "[0]: the struct has no member \"prot\""},
      {Snmp, "agentAddress", R"([{"host":"h"},{"port":"1"}])", "[1].port: \"1\" is not a number from 0 to 4294967295"},
      {Snmp, "agentAddress", R"([{"port":1.5}])", "[0].port: a number without fraction is expected"},
      {TargetV3, "authKey", R"({"password":"top\u0001secret"})",
       ".password: control characters and malformed UTF-8 are not allowed in a text"},
      {TargetV3, "authKey", R"({"password":"topsecret")",
       R"(JSON is expected, such as {"cleartext": ..., "password": ...})"},
  };
  commit([](MoTransaction& transaction) { transaction.create(TargetV3); });
  MoTransaction transaction(_store);
  for (const auto& item : cases) {
    EXPECT_EQ(errorOf(VELA_INVALID, [&] { transaction.setText(item.dn, item.name, item.text); }),
              item.dn + "::" + item.name + ": " + item.reason);
  }
  EXPECT_THAT(transaction.commit(), IsEmpty()) << "a refused value must not leave a trace";
}

TEST_F(MoTransactionTest, NamesAreChecked) {
  MoTransaction transaction(_store);
  const struct {
    std::vector<std::string> dns;
    std::string reason;
    int code = VELA_INVALID;
  } cases[] = {
      {{Target}, "The object exists already", VELA_EXISTS},
      {{"ManagedElement=2,Transport=1"}, "the object above it does not exist", VELA_NOT_FOUND},
      {{"", "ManagedElement", "ManagedElement=1,", "ManagedElement=1,Transport="}, "each step is CLASS=NAME"},
      {{"ManagedElement=1,Bogus=1"}, "there is no such class"},
      {{"ManagedElement=1,Snmp=1", "Snmp=1"}, "the class does not stand there"},
      {{Fm + ",FmAlarm=x", Fm + ",FmAlarm=01", Fm + ",FmAlarm=4294967296"}, "the name is not a number"},
      {{"ManagedElement=a\nb"}, "control characters and malformed UTF-8 are not allowed"},
  };
  for (const auto& item : cases) {
    for (const std::string& dn : item.dns)
      EXPECT_THAT(errorOf(item.code, [&] { transaction.create(dn); }), HasSubstr(item.reason)) << dn;
  }
  EXPECT_EQ(errorOf(VELA_NOT_FOUND, [&] { transaction.set(Target, "nonsense", 1); }),
            Target + ": class SnmpTargetV2C has no attribute \"nonsense\"");
  EXPECT_THAT(errorOf(VELA_NOT_FOUND, [&] { transaction.set(Snmp + ",SnmpTargetV2C=other", "port", 1); }),
              HasSubstr("No such object"));
  EXPECT_EQ(errorOf(VELA_NOT_FOUND, [&] { transaction.remove("ManagedElement=7"); }),
            "No such object: \"ManagedElement=7\"");
  EXPECT_FALSE(transaction.find("not a name at all"));
}

TEST_F(MoTransactionTest, NothingIsVisibleOutsideBeforeCommitOrAfterAbort) {
  {
    MoTransaction writer(_store);
    MoTransaction reader(_store);
    writer.set(Target, "port", 5);
    writer.create(TargetV3);
    writer.set(TargetV3, "user", "u");
    writer.remove(SystemFunctions + ",SecM=1");
    EXPECT_EQ(writer.get(Target)->getUnsigned("port"), 5u);
    EXPECT_EQ(writer.get(TargetV3)->getText("user"), "u");
    EXPECT_FALSE(writer.find(SystemFunctions + ",SecM=1,Tls=1"));
    EXPECT_EQ(writer.children(Snmp).size(), 2u);
    EXPECT_EQ(reader.get(Target)->getUnsigned("port"), 1162u);
    EXPECT_FALSE(reader.find(TargetV3));
    EXPECT_TRUE(reader.find(SystemFunctions + ",SecM=1,Tls=1"));
  }
  EXPECT_EQ(committed(Target)->getUnsigned("port"), 1162u);
  EXPECT_THAT(_notified, IsEmpty());
  EXPECT_THAT(_persisted, IsEmpty());

  MoTransaction reader(_store);
  commit([](MoTransaction& writer) { writer.set(Target, "port", 6); });
  EXPECT_EQ(reader.get(Target)->getUnsigned("port"), 6u) << "a reader sees what was committed meanwhile";
}

TEST_F(MoTransactionTest, OnlyWhatReallyChangedIsNotified) {
  commit([](MoTransaction& transaction) {
    transaction.set(Target, "port", 1162);  // as it was
    transaction.set(Target, "community", "private");
    transaction.set(Target, "address", "::1");
    transaction.set(Target, "address", "127.0.0.1");  // back again
    transaction.set(Snmp, "operationalState", "ENABLED");
  });
  EXPECT_THAT(_notified, ElementsAre("1 " + Target + " community", "1 " + Snmp + " operationalState"));

  _notified.clear();
  const std::string secM = SystemFunctions + ",SecM=1";
  commit([&](MoTransaction& transaction) {
    transaction.create(TargetV3);
    transaction.set(TargetV3, "user", "u");
    transaction.create(Snmp + ",SnmpViewV1=v");
    transaction.remove(Snmp + ",SnmpViewV1=v");
    transaction.remove(secM);
  });
  EXPECT_THAT(_notified, ElementsAre("2 " + TargetV3, "4 " + secM + ",Tls=1", "4 " + secM));

  _notified.clear();
  EXPECT_THAT(commit([](MoTransaction& transaction) {
                transaction.remove(Target);
                transaction.create(Target);
                transaction.set(Target, "address", "127.0.0.1");
                transaction.set(Target, "port", 1163);
                transaction.set(Target, "community", "private");
              }).size(),
              1u);
  EXPECT_THAT(_notified, ElementsAre("1 " + Target + " port")) << "made anew, but for the port as it was";
}

TEST_F(MoTransactionTest, FileIsWrittenForWhatItHoldsOnly) {
  commit([](MoTransaction& transaction) {
    transaction.set(Fm, "totalActive", 1);
    transaction.set(Snmp, "operationalState", "ENABLED");
    transaction.create(alarmDn(1));
    transaction.set(alarmDn(1), "additionalText", "any \x01 octets \xFF");
  });
  commit([](MoTransaction& transaction) { transaction.remove(alarmDn(1)); });
  commit([](MoTransaction& transaction) { transaction.set(Fm, "heartbeatInterval", 60); });
  EXPECT_THAT(_persisted, IsEmpty());
  EXPECT_EQ(_notified.size(), 4u);

  commit([](MoTransaction& transaction) {
    transaction.set(Fm, "heartbeatInterval", 61);
    transaction.set(Fm, "totalActive", 7);
  });
  ASSERT_EQ(_persisted.size(), 1u);
  EXPECT_THAT(_persisted[0], HasSubstr("<heartbeatInterval>61</heartbeatInterval>"));
  EXPECT_THAT(_persisted[0], testing::Not(HasSubstr("totalActive")));
  commit([](MoTransaction& transaction) { transaction.remove(Target); });
  EXPECT_EQ(_persisted.size(), 2u);
}

TEST_F(MoTransactionTest, CommitThatCannotBeWrittenChangesNothing) {
  _persistFault = "disk full";
  MoTransaction transaction(_store);
  transaction.set(Target, "port", 5);
  transaction.create(alarmDn(1));
  EXPECT_THAT(errorOf(0, [&] { transaction.commit(); }), "disk full");
  EXPECT_EQ(committed(Target)->getUnsigned("port"), 1162u);
  EXPECT_FALSE(committed(alarmDn(1)));
  EXPECT_THAT(_notified, IsEmpty());
  EXPECT_THAT(errorOf(VELA_INVALID, [&] { transaction.set(Target, "port", 6); }), "The transaction has ended");
  commit([](MoTransaction& next) { next.set(Fm, "totalActive", 1); });
  EXPECT_EQ(_notified.size(), 1u) << "the writer's lock is free again";
}

TEST_F(MoTransactionTest, OneWriterAtATime) {
  MoTransaction first(_store, VELA_MO_LOCK_AT_ONCE);
  MoTransaction second(_store, VELA_MO_LOCK_ON_WRITE, 1ms);
  EXPECT_TRUE(second.find(Target)) << "readers do not wait";
  EXPECT_THAT(errorOf(VELA_TIMEOUT, [&] { second.set(Target, "port", 5); }), HasSubstr("no lock within 1 ms"));
  EXPECT_THAT(errorOf(VELA_TIMEOUT, [&] { MoTransaction(_store, VELA_MO_LOCK_AT_ONCE, 0ms); }), HasSubstr("no lock"));
  first.abort();
  second.set(Target, "port", 5);
  second.commit();

  MoTransaction third(_store, VELA_MO_LOCK_AT_ONCE);
  third.set(Target, "informTimeout", 1);
  std::thread waiting([&] { commit([](MoTransaction& fourth) { fourth.set(Target, "informRetryCount", 9); }); });
  third.commit();
  waiting.join();
  EXPECT_EQ(committed(Target)->getUnsigned("informTimeout"), 1u);
  EXPECT_EQ(committed(Target)->getUnsigned("informRetryCount"), 9u);
}

TEST_F(MoTransactionTest, ClearPasswordsAreEncryptedBeforeAnybodySeesThem) {
  _store.setEncryptor([](const std::string& clear) { return "cipher(" + clear + ")"; });
  commit([](MoTransaction& transaction) {
    transaction.create(TargetV3);
    transaction.set(TargetV3, "authKey", MoValue::Members{{"cleartext", true}, {"password", "open"}});
    transaction.setText(TargetV3, "privKey", R"({"cleartext":false,"password":"old cipher"})");
  });
  const auto password = [&](const char* name) {
    const VelaOamSpiMoValue_3T& value = committed(TargetV3)->findAttribute(name)->values[0];
    return std::string(value.members[0].value.i64 != 0 ? "clear " : "cipher ") + value.members[1].value.text;
  };
  EXPECT_EQ(password("authKey"), "cipher cipher(open)");
  EXPECT_EQ(password("privKey"), "cipher old cipher");
  EXPECT_THAT(_persisted.back(), testing::Not(HasSubstr(">open<")));

  _store.setEncryptor([](const std::string&) -> std::string { throw Vela::VelaException("no key"); });
  _notified.clear();
  MoTransaction transaction(_store);
  transaction.set(TargetV3, "user", "u");
  transaction.setText(TargetV3, "privKey", R"({"cleartext":true,"password":"new"})");
  EXPECT_EQ(errorOf(0, [&] { transaction.commit(); }), "no key");
  EXPECT_EQ(password("privKey"), "cipher old cipher");
  EXPECT_FALSE(committed(TargetV3)->getText("user"));
  EXPECT_THAT(_notified, IsEmpty());
}

TEST_F(MoTransactionTest, ChildrenAreOrderedAndAWalkSeesItsMoment) {
  commit([](MoTransaction& transaction) {
    for (const unsigned id : {100u, 9u, 20u, 1u}) transaction.create(alarmDn(id));
    for (const char* name : {"SnmpViewV1=b", "SnmpTargetV3=a", "SnmpTargetV1=z", "SnmpViewV1=a"}) {
      transaction.create(Snmp + "," + name);
    }
  });
  MoTransaction transaction(_store);
  std::vector<std::string> names;
  for (const MoObjectPtr& object : transaction.children(Snmp)) {
    names.push_back(std::string(object->getClass().getName()) + "=" + std::string(object->getName().text));
  }
  EXPECT_THAT(names,
              ElementsAre("SnmpTargetV1=z", "SnmpTargetV2C=local", "SnmpTargetV3=a", "SnmpViewV1=a", "SnmpViewV1=b"));
  EXPECT_EQ(transaction.findFirst("ManagedElement,SystemFunctions,SysM,Snmp,SnmpViewV1"), Snmp + ",SnmpViewV1=a");
  EXPECT_FALSE(transaction.findFirst("ManagedElement,SystemFunctions,SysM,Snmp,SnmpViewV3"));

  std::vector<std::uint64_t> ids;
  transaction.traverse(Fm, "FmAlarm", [&](const MoObjectPtr& object) {
    ids.push_back(object->getName().number);
    if (ids.size() == 1) transaction.remove(alarmDn(20));
    transaction.create(alarmDn(1000 + static_cast<unsigned>(ids.size())));
    return true;
  });
  EXPECT_THAT(ids, ElementsAre(1, 9, 20, 100));
  EXPECT_EQ(transaction.children(Fm, "FmAlarm").size(), 7u);
  EXPECT_THAT(errorOf(VELA_NOT_FOUND, [&] { transaction.children(alarmDn(20), "FmAlarm"); }),
              HasSubstr("No such object"));
}

TEST_F(MoTransactionTest, ReaderNeverSeesHalfACommit) {
  std::atomic<bool> isDone = false;
  std::thread writer([&] {
    for (unsigned i = 1; i <= 2000; ++i) {
      commit([&](MoTransaction& transaction) {
        transaction.set(Fm, "sumMajor", i);
        transaction.set(Fm, "totalActive", i);
        i % 2 == 1 ? transaction.create(alarmDn(1)) : transaction.remove(alarmDn(1));
      });
    }
    isDone = true;
  });
  while (!isDone) {
    const MoTree tree = _store.getTree();
    const MoObjectPtr fm = tree.find(Fm);
    ASSERT_EQ(fm->getUnsigned("sumMajor"), fm->getUnsigned("totalActive"));
    ASSERT_EQ(tree.find(alarmDn(1)) != nullptr, *fm->getUnsigned("totalActive") % 2 == 1);
  }
  writer.join();
}

}  // namespace VelaNode
