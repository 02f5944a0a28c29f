#include "SnmpOid.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace VelaFmSnmp {

SnmpOid::SnmpOid() : _ids{0, 0} {}

SnmpOid::SnmpOid(const unsigned long* oid, unsigned int len) : _ids(oid, oid + len) {}

SnmpOid::SnmpOid(const char* text) { fromString(text); }

bool SnmpOid::fromString(const char* text) {
  _ids.clear();
  if (text == nullptr) return false;
  const char* const end = text + std::strlen(text);
  for (const char* position = text; position != end;) {
    std::uint32_t id = 0;
    const bool isDot = *position == '.';
    const auto [next, error] = std::from_chars(position + 1, end, id);
    if (!isDot || error != std::errc() || !fits(1)) {
      _ids.clear();
      return false;
    }
    _ids.push_back(id);
    position = next;
  }
  return !_ids.empty();
}

std::string SnmpOid::toString() const {
  if (_ids.empty()) return "<<Invalid OID>>";
  std::string text;
  for (const unsigned long id : _ids) text.append(1, '.').append(std::to_string(id));
  return text;
}

bool SnmpOid::beginsWith(const SnmpOid& prefix) const {
  return prefix._ids.size() <= _ids.size() && std::equal(prefix._ids.begin(), prefix._ids.end(), _ids.begin());
}

bool SnmpOid::setValue(int index, unsigned long value) {
  if (index < 0 || static_cast<std::size_t>(index) >= _ids.size()) return false;
  _ids[static_cast<std::size_t>(index)] = value;
  return true;
}

unsigned long SnmpOid::getValue(int index) const {
  if (index < 0 || static_cast<std::size_t>(index) >= _ids.size()) return 0;
  return _ids[static_cast<std::size_t>(index)];
}

bool SnmpOid::isNull() const { return _ids.empty() || (_ids.size() == 2 && _ids[0] == 0 && _ids[1] == 0); }

template <class Element>
bool SnmpOid::appendAll(const Element* elements, std::size_t count, bool withLength) {
  if (count > maxLength || !fits(count + (withLength ? 1 : 0))) return false;
  // Copied first: the elements may be this identifier's own.
  const std::vector<unsigned long> ids(elements, elements + count);
  if (withLength) _ids.push_back(count);
  _ids.insert(_ids.end(), ids.begin(), ids.end());
  return true;
}

bool SnmpOid::append(int value) {
  if (!fits(1)) return false;
  _ids.push_back(static_cast<std::uint32_t>(value));
  return true;
}

bool SnmpOid::append(const char* text, bool withLength) {
  return append(std::string(text == nullptr ? "" : text), withLength);
}

bool SnmpOid::append(const std::string& text, bool withLength) {
  return appendAll(reinterpret_cast<const unsigned char*>(text.data()), text.size(), withLength);
}

bool SnmpOid::append(const unsigned char* bytes, unsigned int len) { return appendAll(bytes, len, true); }

bool SnmpOid::append(const unsigned long* oid, unsigned int len) { return appendAll(oid, len, true); }

bool SnmpOid::append(const SnmpOid& other) { return append(other.getOidPtr(), other.length()); }

SnmpOid SnmpOid::createViewOid(const unsigned long (&base)[12], const std::string& viewName, const SnmpOid& subtree) {
  SnmpOid row(base, 12);
  row.append(viewName, true);
  row.append(subtree);
  return row;
}

SnmpOid SnmpOid::createSec2GroupOid(const unsigned long (&base)[11], int securityModel,
                                    const std::string& securityName) {
  SnmpOid row(base, 11);
  row.append(securityModel);
  row.append(securityName, true);
  return row;
}

SnmpOid SnmpOid::createAccessOid(const unsigned long (&base)[11], const std::string& groupName,
                                 const char* contextPrefix, int securityModel, int securityLevel) {
  SnmpOid row(base, 11);
  row.append(groupName, true);
  row.append(contextPrefix, true);
  row.append(securityModel);
  row.append(securityLevel);
  return row;
}

SnmpOid SnmpOid::createUsmUserOid(const unsigned long (&base)[12], const std::string& engineId,
                                  const std::string& userName) {
  SnmpOid row(base, 12);
  row.append(engineId, true);
  row.append(userName, true);
  return row;
}

SnmpOid SnmpOid::createStrIndexOid(const unsigned long (&base)[11], const std::string& name) {
  SnmpOid row(base, 11);
  row.append(name, false);
  return row;
}

SnmpOid SnmpOid::createTlsParamsOid(const unsigned long (&base)[13], const std::string& name) {
  SnmpOid row(base, 13);
  row.append(name, false);
  return row;
}

SnmpOid SnmpOid::createTlsCertOid(const SnmpOid& base, unsigned int index) {
  SnmpOid row(base);
  row.append(static_cast<int>(index));
  return row;
}

SnmpOid SnmpOid::createTlsAddrOid(const SnmpOid& base, const std::string& name) {
  SnmpOid row(base);
  row.append(name, false);
  return row;
}

}  // namespace VelaFmSnmp
