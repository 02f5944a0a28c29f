#include "SnmpTarnWrapper.h"

#include <VelaException.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "LogCapture.h"
#include "MasterAgentFixture.h"

using namespace VelaFmSnmp;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

/** Stands for the tool: answers by the words of the command, and looks into the files it is handed. */
class StandInTool : public Vela::ScriptRunner {
 public:
  std::string revision = "1.10.0\n";
  std::string answer = "yes\n";
  int status = 0;
  bool isMissing = false;
  std::vector<std::string> runs;  // revision queries left out
  std::vector<int> timeouts;
  int revisionQueries = 0;
  std::string fileContent;
  std::string filePath;
  int fileMode = 0;

  int run(const std::vector<std::string>& argv, int timeoutMs, std::string& output,
          const Vela::ScriptCancellation*) override {
    std::string line;
    for (const std::string& word : argv) line += (line.empty() ? "" : " ") + word;
    if (isMissing) throw Vela::VelaException("no such command");
    if (line == "tarn spi-revision") {
      ++revisionQueries;
      output = revision;
      return 0;
    }
    runs.push_back(line);
    timeouts.push_back(timeoutMs);
    for (const char* key : {"communities=", "trapsess="}) {
      if (argv.back().compare(0, std::string(key).size(), key) == 0) look(argv.back().substr(std::string(key).size()));
    }
    output = answer;
    return status;
  }

 private:
  void look(const std::string& path) {
    filePath = path;
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    fileMode = info.st_mode & 07777;
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    fileContent = content.str();
  }
};

class SnmpTarnWrapperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = (std::filesystem::temp_directory_path() / "vela-tarn-XXXXXX").string();
    ASSERT_NE(::mkdtemp(folder.data()), nullptr);
    ::setenv("VELA_NODE_DIR", folder.c_str(), 1);
    Vela::ScriptWrapper::setRunner(tool);
  }
  void TearDown() override {
    Vela::ScriptWrapper::setRunner(nullptr);
    ::unsetenv("VELA_NODE_DIR");
    std::filesystem::remove_all(folder);
  }
  std::string configure(TarnConfigureOption option, const SnmpConfig& config) {
    tool->runs.clear();
    wrapper.configure(option, config, 30000);
    return tool->runs.empty() ? "" : tool->runs.back();
  }

  std::string folder;
  std::shared_ptr<StandInTool> tool = std::make_shared<StandInTool>();
  SnmpTarnWrapper wrapper{"tarn"};
  LogCapture log;
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
  const std::pair<TarnManageOption, const char*> options[] = {{TarnManageStart, "start"},
                                                              {TarnManageStop, "stop"},
                                                              {TarnManageRestart, "restart"},
                                                              {TarnManageConfigure, "configure"},
                                                              {TarnManageStatus, "status"}};
  for (const auto& [option, word] : options) {
    wrapper.manage(option, 120000);
    EXPECT_EQ(tool->runs.back(), std::string("tarn snmp ") + word);
    EXPECT_EQ(tool->timeouts.back(), 120000);
  }
  try {
    wrapper.manage(static_cast<TarnManageOption>(3), 1);
    ADD_FAILURE() << "option 3 is none";
  } catch (const Vela::VelaException& ex) {
    EXPECT_STREQ(ex.what(), "Failed to manage snmpd, unknown option 3");
  }
  tool->status = 1;
  tool->answer = "port taken\n";
  try {
    wrapper.manage(TarnManageStart, 1);
    ADD_FAILURE() << "the tool failed";
  } catch (const Vela::VelaException& ex) {
    EXPECT_THAT(ex.what(), HasSubstr("port taken"));
  }
}

TEST_F(SnmpTarnWrapperTest, readsStatusAndDirectory) {
  tool->answer = "snmpd is running on pid 17\n";
  EXPECT_TRUE(wrapper.isRunning());
  EXPECT_EQ(tool->timeouts.back(), 2000);
  tool->answer = "snmpd is not running\n";
  EXPECT_FALSE(wrapper.isRunning());
  tool->answer = "/node/no-backup\n";
  EXPECT_EQ(wrapper.getTarnNoBackupDir(), "/node/no-backup");
  for (const char* faulty : {"", "node", "/node\nno-backup", "\x01\x02"}) {
    tool->answer = faulty;
    EXPECT_THROW(wrapper.getTarnNoBackupDir(), Vela::VelaException) << faulty;
  }
  tool->isMissing = true;
  EXPECT_FALSE(wrapper.isRunning());
  EXPECT_THROW(wrapper.getTarnNoBackupDir(), Vela::VelaException);
}

TEST_F(SnmpTarnWrapperTest, asksForTheRevisionOnce) {
  for (const char* faulty : {"", "1.2", "a.b.c"}) {
    tool->revision = faulty;
    EXPECT_THROW(wrapper.isDtlsSupported(), Vela::VelaException) << faulty;
  }
  tool->revision = "1.10.0\n";
  tool->revisionQueries = 0;
  EXPECT_TRUE(wrapper.isDtlsSupported());
  EXPECT_TRUE(wrapper.isExactEngineIdSupported());
  EXPECT_EQ(wrapper.getTarnSpiRevision().toString(), "1.10.0");
  EXPECT_EQ(tool->revisionQueries, 1);
  EXPECT_EQ(tool->runs, (std::vector<std::string>{"tarn snmp isDtlsSupported", "tarn snmp isExactEngineIdSupported"}));
  EXPECT_THAT(LogCapture::lines(), Contains("tarn spi-revision returned: '1.10.0'"));
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
    tool->revision = test.revision;
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
  for (const char* text :
       {"tarn spi-revision to old to support isDtlsSupported",
        "tarn spi-revision to old to support isExactEngineIdSupported",
        "tarn spi-revision too old to support isIpv6PortReverseByteOrder",
        "tarn spi-revision to old to support dtlsNodeCredential",
        "tarn spi-revision too old to support setCipherString.",
        "tarn spi-revision too old to support trapsess. Inform with authentication-enabled may not work. Refer VELA TR "
        "HT67423.",
        "tarn spi-revision too old to support configuration of engineId."})
    EXPECT_THAT(LogCapture::lines(), Contains(text));
}

