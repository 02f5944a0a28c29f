#ifndef VELA_NODE_MO_VALUE_H
#define VELA_NODE_MO_VALUE_H

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace VelaNode {

struct MoMember;

/**
 * A value to be written to an attribute, in C++ types; the schema tells what it becomes there: a number converts to the
 * attribute's integer or enumeration type when it fits, a text is a string, a reference or the name of an enumeration
 * value, members make a struct.
 */
class MoValue {
 public:
  using Members = std::vector<MoMember>;
  using Content = std::variant<bool, std::int64_t, std::uint64_t, std::string, Members>;

  /** A boolean or a number. */
  template <std::integral T>
  MoValue(T value);
  MoValue(std::string value);
  MoValue(std::string_view value);
  MoValue(const char* value);
  MoValue(Members members);

  const Content& content() const { return _content; }

 private:
  Content _content;
};

/** One set member of a struct value. */
struct MoMember {
  std::string name;
  MoValue value;
};

// Down here, because a member holds a value in turn.
template <std::integral T>
MoValue::MoValue(T value) {
  if constexpr (std::same_as<T, bool>) {
    _content = value;
  } else if constexpr (std::is_signed_v<T>) {
    _content = static_cast<std::int64_t>(value);
  } else {
    _content = static_cast<std::uint64_t>(value);
  }
}
inline MoValue::MoValue(std::string value) : _content(std::move(value)) {}
inline MoValue::MoValue(std::string_view value) : _content(std::string(value)) {}
inline MoValue::MoValue(const char* value) : _content(std::string(value)) {}
inline MoValue::MoValue(Members members) : _content(std::move(members)) {}

}  // namespace VelaNode
#endif
