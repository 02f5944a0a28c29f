#ifndef VELA_FM_SNMP_NOTIFICATION_QUEUE_H
#define VELA_FM_SNMP_NOTIFICATION_QUEUE_H

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "AgentXSubAgent.h"
#include "PipeMessage.h"
#include "TrapSender.h"

namespace VelaFmSnmp {

/**
 * All notifications that the master agent has not acknowledged, in the order in which they happened. Each is held while
 * the adaptor is not operational, then due, then on its way, and is deleted when the master agent has acknowledged it.
 *
 * Both ends of an AgentX connection block when neither reads, so only a bounded number is on its way at a time;
 * acknowledgements make room. What a master agent that went away had not acknowledged goes out again, in order, to the
 * next one, but for heartbeats. There each goes alone first, so that one that breaks connections is found out. The
 * adaptor thread only.
 */
class NotificationQueue {
 public:
  using Message = std::unique_ptr<Vela::PipeMessage>;

  /** PDUs that may be on their way; one message, of two PDUs at most, may exceed it by one. */
  static constexpr unsigned int window = 32;
  /** Octets that may be on their way; one message may exceed it. */
  static constexpr std::size_t maxOctetsOnWay = 65536;
  /** Milliseconds until a master agent that does not acknowledge counts as gone; more when it is given more for every
      answer. */
  static constexpr unsigned long long acknowledgementTimeout = 10000;
  /** A notification during which the connection ended, with no other on its way, is given up after so many times. */
  static constexpr unsigned int maxFailures = 3;

  /** The sub-agent outlives this object. */
  explicit NotificationQueue(AgentXSubAgent& subAgent) : _subAgent(subAgent) {}

  /** Appends a message that waits until it is released. */
  void hold(Message message) { _held.emplace_back(std::move(message)); }
  bool hasHeld() const { return !_held.empty(); }
  std::size_t heldCount() const { return _held.size(); }
  /** Makes at most so many of the held messages due, the oldest first. */
  void release(int count);
  void dropHeld();

  /** Sends the first held message as a probe of the way through the master agent, once everything older is on its way.
      It stays held. One that cannot be sent at all is dropped, and the next one tried. False when none was there. */
  bool sendProbe();
  /** Takes a datagram that the internal listener received. True when it is the first held message's, which is dropped
      then, or when none is held. */
  bool confirmProbe(const unsigned char* datagram, std::size_t length);

  /** Appends a message that is due, before the held ones. */
  void add(Message message) { _due.emplace_back(std::move(message)); }
  /** Takes the answers that arrived, and judges those that did not. May close the connection. */
  void collect();
  /** Collects, and sends what there is room for. May close the connection. */
  void pump();
  /** The connection is gone: what was on its way is due again. */
  void onConnectionLost();
  /** Drops what is due and what is on its way. */
  void dropDue();

  /** Messages that are due, on their way or held. */
  std::size_t size() const { return _held.size() + _due.size() + _onWay.size(); }

 private:
  struct Entry {
    explicit Entry(Message given) : message(std::move(given)) {}
    Message message;
    std::vector<AgentXSubAgent::Request> requests; /**< not answered yet */
    std::size_t octets = 0;                        /**< of these requests */
    unsigned long long number = 0;                 /**< in the order of sending */
    unsigned long long sentAt = 0;
    unsigned int failures = 0;
    bool isSuspect = false; /**< was on its way when a connection ended */
  };
  using Entries = std::list<Entry>;
  enum class Outcome { Sent, NothingToSend, Closed };
  /** The question whether the master agent is alive, when notifications are not acknowledged. */
  struct Ping {
    AgentXSubAgent::Request request = 0;
    unsigned long long number = 0; /**< in the order of sending; 0: none */
    unsigned long long sentAt = 0;
  };

  static TrapSender::Notifications build(const Vela::PipeMessage& message);
  Outcome send(Entry& entry);
  void noteSent(Entry& entry, const AgentXSubAgent::Sent& sent);
  void sendNext();
  bool isRoomFor(const Entry& entry) const;

  void takeAnswers();
  void take(const AgentXSubAgent::Answer& answer);
  /** Ends an entry's stay on the way. */
  void settle(Entry& entry);
  void judge();
  void askForLife(unsigned long long now);
  void loseConnection();

  bool isProbeOnWay() const { return !_held.empty() && !_held.front().requests.empty(); }
  /** The entry that has been on its way for longest; null: none. */
  Entry* findOldest();
  Entry* findOnlyOne();
  Entry* find(AgentXSubAgent::Request request);
  void erase(const Entry& entry);
  void giveUp(Entry& entry, const std::string& reason);

  AgentXSubAgent& _subAgent;
  Entries _held; /**< the first may be on its way as a probe */
  Entries _due;
  Entries _onWay; /**< in the order of sending */
  unsigned int _pdusOnWay = 0;
  std::size_t _octetsOnWay = 0;
  unsigned long long _lastNumber = 0;
  unsigned long long _lastAnswered = 0; /**< the highest number that was answered */
  unsigned long long _lastAnswerAt = 0;
  Ping _ping;
};

}  // namespace VelaFmSnmp
#endif
