#include "support/LogLimit.h"

namespace VelaNode {

std::string LogLimit::cut(std::string_view line, std::size_t length) {
  if (line.size() <= length) return std::string(line);
  return std::string(line.substr(0, length)) + "... (" + std::to_string(line.size()) + " octets)";
}

bool LogLimit::passes(std::string_view line) {
  std::string name = kindOf(line);
  if (_kinds.count(name) == 0 && _kinds.size() >= maxKinds) name.clear();
  Kind& kind = _kinds[name];
  if (kind.written < linesPerMinute) {
    ++kind.written;
    return true;
  }
  if (kind.counted++ == 0) kind.example = cut(line, maxForeign);
  return false;
}

std::vector<std::string> LogLimit::endMinute() {
  std::vector<std::string> lines;
  for (const auto& [name, kind] : _kinds)
    if (kind.counted > 0)
      lines.push_back(std::to_string(kind.counted) + " more lines in the last minute like: " + kind.example);
  _kinds.clear();
  return lines;
}

std::string LogLimit::kindOf(std::string_view line) {
  constexpr std::size_t Beginning = 40;
  std::string kind;
  for (const char c : line.substr(0, 2 * Beginning)) {
    const bool isDigit = c >= '0' && c <= '9';
    if (isDigit && !kind.empty() && kind.back() == '0') continue;  // one for a number of whatever length
    kind += isDigit ? '0' : c;
    if (kind.size() == Beginning) break;
  }
  return kind;
}

}  // namespace VelaNode
