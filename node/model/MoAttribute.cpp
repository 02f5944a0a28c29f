#include "model/MoAttribute.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/String.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

#include "VelaException.h"
#include "support/Utf8.h"

namespace VelaNode {

using Poco::Dynamic::Var;
using Vela::VelaException;

namespace {

using Value = VelaOamSpiMoValue_3T;
using Member = VelaOamSpiMoMember_3T;
using Attribute = VelaOamSpiMoAttribute_3T;

constexpr std::size_t QuotedLength = 200;
constexpr int JsonDepth = 8;
constexpr const char* HiddenSecret = "********";

struct IntegerType {
  VelaOamSpiMoTypeT type;
  std::int64_t min;
  std::uint64_t max;
};

template <class T>
constexpr IntegerType integerType(VelaOamSpiMoTypeT type) {
  return {type, static_cast<std::int64_t>(std::numeric_limits<T>::min()),
          static_cast<std::uint64_t>(std::numeric_limits<T>::max())};
}

/** A boolean counts as a number on the C side only; an enumeration has the width of its C type. */
constexpr IntegerType IntegerTypes[] = {
    {VELA_MO_BOOL, 0, 1},
    integerType<std::int16_t>(VELA_MO_INT16),
    integerType<std::uint16_t>(VELA_MO_UINT16),
    integerType<std::int32_t>(VELA_MO_INT32),
    integerType<std::uint32_t>(VELA_MO_UINT32),
    integerType<std::int64_t>(VELA_MO_INT64),
    integerType<std::uint64_t>(VELA_MO_UINT64),
    integerType<std::int32_t>(VELA_MO_ENUM),
};

const IntegerType* findIntegerType(VelaOamSpiMoTypeT type) {
  const auto* found = std::ranges::find(IntegerTypes, type, &IntegerType::type);
  return found == std::end(IntegerTypes) ? nullptr : found;
}

bool isUnsigned(VelaOamSpiMoTypeT type) {
  return type == VELA_MO_UINT16 || type == VELA_MO_UINT32 || type == VELA_MO_UINT64;
}
bool isText(VelaOamSpiMoTypeT type) { return type == VELA_MO_STRING || type == VELA_MO_REFERENCE; }

/** What a value of a type looks like, for messages. */
std::string describe(VelaOamSpiMoTypeT type, std::span<const MoEnumName> enumNames) {
  switch (type) {
    case VELA_MO_BOOL:
      return "true or false";
    case VELA_MO_STRING:
      return "a text";
    case VELA_MO_REFERENCE:
      return "a distinguished name";
    case VELA_MO_STRUCT:
      return "a struct";
    case VELA_MO_ENUM: {
      std::string names = "one of";
      for (const MoEnumName& item : enumNames) names += std::string(names.ends_with("of") ? " " : ", ") + item.name;
      return names;
    }
    default: {
      const IntegerType& integer = *findIntegerType(type);
      return "a number from " + std::to_string(integer.min) + " to " + std::to_string(integer.max);
    }
  }
}

[[noreturn]] void refuse(const std::string& reason) { throw VelaException(VELA_INVALID, "%s", reason.c_str()); }

/** Type of one value or struct member, as far as it matters for converting it. */
struct ValueType {
  VelaOamSpiMoTypeT type;
  std::span<const MoEnumName> enumNames = {};
  std::span<const MoMemberDef> members = {};
  bool isSecret = false;

  explicit ValueType(const MoAttributeDef& definition)
      : type(definition.type), enumNames(definition.enumNames), members(definition.members) {}
  explicit ValueType(const MoMemberDef& definition) : type(definition.type), isSecret(definition.isSecret) {}

