#include <gmock/gmock.h>

#include "ConfigurationFault.h"
#include "MasterAgentFixture.h"
#include "UsmUserConfigurator.h"

using namespace VelaFmSnmp;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

struct Protocols {
  int level;
  int auth;
  int priv;
};

/** Every combination that a target may have. */
const Protocols combinations[] = {{LevelNoAuthNoPriv, AuthNone, PrivNone}, {LevelNoAuthNoPriv, AuthSha, PrivAes},
                                  {LevelAuthNoPriv, AuthMd5, PrivNone},    {LevelAuthNoPriv, AuthSha, PrivAes},
                                  {LevelAuthPriv, AuthMd5, PrivDes},       {LevelAuthPriv, AuthMd5, PrivAes},
                                  {LevelAuthPriv, AuthSha, PrivDes},       {LevelAuthPriv, AuthSha, PrivAes}};

/** Reads the engine's boot count as a user; the answer shows whether the agent takes the user's keys. */
std::string readAs(const MasterAgent& agent, const SnmpTargetV3Usm& target, const std::string& authKey,
                   const std::string& privKey) {
  const char* const levels[] = {"", "noAuthNoPriv", "authNoPriv", "authPriv"};
  std::vector<std::string> arguments{"snmpget", "-v3", "-r",        "0",  "-t",
                                     "2",       "-u",  target.user, "-l", levels[target.snmpSecurityLevel]};
  if (target.snmpSecurityLevel >= LevelAuthNoPriv)
    arguments.insert(arguments.end(), {"-a", target.authProtocol == AuthSha ? "SHA" : "MD5", "-A", authKey});
  if (target.snmpSecurityLevel >= LevelAuthPriv)
    arguments.insert(arguments.end(), {"-x", target.privProtocol == PrivAes ? "AES" : "DES", "-X", privKey});
  arguments.insert(arguments.end(), {"127.0.0.1:" + std::to_string(agent.getPort()), ".1.3.6.1.6.3.10.2.1.2.0"});
  return runTool(arguments).output;
}

}  // namespace

TEST(UsmUser, clonedUsersAuthenticateWithTheirOwnPassPhrases) {
  const MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  UsmUserConfigurator users;
  int number = 0;
  for (const Protocols& protocols : combinations) {
    auto target = targetV3("nms", "user" + std::to_string(++number));
    target->snmpSecurityLevel = protocols.level;
    target->authProtocol = protocols.auth;
    target->privProtocol = protocols.priv;
    SCOPED_TRACE("level " + std::to_string(protocols.level) + " auth " + std::to_string(protocols.auth) + " priv " +
                 std::to_string(protocols.priv));
    const UsmUser user = UsmUserConfigurator::userOf(*target);
    users.usmCreateUser(session, user);
    EXPECT_TRUE(users.isWritten(user));
    // VACM comes behind USM: the agent knows the user and its keys, who has no access yet.
    EXPECT_THAT(readAs(agent, *target, "authSecret", "privSecret"), HasSubstr("authorizationError"));
    if (protocols.level >= LevelAuthNoPriv) {
      EXPECT_THAT(readAs(agent, *target, MasterAgent::passPhrase, "privSecret"), HasSubstr("Authentication failure"));
    }
    if (protocols.level >= LevelAuthPriv) {
      EXPECT_THAT(readAs(agent, *target, "authSecret", MasterAgent::passPhrase), Not(HasSubstr("authorizationError")));
    }

    // Written once more, with another pass phrase, as after a change.
    target->authKey = "changedSecret";
    users.usmCreateUser(session, UsmUserConfigurator::userOf(*target));
    EXPECT_THAT(readAs(agent, *target, "changedSecret", "privSecret"), HasSubstr("authorizationError"));
    users.usmDeleteUser(session, target->user);
    EXPECT_THAT(readAs(agent, *target, "changedSecret", "privSecret"), HasSubstr("Unknown user name"));
    EXPECT_TRUE(users.getWrittenNames().empty());
  }
}

TEST(UsmUser, refusesWhatMakesNoUser) {
  struct Case {
    std::string user;
    Protocols protocols;
    std::string authKey;
    std::string privKey;
    std::string message;
  };
  const std::string shortPhrase = "New passphrase must be greater than 7 characters in length.";
  const Case cases[] = {
      {"", {3, 1, 1}, "authSecret", "privSecret", "target user must be between 1 and 32 characters in length"},
      {std::string(33, 'u'),
       {3, 1, 1},
       "authSecret",
       "privSecret",
       "target user must be between 1 and 32 characters in length"},
      {"vela_templ_SHA_AES",
       {3, 1, 1},
       "authSecret",
       "privSecret",
       "can not create v3 trap targets for built-in usm user (vela_templ_SHA_AES)!"},
      {"u", {2, 0, 1}, "authSecret", "privSecret", "SNMP_SEC_LEVEL_AUTHNOPRIV selected, but no AuthProtocol specified"},
      {"u",
       {3, 1, 0},
       "authSecret",
       "privSecret",
       "SNMP_SEC_LEVEL_AUTHPRIV selected, but no Auth- or PrivProtocol specified"},
      {"u",
       {3, 0, 1},
       "authSecret",
       "privSecret",
       "SNMP_SEC_LEVEL_AUTHPRIV selected, but no Auth- or PrivProtocol specified"},
      {"u", {4, 1, 1}, "authSecret", "privSecret", "Unknown securityLevel :4"},
      {"u", {3, 3, 1}, "authSecret", "privSecret", "unknown authProtocol 3"},
      {"u", {3, 1, -1}, "authSecret", "privSecret", "unknown privProtocol -1"},
      {"u", {3, 9, 9}, "authSecret", "privSecret", "unknown AuthProtocol or PrivProtocol"},
      {"u", {3, 1, 1}, "1234567", "privSecret", shortPhrase},
      {"u", {3, 1, 1}, "authSecret", "1234567", shortPhrase}};
  for (const Case& test : cases) {
    auto target = targetV3("nms", test.user);
    target->snmpSecurityLevel = test.protocols.level;
    target->authProtocol = test.protocols.auth;
    target->privProtocol = test.protocols.priv;
    target->authKey = test.authKey;
    target->privKey = test.privKey;
    try {
      UsmUserConfigurator::userOf(*target);
      ADD_FAILURE() << "accepted, instead of: " << test.message;
    } catch (const ConfigurationFault& fault) {
      EXPECT_EQ(fault.what(), test.message);
    }
  }
}

TEST(UsmUser, findsTheFirstTemplateWithTheProtocolsAskedFor) {
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthNone, PrivNone), "vela_config_user");
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthSha, PrivNone), "vela_templ_SHA_DES");
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthNone, PrivAes), "vela_templ_MD5_AES");
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthSha, PrivAes), "vela_templ_SHA_AES");
  EXPECT_EQ(UsmUserConfigurator::findSuitableUser(3, PrivAes), nullptr);
}
