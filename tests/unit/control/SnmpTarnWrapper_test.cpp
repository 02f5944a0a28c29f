#include "SnmpTarnWrapper.h"

#include <VelaException.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "MasterAgentFixture.h"
#include "adaptor/StateTestSupport.h"

using namespace VelaFmSnmp;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

class SnmpTarnWrapperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = (std::filesystem::temp_directory_path() / "vela-tarn-XXXXXX").string();
    ASSERT_NE(::mkdtemp(folder.data()), nullptr);
    ::setenv("VELA_NODE_DIR", folder.c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("VELA_NODE_DIR");
    std::filesystem::remove_all(folder);
  }

  /** Answers as the tool, and looks into the file it is handed. */
  int run(const std::string& line, std::string& output) {
    if (isMissing) throw Vela::VelaException("no such command");
    output = line == "tarn|spi-revision" ? revision : answer;
    for (const std::string key : {"communities=", "trapsess="}) {
      if (const std::size_t at = line.find(key); at != std::string::npos) look(line.substr(at + key.size()));
    }
    return line == "tarn|spi-revision" ? 0 : status;
  }
  void look(const std::string& path) {
    filePath = path;
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    fileMode = info.st_mode & 07777;
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    fileContent = content.str();
  }

  /** The last command that an option leads to. */
  std::string configure(TarnConfigureOption option, const SnmpConfig& config) {
    tool.takeCommands();
    wrapper.configure(option, config, 30000);
    const std::vector<std::string> commands = tool.takeCommands();
    return commands.empty() ? "" : commands.back();
  }

  std::string folder;
  std::string revision = "1.10.0\n";
  std::string answer = "yes\n";
  int status = 0;
  bool isMissing = false;
  std::string fileContent;
  std::string filePath;
  int fileMode = 0;
  StateTest::CommandStandIn tool{[this](const std::string& line, std::string& output) { return run(line, output); }};
  SnmpTarnWrapper wrapper{"tarn"};
  StateTest::CapturedLog log;
};

SnmpConfig dtlsConfig() {
  SnmpConfig config;
  config.agentAddress = {{"127.0.0.1", 1161}, {"::1", 1162}};
  config.tlsOptions.nodeCredential = std::string(40, 'a');
  config.tlsOptions.agentAddressDtls = {{"127.0.0.1", 10161}, {"::1", 10162}};
  config.tlsOptions.trustCategories = {std::string(40, 'b')};
  return config;
}

}  // namespace

TEST_F(SnmpTarnWrapperTest, managesByTheWordOfTheOption) {
  for (const TarnManageOption option :
       {TarnManageStart, TarnManageStop, TarnManageRestart, TarnManageConfigure, TarnManageStatus})
    wrapper.manage(option, 120000);
  EXPECT_THAT(tool.takeCommands(),
              ElementsAre("tarn|snmp|start @120000", "tarn|snmp|stop @120000", "tarn|snmp|restart @120000",
                          "tarn|snmp|configure @120000", "tarn|snmp|status @120000"));
  EXPECT_EQ(failureOf([&] { wrapper.manage(static_cast<TarnManageOption>(3), 1); }),
            "Failed to manage snmpd, unknown option 3");
  status = 1;
  answer = "port taken\n";
  EXPECT_THAT(failureOf([&] { wrapper.manage(TarnManageStart, 1); }), HasSubstr("port taken"));
}

TEST_F(SnmpTarnWrapperTest, readsStatusAndDirectory) {
  answer = "snmpd is running on pid 17\n";
  EXPECT_TRUE(wrapper.isRunning());
  EXPECT_THAT(tool.takeCommands(), ElementsAre("tarn|snmp|status @2000"));
  answer = "snmpd is not running\n";
  EXPECT_FALSE(wrapper.isRunning());
  answer = "/node/no-backup\n";
  EXPECT_EQ(wrapper.getTarnNoBackupDir(), "/node/no-backup");
  for (const char* faulty : {"", "node", "/node\nno-backup", "\x01\x02"}) {
    answer = faulty;
    EXPECT_THROW(wrapper.getTarnNoBackupDir(), Vela::VelaException) << faulty;
  }
  isMissing = true;
  EXPECT_FALSE(wrapper.isRunning());
  EXPECT_THROW(wrapper.getTarnNoBackupDir(), Vela::VelaException);
}

