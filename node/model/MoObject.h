#ifndef VELA_NODE_MO_OBJECT_H
#define VELA_NODE_MO_OBJECT_H

#include <Poco/JSON/Object.h>

#include <array>
#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/MoRecord.h"
#include "model/ModelSchema.h"

namespace VelaNode {

/** Value of a relative distinguished name, ordered as its class orders its objects. */
struct MoName {
  std::uint64_t number = 0; /**< of a numbered class, else 0 */
  std::string_view text;

  friend std::strong_ordering operator<=>(const MoName& left, const MoName& right) {
    const std::strong_ordering order = left.number <=> right.number;
    return std::is_eq(order) ? left.text <=> right.text : order;
  }
};

/** A distinguished name, taken apart. Refers to the text that it was parsed from; no allocation. */
class MoDn {
 public:
  struct Step {
    const MoClass* moClass = nullptr;
    MoName name;
  };

  /** False with a reason (one line that names the DN) when it is no name that an object can have. */
  bool parse(std::string_view dn, std::string* reason = nullptr);

  std::size_t size() const { return _size; }
  const Step& operator[](std::size_t index) const { return _steps[index]; }
  const Step& back() const { return _steps[_size - 1]; }

 private:
  static constexpr std::size_t MaxDepth = 8;
  const char* parseStep(std::string_view rdn);

  std::array<Step, MaxDepth> _steps;
  std::size_t _size = 0;
};

/** DN of the object above; empty for a root. */
std::string_view parentDn(std::string_view dn);

/** One managed object at one moment. Shared objects are immutable; a change makes a new version. */
class MoObject {
 public:
  /** An object with the class's defaults. The DN must parse as one of the class. */
  MoObject(const MoClass& moClass, std::string dn);
  /** An object that holds what a record tells. */
  MoObject(const MoClass& moClass, std::string dn, MoRecordPtr record);

  const MoClass& getClass() const { return *_class; }
  const std::string& getDn() const { return _dn; }
  /** Valid as long as this version lives. */
  MoName getName() const { return {_number, std::string_view(_dn).substr(_nameOffset)}; }

  /** Null when the class has no such attribute. The attributes of a record are made by the call; who reads several uses
      an MoView. */
  MoAttributePtr findAttribute(std::string_view name) const;
  MoAttributePtr getAttribute(std::size_t index) const;
  /** A record is replaced by attributes. */
  void setAttribute(std::size_t index, MoAttributePtr attribute);

  /** Typed reads of single attributes; nothing when the attribute is missing, has no value or another kind of type.
      Signed types, booleans and enumerations are read as signed, all unsigned types as unsigned. */
  std::optional<std::int64_t> getSigned(std::string_view name) const;
  std::optional<std::uint64_t> getUnsigned(std::string_view name) const;
  std::optional<bool> getBool(std::string_view name) const;
  std::optional<std::string> getText(std::string_view name) const;

  /** {"dn": ..., "class": ..., "attributes": {...}}; secrets show as "********". */
  Poco::JSON::Object::Ptr toJson() const;

 private:
  friend class MoView;

  void parseName();

  const MoClass* _class;
  std::string _dn;
  std::uint64_t _number;
  std::size_t _nameOffset;
  MoRecordPtr _record;                     /**< null: the object holds attributes */
  std::vector<MoAttributePtr> _attributes; /**< empty when there is a record */
};

/** The attributes of an object, for somebody who reads several of them. */
class MoView {
 public:
  /** The object must live as long as the view. */
  explicit MoView(const MoObject& object);

  const MoObject& getObject() const { return _object; }
  const VelaOamSpiMoAttribute_3T& operator[](std::size_t index) const {
    return _made ? (*_made)[index] : *_object._attributes[index];
  }
  /** Null when the class has no such attribute. Allocates nothing. */
  const VelaOamSpiMoAttribute_3T* find(std::string_view name) const noexcept;

 private:
  const MoObject& _object;
  std::optional<MoAttributes> _made;
};

using MoObjectPtr = std::shared_ptr<const MoObject>;

}  // namespace VelaNode
#endif
