#ifndef VELA_FM_SNMP_USM_USER_CONFIGURATOR_H
#define VELA_FM_SNMP_USM_USER_CONFIGURATOR_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "UsmUser.h"

namespace VelaFmSnmp {

class SnmpMaSession;

/**
 * The users in the master agent's usmUserTable (RFC 3414). A new one is cloned from a template user that the agent's
 * own configuration provides, and its keys are changed from the template's, which are those of the session. Operations
 * throw ConfigurationFault for a fault of the user and as SnmpMaSession::sendPdu.
 */
class UsmUserConfigurator {
 public:
  /** Name of the first template user with the protocols asked for (0: any); null, with a log line, when there is none.
   */
  static const char* findSuitableUser(int authProtocol, int privProtocol);

  /** Whether the user stands in the master agent already, as far as known. */
  bool isWritten(const UsmUser& user) const;
  /** Names of the users that may stand in the master agent. */
  std::vector<std::string> getWrittenNames() const;
  /** Forgets everything, without a request. */
  void clear();
  /** Forgets the keys derived for the users written. */
  void forgetKeys() { _derivedKeys.clear(); }

  void usmCreateUser(SnmpMaSession& session, const UsmUser& user);
  void usmDeleteUser(SnmpMaSession& session, const std::string& userName);

 private:
  void usmCloneUser(SnmpMaSession& session, const std::string& userName, const std::string& templateName);
  void usmChangePassword(SnmpMaSession& session, const UsmUser& user, int templateAuthProtocol);
  void usmResetAuthPrivProtcol(SnmpMaSession& session, const UsmUser& user);
  void usmSetUserStatus(SnmpMaSession& session, const std::string& userName, int rowStatus);
  /** @param keyLength  octets of the key that are used; 0: all */
  std::string encodeKeyChange(const std::string& engineId, int authProtocol, const std::string& oldPassPhrase,
                              const std::string& newPassPhrase, std::size_t keyLength);
  const std::string& localizedKey(const std::string& engineId, int authProtocol, const std::string& passPhrase,
                                  const char* which);

  std::map<std::string, UsmUser> _written;
  std::map<std::string, std::string> _derivedKeys; /**< localized keys of this pass */
};

}  // namespace VelaFmSnmp
#endif