TEST_F(SnmpTarnWrapperTest, asksForTheRevisionOnce) {
  for (const char* faulty : {"", "1.2", "a.b.c"}) {
    revision = faulty;
    EXPECT_THROW(wrapper.isDtlsSupported(), Vela::VelaException) << faulty;
  }
  revision = "1.10.0\n";
  tool.takeCommands();
  EXPECT_TRUE(wrapper.isDtlsSupported());
  EXPECT_TRUE(wrapper.isExactEngineIdSupported());
  EXPECT_EQ(wrapper.getTarnSpiRevision().toString(), "1.10.0");
  EXPECT_THAT(tool.takeCommands(),
              ElementsAre(StartsWith("tarn|spi-revision @"), StartsWith("tarn|snmp|isDtlsSupported @"),
                          StartsWith("tarn|snmp|isExactEngineIdSupported @")));
  EXPECT_THAT(log.lines(), Contains("tarn spi-revision returned: '1.10.0'"));
}

TEST_F(SnmpTarnWrapperTest, featuresNeedTheirRevision) {
  struct Case {
    const char* revision;
    bool hasDtls, hasTrapsess, hasPortQuery, hasEngineId;
  };
  for (const Case& test : {Case{"1.1.9", false, false, false, false}, Case{"1.2.0", true, false, false, false},
                           Case{"1.5.99", true, false, false, false}, Case{"1.6.0", true, true, false, false},
                           Case{"1.9.0", true, true, true, false}, Case{"1.10.0", true, true, true, true},
                           Case{"2.0.0", true, true, true, true}}) {
    SCOPED_TRACE(test.revision);
    revision = test.revision;
    wrapper = SnmpTarnWrapper("tarn");
    const SnmpConfig config = dtlsConfig();
    bool isReversed = true;
    EXPECT_EQ(wrapper.isDtlsSupported(), test.hasDtls);
    EXPECT_EQ(wrapper.isExactEngineIdSupported(), test.hasEngineId);
    EXPECT_EQ(wrapper.isIpv6PortReverseByteOrder(isReversed), test.hasPortQuery);
    EXPECT_EQ(isReversed, test.hasPortQuery);
    EXPECT_EQ(configure(TarnConfigureDtlsNodeCredential, config).empty(), !test.hasDtls);
    EXPECT_EQ(configure(TarnConfigureTrapSess, config).empty(), !test.hasTrapsess);
    EXPECT_EQ(configure(TarnConfigureCipherString, config).empty(), !test.hasTrapsess);
    EXPECT_EQ(configure(TarnConfigureEngineId, config).empty(), !test.hasEngineId);
    EXPECT_FALSE(configure(TarnConfigureCommunities, config).empty());
  }
  EXPECT_THAT(log.lines(), Contains("tarn spi-revision to old to support dtlsNodeCredential"));
}

TEST_F(SnmpTarnWrapperTest, aFailedQueryAnswersNo) {
  status = 1;
  bool isReversed = true;
  EXPECT_FALSE(wrapper.isDtlsSupported());
  EXPECT_FALSE(wrapper.isExactEngineIdSupported());
  EXPECT_TRUE(wrapper.isIpv6PortReverseByteOrder(isReversed));
  EXPECT_FALSE(isReversed);
  for (const char* feature : {"dtls", "engineId", "ipv6PortReverseByteOrder"})
    EXPECT_THAT(log.lines(), Contains(StartsWith(std::string("exception while checking ") + feature + " support: ")));
  status = 0;
  answer = "no\n";
  EXPECT_FALSE(wrapper.isDtlsSupported());
}

