#include "MoAccessor.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Portal.h"
#include "VelaException.h"

namespace {

using Vela::MoAccessor;

/** A host's service with one object, which has one attribute. What it answers is what the test says, faults included.
 */
struct Service {
  static inline VelaOamSpiMoAttribute_3T attribute{};
  static inline const char* childName = nullptr;
  static inline bool hasObject = true;
  static inline const char* reason = nullptr;
  static inline int object = 0;

  static VelaReturnT begin(int32_t, uint32_t, VelaOamSpiMoTransactionT* transaction) {
    *transaction = 1;
    return VELA_OK;
  }
  static VelaReturnT end(VelaOamSpiMoTransactionT) { return VELA_OK; }
  static const char* errorText() { return reason; }
  static VelaReturnT first(VelaOamSpiMoTransactionT, const char*, const char** dn) {
    *dn = nullptr;
    return VELA_OK;
  }
  static VelaReturnT traverse(VelaOamSpiMoTransactionT, const char*, const char*, VelaOamSpiMoVisitorT visitor,
                              void* context) {
    visitor(context, childName, opened());
    return VELA_OK;
  }
  static const VelaOamSpiMoObjectT* opened() { return reinterpret_cast<const VelaOamSpiMoObjectT*>(&object); }
  static VelaReturnT open(VelaOamSpiMoTransactionT, const char*, const VelaOamSpiMoObjectT** found) {
    *found = hasObject ? opened() : nullptr;
    return VELA_OK;
  }
  static void close(const VelaOamSpiMoObjectT*) {}
  static VelaReturnT get(const VelaOamSpiMoObjectT*, const char*, const VelaOamSpiMoAttribute_3T** found) {
    *found = &attribute;
    return VELA_OK;
  }
  static VelaReturnT getInterface(const char*, const char* name, const char*, void** found) {
    static VelaOamSpiManagedObject_3T table = {&begin, &end,    &end, &errorText, &first,  &traverse, &open,
                                               &close, nullptr, &get, nullptr,    nullptr, nullptr};
    if (name == nullptr || std::string(name) != VELA_MO_INTERFACE) return VELA_NOT_FOUND;
    *found = &table;
    return VELA_OK;
  }
};

class MoAccessorTest : public ::testing::Test {
 protected:
  MoAccessorTest() {
    Service::attribute = {"name", false, true, nullptr, 0};
    Service::childName = nullptr;
    Service::hasObject = true;
    Vela::Portal::set(&_portal);
  }
  ~MoAccessorTest() override { Vela::Portal::set(nullptr); }

  static std::string failureOf(const std::function<void(MoAccessor&)>& action) {
    try {
      MoAccessor accessor(VELA_MO_LOCK_ON_WRITE, 1);
      action(accessor);
    } catch (const Vela::VelaException& ex) {
      return ex.what();
    }
    return "no failure";
  }

  VelaMgmtSpiInterfacePortal_1T _portal{nullptr, nullptr, nullptr, &Service::getInterface, nullptr, nullptr, nullptr};
};

TEST_F(MoAccessorTest, WhatTheHostLeavesNullIsAFailureAndNothingWorse) {
  const auto readOne = [](MoAccessor& accessor) { accessor.getAttr<std::string>("dn", "name"); };
  const auto readAll = [](MoAccessor& accessor) { accessor.getSeqAttr<std::string>("dn", "name"); };
  const auto readStruct = [](MoAccessor& accessor) { accessor.getAttr<Vela::MoStruct>("dn", "name"); };

  Service::attribute.valueCount = 1;
  EXPECT_EQ(failureOf(readOne), "Attribute is not set");
  Service::attribute.isSequence = true;
  EXPECT_EQ(failureOf(readAll), "Attribute is not set");

  const VelaOamSpiMoMember_3T nameless{nullptr, true, {VELA_MO_BOOL, 1, 0, nullptr, nullptr, 0}};
  VelaOamSpiMoValue_3T value{VELA_MO_STRUCT, 0, 0, nullptr, nullptr, 1};
  Service::attribute = {"name", false, true, &value, 1};
  for (const VelaOamSpiMoMember_3T* members : {static_cast<const VelaOamSpiMoMember_3T*>(nullptr), &nameless}) {
    value.members = members;
    EXPECT_EQ(failureOf(readStruct), "Attribute has another type or range: dn::name");
  }

  struct Visitor : MoAccessor::IMoTraverser {
    bool visit(MoAccessor&, const std::string&) override { return true; }
  } visitor;
  EXPECT_EQ(failureOf([&](MoAccessor& accessor) { accessor.traverseChildren("dn", "Class", visitor); }),
            "The managed object service names no object");
  EXPECT_EQ(failureOf([](MoAccessor& accessor) { accessor.getFirstMoInstance("Class"); }),
            "Failed to look up Class::: no reason told (0)");
  Service::hasObject = false;
  EXPECT_EQ(failureOf(readOne), "Failed to open dn::: no reason told (0)");
  EXPECT_EQ(failureOf([](MoAccessor& accessor) { EXPECT_FALSE(accessor.exists("dn")); }), "no failure");
}

TEST_F(MoAccessorTest, ValuesConvertWhereTheyFit) {
  const auto value = [](VelaOamSpiMoTypeT type, int64_t i64, uint64_t u64) {
    return VelaOamSpiMoValue_3T{type, i64, u64, nullptr, nullptr, 0};
  };
  const struct {
    VelaOamSpiMoValue_3T value;
    bool isInt16, isUInt32;
  } cases[] = {
      {value(VELA_MO_INT16, -1, 0), true, false},
      {value(VELA_MO_INT64, 32768, 0), false, true},
      {value(VELA_MO_UINT64, 0, 4294967296), false, false},
      {value(VELA_MO_UINT32, 0, 32767), true, true},
      {value(VELA_MO_ENUM, 2, 0), true, true},
      {value(VELA_MO_BOOL, 1, 0), false, false},
      {value(VELA_MO_STRING, 1, 1), false, false},
  };
  for (const auto& test : cases) {
    Service::attribute = {"name", false, true, &test.value, 1};
    const auto reads = [](auto type) {
      return failureOf([&](MoAccessor& accessor) { accessor.getAttr<decltype(type)>("dn", "name"); }) == "no failure";
    };
    EXPECT_EQ(reads(std::int16_t{}), test.isInt16) << &test - cases;
    EXPECT_EQ(reads(std::uint32_t{}), test.isUInt32) << &test - cases;
  }
}

}  // namespace
