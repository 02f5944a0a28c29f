#ifndef VELA_FM_SNMP_USM_USER_H
#define VELA_FM_SNMP_USM_USER_H

#include <string>

namespace VelaFmSnmp {

class SnmpTargetV3Usm;

/** A USM user as the master agent shall know it: protocols that its security level does not use are none. */
struct UsmUser {
  std::string name;
  int authProtocol = 0;
  int privProtocol = 0;
  std::string authKey; /**< pass phrase: never to be logged */
  std::string privKey; /**< pass phrase: never to be logged */

  /** The user that a target needs. Throws ConfigurationFault when its values make none. */
  static UsmUser of(const SnmpTargetV3Usm& target);

  bool operator==(const UsmUser&) const = default;
  /** Whether requests of the other user's level can be made as this one, with the same pass phrases. */
  bool covers(const UsmUser& other) const;
};

/** Throws ConfigurationFault for a name that is no user's: empty, or longer than the agent's tables take. */
void requireUserName(const std::string& name);
/** Throws ConfigurationFault for a pass phrase that is too short (RFC 3414, 11.2). `which`: "Old" or "New". */
void requirePassPhrase(const std::string& passPhrase, const char* which);

}  // namespace VelaFmSnmp
#endif
