#include "ctl/Output.h"

#include <Poco/JSON/Stringifier.h>

#include <algorithm>
#include <iostream>
#include <sstream>

namespace VelaNode {

namespace {

/** Puts something else in the place of every control character, line ends and tabs excepted. */
template <class Replacement>
std::string replaceControls(std::string_view text, const Replacement& replacement) {
  constexpr unsigned Delete = 0x7f;
  constexpr unsigned LeadOfC1 = 0xc2;  // in UTF-8, before one of 0x80 to 0x9f, whose number its second octet is
  std::string shown;
  shown.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto octet = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const bool isC1 = octet(i) == LeadOfC1 && i + 1 < text.size() && octet(i + 1) < 0xa0;
    if (isC1) ++i;
    const bool isControl = isC1 || octet(i) == Delete || (octet(i) < ' ' && text[i] != '\n' && text[i] != '\t');
    if (isControl)
      shown += replacement(octet(i));
    else
      shown += text[i];
  }
  return shown;
}

/** JSON itself leaves the control characters above 0x7e as they are; they only stand in its strings. */
std::string toJson(const Poco::JSON::Object& object) {
  std::ostringstream text;
  object.stringify(text);
  return replaceControls(text.str(), [](unsigned octet) {
    static constexpr char Digits[] = "0123456789abcdef";
    return std::string("\\u00") + Digits[octet >> 4] + Digits[octet & 0xf];
  });
}

}  // namespace

void Output::print(const Poco::JSON::Object& result, const std::string& plainText) {
  printColoured(result, visible(plainText));
}

void Output::printColoured(const Poco::JSON::Object& result, const std::string& visibleText) {
  if (_isJson) {
    std::cout << toJson(result) << '\n';
  } else if (!visibleText.empty()) {
    std::cout << visibleText << '\n';
  }
}

void Output::printItem(const Poco::JSON::Object& item, const std::string& plainText) {
  if (_isJson) {
    std::cout << (_hasItems ? ",\n" : "[");
    _hasItems = true;
    std::cout << toJson(item);
  } else {
    std::cout << visible(plainText) << '\n';
  }
}

void Output::endList() {
  if (_isJson) std::cout << (_hasItems ? "]\n" : "[]\n");
}

std::string Output::visible(std::string_view text) {
  return replaceControls(text, [](unsigned) { return std::string("?"); });
}

std::string Output::visibleLine(std::string_view text) {
  std::string line = visible(text);
  std::ranges::replace_if(
      line, [](char c) { return c == '\n' || c == '\t'; }, ' ');
  return line;
}

std::string Output::toText(const Poco::Dynamic::Var& value) {
  if (value.isEmpty()) return "";
  if (value.isString()) return value.extract<std::string>();
  std::ostringstream text;
  Poco::JSON::Stringifier::stringify(value, text);
  return text.str();
}

}  // namespace VelaNode
