// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "SnmpMaSession.h"

#include <LoggingWrapper.h>

#include <Poco/ScopedLock.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

#include "Enduring.h"
#include "NetSnmpLock.h"
#include "SnmpExchange.h"

namespace VelaFmSnmp {

namespace {

constexpr int sessionRetries = 10;
constexpr long sessionTimeoutUs = 200000;
constexpr std::size_t minimumPassPhrase = USM_LENGTH_P_MIN;
// Loop-back with an ephemeral port; it serves an agent on ::1 as well.
const char* const localAddress = "127.0.0.1:0";

using Lock = Poco::ScopedLock<Poco::Mutex>;

/** Sessions of this process that are open; guarded by NetSnmpLock. */
int openSessions = 0;

void wipe(std::string& secret) {
  explicit_bzero(secret.data(), secret.capacity());
  secret.clear();
}

/** Wipes a text, or a structure that holds keys, at the end of its scope. */
class Wiped {
 public:
  explicit Wiped(std::string& text) : _text(&text) {}
  explicit Wiped(netsnmp_session& session) : _session(&session) {}
  ~Wiped() {
    if (_text) wipe(*_text);
    if (_session) wipeKeys(*_session);
  }
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;

  static void wipeKeys(netsnmp_session& session) {
    explicit_bzero(session.securityAuthKey, sizeof session.securityAuthKey);
    explicit_bzero(session.securityPrivKey, sizeof session.securityPrivKey);
  }

