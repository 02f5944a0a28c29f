// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "SnmpExchange.h"

#include <net-snmp/library/large_fd_set.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "NetSnmpLock.h"

namespace VelaFmSnmp {

namespace {

/** The nameless user, as whom engines are asked for their id. The library wants to find it among its users. */
void addNamelessUser() {
  char name[] = "";
  if (usm_get_user(nullptr, 0, name) != nullptr) return;
  usmUser* user = usm_create_user();
  if (user == nullptr) return;
  user->name = strdup(name);
  user->secName = strdup(name);
  usm_add_user(user);
}

/** The descriptor of a session, and the milliseconds until its request is due to be sent again or given up. */
std::pair<int, int> whatToWaitFor(void* session) {
  netsnmp_large_fd_set descriptors;
  netsnmp_large_fd_set_init(&descriptors, FD_SETSIZE);
  int count = 0;
  int isUnlimited = 1;
  timeval timeout = {};
  snmp_sess_select_info2_flags(session, &count, &descriptors, &timeout, &isUnlimited, NETSNMP_SELECT_NOALARMS);
  netsnmp_large_fd_set_cleanup(&descriptors);
  const netsnmp_transport* transport = snmp_sess_transport(session);
  return {transport == nullptr ? -1 : transport->sock,
          static_cast<int>(timeout.tv_sec * 1000 + timeout.tv_usec / 1000)};
}

}  // namespace

SnmpExchange::~SnmpExchange() {
  const NetSnmpLock lock;
  snmp_sess_close(_session);
}

snmp_session* SnmpExchange::getSession() const { return snmp_sess_session(_session); }

bool SnmpExchange::discoverEngine() {
  const NetSnmpLock lock;
  addNamelessUser();
  SnmpPdu probe(SNMP_MSG_GET);
  probe.get()->version = SNMP_VERSION_3;
  probe.get()->securityName = strdup("");
  probe.get()->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
  probe.get()->securityModel = SNMP_SEC_MODEL_USM;
  SnmpPdu response;
  // A report is what answers a probe; the library takes the engine id from it.
  perform(probe, response);
  netsnmp_session* session = getSession();
  return session->securityEngineIDLen > 0 && usm_create_user_from_session(session) == SNMPERR_SUCCESS;
}

int SnmpExchange::perform(SnmpPdu& request, SnmpPdu& response) {
  const NetSnmpLock lock;
  _status = STAT_ERROR;
  if (isInterrupted()) {
    getSession()->s_snmp_errno = SNMPERR_ABORT;
    return _status;
  }
  _isWaiting = true;
  snmp_pdu* pdu = request.release();
  const int sent = snmp_sess_async_send(_session, pdu, &SnmpExchange::onEvent, this);
  if (sent == 0) {
    snmp_free_pdu(pdu);
    _isWaiting = false;
  } else {
    _requestId = static_cast<int>(pdu->reqid);
  }
  while (_isWaiting) wait();
  response.set(_response.release());
  return _status;
}

void SnmpExchange::wait() {
  const auto [descriptor, timeout] = whatToWaitFor(_session);
  pollfd watched[] = {{descriptor, POLLIN, 0}, {_interrupt, POLLIN, 0}};
  {
    const NetSnmpUnlock unlock;
    // A millisecond more, because the library looks whether the time is past.
    if (::poll(watched, 2, timeout + 1) < 0 && errno != EINTR) watched[1].revents = POLLERR;
  }
  if (watched[1].revents != 0) {
    end(*getSession(), STAT_ERROR, SNMPERR_ABORT);
    return;
  }
  // What has arrived counts, however long this thread was kept from looking.
  watched[0].revents = 0;
  if (::poll(watched, 1, 0) > 0) {
    netsnmp_large_fd_set ready;
    netsnmp_large_fd_set_init(&ready, FD_SETSIZE);
    NETSNMP_LARGE_FD_ZERO(&ready);
    NETSNMP_LARGE_FD_SET(descriptor, &ready);
    snmp_sess_read2(_session, &ready);
    netsnmp_large_fd_set_cleanup(&ready);
  } else {
    snmp_sess_timeout(_session);
  }
}

bool SnmpExchange::isInterrupted() const {
  pollfd watched = {_interrupt, POLLIN, 0};
  return ::poll(&watched, 1, 0) > 0;
}

void SnmpExchange::end(snmp_session& session, int status, int error) {
  _isWaiting = false;
  _status = status;
  session.s_snmp_errno = error;
}

int SnmpExchange::onEvent(int operation, snmp_session* session, int requestId, snmp_pdu* pdu, void* exchange) {
  auto& self = *static_cast<SnmpExchange*>(exchange);
  switch (operation) {
    case NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE:
      return pdu == nullptr ? 1 : self.onMessage(*session, requestId, *pdu);
    case NETSNMP_CALLBACK_OP_TIMED_OUT:
      self.end(*session, STAT_TIMEOUT, SNMPERR_TIMEOUT);
      break;
    case NETSNMP_CALLBACK_OP_SEND_FAILED:
    case NETSNMP_CALLBACK_OP_SEC_ERROR:
      self.end(*session, STAT_ERROR, session->s_snmp_errno);
      break;
    default:
      break;
  }
  return 1;
}

/** Yields whether the library shall be done with the request. */
int SnmpExchange::onMessage(snmp_session& session, int requestId, snmp_pdu& pdu) {
  switch (pdu.command) {
    case SNMP_MSG_REPORT:
      end(session, STAT_ERROR, snmpv3_get_report_type(&pdu));
      // The library has taken the peer's time from the report and sends the request again.
      _isWaiting = session.s_snmp_errno == SNMPERR_NOT_IN_TIME_WINDOW;
      return 1;
    case SNMP_MSG_RESPONSE:
      if (requestId != _requestId) return 0;
      // The library frees its own.
      _response.set(snmp_clone_pdu(&pdu));
      end(session, STAT_SUCCESS, SNMPERR_SUCCESS);
      return 1;
    default:
      end(session, STAT_ERROR, SNMPERR_PROTOCOL);
      return 0;
  }
}

}  // namespace VelaFmSnmp
