#ifndef VELA_NODE_SECRET_H
#define VELA_NODE_SECRET_H

#include <optional>
#include <string>

namespace VelaNode {

/**
 * Pass phrases that stay off the command line: an attribute that holds one takes "@FILE" or "-" (a line of standard
 * input, not shown while typed) for a value.
 */
class Secret {
 public:
  /** The pass phrase, when an attribute of an object holds one and the value tells where it is to be read; nothing for
      other attributes, and for an empty value. Throws CommandError when it cannot be read, or is the value itself. */
  static std::optional<std::string> read(const std::string& dn, const std::string& attribute, const std::string& value);
};

}  // namespace VelaNode
#endif
