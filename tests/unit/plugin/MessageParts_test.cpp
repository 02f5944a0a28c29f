#include "MessageParts.h"

#include <gtest/gtest.h>

#include <string>

namespace SnmpdPlugin {

namespace {

/** An element in BER; `lengthOctets`: 0 for the short form. */
std::string element(char tag, const std::string& content, size_t lengthOctets = 0) {
  std::string length(1, static_cast<char>(lengthOctets == 0 ? content.size() : 0x80 + lengthOctets));
  for (size_t i = lengthOctets; i-- > 0;) length += static_cast<char>(i < 4 ? content.size() >> (8 * i) : 0);
  return tag + length + content;
}

std::string scoped(char pdu) { return element(0x30, element(4, "engine") + element(4, "") + element(pdu, "pdu")); }

std::string message(const std::string& scopedPdu, size_t lengthOctets = 0) {
  return element(0x30, element(2, "\x03") + element(0x30, "header") + element(4, "") + scopedPdu, lengthOctets);
}

TEST(MessageParts, TheScopedPduIsFoundInAnyFormOfLength) {
  const std::string inform = scoped('\xa6');
  for (const size_t lengthOctets : {0, 1, 2, 4}) EXPECT_EQ(scopedPduOf(message(inform, lengthOctets)), inform);
  EXPECT_TRUE(isInform(inform));
  EXPECT_FALSE(isInform(scoped('\xa7')));
}

TEST(MessageParts, WhatIsNoMessageHasNoParts) {
  const std::string whole = message(scoped('\xa6'));
  for (size_t length = 0; length < whole.size(); ++length)
    EXPECT_EQ(scopedPduOf(whole.substr(0, length)), "") << length;
  EXPECT_EQ(scopedPduOf(message(scoped('\xa6'), 5)), "");
  EXPECT_EQ(scopedPduOf(element(0x30, element(2, "\x03"))), "");
  EXPECT_EQ(scopedPduOf("\x30\x84\xff\xff\xff\xff"), "");
  EXPECT_FALSE(isInform(""));
  EXPECT_FALSE(isInform(element(0x30, element(4, "engine"))));
}

}  // namespace

}  // namespace SnmpdPlugin
