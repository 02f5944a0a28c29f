#ifndef VELA_FM_SNMP_VIEW_CONFIGURATOR_H
#define VELA_FM_SNMP_VIEW_CONFIGURATOR_H

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ConfigurationPass.h"
#include "SnmpTypes.h"
#include "Views.h"

namespace VelaFmSnmp {

/** Names of the views that a community or user gets; an empty name means no access. */
struct AccessViews {
  std::string readView;
  std::string writeView;

  bool operator==(const AccessViews&) const = default;
};

/** The subtrees that a list of a view object gives. */
struct ViewSubtrees {
  std::vector<ViewEntry> entries;
  std::vector<SnmpOid> closed; /**< subtrees of which nothing is shown; an empty identifier: nothing at all */

  /** Takes in what a further list gives. */
  void append(const ViewSubtrees& other);
  /** The entries of a view: what is closed is excluded, and hidden from every included entry that reaches into it. */
  std::vector<ViewEntry> toEntries() const;
};

/**
 * The views in the master agent (vacmViewTreeFamilyTable, RFC 3415). A community or user has the entries of all view
 * objects that name it. A view that the agent refuses is logged with its objects; whoever needs it has no access until
 * a later pass has written it.
 *
 * No fault may show a manager more than was configured: an entry that cannot be read adds nothing, and an exclusion
 * that cannot be read hides all that it may have meant. Rows are written so that a view is never wider on the way.
 */
class ViewConfigurator {
 public:
  /** The owners that a view object serves, each once; none, with a log line, when its version is unknown. */
  static std::vector<ViewOwner> ownersOf(const SnmpBaseView& view);
  /** Reads an entry: a dotted OID, "!" in front to exclude, "/" and a mask behind; false if it is none. */
  static bool parseEntry(const std::string& text, ViewEntry& entry);
  /** Reads the entries of a list; each that cannot be read is logged with the view's name. */
  static ViewSubtrees parseEntries(const std::vector<std::string>& texts, const std::string& viewName);

  /** Forgets what was written, without a request. Generated view names stay. */
  void clear();

  /** Brings the views in line with the view objects: those of the owners that a change concerns, or all. Throws as
      SnmpMaSession::sendPdu; the next pass has to write anew then. */
  void reconfigureViews(const ConfigurationPass& pass, const SnmpConfig::ViewMap& views);

  /** An owner's own views, else the default ones, of which the one for writing only if asked for. Throws
      ConfigurationFault while the agent does not have one of them. */
  AccessViews getAccessViews(const ViewOwner& owner, bool isWritable) const;

 private:
  using Objects = std::vector<const SnmpBaseView*>;
  /** What a view object gives, read once per pass. */
  struct ParsedObject {
    ViewSubtrees read;
    ViewSubtrees write;
  };

  std::set<ViewOwner> findConcernedOwners(const ConfigurationPass& pass, const SnmpConfig::ViewMap& views);
  void writeDefaultViews(const ConfigurationPass& pass);
  void freeNames(const ConfigurationPass& pass, const std::map<ViewOwner, Objects>& objects,
                 std::set<ViewOwner>& concerned);
  void tryOwner(const ConfigurationPass& pass, const ViewOwner& owner, const Objects& objects);
  void configureOwner(const ConfigurationPass& pass, const ViewOwner& owner, const Objects& objects);
  void replaceView(const ConfigurationPass& pass, const View& next, bool isForced);
  void removeView(const ConfigurationPass& pass, const std::string& key);
  View makeView(const ViewOwner& owner, const Objects& objects, bool write);
  const std::string& nameOf(const ViewOwner& owner, bool write);
  const ParsedObject& parsed(const SnmpBaseView& object);
  void requireWritten(const ViewOwner& owner) const;

  static void vacmCreateView(SnmpMaSession& session, const View& view);
  static void vacmDeleteView(SnmpMaSession& session, const View& view);

  Views _views;
  SnmpConfig::ViewMap _objects;                /**< as of the last pass */
  std::set<ViewOwner> _owners;                 /**< whose views may stand in the master agent, the default views' not */
  std::set<ViewOwner> _faulty;                 /**< whose views the agent does not have as they should be */
  bool _hasDefaultViews = false;               /**< the default views may stand in the master agent */
  std::map<std::string, std::string> _names;   /**< view name by key, made once and kept */
  std::map<std::string, ViewOwner> _shortened; /**< owner by view name, of those names that are not the key */
  std::map<const SnmpBaseView*, ParsedObject> _parsed; /**< of this pass */
};

}  // namespace VelaFmSnmp
#endif