  std::string describe() const { return VelaNode::describe(type, enumNames); }
};

const MoMemberDef* findMember(std::span<const MoMemberDef> members, std::string_view name) {
  const auto found =
      std::ranges::find(members, name, [](const MoMemberDef& item) { return std::string_view(item.name); });
  return found == members.end() ? nullptr : &*found;
}

const Member* findMember(const Value& value, const char* name) {
  for (std::size_t i = 0; i < value.memberCount; ++i) {
    if (std::strcmp(value.members[i].name, name) == 0) return &value.members[i];
  }
  return nullptr;
}

/** Puts the place inside an attribute ("[1].port: ") in front of what an operation refuses. */
template <class Operation>
auto at(const std::string& place, Operation&& operation) {
  try {
    return operation();
  } catch (const VelaException& ex) {
    const bool isNested = std::string_view(ex.what()).starts_with('.') || std::string_view(ex.what()).starts_with('[');
    refuse(place + (isNested ? "" : ": ") + ex.what());
  }
}

// ---- content that crossed the C interface -------------------------------------------------------------------------

void checkValue(const ValueType& type, const Value& value, bool isKept);

void checkStruct(const ValueType& type, const Value& value, bool isKept) {
  if (value.memberCount != 0 && value.members == nullptr) refuse("the struct has no members");
  for (std::size_t i = 0; i < value.memberCount; ++i) {
    const Member& member = value.members[i];
    if (member.name == nullptr) refuse("a struct member has no name");
    const MoMemberDef* definition = findMember(type.members, member.name);
    if (definition == nullptr) refuse("the struct has no member " + quoted(member.name));
    if (findMember(value, member.name) != &member) refuse("struct member " + quoted(member.name) + " is given twice");
    if (member.isSet) {
      at("." + std::string(member.name), [&] { checkValue(ValueType(*definition), member.value, isKept); });
    }
  }
}

void checkValue(const ValueType& type, const Value& value, bool isKept) {
  if (value.type != type.type) refuse("a value of another type, not " + type.describe());
  if (type.type == VELA_MO_STRUCT) return checkStruct(type, value, isKept);
  if (isText(type.type)) {
    if (value.text == nullptr) refuse("a text without content");
    if (isKept && !isXmlText(value.text)) refuse("control characters and malformed UTF-8 are not allowed in a text");
    return;
  }
  const IntegerType& integer = *findIntegerType(type.type);
  const bool fits = isUnsigned(type.type)
                        ? value.u64 <= integer.max
                        : value.i64 >= integer.min && value.i64 <= static_cast<std::int64_t>(integer.max);
  if (!fits && type.type != VELA_MO_BOOL) refuse("a number that is not " + type.describe());
}

void checkContent(const MoAttributeDef& definition, const Attribute& content) {
  if (content.isSequence != definition.isSequence) {
    refuse(definition.isSequence ? "a sequence is expected, not a single value"
                                 : "a single value is expected, not a sequence");
  }
  if (content.valueCount != 0 && content.values == nullptr) refuse("an attribute without values");
  if (!definition.isSequence && content.valueCount != 1) refuse("exactly one value is expected");
  const ValueType type(definition);
  for (std::size_t i = 0; i < content.valueCount; ++i) {
    const auto check = [&] { checkValue(type, content.values[i], !definition.isRunTime); };
    definition.isSequence ? at("[" + std::to_string(i) + "]", check) : check();
  }
}

std::size_t textSize(const Value& value) { return isText(value.type) ? std::strlen(value.text) + 1 : 0; }

/**
 * Copies a checked attribute into one block of memory: the attribute, its values, the members of the structs (all that
 * the schema knows, in its order), and the texts.
 */
class BlockWriter {
 public:
  BlockWriter(const MoAttributeDef& definition, const Attribute& content) : _definition(definition) {
    const std::size_t memberCount = content.valueCount * definition.members.size();
    const std::size_t fixed = sizeof(Attribute) + content.valueCount * sizeof(Value) + memberCount * sizeof(Member);
    std::size_t texts = 0;
    for (const Value& value : std::span(content.values, content.valueCount)) {
      texts += textSize(value);
      for (const Member& member : membersOf(value)) texts += member.isSet ? textSize(member.value) : 0;
    }
    _block = std::make_shared<std::uint64_t[]>((fixed + texts + sizeof(std::uint64_t) - 1) / sizeof(std::uint64_t));
    char* const memory = reinterpret_cast<char*>(_block.get());
    _values = reinterpret_cast<Value*>(memory + sizeof(Attribute));
    _members = reinterpret_cast<Member*>(memory + sizeof(Attribute) + content.valueCount * sizeof(Value));
    _texts = memory + fixed;

    const Value* const values = content.valueCount == 0 ? nullptr : _values;
    _attribute =
        std::construct_at(reinterpret_cast<Attribute*>(memory),
                          Attribute{definition.name, content.isSequence, content.isSet, values, content.valueCount});
    for (const Value& value : std::span(content.values, content.valueCount)) std::construct_at(_values++, copy(value));
  }

