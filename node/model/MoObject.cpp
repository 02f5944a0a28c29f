#include "model/MoObject.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "VelaException.h"
#include "model/MoAttribute.h"
#include "support/Utf8.h"

namespace VelaNode {

namespace {

/** A canonical unsigned 32-bit number: one number has one name. */
bool parseNumber(std::string_view text, std::uint64_t& number) {
  std::uint32_t parsed = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  number = parsed;
  return error == std::errc() && end == text.data() + text.size() && (text.size() == 1 || text[0] != '0');
}

const VelaOamSpiMoValue_3T* singleValue(const VelaOamSpiMoAttribute_3T* attribute) {
  return attribute == nullptr || attribute->isSequence || !attribute->isSet ? nullptr : attribute->values;
}

}  // namespace

std::string_view parentDn(std::string_view dn) {
  const std::size_t comma = dn.rfind(',');
  return comma == std::string_view::npos ? std::string_view() : dn.substr(0, comma);
}

const char* MoDn::parseStep(std::string_view rdn) {
  const std::size_t equals = rdn.find('=');
  if (equals == std::string_view::npos || equals + 1 == rdn.size()) return "each step is CLASS=NAME";
  const MoClass* const moClass = ModelSchema::findClass(rdn.substr(0, equals));
  if (moClass == nullptr) return "there is no such class";
  if (moClass->getParent() != (_size == 0 ? nullptr : back().moClass)) return "the class does not stand there";
  Step& step = _steps[_size++];
  step = {moClass, {0, rdn.substr(equals + 1)}};
  if (moClass->isNumbered() && !parseNumber(step.name.text, step.name.number)) return "the name is not a number";
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' '; };
  if (!isXmlText(step.name.text) || std::ranges::any_of(step.name.text, isControl))
    return "control characters and malformed UTF-8 are not allowed";
  return nullptr;
}

bool MoDn::parse(std::string_view dn, std::string* reason) {
  _size = 0;
  const char* fault = nullptr;
  std::string_view rest = dn;
  while (fault == nullptr) {
    const std::size_t comma = rest.find(',');
    fault = _size == MaxDepth ? "too many steps" : parseStep(rest.substr(0, comma));
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  if (fault != nullptr && reason != nullptr) *reason = "Bad distinguished name " + quoted(dn) + ": " + fault;
  return fault == nullptr;
}

MoObject::MoObject(const MoClass& moClass, std::string dn)
    : _class(&moClass), _dn(std::move(dn)), _number(0), _attributes(moClass.getDefaults()) {
  parseName();
}

MoObject::MoObject(const MoClass& moClass, std::string dn, MoRecordPtr record)
    : _class(&moClass), _dn(std::move(dn)), _number(0), _record(std::move(record)) {
  parseName();
}

void MoObject::parseName() {
  _nameOffset = _dn.find('=', _dn.rfind(',') + 1) + 1;
  if (_class->isNumbered()) parseNumber(std::string_view(_dn).substr(_nameOffset), _number);
}

MoAttributePtr MoObject::getAttribute(std::size_t index) const {
  if (!_record) return _attributes[index];
  const auto made = std::make_shared<const MoAttributes>(*_class, _record);
  return {made, &(*made)[index]};
}

MoAttributePtr MoObject::findAttribute(std::string_view name) const {
  const int index = _class->findAttribute(name);
  return index < 0 ? nullptr : getAttribute(static_cast<std::size_t>(index));
}

void MoObject::setAttribute(std::size_t index, MoAttributePtr attribute) {
  if (_record) {
    const auto made = std::make_shared<const MoAttributes>(*_class, std::exchange(_record, nullptr));
    for (std::size_t i = 0; i < _class->getAttributes().size(); ++i) _attributes.emplace_back(made, &(*made)[i]);
  }
  _attributes[index] = std::move(attribute);
}

MoView::MoView(const MoObject& object) : _object(object) {
  if (object._record) _made.emplace(object.getClass(), object._record);
}

const VelaOamSpiMoAttribute_3T* MoView::find(std::string_view name) const noexcept {
  const int index = _object.getClass().findAttribute(name);
  return index < 0 ? nullptr : &(*this)[static_cast<std::size_t>(index)];
}

std::optional<std::int64_t> MoObject::getSigned(std::string_view name) const {
  const MoAttributePtr attribute = findAttribute(name);
  const VelaOamSpiMoValue_3T* const value = singleValue(attribute.get());
  if (value == nullptr) return {};
  switch (value->type) {
    case VELA_MO_BOOL:
    case VELA_MO_INT16:
    case VELA_MO_INT32:
    case VELA_MO_INT64:
    case VELA_MO_ENUM:
      return value->i64;
    default:
      return {};
  }
}

std::optional<std::uint64_t> MoObject::getUnsigned(std::string_view name) const {
  const MoAttributePtr attribute = findAttribute(name);
  const VelaOamSpiMoValue_3T* const value = singleValue(attribute.get());
  if (value == nullptr) return {};
  switch (value->type) {
    case VELA_MO_UINT16:
    case VELA_MO_UINT32:
    case VELA_MO_UINT64:
      return value->u64;
    default:
      return {};
  }
}

std::optional<bool> MoObject::getBool(std::string_view name) const {
  const MoAttributePtr attribute = findAttribute(name);
  const VelaOamSpiMoValue_3T* const value = singleValue(attribute.get());
  if (value == nullptr || value->type != VELA_MO_BOOL) return {};
  return value->i64 != 0;
}

std::optional<std::string> MoObject::getText(std::string_view name) const {
  const MoAttributePtr attribute = findAttribute(name);
  const VelaOamSpiMoValue_3T* const value = singleValue(attribute.get());
  if (value == nullptr || (value->type != VELA_MO_STRING && value->type != VELA_MO_REFERENCE)) return {};
  return value->text;
}

Poco::JSON::Object::Ptr MoObject::toJson() const {
  Poco::JSON::Object::Ptr attributes = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
  const std::vector<MoAttributeDef>& definitions = _class->getAttributes();
  const MoView view(*this);
  for (std::size_t i = 0; i < definitions.size(); ++i) {
    attributes->set(definitions[i].name, VelaNode::toJson(definitions[i], view[i]));
  }
  Poco::JSON::Object::Ptr object = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
  object->set("dn", _dn);
  object->set("class", std::string(_class->getName()));
  object->set("attributes", attributes);
  return object;
}

}  // namespace VelaNode
