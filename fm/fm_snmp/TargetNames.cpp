#include "TargetNames.h"

#include <algorithm>

#include "SnmpTypes.h"

namespace VelaFmSnmp {

namespace {

constexpr std::size_t maxName = 31;

bool isPlain(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
}

/** A target that is not of the model has no distinguished name, and may have the same name as one that is. */
std::string keyOf(const SnmpBaseTarget& target) {
  return target.moName.empty() ? "internal " + target.name : "model " + target.name;
}

}  // namespace

const std::string& TargetNames::getUniqueName(const std::string& prefix, const SnmpBaseTarget& target) {
  const std::string key = keyOf(target);
  const auto known = _names.find(key);
  if (known != _names.end()) return known->second;
  std::string name = generateName(prefix, target.name);
  _used.insert(name);
  return _names.emplace(key, std::move(name)).first->second;
}

void TargetNames::eraseNotificationNames(const SnmpBaseTarget& target) {
  const auto known = _names.find(keyOf(target));
  if (known == _names.end()) return;
  _used.erase(known->second);
  _names.erase(known);
}

void TargetNames::clear() {
  _names.clear();
  _used.clear();
}

std::string TargetNames::generateName(const std::string& prefix, const std::string& targetName) {
  std::string name = prefix + "_" + targetName;
  const bool isUsable = name.size() <= maxName && std::all_of(name.begin(), name.end(), isPlain);
  if (isUsable && _used.count(name) == 0) return name;
  do {
    name = "gen_" + std::to_string(++_counter);
  } while (_used.count(name) != 0);
  return name;
}

}  // namespace VelaFmSnmp
