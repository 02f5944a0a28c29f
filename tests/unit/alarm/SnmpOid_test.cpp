#include "SnmpOid.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace AlarmTest {

using VelaFmSnmp::SnmpOid;

namespace {

std::string arcs(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += ".1";
  return text;
}

SnmpOid ofLength(int length) { return SnmpOid(arcs(length).c_str()); }

TEST(SnmpOid, ReadsAndWritesDottedText) {
  const auto check = [](const std::string& text, bool isGood) {
    SnmpOid oid(".9.9");
    EXPECT_EQ(oid.fromString(text.c_str()), isGood) << text;
    EXPECT_EQ(oid.toString(), isGood ? text : "<<Invalid OID>>") << text;
    EXPECT_EQ(oid.length() > 0, isGood) << text;
  };
  for (const std::string& text :
       {std::string(".1.3.6.1.4.1.61234.183.4"), std::string(".0"), std::string(".1.3.4294967295"), arcs(128)})
    check(text, true);
  for (const char* text : {"", ".", "1.3.6", ".1.3.", ".1..2", ".1.-2", ".1.+2", ".1. 2", " .1", ".1x", ".1.x",
                           ".1.3.4294967296", ".1.3.18446744073709551616"})
    check(text, false);
  check(arcs(129), false);
  EXPECT_FALSE(SnmpOid().fromString(nullptr));
}

TEST(SnmpOid, NullIdentifiersAndElements) {
  EXPECT_EQ(SnmpOid().toString(), ".0.0");
  EXPECT_TRUE(SnmpOid().isNull());
  EXPECT_TRUE(SnmpOid("").isNull());
  for (const char* text : {".0", ".0.0.0", ".0.1", ".1.0"}) EXPECT_FALSE(SnmpOid(text).isNull()) << text;
  SnmpOid oid(".1.3.6");
  EXPECT_TRUE(oid.setValue(2, 4294967295UL));
  for (const int index : {-1, 3}) {
    EXPECT_FALSE(oid.setValue(index, 7)) << index;
    EXPECT_EQ(oid.getValue(index), 0U) << index;
  }
  EXPECT_EQ(oid.toString(), ".1.3.4294967295");
}

TEST(SnmpOid, OrderAndPrefixes) {
  const std::vector<SnmpOid> ascending = {
      SnmpOid(""), SnmpOid(".1.3"), SnmpOid(".1.3.0"), SnmpOid(".1.3.6"), SnmpOid(".1.3.2147483648"), SnmpOid(".1.4")};
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] < ascending[j], i < j) << i << " " << j;
      EXPECT_EQ(ascending[i] == ascending[j], i == j) << i << " " << j;
    }
  }
  EXPECT_TRUE(SnmpOid(".1.3.6").beginsWith(".1.3"));
  EXPECT_TRUE(SnmpOid(".1.3.6").beginsWith(""));
  EXPECT_FALSE(SnmpOid(".1.3").beginsWith(".1.3.6"));
  EXPECT_FALSE(SnmpOid(".1.3.6").beginsWith(".1.4"));
}

TEST(SnmpOid, AppendsIndexes) {
  const unsigned char octets[] = {0x80, 0x00, 0xFF};
  const unsigned long ids[] = {1, 3, 4294967295UL};
  const auto appended = [](auto&&... what) {
    SnmpOid oid(".9");
    EXPECT_TRUE(oid.append(what...));
    return oid.toString();
  };
  EXPECT_EQ(appended(7), ".9.7");
  EXPECT_EQ(appended(-1), ".9.4294967295");
  EXPECT_EQ(appended("abc", true), ".9.3.97.98.99");
  EXPECT_EQ(appended("abc", false), ".9.97.98.99");
  EXPECT_EQ(appended(std::string("\xE4\0z", 3), true), ".9.3.228.0.122");
  EXPECT_EQ(appended(static_cast<const char*>(nullptr), true), ".9.0");
  EXPECT_EQ(appended(static_cast<const char*>(nullptr), false), ".9");
  EXPECT_EQ(appended(octets, 3U), ".9.3.128.0.255");
  EXPECT_EQ(appended(ids, 3U), ".9.3.1.3.4294967295");
  EXPECT_EQ(appended(SnmpOid(".1.3.6")), ".9.3.1.3.6");
  SnmpOid self(".1.2");
  EXPECT_TRUE(self.append(self));
  EXPECT_EQ(self.toString(), ".1.2.2.1.2");
}

TEST(SnmpOid, AppendsAllOrNothingUpTo128) {
  const unsigned char octets[] = {1, 2, 3};
  const unsigned long ids[] = {1, 2, 3};
  const struct {
    int length;
    bool fitsWithLength, fitsWithout;
  } cases[] = {{124, true, true}, {125, false, true}, {126, false, false}};
  for (const auto& [length, fitsWithLength, fitsWithout] : cases) {
    const auto check = [&](bool fits, unsigned int added, auto&&... what) {
      SnmpOid oid = ofLength(length);
      EXPECT_EQ(oid.append(what...), fits) << length;
      EXPECT_EQ(oid.length(), static_cast<unsigned int>(length) + (fits ? added : 0)) << length;
    };
    check(fitsWithLength, 4, "abc", true);
    check(fitsWithout, 3, "abc", false);
    check(fitsWithLength, 4, octets, 3U);
    check(fitsWithLength, 4, ids, 3U);
    check(fitsWithLength, 4, SnmpOid(".1.2.3"));
  }
  SnmpOid full = ofLength(128);
  EXPECT_FALSE(full.append(1));
  EXPECT_FALSE(full.append("", true));
  EXPECT_TRUE(full.append("", false));
  EXPECT_FALSE(SnmpOid().append(std::string(1000000, 'x'), false));
}

}  // namespace

}  // namespace AlarmTest
