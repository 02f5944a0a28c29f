#ifndef SNMPD_PLUGIN_ROW_TABLE_H
#define SNMPD_PLUGIN_ROW_TABLE_H

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "NetSnmp.h"

namespace SnmpdPlugin {

using Oid = std::vector<oid>;

/** The cells of a row by column number: the octets of a value, as it stands in a variable binding of the library. */
using Cells = std::map<oid, std::string>;

/** A column that managers read and set. */
struct Column {
  u_char type;
  std::optional<std::string> initial; /**< a row without a value for it is not ready for use */
  /** An SNMP error for a value that the column cannot have; SNMP_ERR_NOERROR for any other. */
  int (*check)(const std::string& value);
};

/** An integer as the octets of a cell. */
std::string integerCell(long value);
long integerOf(const std::string& cell);

/**
 * A table of the agent whose rows managers make and remove by its column of type RowStatus (RFC 2579), together with
 * the scalars that count its rows and tell their last change. The rows last as long as the agent runs. A request that
 * cannot be granted as a whole changes nothing. Whoever has it in his views reads it; only the node's own user writes,
 * whatever the views say, since they may hold all of MIB-2.
 *
 * On snmpd's thread; lives as long as the agent.
 */
class RowTable {
 public:
  struct Definition {
    const char* name;
    Oid count;       /**< the scalar that counts rows, with its instance */
    Oid lastChanged; /**< the scalar with the time of the last change, with its instance */
    Oid entry;       /**< of the table; columns are below */
    std::map<oid, Column> columns;
    oid statusColumn;
    bool (*isIndex)(const Oid& index);
    /** Whether a complete row can be put to use; an SNMP error if not. May log why. */
    std::function<int(const Oid& index, const Cells& cells)> check;
    /** Puts a row to use, and takes it out of use. */
    std::function<void(const Oid& index, const Cells& cells)> activate;
    std::function<void(const Oid& index)> deactivate;
  };

  explicit RowTable(Definition definition) : _definition(std::move(definition)) {}
  RowTable(const RowTable&) = delete;
  RowTable& operator=(const RowTable&) = delete;

  void install();

 private:
  /** The states of a row that lasts (RFC 2579, RowStatus). */
  enum class Status { Active = 1, NotInService = 2, NotReady = 3 };
  struct Row {
    Cells cells;
    Status status = Status::NotReady;
  };
  /** What a request makes of a row: nothing when it removes it. */
  using Changes = std::map<Oid, std::optional<Row>>;

  static int onRequest(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info* info,
                       netsnmp_request_info* requests);
  static int onCount(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                     netsnmp_request_info* requests);
  static int onLastChanged(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                           netsnmp_request_info* requests);

  void registerScalar(const char* suffix, const Oid& instance, Netsnmp_Node_Handler* handler);
  void read(netsnmp_variable_list& binding, bool next) const;
  void answer(netsnmp_variable_list& binding, oid column, const Oid& index, const Row& row) const;
  std::optional<std::string> cell(oid column, const Row& row) const;
  int checkBinding(const netsnmp_variable_list& binding) const;
  /** Finds what the bindings make of the rows; yields the first that cannot be granted and its error. */
  std::pair<netsnmp_request_info*, int> plan(netsnmp_request_info* requests);
  int planRow(const Oid& index, const Cells& wanted);
  void apply();

  const Definition _definition;
  std::map<Oid, Row> _rows;
  Changes _planned; /**< by the request that is being served */
  u_long _lastChange = 0;
};

}  // namespace SnmpdPlugin
#endif
