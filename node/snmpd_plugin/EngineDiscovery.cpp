#include "EngineDiscovery.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>
// Not among the agent's usual headers.
#include <net-snmp/agent/agent_callbacks.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace SnmpdPlugin {

namespace {

constexpr unsigned TickSeconds = 1;
// Between two probes of a receiver that does not answer; the library repeats the first of them itself.
constexpr long ProbeTimeoutSeconds = 2;
// Per receiver; the oldest is dropped for a further one.
constexpr size_t MaxWaiting = 1000;

/** The nameless user, as whom probes are sent. The library wants to find it in its table. */
void addNamelessUser() {
  char name[] = "";
  if (usm_get_user(nullptr, 0, name) != nullptr) return;
  usmUser* user = usm_create_user();
  if (user == nullptr) return;
  user->name = strdup(name);
  user->secName = strdup(name);
  usm_add_user(user);
}

std::chrono::microseconds lifetime(const netsnmp_session* session) {
  return std::chrono::microseconds(session->timeout) * (session->retries + 1);
}

long failures(const netsnmp_session* session) {
  const netsnmp_trap_stats* stats = session->trap_stats;
  return stats == nullptr ? 0 : static_cast<long>(stats->timeouts + stats->sec_err_count);
}

std::string peerText(void* handle) {
  netsnmp_transport* transport = snmp_sess_transport(handle);
  if (transport == nullptr || transport->f_fmtaddr == nullptr) return "?";
  const std::unique_ptr<char, decltype(&std::free)> text(transport->f_fmtaddr(transport, nullptr, 0), &std::free);
  return text ? text.get() : "?";
}

bool hasEngineId(const netsnmp_session* session, const netsnmp_pdu* report) {
  return session->securityEngineIDLen == report->securityEngineIDLen &&
         std::memcmp(session->securityEngineID, report->securityEngineID, report->securityEngineIDLen) == 0;
}

void replaceOctets(u_char*& target, size_t& targetLength, const u_char* source, size_t length) {
  auto* copy = static_cast<u_char*>(netsnmp_memdup(source, length));
  if (copy == nullptr) return;
  std::free(target);
  target = copy;
  targetLength = length;
}

/**
 * Over (D)TLS the message carries no security engine id (RFC 5591, 4.2), and the context of a notification is its
 * sender's (RFC 3413, 3.2), so there is nothing to ask the receiver for.
 */
int useOwnEngine(session_list* handle, netsnmp_session*) {
  netsnmp_session* session = snmp_sess_session(handle);
  u_char id[MAX_ENGINEID_LENGTH];
  const size_t length = snmpv3_get_engineID(id, sizeof(id));
  replaceOctets(session->securityEngineID, session->securityEngineIDLen, id, length);
  replaceOctets(session->contextEngineID, session->contextEngineIDLen, id, length);
  return length == 0 ? SNMPERR_GENERR : SNMPERR_SUCCESS;
}

}  // namespace

std::string EngineDiscovery::Receiver::identity(const netsnmp_session* session) const {
  const netsnmp_transport* transport = snmp_sess_transport(handle);
  if (transport == nullptr || transport->remote == nullptr || session->securityName == nullptr) return {};
  std::string text(static_cast<const char*>(transport->remote), transport->remote_length);
  return text.append(session->securityName);
}

EngineDiscovery& EngineDiscovery::instance() {
  // Never destroyed: snmpd closes its sessions while it exits.
  static auto* const discovery = new EngineDiscovery;
  return *discovery;
}

void EngineDiscovery::install() {
  snmp_secmod_def* usm = find_sec_mod(SNMP_SEC_MODEL_USM);
  if (usm == nullptr) {
    snmp_log(LOG_ERR, "vela_snmpd_plugin: there is no user-based security module\n");
    return;
  }
  EngineDiscovery& discovery = instance();
  discovery._nextSessionClose = usm->session_close;
  usm->session_close = onSessionClose;
  usm->probe_engineid = onProbeWanted;
  netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, onNotificationBegin, nullptr,
                            NETSNMP_CALLBACK_HIGHEST_PRIORITY);
  netsnmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, onNotificationEnd, nullptr,
                            NETSNMP_CALLBACK_LOWEST_PRIORITY);
  snmp_alarm_register(TickSeconds, SA_REPEAT, onTick, nullptr);
  if (snmp_secmod_def* tsm = find_sec_mod(SNMP_SEC_MODEL_TSM)) tsm->probe_engineid = useOwnEngine;
}

