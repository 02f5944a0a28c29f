#include "PduParser.h"

#include <algorithm>
#include <limits>

#include "LoggingWrapper.h"
#include "SnmpAlarm.h"
#include "TrapSender.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

enum Tag : unsigned char {
  TagInteger = 0x02,
  TagOctetString = 0x04,
  TagObjectId = 0x06,
  TagSequence = 0x30,
  TagUnsigned32 = 0x42,
  TagInform = 0xA6,
  TagTrapV2 = 0xA7
};

const SnmpOid& trapOidName() {
  static const SnmpOid name(".1.3.6.1.6.3.1.1.4.1.0");
  return name;
}

/** What a name's column shows; nothing for a name that is no cell of the alarm or of the alert table. */
std::optional<AlarmMib::Field> findField(const SnmpOid& name) {
  if (name.length() != AlarmMib::Cell().size()) return std::nullopt;
  for (const AlarmMib::Table* table : {&AlarmMib::activeTable, &AlarmMib::alertTable}) {
    const unsigned long number = name.getValue(static_cast<int>(AlarmMib::cellColumnPlace));
    const AlarmMib::Cell column = AlarmMib::cellOf(*table, static_cast<unsigned int>(number), 0);
    const AlarmMib::Column* const found = table->column(number);
    if (found && std::equal(column.begin(), column.end() - 1, name.getOidPtr())) return found->field;
  }
  return std::nullopt;
}

}  // namespace

bool PduParser::parse() {
  try {
    parseMessage();
    return true;
  } catch (const Vela::VelaException& ex) {
    VELA_TRACE("parse: %s", ex.what());
    return false;
  }
}

bool PduParser::isAlarmListRebuilt() const { return _trapOid == TrapSender::getAlarmListRebuiltOid(); }

bool PduParser::matches(const SnmpAlarm& alarm) const {
  return !_trapOid.isNull() && _trapOid == TrapSender::getNotificationOid(alarm) &&
         _majorType == alarm.getMajorType() && _minorType == alarm.getMinorType() &&
         _managedObject == alarm.getManagedObject();
}

void PduParser::parseMessage() {
  _position = 0;
  _sequenceEnds.clear();
  pushSequence(TagSequence);
  const std::int64_t version = readInteger(TagInteger);
  _community = readString();
  // Anybody on the machine may have sent it.
  VELA_TRACE("Trap version: %d, community: %.200s", static_cast<int>(version), _community.c_str());

  const bool isInform = _position < currentEnd() && _data[_position] == TagInform;
  pushSequence(isInform ? TagInform : TagTrapV2);
  readInteger(TagInteger);  // request id
  readInteger(TagInteger);  // error status
  readInteger(TagInteger);  // error index
  pushSequence(TagSequence);
  parseVarbinds();
  popSequence();
  popSequence();
  popSequence();
}

void PduParser::parseVarbinds() {
  while (_position < currentEnd()) parseVarbind();
}

void PduParser::parseVarbind() {
  pushSequence(TagSequence);
  const SnmpOid name = readOid();
  if (name == trapOidName()) {
    _trapOid = readOid();
    VELA_TRACE("trap oid is %s", _trapOid.toString().c_str());
  } else if (const std::optional<AlarmMib::Field> field = findField(name)) {
    parseField(*field);
  } else {
    readElement();
  }
  popSequence();
}

void PduParser::parseField(AlarmMib::Field field) {
  switch (field) {
    case AlarmMib::Field::MajorType:
      _majorType = readUnsigned();
      VELA_TRACE("major %d", static_cast<int>(_majorType));
      break;
    case AlarmMib::Field::MinorType:
      _minorType = readUnsigned();
      VELA_TRACE("minor is %d", static_cast<int>(_minorType));
      break;
    case AlarmMib::Field::ManagedObject:
      _managedObject = readString();
      VELA_TRACE("managed object is %s", _managedObject.c_str());
      break;
    default:
      readElement();
  }
}

