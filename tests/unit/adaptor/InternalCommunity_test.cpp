#include "InternalCommunity.h"

#include <gtest/gtest.h>
#include <net-snmp/net-snmp-config.h>
// The order of net-snmp's headers matters.
#include <net-snmp/net-snmp-includes.h>

#include <string>

#include "SnmpMaSession.h"
#include "SnmpPdu.h"

using namespace VelaFmSnmp;

namespace {

/** An agent that takes or refuses what is set. */
class Session : public SnmpMaSession {
 public:
  long error = SNMP_ERR_NOERROR;
  mutable std::string set;

  bool isOpen() const override { return true; }

 protected:
  int snmp_synch_response(SnmpPdu& request, SnmpPdu* response) const override {
    const variable_list* value = request.get()->variables;
    set.assign(reinterpret_cast<const char*>(value->val.string), value->val_len);
    snmp_free_pdu(request.release());
    snmp_pdu* answer = snmp_pdu_create(SNMP_MSG_RESPONSE);
    answer->errstat = error;
    response->set(answer);
    return STAT_SUCCESS;
  }
};

bool isIn(InternalCommunity& community, const std::string& text) {
  const auto element = [](char tag, const std::string& content) {
    return std::string{tag, static_cast<char>(content.size())} + content;
  };
  const std::string message = element(0x30, "\x02\x01\x01" + element(0x04, text) + element('\xa7', ""));
  return community.isIn(reinterpret_cast<const unsigned char*>(message.data()), message.size());
}

}  // namespace

TEST(InternalCommunity, OnlyWhatWasAgreedOnCounts) {
  Session agent;
  InternalCommunity community;
  community.agreeOn(agent);
  ASSERT_EQ(agent.set.size(), 32U);
  EXPECT_TRUE(isIn(community, agent.set));
  for (const std::string& other : {std::string("VelaDummy"), std::string(), agent.set.substr(1)})
    EXPECT_FALSE(isIn(community, other)) << other;
  EXPECT_FALSE(community.isIn(nullptr, 0));
  const std::string first = agent.set;
  community.agreeOn(agent);
  EXPECT_EQ(agent.set, first) << "sessions that the agent has open go on with it";
  InternalCommunity another;
  another.agreeOn(agent);
  EXPECT_NE(agent.set, first);
}

TEST(InternalCommunity, AnAgentWithoutThePluginSendsTheSecurityName) {
  Session agent;
  agent.error = SNMP_ERR_NOTWRITABLE;
  InternalCommunity community;
  community.agreeOn(agent);
  EXPECT_TRUE(isIn(community, "VelaDummy"));
  EXPECT_FALSE(isIn(community, agent.set));
}
