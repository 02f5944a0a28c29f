#ifndef VELA_FM_SNMP_USM_USER_CONFIGURATOR_H
#define VELA_FM_SNMP_USM_USER_CONFIGURATOR_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "ConfigurationPass.h"
#include "UsmUser.h"

namespace VelaFmSnmp {

class SnmpMaSession;
class SnmpBaseTarget;

/** Targets that must not become operational, by name, with the reason. */
using TargetFaults = std::map<std::string, std::string>;

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

  /** Finds the users that targets need. The agent knows a user once, so targets that share one must agree on it: the
      later ones of those that do not are faulty. */
  void planUsers(const std::vector<const SnmpBaseTarget*>& targets, TargetFaults& faults);
  /** Creates the planned users that the agent does not have; the targets of one that it refuses are faulty. */
  void createUsers(const ConfigurationPass& pass, const std::vector<const SnmpBaseTarget*>& targets,
                   TargetFaults& faults);
  /** Deletes the users that are not planned; one that the agent keeps is logged. */
  void deleteUnusedUsers(const ConfigurationPass& pass);

  /** Whether the user stands in the master agent already, as far as known. */
  bool isWritten(const UsmUser& user) const;
  /** Names of the users that may stand in the master agent. */
  std::vector<std::string> getWrittenNames() const;
  /** Forgets everything, without a request. */
  void clear();
  /** Ends a pass: forgets the users planned, and the keys derived. */
  void endPass();

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

  std::map<std::string, UsmUser> _planned; /**< of this pass */
  std::map<std::string, UsmUser> _written;
  std::map<std::string, std::string> _derivedKeys; /**< localized keys of this pass */
};

}  // namespace VelaFmSnmp
#endif
