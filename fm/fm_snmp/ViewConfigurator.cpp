// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "ViewConfigurator.h"

#include <LoggingWrapper.h>

#include <algorithm>

#include "ConfigurationFault.h"
#include "HexMask.h"
#include "MasterAgentTables.h"
#include "SnmpMaSession.h"
#include "SnmpPdu.h"
#include "SnmpSessionException.h"
#include "TargetDiff.h"

namespace VelaFmSnmp {

namespace {

using Column = const unsigned long[12];

// vacmViewTreeFamilyTable (RFC 3415): table entry and column.
constexpr Column viewMask = {1, 3, 6, 1, 6, 3, 16, 1, 5, 2, 1, 3};
constexpr Column viewType = {1, 3, 6, 1, 6, 3, 16, 1, 5, 2, 1, 4};
constexpr Column viewStatus = {1, 3, 6, 1, 6, 3, 16, 1, 5, 2, 1, 6};

/** vacmViewTreeFamilyMask has at most 16 octets. */
constexpr int maxMask = 16;
/** Longest subtree whose row identifier (12 arcs of the column, a name of 32, two lengths) has at most 128 arcs. */
constexpr unsigned maxSubtree = SnmpOid::maxLength - 12 - 33 - 1;
/** Rows per request: keeps a view of any size within the agent's message size. */
constexpr std::size_t rowsPerRequest = 16;
/** A VACM view name has at most 32 octets; longer keys are shortened. */
constexpr std::size_t maxViewName = 32;

constexpr SnmpProtocolVersion allVersions[] = {SnmpProtocolV1, SnmpProtocolV2c, SnmpProtocolV3};

/** Sends the rows of a view in requests of a bounded size, each behind the spin lock. */
template <class AddRow>
void sendRows(SnmpMaSession& session, const char* request, const View& view, FamilyTreeType firstType,
              AddRow&& addRow) {
  std::vector<ViewEntry> entries = view.getEntries();
  std::stable_partition(entries.begin(), entries.end(), [=](const ViewEntry& e) { return e.type == firstType; });
  const std::string requestName = request + ("(" + view.getViewName() + ")");
  for (std::size_t first = 0; first < entries.size(); first += rowsPerRequest) {
    SnmpPdu pdu(SNMP_MSG_SET);
    MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::vacmViewSpinLock);
    const std::size_t end = std::min(first + rowsPerRequest, entries.size());
    for (std::size_t i = first; i < end; ++i) addRow(pdu, entries[i]);
    MasterAgentTables::send(session, requestName, pdu);
  }
}

/** The identifier in the first part of an entry. */
bool parseSubtree(std::string text, SnmpOid& subtree) {
  if (!text.empty() && text.front() != '.') text.insert(0, ".");
  return subtree.fromString(text.c_str()) && subtree.length() <= maxSubtree;
}

/**
 * The subtree that holds all that an unreadable exclusion may have meant: the beginning of it that can be read. With a
 * mask, or with anything but blanks in front, it may have meant anything.
 */
SnmpOid enclosingSubtree(const std::string& text) {
  const std::size_t mark = text.find('!');
  const std::size_t first = text.find_first_not_of(' ', mark + 1);
  SnmpOid subtree("");
  if (text.find_first_not_of(' ') != mark || first == std::string::npos || text.find('/') != std::string::npos)
    return subtree;
  const std::size_t end = std::min(text.find_first_not_of("0123456789.", first), text.size());
  std::string beginning = text.substr(first, end - first);
  // An arc that something unreadable follows may have been a longer one.
  if (text.find_first_not_of(' ', end) != std::string::npos) beginning.resize(beginning.rfind('.') + 1);
  while (!beginning.empty() && !parseSubtree(beginning, subtree))
    beginning.resize(std::min(beginning.rfind('.'), beginning.size() - 1));
  return subtree;
}

bool isArcCompared(const ViewEntry& entry, unsigned arc) {
  const std::size_t octet = arc / 8;
  return octet >= entry.mask.size() || (static_cast<unsigned char>(entry.mask[octet]) & (0x80U >> arc % 8)) != 0;
}

/** Whether an included entry shows something of a subtree though the subtree is excluded. */
bool overrides(const ViewEntry& entry, const SnmpOid& excluded) {
  if (entry.type != FamilyTreeIncluded || entry.subtree.length() < excluded.length()) return false;
  for (unsigned arc = 0; arc < excluded.length(); ++arc) {
    const int index = static_cast<int>(arc);
    if (isArcCompared(entry, arc) && entry.subtree.getValue(index) != excluded.getValue(index)) return false;
  }
  return true;
}

}  // namespace

