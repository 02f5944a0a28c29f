#include "AgentXConnection.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <unordered_map>

#include "ResponseSize.h"

namespace SnmpdPlugin {

namespace {

/** Octets of a response that are aimed at: it varies, and must not get longer than AgentXStream::MaxMessage. */
constexpr double ResponseOctets = 48.0 * 1024;
constexpr double FirstGuess = 400;
constexpr std::size_t NoLimit = std::numeric_limits<int>::max();
constexpr std::chrono::seconds RefusalLasts{60};

using Connections = std::unordered_map<const netsnmp_transport*, std::unique_ptr<AgentXConnection>>;

Connections& connections() {
  // Never destroyed: snmpd closes its sessions while it exits.
  static auto* const all = new Connections;
  return *all;
}

std::unordered_map<const netsnmp_session*, AgentXConnection*>& bySession() {
  static auto* const all = new std::unordered_map<const netsnmp_session*, AgentXConnection*>;
  return *all;
}

/** Octets of a variable binding in an AgentX message (RFC 2741, 5.4), or a few more. */
std::size_t agentXSize(const netsnmp_variable_list& binding) {
  constexpr std::size_t Word = 4;
  const std::size_t name = Word + Word + Word * binding.name_length;
  if (binding.type == ASN_OBJECT_ID) return name + Word + binding.val_len / sizeof(oid) * Word;
  return name + Word + (binding.val_len + Word - 1) / Word * Word;
}

}  // namespace

void AgentXConnection::watch(netsnmp_session& session) {
  if (of(&session) != nullptr) return;
  netsnmp_transport* const transport = snmp_sess_transport(snmp_sess_pointer(&session));
  if (transport == nullptr) return;
  auto& connection = connections()[transport];
  connection = std::make_unique<AgentXConnection>(session, *transport);
  bySession()[&session] = connection.get();
  transport->f_recv = onReceive;
  transport->f_close = onClose;
}

AgentXConnection* AgentXConnection::of(const netsnmp_session* session) {
  const auto found = bySession().find(session);
  return found == bySession().end() ? nullptr : found->second;
}

AgentXConnection::AgentXConnection(const netsnmp_session& session, const netsnmp_transport& transport)
    : _session(&session),
      _receive(transport.f_recv),
      _close(transport.f_close),
      _agentXOctets(FirstGuess),
      _snmpOctets(FirstGuess),
      _most(NoLimit) {}

std::size_t AgentXConnection::bindingsPerResponse() const {
  return std::clamp<std::size_t>(static_cast<std::size_t>(ResponseOctets / _agentXOctets), 1, _most);
}

std::size_t AgentXConnection::bindingsWithin(std::size_t octets) const {
  return static_cast<std::size_t>(static_cast<double>(octets) / _snmpOctets);
}

void AgentXConnection::answered(const netsnmp_variable_list* bindings) {
  std::size_t count = 0;
  std::size_t agentX = 0;
  std::size_t snmp = 0;
  for (; bindings != nullptr; bindings = bindings->next_variable, ++count) {
    agentX += agentXSize(*bindings);
    snmp += encodedSize(*bindings);
  }
  if (count == 0) return;
  constexpr double Memory = 0.5;
  const auto blend = [count](double& average, std::size_t sum) {
    average = std::max(1.0, Memory * average + (1 - Memory) * static_cast<double>(sum) / static_cast<double>(count));
  };
  blend(_agentXOctets, agentX);
  blend(_snmpOctets, snmp);
  _most = std::min(NoLimit, 2 * _most);
}

void AgentXConnection::wasTooLong(std::size_t asked) { _most = std::max<std::size_t>(1, asked / 2); }

void AgentXConnection::refusedGetBulk() {
  if (takesGetBulk())
    snmp_log(LOG_WARNING, "vela_snmpd_plugin: a sub-agent does not answer GetBulk as it should, it is asked GetNext\n");
  _refusedUntil = Clock::now() + RefusalLasts;
}

int AgentXConnection::onReceive(netsnmp_transport* transport, void* buffer, int capacity, void** opaque,
                                int* opaqueLength) {
  constexpr int Reserve = AgentXStream::Reserve;
  AgentXConnection& self = *connections().at(transport);
  const int length = self._receive(transport, buffer, std::max(1, capacity - Reserve), opaque, opaqueLength);
  if (length <= 0) return length;
  const auto left = self._stream.filter(static_cast<char*>(buffer), static_cast<std::size_t>(length));
  if (left == 0) {
    // Without the flag, nothing to read would be taken for the end of the connection.
    transport->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT;
    SNMP_FREE(*opaque);
    *opaqueLength = 0;
  }
  return static_cast<int>(left);
}

int AgentXConnection::onClose(netsnmp_transport* transport) {
  const auto found = connections().find(transport);
  const std::unique_ptr<AgentXConnection> self = std::move(found->second);
  connections().erase(found);
  bySession().erase(self->_session);
  transport->f_recv = self->_receive;
  transport->f_close = self->_close;
  return self->_close(transport);
}

}  // namespace SnmpdPlugin
