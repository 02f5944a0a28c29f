#include "framework/ManagedObjectService.h"

#include <gtest/gtest.h>

#include "model/ModelFile.h"

namespace VelaNode {

namespace {

constexpr const char* Snmp = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1";
constexpr const char* Target = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1,SnmpTargetV2C=local";

class ManagedObjectServiceTest : public testing::Test {
 protected:
  ManagedObjectServiceTest() { _store.install(ModelFile::parse(ModelFile::getDefaultText(), "default")); }

  VelaOamSpiMoTransactionT begin(int policy = VELA_MO_LOCK_ON_WRITE) {
    VelaOamSpiMoTransactionT transaction = 0;
    EXPECT_EQ(_table.beginTransaction(policy, 0, &transaction), VELA_OK);
    return transaction;
  }

  MoStore _store;
  ManagedObjectService _service{_store};
  const VelaOamSpiManagedObject_3T& _table = *ManagedObjectService::getTable();
};

VelaOamSpiMoValue_3T number(VelaOamSpiMoTypeT type, std::int64_t i64, std::uint64_t u64 = 0) {
  VelaOamSpiMoValue_3T value{};
  value.type = type;
  value.i64 = i64;
  value.u64 = u64;
  return value;
}
VelaOamSpiMoValue_3T text(const char* content) {
  VelaOamSpiMoValue_3T value{};
  value.type = VELA_MO_STRING;
  value.text = content;
  return value;
}

}  // namespace

TEST_F(ManagedObjectServiceTest, ObjectsReadAsTheyWereWhenOpened) {
  const VelaOamSpiMoTransactionT transaction = begin();
  const VelaOamSpiMoObjectT* before = nullptr;
  ASSERT_EQ(_table.openObject(transaction, Snmp, &before), VELA_OK);
  EXPECT_STREQ(_table.getClassName(before), "Snmp");

  const char* const host = "::1";
  VelaOamSpiMoMember_3T members[] = {{"port", true, number(VELA_MO_UINT32, 0, 5)}, {"host", true, text(host)}};
  VelaOamSpiMoValue_3T value{};
  value.type = VELA_MO_STRUCT;
  value.members = members;
  value.memberCount = 2;
  const VelaOamSpiMoAttribute_3T addresses = {"agentAddress", true, true, &value, 1};
  ASSERT_EQ(_table.setAttribute(transaction, Snmp, &addresses), VELA_OK) << _table.getErrorText();
  members[1].value.text = "overwritten by the caller";

  const VelaOamSpiMoObjectT* after = nullptr;
  ASSERT_EQ(_table.openObject(transaction, Snmp, &after), VELA_OK);
  ASSERT_EQ(_table.commit(transaction), VELA_OK);
  const VelaOamSpiMoAttribute_3T* attribute = nullptr;
  ASSERT_EQ(_table.getAttribute(before, "agentAddress", &attribute), VELA_OK);
  EXPECT_STREQ(attribute->values[0].members[0].value.text, "127.0.0.1");
  ASSERT_EQ(_table.getAttribute(after, "agentAddress", &attribute), VELA_OK);
  EXPECT_TRUE(attribute->isSequence);
  EXPECT_STREQ(attribute->values[0].members[0].name, "host");
  EXPECT_STREQ(attribute->values[0].members[0].value.text, "::1");
  EXPECT_EQ(attribute->values[0].members[1].value.u64, 5u);
  EXPECT_EQ(_table.getAttribute(after, "bogus", &attribute), VELA_NOT_FOUND);
  EXPECT_STREQ(_table.getErrorText(), "Class Snmp has no attribute bogus");
  _table.closeObject(before);
  _table.closeObject(after);
  EXPECT_EQ(_service.countOpenObjects(), 0u);
  EXPECT_EQ(_service.countTransactions(), 0u);
}

TEST_F(ManagedObjectServiceTest, TypesAreChecked) {
  const VelaOamSpiMoValue_3T five = number(VELA_MO_UINT32, 0, 5);
  const VelaOamSpiMoValue_3T twice[] = {five, five};
  const VelaOamSpiMoValue_3T wrong[] = {number(VELA_MO_INT32, 1),      number(VELA_MO_UINT32, 0, 1ull << 32),
                                        number(VELA_MO_ENUM, 1),       text("x"),
                                        number(VELA_MO_INT16, 40000),  text(nullptr),
                                        number(VELA_MO_ENUM, 1u << 31)};
  const VelaOamSpiMoAttribute_3T refused[] = {
      {"port", false, true, &wrong[0], 1},
      {"port", false, true, &wrong[1], 1},
      {"port", false, true, &wrong[2], 1},
      {"port", false, true, &wrong[3], 1},
      {"networkPrefixLength", false, true, &wrong[4], 1},
      {"community", false, true, &wrong[5], 1},
      {"transportMethod", false, true, &wrong[6], 1},
      {"port", true, true, &five, 1},
      {"port", false, true, &five, 0},
      {"port", false, true, twice, 2},
      {"port", false, true, nullptr, 1},
      {nullptr, false, true, &five, 1},
  };
  const VelaOamSpiMoTransactionT transaction = begin();
  for (const VelaOamSpiMoAttribute_3T& attribute : refused) {
    EXPECT_EQ(_table.setAttribute(transaction, Target, &attribute), VELA_INVALID) << &attribute - refused;
  }
  const VelaOamSpiMoAttribute_3T port = {"port", false, true, &five, 1};
  EXPECT_EQ(_table.setAttribute(transaction, Target, &port), VELA_OK) << "the transaction goes on after a refusal";
  const VelaOamSpiMoAttribute_3T noCommunity = {"community", false, false, nullptr, 0};
  EXPECT_EQ(_table.setAttribute(transaction, Target, &noCommunity), VELA_OK);
  ASSERT_EQ(_table.commit(transaction), VELA_OK);
  EXPECT_EQ(_store.getTree().find(Target)->getUnsigned("port"), 5u);
  EXPECT_FALSE(_store.getTree().find(Target)->getText("community"));
}

TEST_F(ManagedObjectServiceTest, ChildrenAndFirstInstances) {
  const VelaOamSpiMoTransactionT transaction = begin();
  for (const char* name : {"11", "2", "1"}) {
    EXPECT_EQ(_table.createObject(transaction, (std::string(Snmp) + ",SnmpViewV1=" + name).c_str()), VELA_OK);
  }
  EXPECT_EQ(_table.deleteObject(transaction, (std::string(Snmp) + ",SnmpViewV1=11").c_str()), VELA_OK);
  std::string seen;
  const auto note = [](void* context, const char* dn, const VelaOamSpiMoObjectT*) {
    *static_cast<std::string*>(context) += std::string(dn).substr(std::string(Snmp).size()) + ";";
    return true;
  };
  EXPECT_EQ(_table.traverseChildren(transaction, Snmp, nullptr, note, &seen), VELA_OK);
  EXPECT_EQ(seen, ",SnmpTargetV2C=local;,SnmpViewV1=1;,SnmpViewV1=2;");
  seen.clear();
  const auto noteOne = [](void* context, const char*, const VelaOamSpiMoObjectT* object) {
    *static_cast<std::string*>(context) += ManagedObjectService::getTable()->getClassName(object);
    return false;
  };
  EXPECT_EQ(_table.traverseChildren(transaction, Snmp, "SnmpViewV1", noteOne, &seen), VELA_OK);
  EXPECT_EQ(seen, "SnmpViewV1");
  EXPECT_EQ(_table.traverseChildren(transaction, "ManagedElement=9", nullptr, note, &seen), VELA_NOT_FOUND);
  const char* dn = nullptr;
  ASSERT_EQ(_table.getFirstInstance(transaction, "ManagedElement,SystemFunctions,SysM,Snmp", &dn), VELA_OK);
  EXPECT_STREQ(dn, Snmp);
  EXPECT_EQ(_table.getFirstInstance(transaction, "ManagedElement,SystemFunctions,Bogus", &dn), VELA_NOT_FOUND);
  EXPECT_EQ(_table.abort(transaction), VELA_OK);
  EXPECT_FALSE(_store.getTree().find(std::string(Snmp) + ",SnmpViewV1=1"));
}

TEST_F(ManagedObjectServiceTest, FailuresHaveCodesAndTexts) {
  VelaOamSpiMoTransactionT transaction = 0;
  EXPECT_EQ(_table.beginTransaction(7, 0, &transaction), VELA_INVALID);
  EXPECT_EQ(_table.beginTransaction(VELA_MO_LOCK_AT_ONCE, 0, nullptr), VELA_INVALID);
  const VelaOamSpiMoTransactionT writer = begin(VELA_MO_LOCK_AT_ONCE);
  EXPECT_EQ(_table.beginTransaction(VELA_MO_LOCK_AT_ONCE, 0, &transaction), VELA_TIMEOUT);
  EXPECT_STRNE(_table.getErrorText(), "");
  const VelaOamSpiMoObjectT* object = nullptr;
  EXPECT_EQ(_table.openObject(writer, "ManagedElement=1,Transport=9", &object), VELA_NOT_FOUND);
  EXPECT_STREQ(_table.getErrorText(), "No such object: \"ManagedElement=1,Transport=9\"");
  EXPECT_EQ(_table.openObject(writer, nullptr, &object), VELA_INVALID);
  EXPECT_EQ(_table.createObject(writer, Snmp), VELA_EXISTS);
  EXPECT_EQ(_table.commit(writer), VELA_OK);
  EXPECT_EQ(_table.commit(writer), VELA_INVALID);
  EXPECT_STREQ(_table.getErrorText(), "No such transaction");
  EXPECT_EQ(_table.abort(0), VELA_INVALID);
}

TEST(ManagedObjectServiceLife, WithoutAServiceCallsFail) {
  VelaOamSpiMoTransactionT transaction = 0;
  const VelaOamSpiManagedObject_3T& table = *ManagedObjectService::getTable();
  EXPECT_EQ(table.beginTransaction(VELA_MO_LOCK_ON_WRITE, 0, &transaction), VELA_ERROR);
  MoStore store;
  {
    const ManagedObjectService service(store);
    EXPECT_EQ(table.beginTransaction(VELA_MO_LOCK_AT_ONCE, 0, &transaction), VELA_OK);
  }
  const ManagedObjectService next(store);
  EXPECT_EQ(table.commit(transaction), VELA_INVALID);
  EXPECT_EQ(table.beginTransaction(VELA_MO_LOCK_AT_ONCE, 0, &transaction), VELA_OK) << "the lock went with its owner";
}

}  // namespace VelaNode