int EngineDiscovery::onProbeWanted(session_list* handle, netsnmp_session*) { return instance().findEngine(handle); }

int EngineDiscovery::onSessionClose(netsnmp_session* session) {
  instance().sessionClosed(session);
  SecmodSessionCallback* next = instance()._nextSessionClose;
  return next == nullptr ? SNMPERR_SUCCESS : next(session);
}

int EngineDiscovery::onNotificationBegin(int, int, void* pdu, void*) {
  instance()._notification = static_cast<netsnmp_pdu*>(pdu);
  return SNMPERR_SUCCESS;
}

int EngineDiscovery::onNotificationEnd(int, int, void*, void*) {
  instance()._notification = nullptr;
  instance().unmuteLog();
  return SNMPERR_SUCCESS;
}

void EngineDiscovery::onTick(unsigned, void*) { instance().tick(); }

int EngineDiscovery::findEngine(void* handle) {
  netsnmp_session* session = snmp_sess_session(handle);
  if (session->securityEngineIDLen != 0) return SNMPERR_SUCCESS;
  Receiver& receiver = _receivers[session];
  receiver.handle = handle;
  if (const auto orphans = _orphans.find(receiver.identity(session)); orphans != _orphans.end()) {
    receiver.waiting = std::move(orphans->second);
    _orphans.erase(orphans);
  }
  if (!receiver.isProbing) sendProbe(session, receiver);
  // A session that is only being opened is not in the library's list yet. It can be had without an engine id.
  const bool isOpening = snmp_sess_pointer(session) == nullptr;
  if (isOpening) return SNMPERR_SUCCESS;
  keepCurrentInform(session, receiver);
  session->s_snmp_errno = SNMPERR_UNKNOWN_ENG_ID;
  return SNMPERR_GENERR;
}

void EngineDiscovery::sendProbe(netsnmp_session* session, Receiver& receiver) {
  addNamelessUser();
  PduPtr probe(snmp_pdu_create(SNMP_MSG_GET));
  if (!probe) return;
  probe->version = SNMP_VERSION_3;
  probe->securityName = strdup("");
  probe->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
  probe->securityModel = SNMP_SEC_MODEL_USM;
  probe->flags |= UCD_MSG_FLAG_PDU_TIMEOUT;
  probe->time = ProbeTimeoutSeconds;
  receiver.isProbing = true;
  // Or sending the probe would ask for a probe.
  session->flags |= SNMP_FLAGS_DONT_PROBE;
  const int requestId = snmp_sess_async_send(receiver.handle, probe.get(), onProbeResult, nullptr);
  session->flags &= ~static_cast<u_long>(SNMP_FLAGS_DONT_PROBE);
  if (requestId != 0) {
    static_cast<void>(probe.release());
    return;
  }
  receiver.isProbing = false;
  reportSilence(receiver);
}

void EngineDiscovery::keepCurrentInform(const netsnmp_session* session, Receiver& receiver) {
  if (_notification == nullptr || _notification->command != SNMP_MSG_INFORM) return;
  // snmpd logs every inform that does not leave at once, which would fill the log while a receiver is down.
  muteLog();
  PduPtr copy(snmp_clone_pdu(_notification));
  if (!copy) return;
  if (receiver.waiting.size() >= MaxWaiting) receiver.waiting.pop_front();
  receiver.waiting.push_back({std::move(copy), Clock::now() + lifetime(session)});
}

int EngineDiscovery::onProbeResult(int operation, netsnmp_session* session, int, netsnmp_pdu* pdu, void*) {
  constexpr int Done = 1;
  EngineDiscovery& discovery = instance();
  const auto found = discovery._receivers.find(session);
  if (found == discovery._receivers.end()) return Done;
  Receiver& receiver = found->second;
  switch (operation) {
    case NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE:
      discovery.engineFound(session, receiver, pdu);
      break;
    case NETSNMP_CALLBACK_OP_TIMED_OUT:
    case NETSNMP_CALLBACK_OP_SEND_FAILED:
      receiver.isProbing = false;
      reportSilence(receiver);
      break;
    case NETSNMP_CALLBACK_OP_RESEND:
      reportSilence(receiver);
      break;
    default:
      break;
  }
  return Done;
}

