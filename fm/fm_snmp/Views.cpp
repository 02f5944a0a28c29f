#include "Views.h"

#include <LoggingWrapper.h>

#include <algorithm>

namespace VelaFmSnmp {

namespace {

/** Longest name that fits, with what is put around it, into the 32 characters of a VACM view name (RFC 3415). */
constexpr std::size_t maxUnshortenedName = 22;

const char* const baseSubtrees[] = {".1.0", ".1.1", ".1.2", ".1.3"};
/** MIB-2, the SNMP framework MIB and the component's own alarm MIB. */
const char* const defaultSubtrees[] = {".1.3.6.1.2.1", ".1.3.6.1.6.3.10", ".1.3.6.1.4.1.61234.183.4"};
constexpr SnmpProtocolVersion allVersions[] = {SnmpProtocolV1, SnmpProtocolV2c, SnmpProtocolV3};

std::string decorate(const std::string& name, SnmpProtocolVersion version, bool write) {
  return "vela_" + name + "_V" + std::to_string(version) + (write ? "_W" : "_R");
}

}  // namespace

const std::string View::defaultView = "defaultView";

View::View(std::string keyName, std::string viewName, SnmpProtocolVersion version)
    : _keyName(std::move(keyName)), _viewName(std::move(viewName)), _version(version) {}

void View::addEntry(const SnmpOid& subtree, FamilyTreeType type) { _entries.push_back({subtree, std::string(), type}); }

void View::initializeEntries() {
  for (const char* subtree : baseSubtrees) addEntry(subtree, FamilyTreeExcluded);
}

void View::setEntries(const std::vector<ViewEntry>& configured) {
  std::map<SnmpOid, std::size_t> positions;
  std::vector<ViewEntry> entries;
  for (const ViewEntry& entry : configured) {
    const auto [position, isNew] = positions.emplace(entry.subtree, entries.size());
    if (isNew) {
      entries.push_back(entry);
    } else if (entry.type == FamilyTreeExcluded && entries[position->second].type == FamilyTreeIncluded) {
      entries[position->second] = entry;
    }
  }
  _entries.clear();
  initializeEntries();
  std::erase_if(_entries, [&](const ViewEntry& base) {
    return std::any_of(entries.begin(), entries.end(),
                       [&](const ViewEntry& entry) { return base.subtree.beginsWith(entry.subtree); });
  });
  _entries.insert(_entries.end(), entries.begin(), entries.end());
}

Views::Views() {
  for (const SnmpProtocolVersion version : allVersions) {
    createView(View::defaultView, version);
    for (const bool write : {false, true}) {
      View& view = *_catalogue.at(keyName(View::defaultView, version, write));
      for (const char* subtree : defaultSubtrees) view.addEntry(subtree, FamilyTreeIncluded);
    }
  }
}

std::string Views::keyName(const std::string& name, SnmpProtocolVersion version, bool write) const {
  return decorate(name, version, write);
}

std::string Views::viewName(const std::string& name, SnmpProtocolVersion version, bool write) {
  if (name.size() <= maxUnshortenedName) return keyName(name, version, write);
  std::string shortened;
  do {
    const std::string tag = "_" + std::to_string(++_counter);
    shortened = decorate(name.substr(0, maxUnshortenedName - tag.size()) + tag, version, write);
  } while (_takenNames.count(shortened) != 0);
  return shortened;
}

void Views::createView(const std::string& name, SnmpProtocolVersion version) {
  for (const bool write : {true, false}) {
    const std::string key = keyName(name, version, write);
    if (_catalogue.count(key) != 0) continue;
    auto view = std::make_unique<View>(key, viewName(name, version, write), version);
    view->initializeEntries();
    insert(std::move(view));
  }
}

void Views::createView(const View& view) {
  if (_catalogue.count(view.getKeyName()) == 0) insert(std::make_unique<View>(view));
}

void Views::insert(std::unique_ptr<View> view) {
  _takenNames.insert(view->getViewName());
  const std::string& key = view->getKeyName();
  _catalogue.emplace(key, std::move(view));
}

bool Views::existsReadView(const std::string& name, SnmpProtocolVersion version) const {
  return _catalogue.count(keyName(name, version, false)) != 0;
}

bool Views::existsWriteView(const std::string& name, SnmpProtocolVersion version) const {
  return _catalogue.count(keyName(name, version, true)) != 0;
}

bool Views::existsView(const std::string& name, SnmpProtocolVersion version) const {
  return existsReadView(name, version) && existsWriteView(name, version);
}

View* Views::getReadView(const std::string& name, SnmpProtocolVersion version) const {
  return getView(keyName(name, version, false));
}

View* Views::getWriteView(const std::string& name, SnmpProtocolVersion version) const {
  return getView(keyName(name, version, true));
}

View* Views::getView(const std::string& key) const {
  const auto found = _catalogue.find(key);
  if (found != _catalogue.end()) return found->second.get();
  VELA_LOG(Vela::LogError, "Failed to get SNMP view: %s", key.c_str());
  return nullptr;
}

void Views::deleteView(const std::string& name, SnmpProtocolVersion version) {
  deleteView(keyName(name, version, true));
  deleteView(keyName(name, version, false));
}

void Views::deleteView(const std::string& key) {
  const auto found = _catalogue.find(key);
  if (found == _catalogue.end()) {
    VELA_LOG(Vela::LogError, "Failed to delete view: %s", key.c_str());
    return;
  }
  _takenNames.erase(found->second->getViewName());
  _catalogue.erase(found);
}

void Views::clear() {
  _catalogue.clear();
  _takenNames.clear();
}

}  // namespace VelaFmSnmp