void PduParser::pushSequence(unsigned char tag) {
  const std::optional<Element> element = readHeader();
  if (!element) throw Vela::VelaException("not a sequence");
  if (element->tag != tag) throw Vela::VelaException("not a sequence (%x, expected %x)", element->tag, tag);
  _sequenceEnds.push_back(element->begin + element->length);
}

void PduParser::popSequence() {
  if (_sequenceEnds.empty() || _position != _sequenceEnds.back()) throw Vela::VelaException("pop sequence");
  _sequenceEnds.pop_back();
}

/** Reads a tag and a definite length whose contents lie within the current sequence; nothing if that fails. */
std::optional<PduParser::Element> PduParser::readHeader() {
  constexpr unsigned char longTag = 0x1F;
  constexpr unsigned char longLength = 0x80;
  constexpr std::size_t maxLengthOctets = 4;
  const std::size_t end = currentEnd();
  if (end - _position < 2) return std::nullopt;
  const unsigned char tag = _data[_position++];
  std::size_t length = _data[_position++];
  if ((tag & longTag) == longTag || length == longLength) return std::nullopt;
  if (length > longLength) {
    std::size_t octets = length - longLength;
    if (octets > maxLengthOctets || octets > end - _position) return std::nullopt;
    for (length = 0; octets > 0; --octets) length = length << 8 | _data[_position++];
  }
  if (length > end - _position) return std::nullopt;
  return Element{tag, _position, length};
}

PduParser::Element PduParser::readElement() {
  const std::optional<Element> element = readHeader();
  if (!element) throw Vela::VelaException("element without its contents");
  _position = element->begin + element->length;
  return *element;
}

PduParser::Element PduParser::readPrimitive(unsigned char tag) {
  const Element element = readElement();
  if (element.tag != tag) throw Vela::VelaException("unexpected type (%x, expected %x)", element.tag, tag);
  return element;
}

std::int64_t PduParser::readInteger(unsigned char tag) {
  const Element element = readPrimitive(tag);
  if (element.length == 0 || element.length > sizeof(std::int64_t)) throw Vela::VelaException("not an integer");
  const bool isNegative = (_data[element.begin] & 0x80) != 0;
  std::uint64_t value = isNegative ? std::numeric_limits<std::uint64_t>::max() : 0;
  for (std::size_t i = 0; i < element.length; ++i) value = value << 8 | _data[element.begin + i];
  return static_cast<std::int64_t>(value);
}

unsigned int PduParser::readUnsigned() {
  const std::int64_t value = readInteger(TagUnsigned32);
  if (value < 0 || value > std::numeric_limits<unsigned int>::max())
    throw Vela::VelaException("not an unsigned number");
  return static_cast<unsigned int>(value);
}

std::string PduParser::readString() {
  const Element element = readPrimitive(TagOctetString);
  return {_data + element.begin, _data + element.begin + element.length};
}

SnmpOid PduParser::readOid() {
  const Element element = readPrimitive(TagObjectId);
  unsigned long ids[SnmpOid::maxLength];
  unsigned int count = 0;
  bool isComplete = false;
  std::uint64_t id = 0;
  for (std::size_t i = 0; i < element.length; ++i) {
    const unsigned char octet = _data[element.begin + i];
    id = id << 7 | (octet & 0x7F);
    isComplete = (octet & 0x80) == 0;
    if (id > std::numeric_limits<std::uint32_t>::max()) throw Vela::VelaException("not an object identifier");
    if (!isComplete) continue;
    if (count == 0) {
      // The first two sub-identifiers share one number (X.690, 8.19.4).
      ids[count++] = id < 80 ? id / 40 : 2;
      id -= ids[0] * 40;
    }
    if (count == SnmpOid::maxLength) throw Vela::VelaException("not an object identifier");
    ids[count++] = id;
    id = 0;
  }
  if (!isComplete) throw Vela::VelaException("not an object identifier");
  return {ids, count};
}

}  // namespace VelaFmSnmp
