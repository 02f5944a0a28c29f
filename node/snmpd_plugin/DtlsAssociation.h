#ifndef SNMPD_PLUGIN_DTLS_ASSOCIATION_H
#define SNMPD_PLUGIN_DTLS_ASSOCIATION_H

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DtlsSession.h"
#include "SocketWatch.h"
#include "Timer.h"
#include "UdpSocket.h"

namespace SnmpdPlugin {

/**
 * The way to one receiver with one certificate of the node's, for all who speak to it. A DTLS session is made when
 * there is something to send; what is sent meanwhile waits, also while the receiver is down: it is tried again until it
 * answers, or until the messages are too old.
 *
 * A receiver that was restarted does not know the session any more and drops what comes over it without a word. Since a
 * trap is not answered, nothing would tell. So a session counts for a short while only after the receiver was last
 * heard of; whatever is sent later goes over a new one.
 *
 * It outlives its users for a while: snmpd opens a transport anew for every notification within the second in which its
 * row was changed, and a handshake that is broken off leaves the receiver with half of it.
 */
class DtlsAssociation {
 public:
  /** Somebody who speaks to the receiver. */
  class User {
   public:
    virtual ~User() = default;
    virtual const PeerExpectation& expectation() const = 0;
    /** A message of the receiver, which may be for another user. */
    virtual void deliver(const std::string& message) = 0;
  };

  /** The one to this receiver with this certificate (of DtlsContext::get). */
  static std::shared_ptr<DtlsAssociation> to(const netsnmp_ep& receiver, const std::string& certificate);
  /** Ends all in good order, for ever. */
  static void closeAll();

  DtlsAssociation(const netsnmp_ep& receiver, const std::string& certificate);
  DtlsAssociation(const DtlsAssociation&) = delete;
  DtlsAssociation& operator=(const DtlsAssociation&) = delete;
  ~DtlsAssociation() = default;

  void attach(User& user);
  void detach(User& user);
  void send(std::string message);

 private:
  using Clock = std::chrono::steady_clock;
  struct Waiting {
    std::string message;
    Clock::time_point deadline;
  };
  using Registry = std::map<std::string, std::shared_ptr<DtlsAssociation>>;

  static Registry& registry();
  static std::string keyOf(const netsnmp_ep& receiver, const std::string& certificate);

  void dropExpired();
  void keep(std::string message);
  PeerExpectation expectation() const;
  bool isTrustKnown() const;
  /** Whether the session is established, and its receiver still trusted and probably there. */
  bool isUsable() const;
  void connect();
  void onReadable();
  void onTimer();
  /** Takes what has become of the session in an operation. */
  void check();
  void established();
  void lost(const std::string& fault);
  void report(const std::string& fault);

  const netsnmp_ep _endpoint;
  const netsnmp_sockaddr_storage _address;
  const std::string _certificate;
  std::vector<User*> _users;
  std::unique_ptr<UdpSocket> _socket;
  std::unique_ptr<SocketWatch> _watch;   /**< goes before the socket */
  std::unique_ptr<DtlsSession> _session; /**< null: none. Goes before the socket */
  std::unique_ptr<DtlsSession> _former;  /**< closed, and replaced by the one whose handshake is under way */
  bool _wasEstablished = false;
  bool _isClosed = false;
  const Clock::time_point _created = Clock::now();
  Clock::time_point _begin; /**< of the session's handshake */
  Clock::time_point _lastHeard;
  Clock::time_point _lastSent;
  Clock::time_point _lastDetached;
  unsigned _mapGeneration = 0; /**< of CertificateMap, when the session was established */
  std::deque<Waiting> _waiting;
  std::set<std::string> _reported; /**< faults since the receiver was last reached */
  Timer _timer;
};

}  // namespace SnmpdPlugin
#endif