void ViewSubtrees::append(const ViewSubtrees& other) {
  entries.insert(entries.end(), other.entries.begin(), other.entries.end());
  closed.insert(closed.end(), other.closed.begin(), other.closed.end());
}

std::vector<ViewEntry> ViewSubtrees::toEntries() const {
  std::vector<ViewEntry> result = entries;
  for (const SnmpOid& subtree : closed) {
    std::erase_if(result, [&](const ViewEntry& entry) { return overrides(entry, subtree); });
    if (subtree.length() != 0) result.push_back({subtree, std::string(), FamilyTreeExcluded});
  }
  return result;
}

std::vector<ViewOwner> ViewConfigurator::ownersOf(const SnmpBaseView& view) {
  const unsigned version = view.version();
  if (version < SnmpProtocolV1 || version > SnmpProtocolV3) {
    VELA_LOG(Vela::LogError, "View %s has the unknown version %u", view.name.c_str(), version);
    return {};
  }
  std::set<ViewOwner> owners;
  for (const std::string& name : view.community) {
    if (name.empty() || name == View::defaultView) {
      VELA_LOG(Vela::LogError, "View %s names a community or user that can not have a view", view.name.c_str());
      continue;
    }
    owners.emplace(name, static_cast<SnmpProtocolVersion>(version));
  }
  return {owners.begin(), owners.end()};
}

bool ViewConfigurator::parseEntry(const std::string& text, ViewEntry& entry) {
  const std::size_t begin = !text.empty() && text.front() == '!' ? 1 : 0;
  const std::size_t slash = text.find('/');
  entry.type = begin == 1 ? FamilyTreeExcluded : FamilyTreeIncluded;
  entry.mask.clear();
  if (!parseSubtree(text.substr(begin, slash == std::string::npos ? slash : slash - begin), entry.subtree))
    return false;
  if (slash == std::string::npos) return true;
  unsigned char mask[maxMask];
  int length = 0;
  const bool isValid = convertHexMask(mask, &length, maxMask, text.c_str() + slash + 1);
  entry.mask.assign(mask, mask + length);
  return isValid;
}

ViewSubtrees ViewConfigurator::parseEntries(const std::vector<std::string>& texts, const std::string& viewName) {
  ViewSubtrees result;
  for (const std::string& text : texts) {
    ViewEntry entry;
    if (parseEntry(text, entry)) {
      result.entries.push_back(std::move(entry));
      continue;
    }
    const bool isExclusion = text.find('!') != std::string::npos;
    if (isExclusion) result.closed.push_back(enclosingSubtree(text));
    VELA_LOG(Vela::LogError, "Faulty OID in view: '%s' (view %s)%s", text.c_str(), viewName.c_str(),
             isExclusion ? ", what it may exclude is hidden" : "");
  }
  return result;
}

void ViewConfigurator::clear() {
  // The catalogue itself stays: it counts the generated names.
  for (const ViewOwner& owner : _owners) {
    for (const bool write : {true, false}) {
      const std::string key = _views.keyName(owner.first, owner.second, write);
      if (_views.getViews().count(key) != 0) _views.deleteView(key);
    }
  }
  _owners.clear();
  _objects.clear();
  _faulty.clear();
  _hasDefaultViews = false;
}

void ViewConfigurator::reconfigureViews(const ConfigurationPass& pass, const SnmpConfig::ViewMap& views) {
  std::set<ViewOwner> concerned = findConcernedOwners(pass, views);
  _objects = views;
  writeDefaultViews(pass);
  if (concerned.empty()) return;

  std::map<ViewOwner, Objects> objects;
  for (const auto& [name, view] : views) {
    for (const ViewOwner& owner : ownersOf(*view)) objects[owner].push_back(view.get());
  }
  _parsed.clear();
  freeNames(pass, objects, concerned);
  // Names that stand as they are come before those that are made, which have to keep clear of them.
  for (const bool isShortened : {false, true}) {
    for (const ViewOwner& owner : concerned) {
      const bool isLong = _views.keyName(owner.first, owner.second, false).size() > maxViewName;
      if (isLong == isShortened) tryOwner(pass, owner, objects[owner]);
    }
  }
  _parsed.clear();
}

