#include "support/Utf8.h"

#include <cstdint>

namespace VelaNode {

namespace {

constexpr char32_t Malformed = 0xFFFFFFFF;
constexpr std::string_view Replacement = "\xEF\xBF\xBD";

/** Decodes the sequence at the front; `length` is what to skip (1 when it is malformed). */
char32_t decode(std::string_view text, std::size_t& length) {
  const auto octet = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = octet(0);
  length = 1;
  if (lead < 0x80) return lead;
  const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < size) return Malformed;
  char32_t code = lead & (0x7Fu >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((octet(i) & 0xC0) != 0x80) return Malformed;
    code = code << 6 | (octet(i) & 0x3Fu);
  }
  const char32_t least = size == 4 ? 0x10000 : size == 3 ? 0x800 : 0x80;
  if (code < least || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return Malformed;
  length = size;
  return code;
}

bool isXmlCharacter(char32_t code) {
  if (code < 0x20) return code == '\t' || code == '\n' || code == '\r';
  return code != Malformed && code != 0xFFFE && code != 0xFFFF;
}

}  // namespace

bool isXmlText(std::string_view text) {
  for (std::size_t length = 0; !text.empty(); text.remove_prefix(length)) {
    if (!isXmlCharacter(decode(text, length))) return false;
  }
  return true;
}

std::string toValidUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  for (std::size_t length = 0; !text.empty(); text.remove_prefix(length)) {
    const bool isMalformed = decode(text, length) == Malformed;
    valid += isMalformed ? Replacement : text.substr(0, length);
  }
  return valid;
}

}  // namespace VelaNode
