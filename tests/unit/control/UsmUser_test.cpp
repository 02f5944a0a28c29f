#include <gmock/gmock.h>

#include "MasterAgentFixture.h"
#include "UsmUserConfigurator.h"

using namespace VelaFmSnmp;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(UsmUser, clonedUsersAuthenticateWithTheirOwnPassPhrases) {
  const MasterAgent agent;
  SnmpMaSession session;
  agent.open(session);
  UsmUserConfigurator users;
  auto target = targetV3("nms", "walter");
  target->authProtocol = AuthSha;
  target->privProtocol = PrivAes;
  // The answer shows whether the agent takes the user's keys.
  const auto readAs = [&](const std::string& authKey, const std::string& privKey) {
    return runTool({"snmpget", "-v3", "-r0", "-t2", "-u", target->user, "-l", "authPriv", "-a", "SHA", "-A", authKey,
                    "-x", "AES", "-X", privKey, "127.0.0.1:" + std::to_string(agent.getPort()),
                    ".1.3.6.1.6.3.10.2.1.2.0"})
        .output;
  };
  const UsmUser user = UsmUser::of(*target);
  users.usmCreateUser(session, user);
  EXPECT_TRUE(users.isWritten(user));
  // VACM comes behind USM: the agent knows the user and its keys, who has no access yet.
  EXPECT_THAT(readAs("authSecret", "privSecret"), HasSubstr("authorizationError"));
  EXPECT_THAT(readAs(MasterAgent::passPhrase, "privSecret"), HasSubstr("Authentication failure"));
  EXPECT_THAT(readAs("authSecret", MasterAgent::passPhrase), Not(HasSubstr("authorizationError")));

  // Written once more, with another pass phrase, as after a change.
  target->authKey = "changedSecret";
  users.usmCreateUser(session, UsmUser::of(*target));
  EXPECT_THAT(readAs("changedSecret", "privSecret"), HasSubstr("authorizationError"));

  // Another target that wants the user with another pass phrase does not take it over, whatever its name.
  auto intruder = targetV3("a", "walter");
  intruder->authKey = "anotherSecret";
  TargetFaults faults;
  users.planUsers({intruder.get(), target.get()}, faults);
  EXPECT_EQ(faults.count("a"), 1U);
  EXPECT_EQ(faults.count("nms"), 0U);
  users.usmDeleteUser(session, target->user);
  EXPECT_THAT(readAs("changedSecret", "privSecret"), HasSubstr("Unknown user name"));
  EXPECT_TRUE(users.getWrittenNames().empty());
}

TEST(UsmUser, findsTheFirstTemplateWithTheProtocolsAskedFor) {
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthNone, PrivNone), "vela_config_user");
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthSha, PrivNone), "vela_templ_SHA_DES");
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthNone, PrivAes), "vela_templ_MD5_AES");
  EXPECT_STREQ(UsmUserConfigurator::findSuitableUser(AuthSha, PrivAes), "vela_templ_SHA_AES");
  EXPECT_EQ(UsmUserConfigurator::findSuitableUser(3, PrivAes), nullptr);
}
