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

std::string_view inside(std::string_view octets) {
  const auto element = firstElement(octets);
  return element ? octets.substr(element->header, element->content) : std::string_view();
}

std::string_view afterElements(std::string_view octets, int count) {
  for (int i = 0; i < count; ++i) {
    const auto element = firstElement(octets);
    if (!element) return {};
    octets.remove_prefix(element->header + element->content);
  }
  return octets;
}

}  // namespace

std::string_view scopedPduOf(std::string_view message) {
  constexpr int Before = 3;  // version, header data, security parameters
  return afterElements(inside(message), Before);
}

bool isInform(std::string_view scopedPdu) {
  constexpr int Before = 2;  // context engine id, context name
  constexpr char InformRequest = '\xa6';
  const std::string_view pdu = afterElements(inside(scopedPdu), Before);
  return !pdu.empty() && pdu.front() == InformRequest;
}

}  // namespace SnmpdPlugin
