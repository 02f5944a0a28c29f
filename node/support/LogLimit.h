#ifndef VELA_NODE_LOG_LIMIT_H
#define VELA_NODE_LOG_LIMIT_H

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace VelaNode {

/**
 * Keeps a log readable whatever a stranger makes a program write: a line is cut, and of lines that begin alike, numbers
 * apart, only the first in a minute are written; the others are counted. One thread at a time.
 */
class LogLimit {
 public:
  static constexpr std::size_t maxLine = 1000;   /**< octets */
  static constexpr std::size_t maxForeign = 200; /**< octets of a line that is not the program's own */
  static constexpr unsigned linesPerMinute = 20; /**< of a kind */
  static constexpr std::size_t maxKinds = 64;    /**< beyond, all lines are of one kind */

  /** Shortens a line, without its end, and says so in it. */
  static std::string cut(std::string_view line, std::size_t length);

  /** Whether a line is to be written; if not, it is counted. */
  bool passes(std::string_view line);

  /** Ends a minute: a line for each kind of which some were not written. */
  std::vector<std::string> endMinute();

 private:
  static std::string kindOf(std::string_view line);

  struct Kind {
    unsigned written = 0;
    unsigned counted = 0;
    std::string example;
  };
  std::map<std::string, Kind> _kinds;
};

}  // namespace VelaNode
#endif
