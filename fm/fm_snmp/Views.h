#ifndef VELA_FM_SNMP_VIEWS_H
#define VELA_FM_SNMP_VIEWS_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "SnmpOid.h"
#include "SnmpTypes.h"

namespace VelaFmSnmp {

/** Values of vacmViewTreeFamilyType (RFC 3415). */
enum FamilyTreeType { FamilyTreeIncluded = 1, FamilyTreeExcluded = 2 };

/** One subtree of a view. */
struct ViewEntry {
  SnmpOid subtree;
  std::string mask; /**< octets of vacmViewTreeFamilyMask; empty: exact match */
  FamilyTreeType type = FamilyTreeIncluded;

  bool operator==(const ViewEntry& other) const {
    return subtree == other.subtree && mask == other.mask && type == other.type;
  }
};

/** A VACM view: what a read or write access through it may reach. */
class View {
 public:
  /** Name of the built-in view. */
  static const std::string defaultView;

  View(std::string keyName, std::string viewName, SnmpProtocolVersion version);
  virtual ~View() = default;
  View(const View&) = default;
  View& operator=(const View&) = default;

  const std::string& getKeyName() const { return _keyName; }
  /** The name in the master agent, at most 32 octets. */
  const std::string& getViewName() const { return _viewName; }
  SnmpProtocolVersion getVersion() const { return _version; }
  const std::vector<ViewEntry>& getEntries() const { return _entries; }

  /** Appends an entry without a mask. */
  void addEntry(const SnmpOid& subtree, FamilyTreeType type);
  /** Appends the base entries, which exclude everything. */
  void initializeEntries();
  /**
   * Makes the entries the base entries and the configured ones. A view has one row per subtree: of two configured
   * entries of one subtree an excluding one counts, else the first; a base entry stands back where a configured entry
   * covers it.
   */
  void setEntries(const std::vector<ViewEntry>& configured);

 private:
  std::string _keyName;
  std::string _viewName;
  SnmpProtocolVersion _version;
  std::vector<ViewEntry> _entries;
};

/**
 * The catalogue of the VACM views in the master agent: a read and a write view per community or user and version.
 * The adaptor thread only.
 */
class Views {
 public:
  using Catalogue = std::map<std::string, std::unique_ptr<View>>;

  /** Starts with the default view of every version. */
  Views();

  /** Key of a view in the catalogue. */
  std::string keyName(const std::string& name, SnmpProtocolVersion version, bool write) const;
  /** Name of a view in the master agent; every call with a name of more than 22 characters makes a new one, which no
      view of the catalogue has. */
  std::string viewName(const std::string& name, SnmpProtocolVersion version, bool write);

  /** Creates the write and the read view of a name with the base entries; one that is there already stays as it is. */
  void createView(const std::string& name, SnmpProtocolVersion version);
  /** Inserts a copy under its key name; a view that is there already stays as it is. */
  void createView(const View& view);

  bool existsReadView(const std::string& name, SnmpProtocolVersion version) const;
  bool existsWriteView(const std::string& name, SnmpProtocolVersion version) const;
  /** Whether both views of the name exist. */
  bool existsView(const std::string& name, SnmpProtocolVersion version) const;

  /** The view, owned by the catalogue; null, with a log line, when there is none. */
  View* getReadView(const std::string& name, SnmpProtocolVersion version) const;
  View* getWriteView(const std::string& name, SnmpProtocolVersion version) const;
  View* getView(const std::string& key) const;

  /** Deletes the write and the read view of a name; a missing one is logged. */
  void deleteView(const std::string& name, SnmpProtocolVersion version);
  void deleteView(const std::string& key);

  const Catalogue& getViews() const { return _catalogue; }
  /** Deletes every view, the default ones too. */
  void clear();

 private:
  void insert(std::unique_ptr<View> view);

  std::uint32_t _counter = 0;
  Catalogue _catalogue;
  std::set<std::string> _takenNames; /**< the views' names in the master agent */
};

}  // namespace VelaFmSnmp
#endif
