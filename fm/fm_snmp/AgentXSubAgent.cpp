#include "AgentXSubAgent.h"

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/agent_trap.h>
#include <net-snmp/agent/ds_agent.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <string>

#include "AgentXTransport.h"
#include "LoggingWrapper.h"

// Exported by the agent library, but declared in none of its installed headers.
extern "C" {
extern netsnmp_session* main_session;
int subagent_open_master_session(void);
void agentx_unregister_callbacks(netsnmp_session* session);
int agentx_realloc_build(netsnmp_session* session, netsnmp_pdu* pdu, unsigned char** message, size_t* size,
                         size_t* length);
}

namespace VelaFmSnmp {

namespace {

constexpr const char* ApplicationName = "fm_snmp";
constexpr long MicrosecondsPerSecond = 1000000;
constexpr unsigned long long MicrosecondsPerMillisecond = 1000;
/** Seconds; the library's own default. */
constexpr int DefaultPingInterval = 15;
/** Seconds that the master agent shall wait for the sub-agent: one octet of the Open PDU (RFC 2741, 6.2.1). */
constexpr int MaxOpenTimeout = 255;
/** A hundred years: more is no different, and less than what the library can reckon with. */
constexpr long MaxAnswerTimeout = 100L * 365 * 24 * 3600 * MicrosecondsPerSecond;
/** RFC 2741, 6.1 and 6.2.16. */
constexpr unsigned char TypeNotify = 12;
constexpr unsigned char TypePing = 13;
constexpr int ErrorNotOpen = 257;

struct BooleanSetting {
  int store;
  int which;
};
constexpr BooleanSetting PresetBooleans[] = {
    {NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE},
    {NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_NO_ROOT_ACCESS},
    {NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS},
    {NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD},
    {NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE},
};

/** What the library has of the one sub-agent that a process can have. */
bool libraryInitialised = false;
bool logIsMuted = false;

int onLibraryLog(int, int, void* message, void*) {
  const auto* line = static_cast<const snmp_log_message*>(message);
  if (!line || !line->msg || logIsMuted || AgentXTransport::isInterrupted()) return 0;
  std::string text = line->msg;
  text.erase(text.find_last_not_of("\r\n") + 1);
  // The library's numbers of priority are the host's.
  VELA_LOG(std::max(line->priority, static_cast<int>(Vela::LogError)), "net-snmp: %s", text.c_str());
  return 0;
}

netsnmp_transport* transportOf(netsnmp_session& session) { return snmp_sess_transport(snmp_sess_pointer(&session)); }

/** Whether the other end is gone with something unread. The library loses memory when it reads such a connection. */
bool isReset(netsnmp_session& session) {
  const netsnmp_transport* transport = transportOf(session);
  if (!transport) return false;
  char octet;
  return ::recv(transport->sock, &octet, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == ECONNRESET;
}

/**
 * A stream loses nothing, so repeating a request there only multiplies it (a notification too). The time that the
 * repetitions would have taken is waited for the one answer instead.
 */
void endRepetitions(netsnmp_session& session) {
  const long attempts = session.retries + 1L;
  session.timeout = session.timeout > MaxAnswerTimeout / attempts ? MaxAnswerTimeout : session.timeout * attempts;
  session.retries = 0;
}

/**
 * Watches the registrations while it lives. The library waits for the answer to each and tells nobody when none came;
 * after the first that is missing, no other is waited for.
 */
class RegistrationWatch {
 public:
  RegistrationWatch() {
    _current = this;
    static const bool isHooked = snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_REGISTER_OID,
                                                        &RegistrationWatch::onRegistration, nullptr) == 0;
    static_cast<void>(isHooked);
  }
  ~RegistrationWatch() { _current = nullptr; }
  RegistrationWatch(const RegistrationWatch&) = delete;
  RegistrationWatch& operator=(const RegistrationWatch&) = delete;

  /** Whether everything was answered so far. */
  bool isAnswered() {
    if (!main_session) return false;
    const Clock::time_point now = Clock::now();
    if (now - _last >= std::chrono::microseconds(main_session->timeout)) _isAnswered = false;
    if (!_isAnswered) main_session->timeout = 1;
    _last = now;
    return _isAnswered;
  }

 private:
  using Clock = std::chrono::steady_clock;

  static int onRegistration(int, int, void*, void*) {
    if (_current) _current->isAnswered();
    return 0;
  }

  static inline RegistrationWatch* _current = nullptr;
  Clock::time_point _last = Clock::now();
  bool _isAnswered = true;
};

}  // namespace

AgentXSubAgent::~AgentXSubAgent() { AgentXSubAgent::close(); }

void AgentXSubAgent::presetLibrary() {
  for (const BooleanSetting& setting : PresetBooleans) netsnmp_ds_set_boolean(setting.store, setting.which, 1);
  netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIBDIRS, "");

