#ifndef VELA_NODE_TERMINAL_H
#define VELA_NODE_TERMINAL_H

#include <cstddef>
#include <string>

namespace VelaNode {

/** Width and colours of what people read on standard output. */
class Terminal {
 public:
  /** The terminal behind standard output, if it is one. */
  static Terminal ofStandardOutput();

  explicit Terminal(std::size_t width, bool hasColour) : _width(width), _hasColour(hasColour) {}

  /** A line without control characters, cut to the terminal's width; whole when there is no terminal. */
  std::string cut(const std::string& line) const;
  std::string good(const std::string& text) const { return coloured(text, "32"); }
  std::string bad(const std::string& text) const { return coloured(text, "31"); }

 private:
  std::string coloured(const std::string& text, const char* code) const;

  std::size_t _width; /**< in characters; 0: no terminal */
  bool _hasColour;
};

}  // namespace VelaNode
#endif
