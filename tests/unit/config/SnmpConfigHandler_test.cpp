#include "SnmpConfigHandler.h"

#include <Poco/TemporaryFile.h>

#include <fstream>
#include <tuple>

#include "ModelFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using namespace VelaFmSnmp;

namespace {

const std::string Fingerprint = "0123456789abcdef0123456789ABCDEF01234567";
const std::string OtherFingerprint = "ff23456789abcdef0123456789ABCDEF01234567";

class SnmpConfigHandlerTest : public NodeFixture {
 protected:
  int load(const std::string& text) {
    Poco::TemporaryFile file;
    std::ofstream(file.path()) << text;
    return handler.load(file.path());
  }
  int loadTls(const std::string& tls) { return load("<VelaFmSnmp><tls>" + tls + "</tls></VelaFmSnmp>"); }
  static std::string fingerprint(const std::string& container, const std::string& text) {
    return "<" + container + "><fingerprint>" + text + "</fingerprint></" + container + ">";
  }

  SnmpConfigHandler handler;
};

}  // namespace

TEST_F(SnmpConfigHandlerTest, ReadsEveryKeyOrTakesItsDefault) {
  const auto settings = [this] {
    return std::make_tuple(handler.getPollInterval(), handler.isInternalTrapListenerEnabled(),
                           handler.isInformTimeoutWorkaroundEnabled(), handler.isIpv6PortWorkaroudEnabled(),
                           handler.getAgentxPingInterval(), handler.getAgentxTimeout(), handler.getAgentxRetries(),
                           handler.getIpVersion(), handler.getSnmpMasterAgentPwdFile(),
                           handler.getSnmpMasterAgentAgentxSocket());
  };
  ASSERT_EQ(load("<VelaFmSnmp/>"), 0);
  EXPECT_EQ(settings(), std::make_tuple(15000u, true, false, true, 0, 0, 0, "", "/home/vela/etc/snmp/snmp_pwd_file",
                                        "/tmp/agentx-socket"));
  EXPECT_TRUE(isLogged("ipVersion is not found in the configuration."));
  EXPECT_TRUE(isLogged(
      "snmpMasterAgentPwdFile not found in configuration, using default '/home/vela/etc/snmp/snmp_pwd_file'."));
  EXPECT_TRUE(isLogged("snmpMasterAgentAgentxSocket not found in configuration, using default '/tmp/agentx-socket'."));

  ASSERT_EQ(load("<node><VelaFmSnmp><snmpPollInterval>3</snmpPollInterval>"
                 "<useInternalTrapListener>false</useInternalTrapListener><informTimeout>true</informTimeout>"
                 "<ipv6PortWorkaroudEnabled>0</ipv6PortWorkaroudEnabled><agentxPingInterval>4</agentxPingInterval>"
                 "<agentxTimeout>5</agentxTimeout><agentxRetries>6</agentxRetries><ipVersion> ipv6 </ipVersion>"
                 "<snmpMasterAgentPwdFile>/p</snmpMasterAgentPwdFile>"
                 "<snmpMasterAgentAgentxSocket>/s</snmpMasterAgentAgentxSocket></VelaFmSnmp></node>"),
            0);
  EXPECT_EQ(settings(), std::make_tuple(3000u, false, true, false, 4, 5, 6, "ipv6", "/p", "/s"));
  EXPECT_TRUE(isLogged("VelaFmSnmp/snmpMasterAgentPwdFile tag found: /p."));
  EXPECT_TRUE(isLogged("VelaFmSnmp/ipVersion tag found: ipv6"));
  EXPECT_FALSE(isLogged("Faulty Configuration"));

  forgetLines();
  ASSERT_EQ(load("<VelaFmSnmp><snmpPollInterval>18446744073709551615</snmpPollInterval><ipVersion/>"
                 "<snmpMasterAgentPwdFile> </snmpMasterAgentPwdFile></VelaFmSnmp>"),
            0);
  EXPECT_EQ(handler.getPollInterval(), 18446744073709551000u);
  EXPECT_EQ(handler.getSnmpMasterAgentPwdFile(), "/home/vela/etc/snmp/snmp_pwd_file");
  EXPECT_TRUE(isLogged("ipVersion is not found in the configuration."));
}

TEST_F(SnmpConfigHandlerTest, RefusesWhatIsNoConfiguration) {
  const struct {
    const char* text;
    const char* message;
  } cases[] = {
      {"<other/>", "No VelaFmSnmp configuration found"},
      {"<all><VelaFmSnmp/><VelaFmSnmp/></all>", "More VelaFmSnmp configuration found"},
      {"<VelaFmSnmp><snmpPollInterval>soon</snmpPollInterval></VelaFmSnmp>", "Caught exception: "},
      {"<VelaFmSnmp><useInternalTrapListener>perhaps</useInternalTrapListener></VelaFmSnmp>", "Caught exception: "},
      {"<VelaFmSnmp>", "Caught exception: "},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.text);
    forgetLines();
    EXPECT_EQ(load(one.text), -1);
    EXPECT_TRUE(isLogged(one.message));
  }
  EXPECT_EQ(handler.load("/nowhere/config.xml"), -1);
}