  static const bool logIsRouted = [] {
    snmp_enable_calllog();
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, onLibraryLog, nullptr);
    return true;
  }();
  static_cast<void>(logIsRouted);
}

bool AgentXSubAgent::attach(const Settings& settings, const std::function<void()>& registerHandlers) {
  close();
  _isMute = false;
  // The library loses memory with each attempt that nobody answers, so it gets a connection that stands.
  if (!AgentXTransport::connect(settings.socket)) return false;
  _answers.clear();
  _pingInterval = settings.pingInterval > 0 ? settings.pingInterval : DefaultPingInterval;
  if (libraryInitialised) {
    applySettings(settings);
    if (!open()) return false;
  } else {
    if (!initLibrary(settings)) return false;
    if (main_session) adopt(*main_session);
    RegistrationWatch watch;
    registerHandlers();
    if (isAttached() && !watch.isAnswered()) giveUp();
  }
  if (!isAttached()) return false;
  if (AgentXTransport::isInterrupted()) {
    close();
    return false;
  }
  startPings();
  return true;
}

bool AgentXSubAgent::initLibrary(const Settings& settings) {
  VELA_LOG(Vela::LogInfo, "using agentx socket %s", settings.socket.c_str());
  if (init_agent(ApplicationName) != 0) {
    VELA_LOG(Vela::LogError, "init_agent failed");
    return false;
  }
  applySettings(settings);
  // The library looks for the modules of its own table of MIBs, of which it shall find none.
  logIsMuted = true;
  init_snmp(ApplicationName);
  logIsMuted = false;
  libraryInitialised = true;
  return true;
}

void AgentXSubAgent::applySettings(const Settings& settings) {
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, AgentXTransport::getAddress());
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
  // With an interval of its own the library would also open the connection again, behind the adaptor's back and with
  // alarms that never end; the pings are sent from here.
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, 0);
  // When the library itself sends a notification it looks its own address up, for a form that AgentX does not carry.
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_TRAP_ADDR, "127.0.0.1");
  if (settings.timeout > 0) {
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_TIMEOUT,
                       static_cast<int>(std::min(settings.timeout, MaxOpenTimeout) * MicrosecondsPerSecond));
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_TIMEOUT, settings.timeout);
  }
  if (settings.retries > 0) {
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_RETRIES, settings.retries);
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES, settings.retries);
  }
}

bool AgentXSubAgent::open() {
  if (subagent_open_master_session() != 0) return false;
  adopt(*main_session);
  RegistrationWatch watch;
  register_mib_reattach();
  if (watch.isAnswered()) return true;
  giveUp();
  return false;
}

void AgentXSubAgent::adopt(netsnmp_session& session) {
  endRepetitions(session);
  if (netsnmp_transport* transport = transportOf(session)) _stream.attach(*transport);
}

void AgentXSubAgent::startPings() {
  _pingAlarm = snmp_alarm_register(
      static_cast<unsigned int>(_pingInterval), SA_REPEAT,
      [](unsigned int, void* subAgent) { static_cast<AgentXSubAgent*>(subAgent)->sendPing(); }, this);
}

void AgentXSubAgent::sendPing() {
  // Answers that are due tell the same meanwhile.
  if (_stream.isAwaitingResponse()) return;
  const Sent sent = ping();
  if (sent.outcome != Outcome::Sent) return;
  _ping = sent.request;
  _pingSent = std::chrono::steady_clock::now();
}

