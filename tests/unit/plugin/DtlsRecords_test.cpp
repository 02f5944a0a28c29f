#include "DtlsRecords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DtlsCookies.h"

namespace SnmpdPlugin {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

std::string number(size_t value, size_t length) {
  std::string text;
  for (size_t i = length; i-- > 0;) text += static_cast<char>(value >> (8 * i));
  return text;
}

std::string record(const std::string& content, int type = 22, int epoch = 0) {
  return number(static_cast<size_t>(type), 1) + "\xfe\xfd" + number(static_cast<size_t>(epoch), 2) + number(7, 6) +
         number(content.size(), 2) + content;
}

std::string message(int type, size_t place, size_t length, const std::string& content, size_t offset = 0) {
  return number(static_cast<size_t>(type), 1) + number(length, 3) + number(place, 2) + number(offset, 3) +
         number(content.size(), 3) + content;
}

std::string helloBody(const std::string& session, const std::string& cookie) {
  return "\xfe\xfd" + std::string(32, 'r') + number(session.size(), 1) + session + number(cookie.size(), 1) + cookie +
         "ciphers";
}

std::string hello(const std::string& body, size_t offset = 0) {
  return record(message(1, 0, body.size(), body, offset));
}

TEST(DtlsRecords, ADatagramIsCutIntoItsWholeRecords) {
  const std::string first = record("one");
  const std::string second = record("two", 23, 1);
  EXPECT_THAT(recordsOf(first + second), ElementsAre(first, second));
  EXPECT_THAT(recordsOf(first + second.substr(0, second.size() - 1)), ElementsAre(first));
  EXPECT_THAT(recordsOf(first + second.substr(0, 13)), ElementsAre(first));
  EXPECT_THAT(recordsOf(""), IsEmpty());
  EXPECT_FALSE(isProtected(first));
  EXPECT_TRUE(isProtected(second));
}

TEST(DtlsRecords, OnlyWhatAClientHasToSendIsPartOfAHandshake) {
  const std::string text(100, 'x');
  const struct {
    const char* what;
    std::string record;
    bool isPart;
  } cases[] = {
      {"certificate", record(message(11, 2, 16384, text, 5)), true},
      {"several messages", record(message(16, 3, 100, text) + message(15, 4, 100, text)), true},
      {"key exchange of a client that skips its certificate", record(message(16, 2, 100, text)), true},
      {"change of cipher", record("\x01", 20), true},
      {"alert", record("\x02\x28", 21), true},
      {"data before there are keys", record(text, 23), false},
      {"certificate that is too long", record(message(11, 2, 16385, text)), false},
      {"certificate ahead of its time", record(message(11, 3, 100, text)), false},
      {"key exchange that is too long", record(message(16, 3, 4097, text)), false},
      {"message of a server", record(message(2, 1, 100, text)), false},
      {"no whole message", record(message(16, 3, 100, text).substr(0, 50)), false},
      {"something behind a message", record(message(16, 3, 100, text) + "x"), false},
      {"nothing", record(""), false},
  };
  for (const auto& test : cases) EXPECT_EQ(isPartOfHandshake(test.record), test.isPart) << test.what;
}

TEST(DtlsRecords, AHelloIsReadAsFarAsItsCookie) {
  const std::string body = helloBody("session", "cookie");
  const std::string datagram = hello(body);
  const std::string withMore = datagram + "something else";
  const auto found = clientHelloOf(withMore);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->random, std::string(32, 'r'));
  EXPECT_EQ(found->cookie, "cookie");
  EXPECT_EQ(found->sequence, number(7, 8));
  EXPECT_EQ(clientHelloOf(hello(helloBody("", "")))->cookie, "");
  // A first fragment may end behind the cookie.
  EXPECT_TRUE(clientHelloOf(record(message(1, 0, body.size(), body.substr(0, body.size() - 7)))));
  EXPECT_FALSE(clientHelloOf(record(message(1, 0, body.size(), body.substr(0, body.size() - 8)))));
  EXPECT_FALSE(clientHelloOf(hello(body, 1)));
  EXPECT_FALSE(clientHelloOf(record(message(1, 0, body.size(), body), 22, 1)));
  EXPECT_FALSE(clientHelloOf(record(message(2, 0, body.size(), body))));
  EXPECT_FALSE(clientHelloOf(record(message(1, 0, body.size(), body), 23)));
  for (size_t length = 0; length < datagram.size(); ++length)
    EXPECT_FALSE(clientHelloOf(datagram.substr(0, length))) << length;
}

TEST(DtlsRecords, ARequestToVerifyCarriesTheCookieUnderTheHellosNumber) {
  const std::string datagram = hello(helloBody("", ""));
  EXPECT_EQ(helloVerifyRequest(*clientHelloOf(datagram), "cookie"), "\x16\xfe\xff" + number(7, 8) + number(12 + 9, 2) +
                                                                        message(3, 0, 9,
                                                                                "\xfe\xff\x06"
                                                                                "cookie"));
}

TEST(DtlsCookies, CountForOneAddressAndOneToTwoMinutes) {
  const auto begin = DtlsCookies::Clock::now();
  DtlsCookies cookies(begin);
  const std::string cookie = cookies.make("here", begin + 59s);
  EXPECT_TRUE(cookies.isValid("here", cookie, begin + 59s));
  EXPECT_FALSE(cookies.isValid("there", cookie, begin + 59s));
  EXPECT_FALSE(cookies.isValid("here", "", begin + 59s));
  EXPECT_FALSE(cookies.isValid("here", cookie.substr(1), begin + 59s));
  EXPECT_TRUE(cookies.isValid("here", cookie, begin + 61s));
  EXPECT_NE(cookies.make("here", begin + 61s), cookie);
  EXPECT_FALSE(cookies.isValid("here", cookie, begin + 121s));
  // Nor does one of long ago count after a time without clients.
  const std::string later = cookies.make("here", begin + 130s);
  EXPECT_FALSE(cookies.isValid("here", later, begin + 1000s));
  EXPECT_FALSE(DtlsCookies(begin).isValid("here", cookie, begin));
}

}  // namespace

}  // namespace SnmpdPlugin
