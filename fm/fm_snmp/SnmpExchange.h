#ifndef VELA_FM_SNMP_SNMP_EXCHANGE_H
#define VELA_FM_SNMP_SNMP_EXCHANGE_H

#include "SnmpPdu.h"

struct snmp_session;

namespace VelaFmSnmp {

/**
 * A single session of net-snmp (snmp_sess_...) and the request on it. The library's own synchronous request keeps the
 * library busy until it is answered; this one gives NetSnmpLock up while it waits, and can be interrupted. One thread
 * at a time; the operations take the lock themselves.
 */
class SnmpExchange {
 public:
  /** Takes ownership of a session as snmp_sess_open returns it. `interrupt`: a descriptor that ends every wait when it
     is readable (no request succeeds then); -1: none. */
  SnmpExchange(void* session, int interrupt) : _session(session), _interrupt(interrupt) {}
  ~SnmpExchange();
  SnmpExchange(const SnmpExchange&) = delete;
  SnmpExchange& operator=(const SnmpExchange&) = delete;

  snmp_session* getSession() const;

  /** Finds out the engine id of the peer (RFC 3414, 4) and makes the session's user known for it. False when there is
     no answer. The first request of a session that was opened with SNMP_FLAGS_DONT_PROBE. */
  bool discoverEngine();
  /** Sends a request, which is emptied, and waits as the session's time-out and retries say. Yields STAT_SUCCESS,
      STAT_ERROR (for a report, too) or STAT_TIMEOUT; the session's error number says more. */
  int perform(SnmpPdu& request, SnmpPdu& response);

 private:
  static int onEvent(int operation, snmp_session* session, int requestId, snmp_pdu* pdu, void* exchange);
  int onMessage(snmp_session& session, int requestId, snmp_pdu& pdu);
  void end(snmp_session& session, int status, int error);
  /** Waits for the response, until it is to be sent for again, or for the interrupt. */
  void wait();
  bool isInterrupted() const;

  void* const _session;
  const int _interrupt;

  // The request under way, to which the library has a pointer until it is answered or the session closed.
  bool _isWaiting = false;
  int _status = 0;
  int _requestId = 0;
  SnmpPdu _response;
};

}  // namespace VelaFmSnmp
#endif
