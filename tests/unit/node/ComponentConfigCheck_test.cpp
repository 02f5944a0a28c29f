#include "ComponentConfigCheck.h"

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
  const struct {
    const char* text;
    const char* begin;
  } cases[] = {
      {"", ":1: "},
      {"no XML", ":1: "},
      {"<VelaFmSnmp>\n<a>\n</VelaFmSnmp>", ":3: "},
      {"\n<Other/>", ":2: the root element is \"Other\""},
      {"<a><VelaFmSnmp/></a>", ":1: the root element is \"a\""},
      {"<VelaFmSnmp>\n\n<snmpFallbackPort>many</snmpFallbackPort></VelaFmSnmp>", ":3: snmpFallbackPort"},
      {"<VelaFmSnmp>\n<snmpPollInterval>-1</snmpPollInterval></VelaFmSnmp>", ":2: snmpPollInterval"},
      {"<VelaFmSnmp>\n<snmpPollInterval/></VelaFmSnmp>", ":2: snmpPollInterval"},
      {"<VelaFmSnmp>\n<useInternalTrapListener>maybe</useInternalTrapListener></VelaFmSnmp>",
       ":2: useInternalTrapListener"},
      {"<VelaFmSnmp><informTimeout>soon</informTimeout></VelaFmSnmp>", ":1: informTimeout"},
      {"<VelaFmSnmp><ipv6PortWorkaroudEnabled>x</ipv6PortWorkaroudEnabled></VelaFmSnmp>", ":1: ipv6Port"},
      {"<VelaFmSnmp><agentxTimeout>1s</agentxTimeout></VelaFmSnmp>", ":1: agentxTimeout"},
      {"<VelaFmSnmp><agentxRetries>99999999999</agentxRetries></VelaFmSnmp>", ":1: agentxRetries"},
      {"<VelaFmSnmp><agentxPingInterval>a</agentxPingInterval></VelaFmSnmp>", ":1: agentxPingInterval"},
  };
  for (const auto& [text, begin] : cases) {
    EXPECT_EQ(begin, check(text).substr(0, std::string(begin).size())) << text;
  }
}

TEST_F(ComponentConfigCheckTest, WhatTheComponentJudgesItselfPasses) {
  EXPECT_EQ("", check("<VelaFmSnmp><ipVersion>IPv5</ipVersion><tls><nodeCredential><fingerprint>xyz</fingerprint>"
                      "</nodeCredential></tls><unknown>1</unknown></VelaFmSnmp>"));
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

TEST_F(ComponentConfigCheckTest, FileThatCannotBeReadIsNamed) {
  for (const std::string& file : {_folder.file("missing"), _folder.file(".")}) {
    try {
      ComponentConfigCheck::check(file);
      ADD_FAILURE() << file;
    } catch (const Vela::VelaException& ex) {
      EXPECT_EQ(0U, std::string(ex.what()).find(file + ": ")) << ex.what();
    }
  }
}

}  // namespace
}  // namespace VelaNode