std::set<ViewOwner> ViewConfigurator::findConcernedOwners(const ConfigurationPass& pass,
                                                          const SnmpConfig::ViewMap& views) {
  std::set<ViewOwner> owners = _faulty;
  const auto insert = [&](const SnmpConfig::ViewMap& from, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      const auto view = from.find(name);
      if (view == from.end()) continue;
      for (const ViewOwner& owner : ownersOf(*view->second)) owners.insert(owner);
    }
  };
  const ConfigurationDiff diff = calcDiffViews(_objects, views, pass.writesAnew);
  insert(_objects, diff.removed);
  insert(_objects, diff.changed);
  insert(views, diff.changed);
  insert(views, diff.added);
  if (pass.writesAnew) owners.insert(_owners.begin(), _owners.end());
  for (const SnmpProtocolVersion version : allVersions) owners.erase({View::defaultView, version});
  return owners;
}

void ViewConfigurator::writeDefaultViews(const ConfigurationPass& pass) {
  const bool mayExist = _hasDefaultViews || !pass.knowsRows;
  for (const SnmpProtocolVersion version : allVersions) {
    const ViewOwner owner(View::defaultView, version);
    if (!pass.writesAnew && _faulty.count(owner) == 0) continue;
    _hasDefaultViews = true;
    _faulty.insert(owner);
    try {
      for (const bool write : {false, true}) {
        const View& view = *_views.getView(_views.keyName(View::defaultView, version, write));
        if (mayExist) vacmDeleteView(pass.session, view);
        vacmCreateView(pass.session, view);
      }
      _faulty.erase(owner);
    } catch (const ConfigurationFault& fault) {
      VELA_LOG(Vela::LogError, "Failed to configure the default snmp view of version %d: %s", version, fault.what());
    }
  }
}

void ViewConfigurator::freeNames(const ConfigurationPass& pass, const std::map<ViewOwner, Objects>& objects,
                                 std::set<ViewOwner>& concerned) {
  for (const auto& entry : objects) {
    for (const bool write : {true, false}) {
      const auto shortened = _shortened.find(_views.keyName(entry.first.first, entry.first.second, write));
      if (shortened == _shortened.end()) continue;
      const ViewOwner holder = shortened->second;
      const std::string key = _views.keyName(holder.first, holder.second, write);
      try {
        removeView(pass, key);
      } catch (const ConfigurationFault& fault) {
        VELA_LOG(Vela::LogError, "Failed to remove a former snmp view: %s", fault.what());
      }
      _names.erase(key);
      _shortened.erase(shortened);
      concerned.insert(holder);
    }
  }
}

void ViewConfigurator::tryOwner(const ConfigurationPass& pass, const ViewOwner& owner, const Objects& objects) {
  const auto tell = [&](const char* reason) {
    for (const SnmpBaseView* view : objects)
      VELA_LOG(Vela::LogError, "Failed to configure snmp view %s: %s", view->name.c_str(), reason);
    if (objects.empty()) VELA_LOG(Vela::LogError, "Failed to remove a former snmp view: %s", reason);
  };
  try {
    configureOwner(pass, owner, objects);
    _faulty.erase(owner);
  } catch (const ConfigurationFault& fault) {
    tell(fault.what());
    _faulty.insert(owner);
  } catch (const SnmpSessionException& ex) {
    tell(ex.what());
    throw;
  }
}

void ViewConfigurator::configureOwner(const ConfigurationPass& pass, const ViewOwner& owner, const Objects& objects) {
  // An owner counts from the first request on to the last, so that a failure in between leaves no row unknown.
  if (!objects.empty()) _owners.insert(owner);
  for (const bool write : {true, false}) {
    if (objects.empty())
      removeView(pass, _views.keyName(owner.first, owner.second, write));
    else
      replaceView(pass, makeView(owner, objects, write), pass.writesAnew || _faulty.count(owner) != 0);
  }
  if (objects.empty()) _owners.erase(owner);
}