TEST_F(SnmpTarnWrapperTest, handsAddressesOver) {
  SnmpConfig config = dtlsConfig();
  EXPECT_EQ(configure(TarnConfigureAgentAddress, config),
            "tarn|snmp|configure|ipAddress=udp:127.0.0.1:1161,udp6:[::1]:1162,dtlsudp:127.0.0.1:10161,"
            "dtlsudp6:[::1]:10162 @30000");
  config.tlsOptions.clear();
  config.snmpId = "node 7";
  config.agentAddress.push_back({"bad host", 1});
  EXPECT_EQ(configure(TarnConfigureAgentAddress, config),
            "tarn|snmp|configure|ipAddress=udp:127.0.0.1:1161,udp6:[::1]:1162|snmpId=node 7 @30000");
  EXPECT_THAT(log.lines(), Contains(StartsWith("Error while parsing address 'bad host'")));
  config.agentAddress = {{"bad host", 1}};
  EXPECT_THROW(configure(TarnConfigureAgentAddress, config), Vela::VelaException);
  EXPECT_THAT(log.lines(), Contains(StartsWith("exception while configuring: ")));
  EXPECT_EQ(failureOf([&] { configure(static_cast<TarnConfigureOption>(6), config); }),
            "Failed to configure snmpd, unknown option 6");
}

TEST_F(SnmpTarnWrapperTest, handsPlainValuesOver) {
  SnmpConfig config = dtlsConfig();
  config.tlsOptions.cipherFilter = "ALL:!aNULL";
  EXPECT_EQ(configure(TarnConfigureDtlsNodeCredential, config),
            "tarn|snmp|configure|dtlsNodeCredential=" + std::string(40, 'a') + " @30000");
  EXPECT_EQ(configure(TarnConfigureCipherString, config), "tarn|snmp|configure|setCipherString=ALL:!aNULL @30000");
  for (const std::string& md5OrNone : {std::string(32, 'a'), std::string("x")}) {
    config.tlsOptions.nodeCredential = md5OrNone;
    EXPECT_EQ(configure(TarnConfigureDtlsNodeCredential, config), "tarn|snmp|configure|dtlsNodeCredential= @30000");
    EXPECT_THAT(log.lines(), Contains("The nodeCredential '" + md5OrNone + "' is no fingerprint, not using it"));
  }
  const std::pair<const char*, const char*> engineIds[] = {{"", "engineId="},
                                                           {"8000000001020304", "engineId=0x8000000001020304"},
                                                           {"0x8000000001", "engineId=0x8000000001"},
                                                           {"80000000", "engineId="},
                                                           {"800000000g", "engineId="},
                                                           {"80000000010", "engineId="}};
  for (const auto& [configured, argument] : engineIds) {
    config.engineId = configured;
    EXPECT_EQ(configure(TarnConfigureEngineId, config), std::string("tarn|snmp|configure|") + argument + " @30000");
  }
}

TEST_F(SnmpTarnWrapperTest, secretsTravelInPrivateFiles) {
  auto inform = targetV3("c", "walter");
  inform->transportMethod = TransportInform;
  auto second = targetV1("b", "private");
  second->address = "10.0.0.1";
  second->networkPrefixLength = 24;
  auto injected = targetV2("d", "evil\nrwcommunity all");
  SnmpConfig config = configWith({targetV2("a", "public"), second, inform, injected});

  EXPECT_THAT(configure(TarnConfigureCommunities, config), Not(HasSubstr("public")));
  EXPECT_EQ(fileContent, "private\tdefault\npublic\tdefault\n");
  EXPECT_EQ(fileMode, 0600);
  EXPECT_THAT(filePath, StartsWith(folder + "/"));
  EXPECT_FALSE(std::filesystem::exists(filePath));

  config.enableSourceCheckForV1V2C = true;
  static_cast<SnmpTargetV2C&>(*config.targets["a"]).networkPrefixLength = -1;
  configure(TarnConfigureCommunities, config);
  EXPECT_EQ(fileContent, "private\t10.0.0.1/24\npublic\t127.0.0.1\n");

  EXPECT_THAT(configure(TarnConfigureTrapSess, config), Not(HasSubstr("Secret")));
  EXPECT_THAT(fileContent, HasSubstr("-A authSecret"));
  EXPECT_EQ(fileMode, 0600);
  status = 1;
  EXPECT_THROW(configure(TarnConfigureTrapSess, config), Vela::VelaException);
  EXPECT_FALSE(std::filesystem::exists(filePath)) << "a failure leaves no secret behind";
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  EXPECT_THAT(log.lines(), Not(Contains(HasSubstr("Secret"))));
}