  MoAttributePtr get() const { return {_block, _attribute}; }

 private:
  static std::span<const Member> membersOf(const Value& value) {
    return value.type == VELA_MO_STRUCT ? std::span(value.members, value.memberCount) : std::span<const Member>();
  }

  Value copy(const Value& value) {
    Value made{};
    made.type = value.type;
    if (isText(value.type)) {
      const std::size_t size = textSize(value);
      made.text = static_cast<const char*>(std::memcpy(_texts, value.text, size));
      _texts += size;
    } else if (value.type == VELA_MO_STRUCT) {
      made.members = _members;
      made.memberCount = _definition.members.size();
      for (const MoMemberDef& definition : _definition.members) {
        const Member* const member = findMember(value, definition.name);
        const bool isSet = member != nullptr && member->isSet;
        std::construct_at(_members++, Member{definition.name, isSet, isSet ? copy(member->value) : Value{}});
      }
    } else if (isUnsigned(value.type)) {
      made.u64 = value.u64;
    } else {
      made.i64 = value.type == VELA_MO_BOOL ? value.i64 != 0 : value.i64;
    }
    return made;
  }

  const MoAttributeDef& _definition;
  std::shared_ptr<std::uint64_t[]> _block;
  Attribute* _attribute = nullptr;
  Value* _values = nullptr;
  Member* _members = nullptr;
  char* _texts = nullptr;
};

// ---- C++ values ---------------------------------------------------------------------------------------------------

/** C view of C++ values, which it refers to. */
class ContentView {
 public:
  ContentView(const MoAttributeDef& definition, const std::vector<MoValue>& values)
      : _isSequence(definition.isSequence) {
    const ValueType type(definition);
    _values.reserve(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
      const auto convertOne = [&] { return convert(type, values[i]); };
      _values.push_back(_isSequence ? at("[" + std::to_string(i) + "]", convertOne) : convertOne());
    }
  }

  Attribute get() const { return {nullptr, _isSequence, true, _values.data(), _values.size()}; }

 private:
  Value convert(const ValueType& type, const MoValue& value) {
    Value made{};
    made.type = type.type;
    const MoValue::Content& content = value.content();
    if (const auto* text = std::get_if<std::string>(&content)) {
      convertText(type, *text, made);
    } else if (const auto* members = std::get_if<MoValue::Members>(&content)) {
      if (type.type != VELA_MO_STRUCT) refuse("a struct is not " + type.describe());
      convertMembers(type, *members, made);
    } else if (const bool* boolean = std::get_if<bool>(&content)) {
      if (type.type != VELA_MO_BOOL) refuse("a boolean is not " + type.describe());
      made.i64 = *boolean;
    } else {
      convertNumber(type, content, made);
    }
    return made;
  }

  static void convertText(const ValueType& type, const std::string& text, Value& made) {
    if (isText(type.type)) {
      if (text.find('\0') != std::string::npos) refuse("a text must not hold a NUL character");
      made.text = text.c_str();
      return;
    }
    const auto found = std::ranges::find(type.enumNames, std::string_view(text),
                                         [](const MoEnumName& item) { return std::string_view(item.name); });
    if (found == type.enumNames.end()) refuse(quoted(text) + " is not " + type.describe());
    made.i64 = found->value;
  }

  static void convertNumber(const ValueType& type, const MoValue::Content& content, Value& made) {
    const auto* negative = std::get_if<std::int64_t>(&content);
    const bool isNegative = negative != nullptr && *negative < 0;
    const std::uint64_t magnitude =
        negative != nullptr ? static_cast<std::uint64_t>(*negative) : std::get<std::uint64_t>(content);
    const IntegerType* const integer = type.type == VELA_MO_BOOL ? nullptr : findIntegerType(type.type);
    const bool fits = integer != nullptr && (isNegative ? *negative >= integer->min : magnitude <= integer->max);
    if (!fits) {
      refuse((isNegative ? std::to_string(*negative) : std::to_string(magnitude)) + " is not " + type.describe());
    }
    if (isUnsigned(type.type)) {
      made.u64 = magnitude;
    } else {
      made.i64 = static_cast<std::int64_t>(magnitude);
    }
  }