AccessViews ViewConfigurator::getAccessViews(const ViewOwner& owner, bool isWritable) const {
  const auto& [name, version] = owner;
  const ViewOwner byDefault(View::defaultView, version);
  const bool hasOwn = _owners.count(owner) != 0 || _faulty.count(owner) != 0;
  requireWritten(hasOwn ? owner : byDefault);
  AccessViews result;
  result.readView =
      _views.getReadView(_views.existsReadView(name, version) ? name : View::defaultView, version)->getViewName();
  if (_views.existsWriteView(name, version))
    result.writeView = _views.getWriteView(name, version)->getViewName();
  else if (isWritable)
    result.writeView = _views.getWriteView(View::defaultView, version)->getViewName();
  return result;
}

void ViewConfigurator::requireWritten(const ViewOwner& owner) const {
  if (_faulty.count(owner) == 0) return;
  throw ConfigurationFault("the master agent does not have its view %s",
                           _views.keyName(owner.first, owner.second, false).c_str());
}

const ViewConfigurator::ParsedObject& ViewConfigurator::parsed(const SnmpBaseView& object) {
  const auto [entry, isNew] = _parsed.emplace(&object, ParsedObject());
  if (isNew) {
    entry->second.read = parseEntries(object.readOids, object.name);
    entry->second.write = parseEntries(object.writeOids, object.name);
  }
  return entry->second;
}

const std::string& ViewConfigurator::nameOf(const ViewOwner& owner, bool write) {
  const std::string key = _views.keyName(owner.first, owner.second, write);
  const auto known = _names.find(key);
  if (known != _names.end()) return known->second;
  std::string name = _views.viewName(owner.first, owner.second, write);
  if (name != key) _shortened.emplace(name, owner);
  return _names.emplace(key, std::move(name)).first->second;
}

View ViewConfigurator::makeView(const ViewOwner& owner, const Objects& objects, bool write) {
  ViewSubtrees subtrees;
  for (const SnmpBaseView* object : objects) subtrees.append(write ? parsed(*object).write : parsed(*object).read);
  View view(_views.keyName(owner.first, owner.second, write), nameOf(owner, write), owner.second);
  view.setEntries(subtrees.toEntries());
  return view;
}

void ViewConfigurator::replaceView(const ConfigurationPass& pass, const View& next, bool isForced) {
  const auto present = _views.getViews().find(next.getKeyName());
  const bool isPresent = present != _views.getViews().end();
  if (isPresent && !isForced && present->second->getEntries() == next.getEntries()) return;
  if (isPresent) removeView(pass, next.getKeyName());
  if (!pass.knowsRows) vacmDeleteView(pass.session, next);
  _views.createView(next);
  vacmCreateView(pass.session, next);
}

void ViewConfigurator::removeView(const ConfigurationPass& pass, const std::string& key) {
  const auto present = _views.getViews().find(key);
  if (present == _views.getViews().end()) return;
  vacmDeleteView(pass.session, *present->second);
  _views.deleteView(key);
}

void ViewConfigurator::vacmCreateView(SnmpMaSession& session, const View& view) {
  sendRows(session, "vacmCreateView", view, FamilyTreeExcluded, [&](SnmpPdu& pdu, const ViewEntry& entry) {
    pdu.addVarbind(SnmpOid::createViewOid(viewMask, view.getViewName(), entry.subtree), entry.mask);
    pdu.addVarbind(SnmpOid::createViewOid(viewType, view.getViewName(), entry.subtree), entry.type);
    pdu.addVarbind(SnmpOid::createViewOid(viewStatus, view.getViewName(), entry.subtree), RowCreateAndGo);
  });
}

void ViewConfigurator::vacmDeleteView(SnmpMaSession& session, const View& view) {
  sendRows(session, "vacmDeleteView", view, FamilyTreeIncluded, [&](SnmpPdu& pdu, const ViewEntry& entry) {
    pdu.addVarbind(SnmpOid::createViewOid(viewStatus, view.getViewName(), entry.subtree), RowDestroy);
  });
}

}  // namespace VelaFmSnmp
