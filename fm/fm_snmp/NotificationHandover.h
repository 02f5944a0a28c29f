#ifndef VELA_FM_SNMP_NOTIFICATION_HANDOVER_H
#define VELA_FM_SNMP_NOTIFICATION_HANDOVER_H

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>

#include "AgentXSubAgent.h"
#include "PipeMessage.h"

namespace VelaFmSnmp {

/**
 * Hands notifications to the master agent and keeps each until the master agent has acknowledged it.
 *
 * Both ends of an AgentX connection block when neither reads, so only a bounded number of notifications is on its way
 * at a time; the rest waits in an ordered list, and acknowledgements make room. What a master agent that went away had
 * not acknowledged is sent again, in order, to the next one. The adaptor thread only.
 */
class NotificationHandover {
 public:
  /** PDUs that may be on their way; one message, of two PDUs at most, may exceed it by one. */
  static constexpr unsigned int window = 32;
  /** Milliseconds until a master agent that does not acknowledge counts as gone. */
  static constexpr unsigned long long acknowledgementTimeout = 10000;

  /** Sends a message's PDUs; not 0 when the message has no form on the wire (or only a part of it has). */
  using Sender = std::function<int(const Vela::PipeMessage&)>;

  /** The sub-agent outlives this object. */
  NotificationHandover(AgentXSubAgent& subAgent, Sender sender);

  /** Appends a message that is due. */
  void add(std::unique_ptr<Vela::PipeMessage> message);
  enum class Outcome {
    Sent,          /**< on its way */
    NothingToSend, /**< the message has no form on the wire */
    Failed         /**< there is no connection (any more) */
  };

  /** Sends a message at once that stays its owner's: it is not sent again after the connection is lost. */
  Outcome sendNow(const Vela::PipeMessage& message);

  /** Takes the acknowledgements that arrived; an overdue one closes the sub-agent's connection. */
  void collect();
  /** Collects, and sends what there is room for. A send that fails closes the sub-agent's connection. */
  void pump();
  /** The connection is gone: what was on its way is due again. */
  void onConnectionLost();
  /** Drops what is due, and what would become due again; yields how many these were. */
  std::size_t clear();

  /** Whether pump would send something. */
  bool isReadyToSend() const { return hasDue() && _inFlight < window; }
  bool isEmpty() const { return _messages.empty(); }
  /** Whether messages wait for room. */
  bool hasDue() const { return _sent < _messages.size(); }
  /** Messages not acknowledged yet. */
  std::size_t size() const { return _messages.size(); }

 private:
  struct Entry {
    std::unique_ptr<Vela::PipeMessage> owned; /**< null: somebody else keeps the message */
    unsigned int unacknowledged = 0;          /**< PDUs on their way */
    unsigned int failures = 0;                /**< attempts to send it that failed */
  };

  Outcome send(const Vela::PipeMessage& message, unsigned int& pdus);
  void sendNext();
  void noteSent(Entry& entry, unsigned int pdus);
  void loseConnection();

  AgentXSubAgent& _subAgent;
  Sender _sender;
  std::deque<Entry> _messages; /**< the first `_sent` are on their way, the rest is due */
  std::size_t _sent = 0;
  unsigned int _inFlight = 0;       /**< PDUs of the first `_sent` messages */
  unsigned long _acknowledged = 0;  /**< of the connection's count, what has been taken */
  unsigned long long _progress = 0; /**< when the oldest unacknowledged PDU became the oldest */
};

}  // namespace VelaFmSnmp
#endif
