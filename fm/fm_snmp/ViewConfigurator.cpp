// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "ViewConfigurator.h"

#include <LoggingWrapper.h>

#include <algorithm>

#include "HexMask.h"
#include "MasterAgentTables.h"
#include "SnmpMaSession.h"
#include "SnmpPdu.h"

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

/** Sends the rows of a view in requests of a bounded size, each behind the spin lock. */
template <class AddRow>
void sendRows(SnmpMaSession& session, const char* requestName, const std::vector<ViewEntry>& entries, AddRow&& addRow) {
  for (std::size_t first = 0; first < entries.size(); first += rowsPerRequest) {
    SnmpPdu pdu(SNMP_MSG_SET);
    MasterAgentTables::addSpinLock(session, pdu, MasterAgentTables::vacmViewSpinLock);
    const std::size_t end = std::min(first + rowsPerRequest, entries.size());
    for (std::size_t i = first; i < end; ++i) addRow(pdu, entries[i]);
    MasterAgentTables::send(session, requestName, pdu);
  }
}

}  // namespace

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

ViewOwner ViewConfigurator::ownerOf(const SnmpBaseTarget& target) {
  if (const auto* v1 = dynamic_cast<const SnmpTargetV1*>(&target)) return {v1->community, SnmpProtocolV1};
  if (const auto* v2 = dynamic_cast<const SnmpTargetV2C*>(&target)) return {v2->community, SnmpProtocolV2c};
  return {target.getSecurityName(), SnmpProtocolV3};
}

bool ViewConfigurator::parseEntry(const std::string& text, ViewEntry& entry) {
  const bool isExcluded = !text.empty() && text.front() == '!';
  const std::size_t slash = text.find('/');
  std::string oid = text.substr(isExcluded ? 1 : 0, slash == std::string::npos ? slash : slash - (isExcluded ? 1 : 0));
  if (!oid.empty() && oid.front() != '.') oid.insert(0, ".");
  entry.type = isExcluded ? FamilyTreeExcluded : FamilyTreeIncluded;
  entry.mask.clear();
  bool isValid = entry.subtree.fromString(oid.c_str()) && entry.subtree.length() <= maxSubtree;
  if (isValid && slash != std::string::npos) {
    unsigned char mask[maxMask];
    int length = 0;
    isValid = convertHexMask(mask, &length, maxMask, text.c_str() + slash + 1);
    entry.mask.assign(mask, mask + length);
  }
  if (!isValid) VELA_LOG(Vela::LogError, "Faulty OID in view: '%s'", text.c_str());
  return isValid;
}

void ViewConfigurator::clear() {
  // The catalogue itself stays: it counts the generated names.
  for (const ViewOwner& owner : _owners) _views.deleteView(owner.first, owner.second);
  _owners.clear();
  _hasDefaultViews = false;
}

void ViewConfigurator::writeDefaultViews(SnmpMaSession& session) {
  const bool mayExist = _hasDefaultViews || _isUnknown;
  _hasDefaultViews = true;
  for (const SnmpProtocolVersion version : {SnmpProtocolV1, SnmpProtocolV2c, SnmpProtocolV3}) {
    for (const View* view :
         {_views.getReadView(View::defaultView, version), _views.getWriteView(View::defaultView, version)}) {
      if (mayExist) vacmDeleteView(session, *view);
      vacmCreateView(session, *view);
    }
  }
}

void ViewConfigurator::configureOwner(SnmpMaSession& session, const ViewOwner& owner, const ViewObjects& objects,
                                      bool force) {
  // An owner counts from the first request on to the last, so that a failure in between leaves no row unknown.
  if (!objects.empty()) _owners.insert(owner);
  for (const bool write : {true, false}) {
    if (objects.empty())
      removeView(session, _views.keyName(owner.first, owner.second, write));
    else
      replaceView(session, makeView(owner, objects, write), force);
  }
  if (objects.empty()) _owners.erase(owner);
}

AccessViews ViewConfigurator::getAccessViews(const ViewOwner& owner, bool isWritable) const {
  const auto& [name, version] = owner;
  AccessViews result;
  result.readView =
      _views.getReadView(_views.existsReadView(name, version) ? name : View::defaultView, version)->getViewName();
  if (_views.existsWriteView(name, version))
    result.writeView = _views.getWriteView(name, version)->getViewName();
  else if (isWritable)
    result.writeView = _views.getWriteView(View::defaultView, version)->getViewName();
  return result;
}

View ViewConfigurator::makeView(const ViewOwner& owner, const ViewObjects& objects, bool write) {
  const std::string key = _views.keyName(owner.first, owner.second, write);
  auto name = _generatedNames.find(key);
  if (name == _generatedNames.end())
    name = _generatedNames.emplace(key, _views.viewName(owner.first, owner.second, write)).first;
  std::vector<ViewEntry> entries;
  for (const SnmpBaseView* object : objects) {
    for (const std::string& text : write ? object->writeOids : object->readOids) {
      ViewEntry entry;
      if (parseEntry(text, entry)) entries.push_back(entry);
    }
  }
  View view(key, name->second, owner.second);
  view.setEntries(entries);
  return view;
}

void ViewConfigurator::replaceView(SnmpMaSession& session, const View& next, bool force) {
  const auto present = _views.getViews().find(next.getKeyName());
  const bool isPresent = present != _views.getViews().end();
  if (isPresent && !force && present->second->getEntries() == next.getEntries()) return;
  if (isPresent) removeView(session, next.getKeyName());
  if (_isUnknown) vacmDeleteView(session, next);
  _views.createView(next);
  vacmCreateView(session, next);
}

void ViewConfigurator::removeView(SnmpMaSession& session, const std::string& key) {
  const auto present = _views.getViews().find(key);
  if (present == _views.getViews().end()) return;
  vacmDeleteView(session, *present->second);
  _views.deleteView(key);
}

void ViewConfigurator::vacmCreateView(SnmpMaSession& session, const View& view) {
  sendRows(session, "vacmCreateView", view.getEntries(), [&](SnmpPdu& pdu, const ViewEntry& entry) {
    pdu.addVarbind(SnmpOid::createViewOid(viewMask, view.getViewName(), entry.subtree), entry.mask);
    pdu.addVarbind(SnmpOid::createViewOid(viewType, view.getViewName(), entry.subtree), entry.type);
    pdu.addVarbind(SnmpOid::createViewOid(viewStatus, view.getViewName(), entry.subtree), RowCreateAndGo);
  });
}

void ViewConfigurator::vacmDeleteView(SnmpMaSession& session, const View& view) {
  sendRows(session, "vacmDeleteView", view.getEntries(), [&](SnmpPdu& pdu, const ViewEntry& entry) {
    pdu.addVarbind(SnmpOid::createViewOid(viewStatus, view.getViewName(), entry.subtree), RowDestroy);
  });
}

}  // namespace VelaFmSnmp