void AgentXSubAgent::checkPing() {
  if (!_ping || !isAttached()) return;
  const auto waited = std::chrono::steady_clock::now() - _pingSent;
  // After a pause of the adaptor the answer may be there, and only not read yet.
  if (waited < std::chrono::microseconds(main_session->timeout) || hasUnread()) return;
  VELA_LOG(Vela::LogWarning, "The master agent does not answer AgentX pings");
  giveUp();
}

void AgentXSubAgent::giveUp() {
  close();
  _isMute = true;
}

void AgentXSubAgent::close() {
  if (_pingAlarm != 0) snmp_alarm_unregister(_pingAlarm);
  _pingAlarm = 0;
  _ping.reset();
  _stream.detach();
  netsnmp_session* session = main_session;
  if (!session) return;
  // The library's own way asks the master agent to unregister each region and waits for the answers, which a master
  // agent that is stopped does not give. A closed connection tells it the same.
  agentx_unregister_callbacks(session);
  remove_trap_session(session);
  register_mib_detach();
  main_session = nullptr;
  snmp_close(session);
}

unsigned long long AgentXSubAgent::getAnswerTimeout() const {
  return isAttached() ? static_cast<unsigned long long>(main_session->timeout) / MicrosecondsPerMillisecond : 0;
}

void AgentXSubAgent::interrupt() { AgentXTransport::interrupt(); }

void AgentXSubAgent::resume() { AgentXTransport::resume(); }

bool AgentXSubAgent::isAttached() const { return main_session != nullptr; }

void AgentXSubAgent::addDescriptors(int& count, netsnmp_large_fd_set& descriptors, timeval& timeout) {
  int block = 0;
  snmp_select_info2(&count, &descriptors, &timeout, &block);
}

void AgentXSubAgent::read(netsnmp_large_fd_set& ready) {
  if (isAttached() && isReset(*main_session)) close();
  snmp_read2(&ready);
  takeResponses();
}

void AgentXSubAgent::takeResponses() {
  bool isSessionOpen = true;
  for (const AgentXStream::Response& response : _stream.takeResponses()) {
    if (response.error == ErrorNotOpen) isSessionOpen = false;
    if (_ping == response.request)
      _ping.reset();
    else if (response.error != ErrorNotOpen)
      _answers.push_back({response.request, response.error});
  }
  if (isSessionOpen) return;
  // It has given this sub-agent up, but keeps the connection.
  VELA_LOG(Vela::LogWarning, "The master agent has closed the AgentX session");
  close();
}

void AgentXSubAgent::runTimers() {
  snmp_timeout();
  run_alarms();
  checkPing();
}

void AgentXSubAgent::checkOutstandingRequests() { netsnmp_check_outstanding_agent_requests(); }

AgentXSubAgent::Sent AgentXSubAgent::notify(const Varbinds& varbinds) {
  static const oid sysUpTime[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
  const long upTime = static_cast<long>(netsnmp_get_agent_uptime());
  netsnmp_variable_list first = {};
  snmp_set_var_objid(&first, sysUpTime, std::size(sysUpTime));
  snmp_set_var_typed_value(&first, ASN_TIMETICKS, &upTime, sizeof upTime);
  first.next_variable = varbinds.list();
  const Sent sent = send(TypeNotify, &first);
  snmp_free_var_internals(&first);
  return sent;
}

AgentXSubAgent::Sent AgentXSubAgent::ping() { return send(TypePing, nullptr); }

AgentXSubAgent::Sent AgentXSubAgent::send(unsigned char type, netsnmp_variable_list* varbinds) {
  if (!isAttached()) return {};
  netsnmp_pdu pdu = {};
  pdu.version = main_session->version;
  pdu.command = type;
  pdu.sessid = main_session->sessid;
  pdu.reqid = snmp_get_next_reqid();
  pdu.variables = varbinds;
  std::size_t length = 0;
  unsigned char* message = _message.release();
  const bool isBuilt = agentx_realloc_build(main_session, &pdu, &message, &_messageSize, &length) == 0;
  _message.reset(message);
  if (!isBuilt || length > AgentXStream::maxMessage) return {Outcome::TooLong, 0, length};
  const auto request = static_cast<Request>(pdu.reqid);
  if (!_stream.request(request, _message.get(), length)) return {};
  return {Outcome::Sent, request, length};
}

}  // namespace VelaFmSnmp
