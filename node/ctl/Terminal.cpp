#include "ctl/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace VelaNode {

namespace {

constexpr std::size_t usualWidth = 80;
constexpr std::string_view ellipsis = "...";

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; }

}  // namespace

Terminal Terminal::ofStandardOutput() {
  if (::isatty(STDOUT_FILENO) == 0) return Terminal(0, false);
  winsize size{};
  const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return Terminal(isKnown ? size.ws_col : usualWidth, std::getenv("NO_COLOR") == nullptr);
}

std::string Terminal::cut(const std::string& line) const {
  if (_width <= ellipsis.size()) return line;
  std::size_t shown = 0;
  std::size_t end = line.size();
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (isContinuation(line[i])) continue;
    if (shown == _width - ellipsis.size()) end = i;
    if (++shown > _width) return line.substr(0, end) + std::string(ellipsis);
  }
  return line;
}

std::string Terminal::coloured(const std::string& text, const char* code) const {
  return _hasColour ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
}

}  // namespace VelaNode
