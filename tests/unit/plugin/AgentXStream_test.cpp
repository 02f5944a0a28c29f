#include "AgentXStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

using SnmpdPlugin::AgentXStream;

constexpr char Response = 18;
constexpr char Notify = 12;

std::string word(std::size_t number, bool isBigEndian) {
  std::string octets;
  for (int i = 0; i < 4; ++i) octets += static_cast<char>(number >> 8 * (isBigEndian ? 3 - i : i) & 0xff);
  return octets;
}

/** A message with one variable binding, a text, whose length makes the message's. */
std::string message(char type, std::size_t length, bool isBigEndian) {
  std::string text;
  text.append({1, type, static_cast<char>(isBigEndian ? 0x10 : 0), 0});
  for (const std::size_t number : {7, 8, 9}) text += word(number, isBigEndian);
  text += word(length - 20, isBigEndian);
  text += word(0, isBigEndian) + std::string(4, '\0');                            // response
  text += isBigEndian ? std::string("\0\4\0\0", 4) : std::string("\4\0\0\0", 4);  // binding: a text
  text += std::string("\2\4\0\0", 4) + word(61234, isBigEndian) + word(5, isBigEndian);
  return text + std::string(length - text.size(), 't');
}

std::string throughFilter(const std::string& all, std::size_t longest) {
  std::mt19937 chance(1);
  AgentXStream stream;
  std::string left;
  std::vector<char> buffer(longest + AgentXStream::Reserve);
  for (std::size_t at = 0; at < all.size();) {
    const std::size_t length = std::min(all.size() - at, 1 + chance() % longest);
    std::copy_n(all.data() + at, length, buffer.data());
    left.append(buffer.data(), stream.filter(buffer.data(), length));
    at += length;
  }
  return left;
}

/** However the stream is cut, what can be read passes, and an error that names its variable stands for what cannot. */
TEST(AgentXStream, ReplacesOnlyResponsesThatAreTooLong) {
  for (const bool isBigEndian : {false, true}) {
    std::string error = message(Response, 44, isBigEndian);
    error.replace(24, 6, isBigEndian ? std::string("\0\1\0\1\0\5", 6) : std::string("\1\0\1\0\5\0", 6));
    const std::string whole = message(Response, AgentXStream::MaxMessage, isBigEndian);
    const std::string tooLong = message(Response, AgentXStream::MaxMessage + 4, isBigEndian);
    const std::string notification = message(Notify, AgentXStream::MaxMessage + 4, isBigEndian);
    const std::string small = message(Response, 48, isBigEndian);
    for (const std::size_t longest : {5, 700, 70000, 1000000})
      EXPECT_TRUE(throughFilter(small + tooLong + whole + tooLong + tooLong + notification + small, longest) ==
                  small + error + whole + error + error + notification + small)
          << longest;
  }
}

}  // namespace