void EngineDiscovery::engineFound(netsnmp_session* session, Receiver& receiver, const netsnmp_pdu* report) {
  receiver.isProbing = false;
  receiver.isSuspect = false;
  if (report->securityEngineIDLen == 0) return;
  if (receiver.isSilent)
    snmp_log(LOG_NOTICE, "vela_snmpd_plugin: inform receiver %s answers\n", peerText(receiver.handle).c_str());
  receiver.isSilent = false;
  if (!hasEngineId(session, report)) {
    replaceOctets(session->securityEngineID, session->securityEngineIDLen, report->securityEngineID,
                  report->securityEngineIDLen);
    replaceOctets(session->contextEngineID, session->contextEngineIDLen, report->securityEngineID,
                  report->securityEngineIDLen);
    session->flags &= ~static_cast<u_long>(SNMP_FLAGS_USER_CREATED);
  }
  // The session's keys, localised to the engine that was found (RFC 3414, 2.6).
  if (usm_create_user_from_session(session) != SNMPERR_SUCCESS)
    snmp_log(LOG_ERR, "vela_snmpd_plugin: no keys for inform receiver %s\n", peerText(receiver.handle).c_str());
  sendWaiting(session, receiver);
}

void EngineDiscovery::reportSilence(Receiver& receiver) {
  if (std::exchange(receiver.isSilent, true)) return;
  snmp_log(LOG_WARNING, "vela_snmpd_plugin: inform receiver %s does not answer\n", peerText(receiver.handle).c_str());
}

void EngineDiscovery::sendWaiting(netsnmp_session* session, Receiver& receiver) {
  const auto now = Clock::now();
  for (const WaitingInform& inform : std::exchange(receiver.waiting, {}))
    if (inform.deadline >= now) send_trap_to_sess(session, inform.pdu.get());
}

void EngineDiscovery::sessionClosed(netsnmp_session* session) {
  const auto found = _receivers.find(session);
  if (found == _receivers.end()) return;
  // snmpd opens a session anew when its row was changed within the same second; what waits goes over to the new one.
  const std::string identity = found->second.identity(session);
  if (!identity.empty() && !found->second.waiting.empty()) _orphans[identity] = std::move(found->second.waiting);
  _receivers.erase(found);
}

void EngineDiscovery::tick() {
  const auto now = Clock::now();
  const auto dropExpired = [now](std::deque<WaitingInform>& waiting) {
    while (!waiting.empty() && waiting.front().deadline < now) waiting.pop_front();
  };
  for (auto& [session, receiver] : _receivers) {
    dropExpired(receiver.waiting);
    const long seen = std::exchange(receiver.failuresSeen, failures(session));
    receiver.isSuspect = receiver.isSuspect || receiver.failuresSeen > seen;
    if (!receiver.isProbing && (receiver.isSuspect || session->securityEngineIDLen == 0)) sendProbe(session, receiver);
  }
  for (auto& orphans : _orphans) dropExpired(orphans.second);
  std::erase_if(_orphans, [](const auto& orphans) { return orphans.second.empty(); });
}

void EngineDiscovery::muteLog() {
  // Without any enabled handler the library would fall back to standard error.
  if (_nullHandler == nullptr) _nullHandler = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_EMERG);
  for (netsnmp_log_handler* handler = get_logh_head(); handler != nullptr; handler = handler->next) {
    if (handler->enabled == 0 || handler == _nullHandler) continue;
    netsnmp_disable_this_loghandler(handler);
    _mutedHandlers.push_back(handler);
  }
}

void EngineDiscovery::unmuteLog() {
  for (netsnmp_log_handler* handler : std::exchange(_mutedHandlers, {})) netsnmp_enable_this_loghandler(handler);
}

}  // namespace SnmpdPlugin
