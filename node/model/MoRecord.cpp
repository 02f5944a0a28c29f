#include "model/MoRecord.h"

#include <cassert>

namespace VelaNode {

namespace {

VelaOamSpiMoValue_3T textValue(const char* text) { return {VELA_MO_STRING, 0, 0, text, nullptr, 0}; }

}  // namespace

MoAttributes::MoAttributes(const MoClass& moClass, MoRecordPtr record) : _class(moClass), _record(std::move(record)) {
  // The attributes refer to the values, so these must not move.
  _attributes.reserve(moClass.getAttributes().size());
  _singles.reserve(moClass.getAttributes().size());
  _record->write(*this);
  assert(_attributes.size() == moClass.getAttributes().size());
}

VelaOamSpiMoValue_3T& MoAttributes::addSingle() {
  assert(_attributes.size() < _class.getAttributes().size());
  const MoAttributeDef& definition = _class.getAttributes()[_attributes.size()];
  assert(!definition.isSequence);
  VelaOamSpiMoValue_3T& value = _singles.emplace_back();
  value.type = definition.type;
  _attributes.push_back({definition.name, false, true, &value, 1});
  return value;
}

void MoAttributes::addSigned(std::int64_t value) { addSingle().i64 = value; }

void MoAttributes::addUnsigned(std::uint64_t value) { addSingle().u64 = value; }

void MoAttributes::addText(const std::string& text) { addSingle().text = text.c_str(); }

void MoAttributes::addOwnText(std::string text) { addText(_ownTexts.emplace_back(std::move(text))); }

void MoAttributes::addPairs(const std::vector<std::pair<std::string, std::string>>& pairs) {
  assert(_attributes.size() < _class.getAttributes().size() && _structs.empty());
  const MoAttributeDef& definition = _class.getAttributes()[_attributes.size()];
  assert(definition.isSequence && definition.members.size() == 2);
  _members.reserve(2 * pairs.size());
  _structs.reserve(pairs.size());
  for (const auto& [first, second] : pairs) {
    const VelaOamSpiMoMember_3T* const members = _members.data() + _members.size();
    _members.push_back({definition.members[0].name, true, textValue(first.c_str())});
    _members.push_back({definition.members[1].name, true, textValue(second.c_str())});
    _structs.push_back({VELA_MO_STRUCT, 0, 0, nullptr, members, 2});
  }
  _attributes.push_back({definition.name, true, true, _structs.data(), _structs.size()});
}

}  // namespace VelaNode
