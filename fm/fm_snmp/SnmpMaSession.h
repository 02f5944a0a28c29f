#ifndef VELA_FM_SNMP_MA_SESSION_H
#define VELA_FM_SNMP_MA_SESSION_H

#include <Poco/Mutex.h>

#include <functional>
#include <memory>
#include <string>

#include "SnmpOid.h"
#include "SnmpPdu.h"
#include "SnmpSessionException.h"

struct variable_list;

namespace VelaFmSnmp {

class SnmpExchange;

/**
 * One SNMPv3 session (USM, authPriv) to the local master agent. All requests go through sendPdu, one at a time.
 *
 * An object may be used from several threads; each thread that polls on its own has a session of its own. The virtual
 * operations are the transport, so that a test can put another one in its place; nothing else is meant to be
 * overridden.
 */
class SnmpMaSession {
 public:
  using Factory = std::function<std::unique_ptr<SnmpMaSession>()>;

  SnmpMaSession();
  virtual ~SnmpMaSession();  // NOLINT(bugprone-exception-escape): as at its definition
  SnmpMaSession(const SnmpMaSession&) = delete;
  SnmpMaSession& operator=(const SnmpMaSession&) = delete;

  /** A new, closed session, from the factory in force. */
  static std::unique_ptr<SnmpMaSession> create();
  /** Replaces what create() makes (empty: real sessions again). For tests; not while sessions are made. */
  static void setFactory(Factory factory);

  /** A descriptor that ends all waiting for the agent while it is readable: opening and requests fail then. Before the
      session is opened; outlives it. */
  void setInterrupt(int descriptor) { _interrupt = descriptor; }

  /**
   * Opens the session and finds out the agent's engine id; blocks for up to 11 times 200 ms.
   * @param host  address of the agent as net-snmp takes it ("127.0.0.1", "udp6:[::1]"), without the port
   * @throws Vela::VelaException for a pass phrase of less than 8 characters and for a failed key derivation,
   *         SnmpSessionException when the session cannot be opened. The session is closed then; others stay as they
   * are.
   */
  virtual void initSession(const std::string& host, int port, const std::string& user, const std::string& authPass,
                           const std::string& privPass);
  /** Closes, and opens with the first line of the file as both pass phrases. Throws as initSession. */
  virtual void initSessionWithPwdFile(const std::string& host, int port, const std::string& user,
                                      const std::string& pwdFile);
  /** Closes the session, if open, and wipes its pass phrases and keys. */
  virtual void close();

  /** Peer of the open session without its port ("127.0.0.1", "udp6:[::1]"), empty when closed. */
  virtual std::string getPeername() const;
  /** UDP port of the open session's peer, 0 when closed. */
  virtual int getRemotePort() const;
  virtual SnmpOid getSecurityAuthProto() const;
  virtual SnmpOid getSecurityPrivProto() const;
  /** Engine identifiers as discovered, raw octets; empty, with a log line, when there is none. */
  virtual std::string contextEngineID() const;
  virtual std::string securityEngineID() const;

  /** The synchronous exchange; consumes the request's PDU. Returns net-snmp's STAT_SUCCESS, STAT_ERROR, STAT_TIMEOUT.
   */
  virtual int snmp_synch_response(SnmpPdu& request, SnmpPdu* response) const;
  /** The library's error text and numbers of the session. */
  virtual std::string snmp_error(int* libErr, int* sysErr) const;

  virtual bool isOpen() const;

  /**
   * Sends a request and waits for the response. The request stays the caller's, emptied of its PDU. A session whose
   * user or keys are not known any more, here or in the agent, is closed, so that its owner opens it anew.
   * @param requestName  label of the request in every message
   * @param response     takes the response PDU, if given
   * @return whether the agent answered without error; any error status but inconsistentValue is logged and gives false
   * @throws SnmpSessionException  no answer, or the agent answered inconsistentValue
   * @throws Vela::VelaException   the session is closed, or the library could not send
   */
  bool sendPdu(const std::string& requestName, SnmpPdu& request, SnmpPdu* response) const;

  /** GETs of a single object. False, with a log line, when it cannot be read as that type; throw as sendPdu. */
  bool getInt(const SnmpOid& oid, long long* value, const std::string& name) const;
  bool getString(const SnmpOid& oid, std::string& value) const;
  bool getOid(const SnmpOid& oid, SnmpOid* value) const;

  /** Decoders of the first varbind of a list; false, with a log line, for another type or an empty list. */
  static bool extractInt(const variable_list* variables, long long* value);
  static bool extractString(const variable_list* variables, std::string& value);
  static bool extractOid(const variable_list* variables, SnmpOid* value);

  /** The pass phrases the session was opened with: the ones of the template users. Empty after close(). */
  const std::string& getRootAuthPwd() const { return _rootAuthPwd; }
  const std::string& getRootPrivPwd() const { return _rootPrivPwd; }

 private:
  bool getOne(const SnmpOid& oid, const std::string& name, SnmpPdu& response) const;
  void closeHandle() const;

  mutable Poco::Mutex _mutex;
  /** Null while closed. A request that shows that it is worth nothing any more closes it. */
  mutable std::unique_ptr<SnmpExchange> _handle;
  int _interrupt = -1;
  int _remotePort = 0;
  std::string _rootAuthPwd;
  std::string _rootPrivPwd;
};

}  // namespace VelaFmSnmp
#endif
