#ifndef SNMPD_PLUGIN_AGENTX_CONNECTION_H
#define SNMPD_PLUGIN_AGENTX_CONNECTION_H

#include <chrono>
#include <cstddef>

#include "AgentXStream.h"
#include "NetSnmp.h"

namespace SnmpdPlugin {

/** The connection to a sub-agent: how much it can be asked for at once, so that its responses can be read. */
class AgentXConnection {
 public:
  /** Takes what comes over a session's connection through a filter of responses that are too long. */
  static void watch(netsnmp_session& session);
  /** The one of a session that is being watched, as long as it is open; null otherwise. */
  static AgentXConnection* of(const netsnmp_session* session);

  AgentXConnection(const netsnmp_session& session, const netsnmp_transport& transport);
  AgentXConnection(const AgentXConnection&) = delete;
  AgentXConnection& operator=(const AgentXConnection&) = delete;
  ~AgentXConnection() = default;

  /** How many variable bindings a response can probably hold. */
  std::size_t bindingsPerResponse() const;
  /** How many variable bindings probably take so many octets in a message of SNMP. */
  std::size_t bindingsWithin(std::size_t octets) const;
  /** Takes the sizes of a response's bindings into account. */
  void answered(const netsnmp_variable_list* bindings);
  /** The response to a request for so many bindings was too long. */
  void wasTooLong(std::size_t asked);

  /** Whether it has not lately failed to answer an AgentX-GetBulk-PDU as it should. */
  bool takesGetBulk() const { return Clock::now() >= _refusedUntil; }
  void refusedGetBulk();

 private:
  using Clock = std::chrono::steady_clock;

  static int onReceive(netsnmp_transport* transport, void* buffer, int capacity, void** opaque, int* opaqueLength);
  static int onClose(netsnmp_transport* transport);

  const netsnmp_session* const _session;
  int (*const _receive)(netsnmp_transport*, void*, int, void**, int*);
  int (*const _close)(netsnmp_transport*);
  AgentXStream _stream;
  double _agentXOctets; /**< of a variable binding, as they were lately */
  double _snmpOctets;   /**< the same in a message of SNMP */
  std::size_t _most;    /**< bindings that can be asked for, as experience has it */
  Clock::time_point _refusedUntil;
};

}  // namespace SnmpdPlugin
#endif
