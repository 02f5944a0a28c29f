#include "MessageParts.h"

#include <algorithm>
#include <cstdint>
#include <optional>

namespace SnmpdPlugin {

namespace {

/** Octets of an element in BER (X.690): of its header and of its content. */
struct Element {
  size_t header = 0;
  size_t content = 0;
};

std::optional<Element> firstElement(std::string_view octets) {
  constexpr size_t ShortHeader = 2;
  constexpr unsigned char LongForm = 0x80;
  if (octets.size() < ShortHeader) return std::nullopt;
  const auto at = [octets](size_t i) { return static_cast<unsigned char>(octets[i]); };
  Element element{ShortHeader, at(1)};
  if (at(1) >= LongForm) {
    element.header += at(1) - LongForm;
    element.content = 0;
    if (element.header > std::min(octets.size(), ShortHeader + sizeof(uint32_t))) return std::nullopt;
    for (size_t i = ShortHeader; i < element.header; ++i) element.content = element.content << 8 | at(i);
  }
  if (element.content > octets.size() - element.header) return std::nullopt;
  return element;
}

}  // namespace

std::string_view scopedPduOf(std::string_view message) {
  constexpr int ElementsBefore = 3;  // version, header data, security parameters
  const auto whole = firstElement(message);
  if (!whole) return {};
  message.remove_prefix(whole->header);
  for (int i = 0; i < ElementsBefore; ++i) {
    const auto element = firstElement(message);
    if (!element) return {};
    message.remove_prefix(element->header + element->content);
  }
  return message;
}

}  // namespace SnmpdPlugin
