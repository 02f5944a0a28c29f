#include "AgentXSubAgent.h"

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/agent_trap.h>
#include <net-snmp/agent/ds_agent.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>

#include "LoggingWrapper.h"

// Exported by the agent library, but declared in none of its installed headers.
extern "C" {
extern netsnmp_session* main_session;
int subagent_open_master_session(void);
void agentx_unregister_callbacks(netsnmp_session* session);
int agentx_send_ping(netsnmp_session* session);
}

namespace VelaFmSnmp {

namespace {

constexpr const char* ApplicationName = "fm_snmp";
constexpr long MicrosecondsPerSecond = 1000000;
/** Seconds; the library's own default. */
constexpr int DefaultPingInterval = 15;
/** Longer than any acknowledgement is waited for, so that the library does not forget a request before. */
constexpr long NotificationTimeout = 60 * MicrosecondsPerSecond;

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
AgentXSubAgent::NotificationCounts countsOfEndedConnection;

AgentXSubAgent::NotificationCounts countsOf(const netsnmp_session& session) {
  if (!session.trap_stats) return {};
  return {session.trap_stats->sent_count, session.trap_stats->ack_count, session.trap_stats->sent_fail_count};
}

int onLibraryLog(int, int, void* message, void*) {
  const auto* line = static_cast<const snmp_log_message*>(message);
  if (!line || !line->msg || logIsMuted) return 0;
  std::string text = line->msg;
  text.erase(text.find_last_not_of("\r\n") + 1);
  // The library's numbers of priority are the host's.
  VELA_LOG(std::max(line->priority, static_cast<int>(Vela::LogError)), "net-snmp: %s", text.c_str());
  return 0;
}

int onConnectionClosed(int, int, void* session, void*) {
  if (session) countsOfEndedConnection = countsOf(*static_cast<const netsnmp_session*>(session));
  return 0;
}

/** Whether the other end is gone with something unread. The library loses memory when it reads such a connection. */
bool isReset(netsnmp_session& session) {
  const netsnmp_transport* transport = snmp_sess_transport(snmp_sess_pointer(&session));
  if (!transport) return false;
  char octet;
  return ::recv(transport->sock, &octet, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == ECONNRESET;
}

/** Whether somebody listens at a path. The library loses memory with each attempt that nobody answers. */
bool isListenedAt(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    VELA_LOG(Vela::LogError, "agentx socket path is too long: %s", path.c_str());
    return false;
  }
  path.copy(address.sun_path, path.size());
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return false;
  const bool isListening = ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(descriptor);
  return isListening;
}

/**
 * A stream loses nothing, so repeating a request there only multiplies it (a notification too). The time that the
 * repetitions would have taken is waited for the one answer instead.
 */
void endRepetitions(netsnmp_session& session) {
  session.timeout *= session.retries + 1;
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
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, onConnectionClosed, nullptr);
    return true;
  }();
  static_cast<void>(logIsRouted);
}

bool AgentXSubAgent::attach(const Settings& settings, const std::function<void()>& registerHandlers) {
  close();
  _isMute = false;
  if (!isListenedAt(settings.socket)) return false;
  countsOfEndedConnection = {};
  _pingInterval = settings.pingInterval > 0 ? settings.pingInterval : DefaultPingInterval;
  if (libraryInitialised) {
    applySettings(settings);
    if (!open()) return false;
  } else {
    if (!initLibrary(settings)) return false;
    if (main_session) endRepetitions(*main_session);
    RegistrationWatch watch;
    registerHandlers();
    if (isAttached() && !watch.isAnswered()) giveUp();
  }
  if (!isAttached()) return false;
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
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, settings.socket.c_str());
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 1);
  // With an interval of its own the library would also open the connection again, behind the adaptor's back and with
  // alarms that never end; the pings are sent from here.
  netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL, 0);
  if (settings.timeout > 0) {
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_TIMEOUT,
                       static_cast<int>(settings.timeout * MicrosecondsPerSecond));
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_TIMEOUT, settings.timeout);
  }
  if (settings.retries > 0) {
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_RETRIES, settings.retries);
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES, settings.retries);
  }
}

bool AgentXSubAgent::open() {
  if (subagent_open_master_session() != 0) return false;
  endRepetitions(*main_session);
  RegistrationWatch watch;
  register_mib_reattach();
  if (watch.isAnswered()) return true;
  giveUp();
  return false;
}

void AgentXSubAgent::startPings() {
  _pingAlarm = snmp_alarm_register(
      static_cast<unsigned int>(_pingInterval), SA_REPEAT,
      [](unsigned int, void* subAgent) { static_cast<AgentXSubAgent*>(subAgent)->ping(); }, this);
}

void AgentXSubAgent::ping() {
  // The library stands still until a ping is answered; acknowledgements that are due tell the same meanwhile.
  const NotificationCounts counts = getNotificationCounts();
  if (counts.sent != counts.acknowledged) return;
  if (isAttached() && agentx_send_ping(main_session) != 0) return;
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
  netsnmp_session* session = main_session;
  if (!session) return;
  countsOfEndedConnection = countsOf(*session);
  // The library's own way asks the master agent to unregister each region and waits for the answers, which a master
  // agent that is stopped does not give. A closed connection tells it the same.
  agentx_unregister_callbacks(session);
  remove_trap_session(session);
  register_mib_detach();
  main_session = nullptr;
  snmp_close(session);
}

bool AgentXSubAgent::isAttached() const { return main_session != nullptr; }

void AgentXSubAgent::addDescriptors(int& count, netsnmp_large_fd_set& descriptors, timeval& timeout) {
  int block = 0;
  snmp_select_info2(&count, &descriptors, &timeout, &block);
}

void AgentXSubAgent::read(netsnmp_large_fd_set& ready) {
  if (isAttached() && isReset(*main_session)) close();
  snmp_read2(&ready);
}

void AgentXSubAgent::runTimers() {
  snmp_timeout();
  run_alarms();
}

void AgentXSubAgent::checkOutstandingRequests() { netsnmp_check_outstanding_agent_requests(); }

void AgentXSubAgent::callSoon(SNMPAlarmCallback* callback, void* argument) {
  snmp_alarm_register(0, 0, callback, argument);
}

void AgentXSubAgent::send(const std::function<void()>& sending) {
  if (!isAttached()) return;
  const long timeout = main_session->timeout;
  main_session->timeout = NotificationTimeout;
  sending();
  if (isAttached()) main_session->timeout = timeout;
}

AgentXSubAgent::NotificationCounts AgentXSubAgent::getNotificationCounts() const {
  return isAttached() ? countsOf(*main_session) : countsOfEndedConnection;
}

}  // namespace VelaFmSnmp