  void convertMembers(const ValueType& type, const MoValue::Members& members, Value& made) {
    std::vector<Member>& views = _members.emplace_back();
    views.reserve(members.size());
    for (const MoMember& member : members) {
      const MoMemberDef* definition = findMember(type.members, member.name);
      if (definition == nullptr) refuse("the struct has no member " + quoted(member.name));
      views.push_back({definition->name, true,
                       at("." + member.name, [&] { return convert(ValueType(*definition), member.value); })});
    }
    made.members = views.data();
    made.memberCount = views.size();
  }

  const bool _isSequence;
  std::vector<Value> _values;
  std::vector<std::vector<Member>> _members;
};

// ---- text and JSON ------------------------------------------------------------------------------------------------

template <class T>
bool parseNumber(std::string_view text, T& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

std::string example(const MoAttributeDef& definition) {
  std::string one = "\"...\"";
  if (definition.type == VELA_MO_STRUCT) {
    one.clear();
    for (const MoMemberDef& member : definition.members) {
      one += std::string(one.empty() ? "{\"" : ", \"") + member.name + "\": ...";
    }
    one += "}";
  }
  return definition.isSequence ? "[" + one + ", ...]" : one;
}

MoValue fromJson(const Var& json) {
  if (json.type() == typeid(Poco::JSON::Object::Ptr)) {
    MoValue::Members members;
    for (const auto& [name, value] : *json.extract<Poco::JSON::Object::Ptr>()) {
      if (!value.isEmpty()) members.push_back({name, at("." + name, [&, &item = value] { return fromJson(item); })});
    }
    return members;
  }
  if (json.isEmpty()) refuse("null is no value");
  if (json.isBoolean()) return json.convert<bool>();
  if (json.isString()) return json.convert<std::string>();
  if (json.isInteger()) {
    if (json.isSigned()) return json.convert<Poco::Int64>();
    return json.convert<Poco::UInt64>();
  }
  refuse(json.isNumeric() ? "a number without fraction is expected" : "a JSON array is not expected here");
}

Var toJson(const ValueType& type, const Value& value) {
  if (type.isSecret) return std::string(HiddenSecret);
  switch (value.type) {
    case VELA_MO_BOOL:
      return value.i64 != 0;
    case VELA_MO_STRING:
    case VELA_MO_REFERENCE:
      return toValidUtf8(value.text);
    case VELA_MO_ENUM: {
      const auto found = std::ranges::find(type.enumNames, value.i64, &MoEnumName::value);
      return found == type.enumNames.end() ? Var(static_cast<Poco::Int64>(value.i64)) : Var(std::string(found->name));
    }
    case VELA_MO_STRUCT: {
      Poco::JSON::Object::Ptr members = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
      for (std::size_t i = 0; i < value.memberCount; ++i) {
        const Member& member = value.members[i];
        if (member.isSet) members->set(member.name, toJson(ValueType(type.members[i]), member.value));
      }
      return members;
    }
    default:
      return isUnsigned(value.type) ? Var(static_cast<Poco::UInt64>(value.u64))
                                    : Var(static_cast<Poco::Int64>(value.i64));
  }
}

bool isEqualValue(const Value& left, const Value& right) {
  if (left.type != right.type) return false;
  if (isText(left.type)) return std::strcmp(left.text, right.text) == 0;
  if (left.type != VELA_MO_STRUCT) return left.i64 == right.i64 && left.u64 == right.u64;
  return std::equal(left.members, left.members + left.memberCount, right.members, right.members + right.memberCount,
                    [](const Member& a, const Member& b) {
                      return a.isSet == b.isSet && (!a.isSet || isEqualValue(a.value, b.value));
                    });
}

}  // namespace

MoAttributePtr makeUnsetAttribute(const MoAttributeDef& definition) {
  return std::make_shared<const Attribute>(
      Attribute{definition.name, definition.isSequence, definition.isSequence, nullptr, 0});
}

MoAttributePtr makeAttribute(const MoAttributeDef& definition, const Attribute& content) {
  if (!content.isSet) return makeUnsetAttribute(definition);
  checkContent(definition, content);
  return BlockWriter(definition, content).get();
}

MoAttributePtr makeAttribute(const MoAttributeDef& definition, const std::vector<MoValue>& values) {
  return makeAttribute(definition, ContentView(definition, values).get());
}

MoAttributePtr makeAttributeFromText(const MoAttributeDef& definition, const std::string& text) {
  if (!definition.isSequence && definition.type != VELA_MO_STRUCT) {
    return makeAttribute(definition, {parseScalar(definition.type, definition.enumNames, text)});
  }
  Var json;
  try {
    Poco::JSON::Parser parser;
    parser.setDepth(JsonDepth);
    json = parser.parse(text);
  } catch (const Poco::Exception&) {
    // The parser's own text may repeat a part of what was given, and that may be a password.
    refuse("JSON is expected, such as " + example(definition));
  }
  return makeAttributeFromJson(definition, json);
}

MoAttributePtr makeAttributeFromJson(const MoAttributeDef& definition, const Var& json) {
  if (json.isEmpty()) return makeUnsetAttribute(definition);
  std::vector<MoValue> values;
  if (definition.isSequence) {
    if (json.type() != typeid(Poco::JSON::Array::Ptr))
      refuse("a JSON array is expected, such as " + example(definition));
    const auto& array = *json.extract<Poco::JSON::Array::Ptr>();
    for (std::size_t i = 0; i < array.size(); ++i) {
      values.push_back(
          at("[" + std::to_string(i) + "]", [&] { return fromJson(array.get(static_cast<unsigned>(i))); }));
    }
  } else {
    values.push_back(fromJson(json));
  }
  return makeAttribute(definition, values);
}

MoValue parseScalar(VelaOamSpiMoTypeT type, std::span<const MoEnumName> enumNames, const std::string& text) {
  if (isText(type)) return text;
  const std::string trimmed = Poco::trim(text);
  std::uint64_t positive = 0;
  std::int64_t negative = 0;
  if (type == VELA_MO_BOOL) {
    if (trimmed == "true" || trimmed == "1") return true;
    if (trimmed == "false" || trimmed == "0") return false;
  } else if (parseNumber(trimmed, positive)) {
    return positive;
  } else if (parseNumber(trimmed, negative)) {
    return negative;
  } else if (type == VELA_MO_ENUM) {
    return trimmed;
  }
  refuse(quoted(text) + " is not " + describe(type, enumNames));
}

std::string formatScalar(const Value& value, std::span<const MoEnumName> enumNames) {
  if (isText(value.type)) return value.text;
  if (value.type == VELA_MO_BOOL) return value.i64 != 0 ? "true" : "false";
  if (isUnsigned(value.type)) return std::to_string(value.u64);
  const auto found = std::ranges::find(enumNames, value.i64, &MoEnumName::value);
  return found == enumNames.end() ? std::to_string(value.i64) : found->name;
}

bool isEqual(const Attribute& left, const Attribute& right) {
  if (&left == &right) return true;
  return left.isSet == right.isSet && std::equal(left.values, left.values + left.valueCount, right.values,
                                                 right.values + right.valueCount, isEqualValue);
}

Var toJson(const MoAttributeDef& definition, const Attribute& attribute) {
  const ValueType type(definition);
  if (!definition.isSequence) return attribute.isSet ? toJson(type, *attribute.values) : Var();
  Poco::JSON::Array::Ptr array = new Poco::JSON::Array;
  for (std::size_t i = 0; i < attribute.valueCount; ++i) array->add(toJson(type, attribute.values[i]));
  return array;
}

std::string quoted(std::string_view text) {
  std::string line = "\"";
  for (const char c : text.substr(0, QuotedLength)) {
    line += static_cast<unsigned char>(c) < ' ' || c == '\x7f' ? '?' : c;
  }
  return toValidUtf8(line) + (text.size() > QuotedLength ? "...\"" : "\"");
}

}  // namespace VelaNode