TEST_F(SnmpConfigHandlerTest, FaultyIpVersionIsNoPreference) {
  EXPECT_EQ(load("<VelaFmSnmp><ipVersion>IP4</ipVersion></VelaFmSnmp>"), 0);
  EXPECT_TRUE(isLogged("Faulty Configuration has been set for the ipVersion tag: 'IP4'."));
  EXPECT_EQ(handler.getIpVersion(), "");
}

TEST_F(SnmpConfigHandlerTest, Fingerprints) {
  EXPECT_TRUE(handler.validateFingerprint(Fingerprint));
  for (const std::string& faulty :
       {std::string(), Fingerprint.substr(2), Fingerprint + "00", std::string(40, 'x'), std::string(4000, 'a')}) {
    forgetLines();
    EXPECT_FALSE(handler.validateFingerprint(faulty)) << faulty;
    EXPECT_TRUE(isLogged("faulty fingerprint in configuration: '" + faulty + "'"));
  }
}

TEST_F(SnmpConfigHandlerTest, StaticTlsSettingsOverrideOnlyWhenBothAreThere) {
  SnmpConfig config;
  config.tlsOptions.nodeCredential = "model";
  config.tlsOptions.trustCategories = {"model"};
  config.tlsOptions.agentAddressDtls = {{"192.0.2.1", 10161}};

  ASSERT_EQ(loadTls(fingerprint("nodeCredential", Fingerprint) + fingerprint("trustCategory", "abc")), 0);
  EXPECT_TRUE(isLogged("invalid fingerprint in configuration file: abc"));
  handler.getStaticTlsConfig(config);
  EXPECT_EQ(config.tlsOptions.nodeCredential, "model");
  EXPECT_THAT(config.agentAddress, IsEmpty());

  ASSERT_EQ(loadTls(fingerprint("nodeCredential", Fingerprint) + fingerprint("nodeCredential", OtherFingerprint) +
                    fingerprint("trustCategory", Fingerprint) + fingerprint("trustCategory", OtherFingerprint)),
            0);
  EXPECT_TRUE(isLogged("More than one nodeCredential fingerprint in configuration file, using the first"));
  handler.getStaticTlsConfig(config);
  EXPECT_EQ(config.tlsOptions.nodeCredential, Fingerprint);
  EXPECT_THAT(config.tlsOptions.trustCategories, ElementsAre(Fingerprint, OtherFingerprint));
  EXPECT_THAT(config.agentAddress, ElementsAre(Pair("127.0.0.1", 45769u)));
  EXPECT_TRUE(isLogged("Using 127.0.0.1:45769 for master agent internal configuration access"));
}

TEST_F(SnmpConfigHandlerTest, InternalAddressFollowsTheFirstDtlsAddressAndTheFallbackPort) {
  ASSERT_EQ(
      load("<VelaFmSnmp><snmpFallbackPort>4000</snmpFallbackPort><tls>" + fingerprint("nodeCredential", Fingerprint) +
           fingerprint("trustCategory", Fingerprint) + "</tls></VelaFmSnmp>"),
      0);
  const struct {
    SnmpConfig::AddressList dtls;
    const char* host;
  } cases[] = {
      {{}, "127.0.0.1"},
      {{{"192.0.2.1", 1}, {"2001:db8::1", 1}}, "127.0.0.1"},
      {{{"2001:db8::1", 1}, {"192.0.2.1", 1}}, "::1"},
      {{{"host.example", 1}}, "127.0.0.1"},
  };
  for (const auto& one : cases) {
    SnmpConfig config;
    config.tlsOptions.agentAddressDtls = one.dtls;
    EXPECT_EQ(handler.getInternalHost(config), one.host);
    handler.getStaticTlsConfig(config);
    if (one.dtls.empty()) {
      EXPECT_THAT(config.agentAddress, IsEmpty());
    } else {
      EXPECT_THAT(config.agentAddress, ElementsAre(Pair(one.host, 4000u)));
    }
  }
  SnmpConfig reachable;
  reachable.tlsOptions.agentAddressDtls = {{"192.0.2.1", 1}};
  reachable.agentAddress = {{"192.0.2.1", 161}};
  handler.getStaticTlsConfig(reachable);
  EXPECT_THAT(reachable.agentAddress, ElementsAre(Pair("192.0.2.1", 161u)));
}

TEST_F(SnmpConfigHandlerTest, ASecondFileReplacesTheFirstAndAFaultyOneNothing) {
  const std::string tls =
      "<tls>" + fingerprint("nodeCredential", Fingerprint) + fingerprint("trustCategory", OtherFingerprint) + "</tls>";
  for (int run = 1; run <= 2; ++run) {
    ASSERT_EQ(load("<VelaFmSnmp><agentxTimeout>5</agentxTimeout>" + tls + "</VelaFmSnmp>"), 0);
  }
  EXPECT_EQ(load("<VelaFmSnmp><agentxTimeout>7</agentxTimeout><agentxRetries>x</agentxRetries></VelaFmSnmp>"), -1);
  EXPECT_EQ(handler.getAgentxTimeout(), 5);
  SnmpConfig config;
  handler.getStaticTlsConfig(config);
  EXPECT_THAT(config.tlsOptions.trustCategories, ElementsAre(OtherFingerprint));

  ASSERT_EQ(load("<VelaFmSnmp/>"), 0);
  EXPECT_EQ(handler.getAgentxTimeout(), 0);
  SnmpConfig plain;
  handler.getStaticTlsConfig(plain);
  EXPECT_EQ(plain.tlsOptions.nodeCredential, "");
}
