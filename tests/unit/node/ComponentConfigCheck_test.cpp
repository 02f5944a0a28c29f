#include "host/ComponentConfigCheck.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "TemporaryFolder.h"
#include "VelaException.h"

namespace VelaNode {
namespace {

class ComponentConfigCheckTest : public testing::Test {
 protected:
  /** "" when the text passes; else the reason without the file's name. */
  std::string check(const std::string& text) {
    std::ofstream(_file, std::ios::trunc) << text;
    try {
      _paths = ComponentConfigCheck::check(_file);
      return "";
    } catch (const Vela::VelaException& ex) {
      const std::string reason = ex.what();
      EXPECT_EQ(_file, reason.substr(0, _file.size()));
      EXPECT_EQ(std::string::npos, reason.find('\n'));
      return reason.substr(_file.size());
    }
  }

  TemporaryFolder _folder;
  const std::string _file = _folder.file("config.xml");
  ComponentPaths _paths;
};

TEST_F(ComponentConfigCheckTest, FaultsAreFoundWithTheirLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ":1: "},
      {"\n<Other/>", ":2: the root element is \"Other\""},
      {"<VelaFmSnmp>\n<snmpPollInterval>-1</snmpPollInterval></VelaFmSnmp>", ":2: snmpPollInterval"},
      {"<VelaFmSnmp>\n<agentxRetries>x</agentxRetries></VelaFmSnmp>", ":2: agentxRetries"},
  };
  for (const auto& [text, begin] : cases) EXPECT_EQ(0U, check(text).find(begin)) << text;
  for (const char* name : {"snmpFallbackPort", "useInternalTrapListener", "informTimeout", "ipv6PortWorkaroudEnabled",
                           "agentxTimeout", "agentxRetries", "agentxPingInterval"}) {
    EXPECT_EQ(0U, check("<VelaFmSnmp><" + std::string(name) + ">99999999999</" + name + "></VelaFmSnmp>")
                      .find(":1: " + std::string(name)));
  }
}

TEST_F(ComponentConfigCheckTest, WhatTheComponentJudgesItselfPasses) {
  EXPECT_EQ("", check("<VelaFmSnmp><ipVersion>IPv5</ipVersion><tls><nodeCredential><fingerprint>xyz</fingerprint>"
                      "</nodeCredential></tls><unknown>1</unknown><snmpPollInterval/></VelaFmSnmp>"));
  EXPECT_EQ("", check("<VelaFmSnmp/>"));
  EXPECT_EQ(ComponentConfigCheck::defaultAgentxSocket, _paths.agentxSocket);
  EXPECT_EQ(ComponentConfigCheck::defaultPasswordFile, _paths.passwordFile);
}

TEST_F(ComponentConfigCheckTest, DefaultPutsEverythingIntoTheNodesFolder) {
  ::setenv("VELA_NODE_DIR", "/node", 1);
  EXPECT_EQ("", check(ComponentConfigCheck::getDefaultText()));
  ::unsetenv("VELA_NODE_DIR");
  EXPECT_EQ("/node/run/agentx", _paths.agentxSocket);
  EXPECT_EQ("/node/no-backup/etc/snmp/snmp_pwd_file", _paths.passwordFile);
}

}  // namespace
}  // namespace VelaNode