 private:
  std::string* _text = nullptr;
  netsnmp_session* _session = nullptr;
};

SnmpMaSession::Factory& sessionFactory() {
  static const Vela::Enduring<SnmpMaSession::Factory> factory;
  return *factory;
}

const netsnmp_session* sessionOf(const std::unique_ptr<SnmpExchange>& handle) {
  return handle ? handle->getSession() : nullptr;
}

std::string libraryError(netsnmp_session* session, int* libErr, int* sysErr) {
  char* text = nullptr;
  ::snmp_error(session, sysErr, libErr, &text);
  std::string result = text ? text : "";
  SNMP_FREE(text);
  return result;
}

/** Takes the bytes of an engine id; they are the library's. */
std::string engineId(const u_char* bytes, std::size_t length) {
  if (bytes == nullptr || length == 0) {
    VELA_LOG(Vela::LogError, "Missing EngineID!");
    return std::string();
  }
  return std::string(bytes, bytes + length);
}

void deriveKey(const oid* authProtocol, std::size_t protocolLength, const std::string& passPhrase, u_char* key,
               std::size_t* keyLength, const char* kind) {
  *keyLength = USM_AUTH_KU_LEN;
  // The library takes the pass phrase as unsigned octets.
  const auto* phrase = reinterpret_cast<const u_char*>(passPhrase.data());
  if (generate_Ku(authProtocol, static_cast<u_int>(protocolLength), phrase, passPhrase.size(), key, keyLength) ==
      SNMPERR_SUCCESS)
    return;
  VELA_LOG(Vela::LogError, "Error generating SNMPv3 Ku from %s pass phrase.", kind);
  throw Vela::VelaException("Error generating SNMPv3 Ku from %s pass phrase.", kind);
}

/** Finds the agent's engine out and exchanges one request. */
bool isAnswered(SnmpExchange& session) {
  const SnmpOid probedObject(".1.3.6.1.6.3.10.2.1.2.0");  // snmpEngineBoots.0
  SnmpPdu request(SNMP_MSG_GET);
  request.addNullVarbind(probedObject);
  SnmpPdu response;
  return session.discoverEngine() && session.perform(request, response) == STAT_SUCCESS && response.get() != nullptr;
}

[[noreturn]] void throwOpenFailure(const std::string& host, netsnmp_session* session) {
  int libErr = 0;
  int sysErr = 0;
  const std::string text = libraryError(session, &libErr, &sysErr);
  throw SnmpSessionException("Failed to open snmp session to " + host + ", error: " + text + " (" +
                             std::to_string(libErr) + "," + std::to_string(sysErr) + ")");
}

/**
 * The library keeps the keys of a user and the boot count of an engine beyond the session, and would hold them against
 * an agent that has a new pass phrase or has lost its count, and open a session with a wrong pass phrase. Sessions that
 * are open work with them, so that they are forgotten only when none is.
 */
void forgetUser(const std::string& name) {
  for (usmUser *user = usm_get_userList(), *next = nullptr; user != nullptr; user = next) {
    next = user->next;
    if (user->secName == nullptr || name != user->secName) continue;
    free_enginetime(user->engineID, user->engineIDLen);
    usm_remove_user(user);  // returns the rest of the list, not the user
    usm_free_user(user);
  }
}

/** Whether the keys that the library has for the user are those of the pass phrase. Another open session may have
 *  brought it others. */
bool hasOwnKey(const netsnmp_session& opened, const netsnmp_session& wanted) {
  const usmUser* user = usm_get_user(opened.securityEngineID, opened.securityEngineIDLen, wanted.securityName);
  u_char key[USM_AUTH_KU_LEN];
  std::size_t length = sizeof key;
  const bool isOwn = user != nullptr &&
                     generate_kul(wanted.securityAuthProto, wanted.securityAuthProtoLen, opened.securityEngineID,
                                  opened.securityEngineIDLen, wanted.securityAuthKey, wanted.securityAuthKeyLen, key,
                                  &length) == SNMPERR_SUCCESS &&
                     user->authKeyLen == length && std::memcmp(user->authKey, key, length) == 0;
  explicit_bzero(key, sizeof key);
  return isOwn;
}

/** Counts as an open session when it returns. */
std::unique_ptr<SnmpExchange> openHandle(const std::string& host, netsnmp_session& session, int interrupt) {
  const std::string user(session.securityName, session.securityNameLen);
  const NetSnmpLock lock;
  if (openSessions == 0) forgetUser(user);
  std::unique_ptr<SnmpExchange> handle;
  if (void* opened = snmp_sess_open(&session)) handle = std::make_unique<SnmpExchange>(opened, interrupt);
  // Without an answer the session is worth nothing.
  if (handle && isAnswered(*handle)) {
    netsnmp_session& opened = *handle->getSession();
    if (hasOwnKey(opened, session)) {
      ++openSessions;
      return handle;
    }
    opened.s_snmp_errno = SNMPERR_AUTHENTICATION_FAILURE;
  }
  if (openSessions == 0) forgetUser(user);
  throwOpenFailure(host, handle ? handle->getSession() : &session);
}

/** Whether a failed request tells that the agent and the library no longer agree on the user. */
bool isUserUnknown(int libErr) {
  return libErr == SNMPERR_UNKNOWN_USER_NAME || libErr == SNMPERR_UNKNOWN_ENG_ID ||
         libErr == SNMPERR_AUTHENTICATION_FAILURE || libErr == SNMPERR_USM_UNKNOWNSECURITYNAME;
}

bool isCounted(u_char type) {
  return type == ASN_INTEGER || type == ASN_COUNTER || type == ASN_GAUGE || type == ASN_TIMETICKS;
}

void logFailedObject(const snmp_pdu& response) {
  long index = 1;
  for (const variable_list* variable = response.variables; variable; variable = variable->next_variable, ++index) {
    if (index != response.errindex) continue;
    const SnmpOid oid(variable->name, static_cast<unsigned int>(variable->name_length));
    VELA_LOG(Vela::LogError, "Failed object: %s", oid.toString().c_str());
    return;
  }
}

/** Judges the agent's answer as sendPdu promises. */
bool checkResponse(const std::string& requestName, const snmp_pdu& response) {
  if (response.errstat == SNMP_ERR_NOERROR) return true;
  const char* reason = snmp_errstring(static_cast<int>(response.errstat));
  VELA_LOG(Vela::LogError, "Request %s failed. Reason: %s", requestName.c_str(), reason);
  if (response.errstat == SNMP_ERR_INCONSISTENTVALUE)
    throw SnmpSessionException("Request " + requestName + " failed. Reason: " + reason);
  if (response.errindex != 0) logFailedObject(response);
  return false;
}

}  // namespace

std::unique_ptr<SnmpMaSession> SnmpMaSession::create() {
  const Factory& factory = sessionFactory();
  return factory ? factory() : std::make_unique<SnmpMaSession>();
}

void SnmpMaSession::setFactory(Factory factory) { sessionFactory() = std::move(factory); }

SnmpMaSession::SnmpMaSession() = default;

SnmpMaSession::~SnmpMaSession() {  // NOLINT(bugprone-exception-escape): a mutex that fails is the end anyway
  // A derived transport is gone here already, so this is the plain close.
  SnmpMaSession::close();
}

void SnmpMaSession::initSession(const std::string& host, int port, const std::string& user, const std::string& authPass,
                                const std::string& privPass) {
  VELA_LOG(Vela::LogInfo, "init snmp session %s:%d", host.c_str(), port);
  if (authPass.size() < minimumPassPhrase || privPass.size() < minimumPassPhrase)
    throw Vela::VelaException("The pass phrases of the snmp session need at least %zu characters", minimumPassPhrase);
  SnmpMaSession::close();

  // The library copies these texts but takes them as char*. The port counts in the peer's name only.
  std::string peer = host + ":" + std::to_string(port);
  std::string local = localAddress;
  std::string securityName = user;
  std::string contextName;

  netsnmp_session session;
  snmp_sess_init(&session);
  const Wiped keys(session);
  session.version = SNMP_VERSION_3;
  session.retries = sessionRetries;
  session.timeout = sessionTimeoutUs;
  session.peername = peer.data();
  session.localname = local.data();
  session.local_port = 0;
  session.securityName = securityName.data();
  session.securityNameLen = securityName.size();
  session.contextName = contextName.data();
  session.contextNameLen = 0;
  session.securityModel = SNMP_SEC_MODEL_USM;
  session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
  session.flags |= SNMP_FLAGS_DONT_PROBE;
  oid authProtocol[] = {NETSNMP_USMAUTH_BASE_OID, NETSNMP_USMAUTH_HMACMD5};
  oid privProtocol[] = {1, 3, 6, 1, 6, 3, 10, 1, 2, 2};
  session.securityAuthProto = authProtocol;
  session.securityAuthProtoLen = OID_LENGTH(authProtocol);
  session.securityPrivProto = privProtocol;
  session.securityPrivProtoLen = OID_LENGTH(privProtocol);
  deriveKey(authProtocol, OID_LENGTH(authProtocol), authPass, session.securityAuthKey, &session.securityAuthKeyLen,
            "authentication");
  deriveKey(authProtocol, OID_LENGTH(authProtocol), privPass, session.securityPrivKey, &session.securityPrivKeyLen,
            "privacy");

  std::unique_ptr<SnmpExchange> handle = openHandle(host, session, _interrupt);
  Lock lock(_mutex);
  _handle = std::move(handle);
  _remotePort = port;
  _rootAuthPwd = authPass;
  _rootPrivPwd = privPass;
}

void SnmpMaSession::initSessionWithPwdFile(const std::string& host, int port, const std::string& user,
                                           const std::string& pwdFile) {
  close();
  std::ifstream file;
  file.rdbuf()->pubsetbuf(nullptr, 0);  // a buffer would keep the pass phrase
  file.open(pwdFile);
  if (!file) throw Vela::VelaException("Failed to open password file (%s)", pwdFile.c_str());
  std::string passPhrase;
  const Wiped secret(passPhrase);
  if (!std::getline(file, passPhrase)) throw Vela::VelaException("Failed to read password file (%s)", pwdFile.c_str());
  initSession(host, port, user, passPhrase, passPhrase);
}

void SnmpMaSession::close() {
  Lock lock(_mutex);
  closeHandle();
  wipe(_rootAuthPwd);
  wipe(_rootPrivPwd);
}

void SnmpMaSession::closeHandle() const {
  if (_handle == nullptr) return;
  const NetSnmpLock lock;
  netsnmp_session& session = *_handle->getSession();
  const std::string user(session.securityName, session.securityNameLen);
  Wiped::wipeKeys(session);
  _handle.reset();
  if (--openSessions == 0) forgetUser(user);
}

bool SnmpMaSession::isOpen() const {
  Lock lock(_mutex);
  return _handle != nullptr;
}

std::string SnmpMaSession::getPeername() const {
  Lock lock(_mutex);
  const netsnmp_session* session = sessionOf(_handle);
  const std::string peer = session && session->peername ? session->peername : "";
  return peer.substr(0, peer.rfind(':'));
}

int SnmpMaSession::getRemotePort() const {
  Lock lock(_mutex);
  return _handle ? _remotePort : 0;
}

SnmpOid SnmpMaSession::getSecurityAuthProto() const {
  Lock lock(_mutex);
  const netsnmp_session* session = sessionOf(_handle);
  if (session == nullptr) return SnmpOid();
  return SnmpOid(session->securityAuthProto, static_cast<unsigned int>(session->securityAuthProtoLen));
}

SnmpOid SnmpMaSession::getSecurityPrivProto() const {
  Lock lock(_mutex);
  const netsnmp_session* session = sessionOf(_handle);
  if (session == nullptr) return SnmpOid();
  return SnmpOid(session->securityPrivProto, static_cast<unsigned int>(session->securityPrivProtoLen));
}

std::string SnmpMaSession::contextEngineID() const {
  Lock lock(_mutex);
  const netsnmp_session* session = sessionOf(_handle);
  return session ? engineId(session->contextEngineID, session->contextEngineIDLen) : engineId(nullptr, 0);
}

std::string SnmpMaSession::securityEngineID() const {
  Lock lock(_mutex);
  const netsnmp_session* session = sessionOf(_handle);
  return session ? engineId(session->securityEngineID, session->securityEngineIDLen) : engineId(nullptr, 0);
}

int SnmpMaSession::snmp_synch_response(SnmpPdu& request, SnmpPdu* response) const {
  SnmpPdu answer;
  const int status = _handle->perform(request, answer);
  if (response) response->set(answer.release());
  return status;
}

std::string SnmpMaSession::snmp_error(int* libErr, int* sysErr) const {
  Lock lock(_mutex);
  if (_handle == nullptr) {
    VELA_LOG(Vela::LogError, "snmp_error called with no session!?");
    return "Session is null";
  }
  return libraryError(_handle->getSession(), libErr, sysErr);
}

bool SnmpMaSession::sendPdu(const std::string& requestName, SnmpPdu& request, SnmpPdu* response) const {
  Lock lock(_mutex);
  if (!isOpen()) throw Vela::VelaException("Session not active!");
  SnmpPdu ownResponse;
  SnmpPdu& answer = response ? *response : ownResponse;
  const int status = snmp_synch_response(request, &answer);
  if (status == STAT_SUCCESS && answer.get() != nullptr) return checkResponse(requestName, *answer.get());
  if (status == STAT_TIMEOUT)
    throw SnmpSessionException("Timeout: No Response from " + getPeername() + " (in " + requestName + ")");
  int libErr = 0;
  int sysErr = 0;
  const std::string text = snmp_error(&libErr, &sysErr);
  if (isUserUnknown(libErr)) closeHandle();
  throw Vela::VelaException("Failed to send %s pdu, Status: %d (%d,%d:%s)", requestName.c_str(), status, libErr, sysErr,
                            text.c_str());
}

bool SnmpMaSession::getOne(const SnmpOid& oid, const std::string& name, SnmpPdu& response) const {
  SnmpPdu request(SNMP_MSG_GET);
  request.addNullVarbind(oid);
  return sendPdu(name + "(" + oid.toString() + ")", request, &response);
}

bool SnmpMaSession::getInt(const SnmpOid& oid, long long* value, const std::string& name) const {
  SnmpPdu response;
  if (getOne(oid, name, response) && extractInt(response.get()->variables, value)) return true;
  VELA_LOG(Vela::LogError, "Failed to read int at oid %s", oid.toString().c_str());
  return false;
}

bool SnmpMaSession::getString(const SnmpOid& oid, std::string& value) const {
  SnmpPdu response;
  if (getOne(oid, "getString", response) && extractString(response.get()->variables, value)) return true;
  VELA_LOG(Vela::LogError, "Failed to read string at oid %s", oid.toString().c_str());
  return false;
}

bool SnmpMaSession::getOid(const SnmpOid& oid, SnmpOid* value) const {
  SnmpPdu response;
  if (getOne(oid, "getOid", response) && extractOid(response.get()->variables, value)) return true;
  VELA_LOG(Vela::LogError, "Failed to read oid at oid %s", oid.toString().c_str());
  return false;
}

bool SnmpMaSession::extractInt(const variable_list* variables, long long* value) {
  if (variables == nullptr) {
    VELA_LOG(Vela::LogError, "Failed to extract int from pdu, list is null");
    return false;
  }
  if (isCounted(variables->type) && variables->val.integer != nullptr) {
    *value = *variables->val.integer;
    return true;
  }
  if (variables->type == ASN_COUNTER64 && variables->val.counter64 != nullptr) {
    const unsigned long long high = variables->val.counter64->high;
    const unsigned long long low = variables->val.counter64->low & 0xffffffffUL;
    *value = static_cast<long long>(high << 32U | low);
    return true;
  }
  VELA_LOG(Vela::LogError, "Failed to extract int from pdu, type = %d", variables->type);
  return false;
}

bool SnmpMaSession::extractString(const variable_list* variables, std::string& value) {
  if (variables == nullptr || variables->type != ASN_OCTET_STR) {
    VELA_LOG(Vela::LogError, "Failed to extract string from pdu");
    return false;
  }
  value.assign(variables->val.string, variables->val.string + variables->val_len);
  return true;
}

bool SnmpMaSession::extractOid(const variable_list* variables, SnmpOid* value) {
  if (variables == nullptr || variables->type != ASN_OBJECT_ID) {
    VELA_LOG(Vela::LogError, "Failed to extract oid from pdu");
    return false;
  }
  *value = SnmpOid(variables->val.objid, static_cast<unsigned int>(variables->val_len / sizeof(oid)));
  return true;
}

}  // namespace VelaFmSnmp
