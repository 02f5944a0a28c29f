#include "RowTable.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "NodesUser.h"

namespace SnmpdPlugin {

namespace {

Oid suffixOf(const netsnmp_variable_list& binding, const Oid& prefix) {
  Oid name(binding.name, binding.name + binding.name_length);
  if (name.size() < prefix.size() || !std::equal(prefix.begin(), prefix.end(), name.begin())) return {};
  name.erase(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(prefix.size()));
  return name;
}

/** The cell's octets of a binding's value. */
std::string valueOf(const netsnmp_variable_list& binding) {
  if (binding.type == ASN_INTEGER) return integerCell(*binding.val.integer);
  return {reinterpret_cast<const char*>(binding.val.string), binding.val_len};
}

RowTable& tableOf(const netsnmp_mib_handler* handler) { return *static_cast<RowTable*>(handler->myvoid); }

netsnmp_handler_registration* makeRegistration(const std::string& name, const Oid& root, Netsnmp_Node_Handler* handler,
                                               int modes, RowTable* table) {
  auto* registration = netsnmp_create_handler_registration(name.c_str(), handler, root.data(), root.size(), modes);
  if (registration != nullptr) registration->handler->myvoid = table;
  return registration;
}

}  // namespace

std::string integerCell(long value) { return {reinterpret_cast<const char*>(&value), sizeof(value)}; }

long integerOf(const std::string& cell) {
  long value = 0;
  std::memcpy(&value, cell.data(), std::min(cell.size(), sizeof(value)));
  return value;
}

void RowTable::install() {
  const std::string name = _definition.name;
  auto* table = makeRegistration(name, _definition.entry, onRequest, HANDLER_CAN_RWRITE, this);
  if (table == nullptr || netsnmp_register_handler(table) != MIB_REGISTERED_OK)
    snmp_log(LOG_ERR, "vela_snmpd_plugin: cannot serve %s\n", _definition.name);
  registerScalar("Count", _definition.count, onCount);
  registerScalar("LastChanged", _definition.lastChanged, onLastChanged);
}

void RowTable::registerScalar(const char* suffix, const Oid& instance, Netsnmp_Node_Handler* handler) {
  const std::string name = _definition.name + std::string(suffix);
  auto* registration = makeRegistration(name, instance, handler, HANDLER_CAN_RONLY, this);
  if (registration == nullptr || netsnmp_register_read_only_instance(registration) != MIB_REGISTERED_OK)
    snmp_log(LOG_ERR, "vela_snmpd_plugin: cannot serve %s\n", name.c_str());
}

int RowTable::onCount(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                      netsnmp_request_info* requests) {
  const u_long count = tableOf(handler)._rows.size();
  return snmp_set_var_typed_value(requests->requestvb, ASN_GAUGE, &count, sizeof(count));
}

int RowTable::onLastChanged(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                            netsnmp_request_info* requests) {
  const u_long ticks = tableOf(handler)._lastChange;
  return snmp_set_var_typed_value(requests->requestvb, ASN_TIMETICKS, &ticks, sizeof(ticks));
}

int RowTable::onRequest(netsnmp_mib_handler* handler, netsnmp_handler_registration*, netsnmp_agent_request_info* info,
                        netsnmp_request_info* requests) {
  RowTable& self = tableOf(handler);
  switch (info->mode) {
    case MODE_GET:
    case MODE_GETNEXT:
      for (auto* request = requests; request != nullptr; request = request->next)
        if (request->processed == 0) self.read(*request->requestvb, info->mode == MODE_GETNEXT);
      break;
    case MODE_SET_RESERVE1:
      if (!isNodesUser(*info->asp->pdu)) return netsnmp_request_set_error(requests, SNMP_ERR_NOACCESS);
      for (auto* request = requests; request != nullptr; request = request->next) {
        const int error = self.checkBinding(*request->requestvb);
        if (error != SNMP_ERR_NOERROR) return netsnmp_request_set_error(request, error);
      }
      break;
    case MODE_SET_ACTION: {
      const auto [request, error] = self.plan(requests);
      if (request != nullptr) return netsnmp_request_set_error(request, error);
      break;
    }
    case MODE_SET_COMMIT:
      self.apply();
      break;
    case MODE_SET_UNDO:
    case MODE_SET_FREE:
      self._planned.clear();
      break;
    default:
      break;
  }
  return SNMP_ERR_NOERROR;
}

// --- Reading

std::optional<std::string> RowTable::cell(oid column, const Row& row) const {
  if (column == _definition.statusColumn) return integerCell(static_cast<long>(row.status));
  const auto found = row.cells.find(column);
  return found == row.cells.end() ? std::nullopt : std::optional(found->second);
}

void RowTable::answer(netsnmp_variable_list& binding, oid column, const Oid& index, const Row& row) const {
  Oid name = _definition.entry;
  name.push_back(column);
  name.insert(name.end(), index.begin(), index.end());
  const auto value = cell(column, row);
  snmp_set_var_objid(&binding, name.data(), name.size());
  snmp_set_var_typed_value(&binding, _definition.columns.at(column).type, value->data(), value->size());
}

void RowTable::read(netsnmp_variable_list& binding, bool next) const {
  const Oid asked = suffixOf(binding, _definition.entry);
  const oid column = asked.empty() ? 0 : asked.front();
  const Oid index(asked.empty() ? asked.begin() : asked.begin() + 1, asked.end());
  if (!next) {
    const auto row = _rows.find(index);
    const bool isThere =
        _definition.columns.count(column) != 0 && row != _rows.end() && cell(column, row->second).has_value();
    if (isThere)
      answer(binding, column, index, row->second);
    else
      snmp_set_var_typed_value(&binding, SNMP_NOSUCHINSTANCE, nullptr, 0);
    return;
  }
  // A name before the table, which has no suffix here, begins with the first column.
  for (auto known = _definition.columns.lower_bound(column); known != _definition.columns.end(); ++known) {
    auto row = known->first == column ? _rows.upper_bound(index) : _rows.begin();
    if (known->first == column && asked.size() == 1) row = _rows.begin();
    for (; row != _rows.end(); ++row) {
      if (!cell(known->first, row->second)) continue;
      answer(binding, known->first, row->first, row->second);
      return;
    }
  }
}

// --- Setting

int RowTable::checkBinding(const netsnmp_variable_list& binding) const {
  const Oid asked = suffixOf(binding, _definition.entry);
  const auto column = _definition.columns.find(asked.empty() ? 0 : asked.front());
  if (column == _definition.columns.end()) return SNMP_ERR_NOTWRITABLE;
  if (!_definition.isIndex({asked.begin() + 1, asked.end()})) return SNMP_ERR_NOCREATION;
  if (binding.type != column->second.type) return SNMP_ERR_WRONGTYPE;
  return column->second.check(valueOf(binding));
}

std::pair<netsnmp_request_info*, int> RowTable::plan(netsnmp_request_info* requests) {
  _planned.clear();
  std::map<Oid, std::pair<netsnmp_request_info*, Cells>> wanted;
  for (auto* request = requests; request != nullptr; request = request->next) {
    const Oid asked = suffixOf(*request->requestvb, _definition.entry);
    auto& row = wanted.try_emplace({asked.begin() + 1, asked.end()}, request, Cells()).first->second;
    row.second[asked.front()] = valueOf(*request->requestvb);
  }
  for (const auto& [index, row] : wanted) {
    const int error = planRow(index, row.second);
    if (error != SNMP_ERR_NOERROR) return {row.first, error};
  }
  return {nullptr, SNMP_ERR_NOERROR};
}

int RowTable::planRow(const Oid& index, const Cells& wanted) {
  const auto present = _rows.find(index);
  const bool exists = present != _rows.end();
  const auto statusCell = wanted.find(_definition.statusColumn);
  const long status = statusCell == wanted.end() ? 0 : integerOf(statusCell->second);
  if (status == SNMP_ROW_DESTROY) {
    if (exists) _planned[index] = std::nullopt;
    return SNMP_ERR_NOERROR;
  }
  const bool creates = status == SNMP_ROW_CREATEANDGO || status == SNMP_ROW_CREATEANDWAIT;
  if (creates == exists) return creates ? SNMP_ERR_INCONSISTENTVALUE : SNMP_ERR_INCONSISTENTNAME;

  Row row = exists ? present->second : Row();
  if (!exists)
    for (const auto& [number, column] : _definition.columns)
      if (column.initial) row.cells[number] = *column.initial;
  for (const auto& [number, value] : wanted)
    if (number != _definition.statusColumn) row.cells[number] = value;
  const bool isComplete = row.cells.size() + 1 == _definition.columns.size();
  const bool isWantedActive =
      status == SNMP_ROW_CREATEANDGO || status == SNMP_ROW_ACTIVE || (status == 0 && row.status == Status::Active);
  if (isWantedActive) {
    if (!isComplete) return SNMP_ERR_INCONSISTENTVALUE;
    const int error = _definition.check(index, row.cells);
    if (error != SNMP_ERR_NOERROR) return error;
    row.status = Status::Active;
  } else {
    if (status == SNMP_ROW_NOTINSERVICE && !isComplete) return SNMP_ERR_INCONSISTENTVALUE;
    row.status = isComplete ? Status::NotInService : Status::NotReady;
  }
  _planned[index] = std::move(row);
  return SNMP_ERR_NOERROR;
}

void RowTable::apply() {
  for (auto& [index, row] : _planned) {
    const auto present = _rows.find(index);
    if (present != _rows.end() && present->second.status == Status::Active) _definition.deactivate(index);
    if (!row) {
      _rows.erase(index);
      continue;
    }
    if (row->status == Status::Active) _definition.activate(index, row->cells);
    _rows[index] = std::move(*row);
  }
  if (!_planned.empty()) _lastChange = netsnmp_get_agent_uptime();
  _planned.clear();
}

}  // namespace SnmpdPlugin
