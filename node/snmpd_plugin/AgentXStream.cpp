#include "AgentXStream.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace SnmpdPlugin {

namespace {

// Places in a message (RFC 2741, 6.1 and 6.2.16).
constexpr std::size_t TypeAt = 1;
constexpr std::size_t FlagsAt = 2;
constexpr std::size_t LengthAt = 16;
constexpr std::size_t HeaderLength = 20;
constexpr std::size_t ErrorAt = 24;
constexpr std::size_t BindingAt = 28;
constexpr std::size_t NameAt = 32;
constexpr std::size_t FirstNumberAt = 36;

constexpr unsigned char Response = 18;
constexpr unsigned char HasContext = 0x08;
constexpr unsigned char NetworkByteOrder = 0x10;
constexpr unsigned TooBig = 1;
constexpr unsigned Null = 5;
constexpr unsigned char MaxNumbers = 128;

unsigned char octetAt(std::string_view message, std::size_t place) {
  return static_cast<unsigned char>(message[place]);
}

bool isBigEndian(std::string_view message) { return (octetAt(message, FlagsAt) & NetworkByteOrder) != 0; }

std::size_t lengthOf(std::string_view message) {
  std::uint32_t payload = 0;
  for (std::size_t i = 0; i < sizeof payload; ++i)
    payload = payload << 8 | octetAt(message, LengthAt + (isBigEndian(message) ? i : sizeof payload - 1 - i));
  return HeaderLength + payload;
}

template <typename Number>
void put(std::string& message, std::size_t place, Number number) {
  for (std::size_t i = 0; i < sizeof number; ++i) {
    const std::size_t shift = 8 * (isBigEndian(message) ? sizeof number - 1 - i : i);
    message[place + i] = static_cast<char>(number >> shift & 0xff);
  }
}

/** The error in the place of a response, of which the begin is given. */
std::string errorFor(std::string_view begin) {
  const std::size_t numbers = octetAt(begin, NameAt);
  const bool isNamed = (octetAt(begin, FlagsAt) & HasContext) == 0 && numbers <= MaxNumbers;
  std::string error(begin.substr(0, isNamed ? FirstNumberAt + 4 * numbers : BindingAt));
  put(error, LengthAt, static_cast<std::uint32_t>(error.size() - HeaderLength));
  put(error, ErrorAt, static_cast<std::uint16_t>(TooBig));
  put(error, ErrorAt + 2, static_cast<std::uint16_t>(1));
  if (isNamed) put(error, BindingAt, static_cast<std::uint16_t>(Null));
  return error;
}

}  // namespace

std::size_t AgentXStream::filter(char* buffer, std::size_t length) {
  const std::string former = std::exchange(_held, {}).append(buffer, length);
  std::string_view rest = former;
  char* out = buffer;
  const auto take = [&rest](std::size_t& wanted) {
    const std::string_view taken = rest.substr(0, wanted);
    rest.remove_prefix(taken.size());
    wanted -= taken.size();
    return taken;
  };
  while (!rest.empty()) {
    if (_dropping != 0) {
      take(_dropping);
      continue;
    }
    if (_passing == 0) {
      const bool isHeaderThere = rest.size() >= HeaderLength;
      const std::size_t total = isHeaderThere ? lengthOf(rest) : 0;
      const bool isTooLong = total > MaxMessage && octetAt(rest, TypeAt) == Response;
      if (!isHeaderThere || (isTooLong && rest.size() < Reserve)) {
        _held = rest;
        break;
      }
      if (isTooLong) {
        const std::string error = errorFor(rest);
        out = std::copy(error.begin(), error.end(), out);
        _dropping = total;
        continue;
      }
      _passing = total;
    }
    const std::string_view passed = take(_passing);
    out = std::copy(passed.begin(), passed.end(), out);
  }
  return static_cast<std::size_t>(out - buffer);
}

}  // namespace SnmpdPlugin
