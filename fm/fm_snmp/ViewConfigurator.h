#ifndef VELA_FM_SNMP_VIEW_CONFIGURATOR_H
#define VELA_FM_SNMP_VIEW_CONFIGURATOR_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "SnmpTypes.h"
#include "Views.h"

namespace VelaFmSnmp {

class SnmpMaSession;

/** Whom views serve: a community or a user, and the version. */
using ViewOwner = std::pair<std::string, SnmpProtocolVersion>;

/** Names of the views that a community or user gets; an empty name means no access. */
struct AccessViews {
  std::string readView;
  std::string writeView;

  bool operator==(const AccessViews&) const = default;
};

/**
 * The views in the master agent (vacmViewTreeFamilyTable, RFC 3415). A community or user has the entries of all view
 * objects that name it. Requests throw ConfigurationFault when the agent refuses them and as SnmpMaSession::sendPdu.
 */
class ViewConfigurator {
 public:
  using ViewObjects = std::vector<const SnmpBaseView*>;

  /** The owners that a view object serves, each once; none, with a log line, when its version is unknown. */
  static std::vector<ViewOwner> ownersOf(const SnmpBaseView& view);
  /** Whom a target's views belong to. */
  static ViewOwner ownerOf(const SnmpBaseTarget& target);
  /** Reads an entry: a dotted OID, "!" in front to exclude, "/" and a mask behind; false, with a log line, if it is
   * none. */
  static bool parseEntry(const std::string& text, ViewEntry& entry);

  /** Forgets what was written, without a request. Generated view names stay. */
  void clear();
  /** The owners whose views may stand in the master agent, the default view's not. */
  const std::set<ViewOwner>& getOwners() const { return _owners; }

  /** Whether rows that were not written from here may stand in the master agent; they are deleted before others. */
  void setUnknown(bool isUnknown) { _isUnknown = isUnknown; }
  /** Writes the default views. */
  void writeDefaultViews(SnmpMaSession& session);
  /** Makes an owner's views those of the view objects (none: removes them); `force`: though they stand there already.
   */
  void configureOwner(SnmpMaSession& session, const ViewOwner& owner, const ViewObjects& objects, bool force);

  /** An owner's own views, else the default ones, of which the one for writing only if asked for. */
  AccessViews getAccessViews(const ViewOwner& owner, bool isWritable) const;

 private:
  void replaceView(SnmpMaSession& session, const View& next, bool force);
  void removeView(SnmpMaSession& session, const std::string& key);
  View makeView(const ViewOwner& owner, const ViewObjects& objects, bool write);

  static void vacmCreateView(SnmpMaSession& session, const View& view);
  static void vacmDeleteView(SnmpMaSession& session, const View& view);

  Views _views;
  std::set<ViewOwner> _owners;
  bool _hasDefaultViews = false; /**< the default views may stand in the master agent */
  bool _isUnknown = false;
  std::map<std::string, std::string> _generatedNames; /**< view name by key, made once and kept */
};

}  // namespace VelaFmSnmp
#endif