TEST_F(SnmpTarnWrapperTest, aFailedQueryAnswersNo) {
  tool->status = 1;
  bool isReversed = true;
  EXPECT_FALSE(wrapper.isDtlsSupported());
  EXPECT_FALSE(wrapper.isExactEngineIdSupported());
  EXPECT_TRUE(wrapper.isIpv6PortReverseByteOrder(isReversed));
  EXPECT_FALSE(isReversed);
  for (const char* feature : {"dtls", "engineId", "ipv6PortReverseByteOrder"})
    EXPECT_THAT(LogCapture::lines(),
                Contains(StartsWith(std::string("exception while checking ") + feature + " support: ")));
  tool->status = 0;
  tool->answer = "no\n";
  EXPECT_FALSE(wrapper.isDtlsSupported());
}

TEST_F(SnmpTarnWrapperTest, handsAddressesOver) {
  SnmpConfig config = dtlsConfig();
  EXPECT_EQ(configure(TarnConfigureAgentAddress, config),
            "tarn snmp configure ipAddress=udp:127.0.0.1:1161,udp6:[::1]:1162,dtlsudp:127.0.0.1:10161,"
            "dtlsudp6:[::1]:10162");
  EXPECT_EQ(tool->timeouts.back(), 30000);
  config.tlsOptions.clear();
  config.snmpId = "node 7";
  config.agentAddress.push_back({"bad host", 1});
  EXPECT_EQ(configure(TarnConfigureAgentAddress, config),
            "tarn snmp configure ipAddress=udp:127.0.0.1:1161,udp6:[::1]:1162 snmpId=node 7");
  EXPECT_THAT(LogCapture::lines(), Contains(StartsWith("Error while parsing address 'bad host'")));
  config.agentAddress = {{"bad host", 1}};
  EXPECT_THROW(configure(TarnConfigureAgentAddress, config), Vela::VelaException);
  EXPECT_THAT(LogCapture::lines(), Contains(StartsWith("exception while configuring: ")));
  try {
    configure(static_cast<TarnConfigureOption>(6), config);
    ADD_FAILURE() << "option 6 is none";
  } catch (const Vela::VelaException& ex) {
    EXPECT_STREQ(ex.what(), "Failed to configure snmpd, unknown option 6");
  }
}

TEST_F(SnmpTarnWrapperTest, handsPlainValuesOver) {
  SnmpConfig config = dtlsConfig();
  config.tlsOptions.cipherFilter = "ALL:!aNULL";
  EXPECT_EQ(configure(TarnConfigureDtlsNodeCredential, config),
            "tarn snmp configure dtlsNodeCredential=" + std::string(40, 'a'));
  EXPECT_EQ(configure(TarnConfigureCipherString, config), "tarn snmp configure setCipherString=ALL:!aNULL");
  const std::pair<const char*, const char*> engineIds[] = {{"", "engineId="},
                                                           {"8000000001020304", "engineId=0x8000000001020304"},
                                                           {"0x8000000001", "engineId=0x8000000001"},
                                                           {"80000000", "engineId="},
                                                           {"800000000g", "engineId="},
                                                           {"80000000010", "engineId="}};
  for (const auto& [configured, argument] : engineIds) {
    config.engineId = configured;
    EXPECT_EQ(configure(TarnConfigureEngineId, config), std::string("tarn snmp configure ") + argument);
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
  EXPECT_EQ(tool->fileContent, "private\tdefault\npublic\tdefault\n");
  EXPECT_EQ(tool->fileMode, 0600);
  EXPECT_THAT(tool->filePath, StartsWith(folder + "/"));
  EXPECT_FALSE(std::filesystem::exists(tool->filePath));

  config.enableSourceCheckForV1V2C = true;
  static_cast<SnmpTargetV2C&>(*config.targets["a"]).networkPrefixLength = -1;
  configure(TarnConfigureCommunities, config);
  EXPECT_EQ(tool->fileContent, "private\t10.0.0.1/24\npublic\t127.0.0.1\n");

  EXPECT_THAT(configure(TarnConfigureTrapSess, config), Not(HasSubstr("Secret")));
  EXPECT_THAT(tool->fileContent, HasSubstr("-A authSecret"));
  EXPECT_EQ(tool->fileMode, 0600);
  tool->status = 1;
  EXPECT_THROW(configure(TarnConfigureTrapSess, config), Vela::VelaException);
  EXPECT_FALSE(std::filesystem::exists(tool->filePath)) << "a failure leaves no secret behind";
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  EXPECT_THAT(LogCapture::lines(), Not(Contains(HasSubstr("Secret"))));
}
