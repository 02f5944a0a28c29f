#ifndef VELA_NODE_MO_RECORD_H
#define VELA_NODE_MO_RECORD_H

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "model/ModelSchema.h"

namespace VelaNode {

class MoAttributes;

/** What an object of a class with a great many objects holds, in a form smaller than attributes. Immutable. */
class MoRecord {
 public:
  virtual ~MoRecord() = default;
  /** Adds every attribute of the object's class, in the schema's order. What is added may refer to the record. */
  virtual void write(MoAttributes& attributes) const = 0;
};

using MoRecordPtr = std::shared_ptr<const MoRecord>;

/** The attributes of a record in the form of the C interface, made when somebody reads them. */
class MoAttributes {
 public:
  MoAttributes(const MoClass& moClass, MoRecordPtr record);
  MoAttributes(const MoAttributes&) = delete;
  MoAttributes& operator=(const MoAttributes&) = delete;

  const VelaOamSpiMoAttribute_3T& operator[](std::size_t index) const { return _attributes[index]; }

  // For the record.
  void addSigned(std::int64_t value);
  void addUnsigned(std::uint64_t value);
  /** The text must live as long as the record. */
  void addText(const std::string& text);
  void addOwnText(std::string text);
  /** A sequence of structs of two texts, which must live as long as the record. */
  void addPairs(const std::vector<std::pair<std::string, std::string>>& pairs);

 private:
  VelaOamSpiMoValue_3T& addSingle();

  const MoClass& _class;
  const MoRecordPtr _record;
  std::vector<VelaOamSpiMoAttribute_3T> _attributes;
  std::vector<VelaOamSpiMoValue_3T> _singles;
  std::vector<VelaOamSpiMoValue_3T> _structs;
  std::vector<VelaOamSpiMoMember_3T> _members;
  std::deque<std::string> _ownTexts;
};

}  // namespace VelaNode
#endif
