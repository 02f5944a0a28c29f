// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "MasterAgentFixture.h"

#include <ScriptWrapper.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

using namespace VelaFmSnmp;

namespace {

std::string temporaryFolder() {
  const char* folder = std::getenv("TMPDIR");
  return folder ? folder : "/tmp";
}

std::string makeFolder(const std::string& parent) {
  std::string folder = parent + "/vela-control-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder in " + parent);
  return folder;
}

/** The library reads no file of the machine and no MIB module. */
class LibraryEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    _folder = makeFolder(temporaryFolder());
    ::setenv("SNMPCONFPATH", _folder.c_str(), 1);
    ::setenv("SNMP_PERSISTENT_DIR", _folder.c_str(), 1);
    ::setenv("MIBS", "", 1);
    init_snmp("unit_control");
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(_folder, ignored);
  }

 private:
  std::string _folder;
};

const ::testing::Environment* const environment = ::testing::AddGlobalTestEnvironment(new LibraryEnvironment);

int freePort() {
  const int fd = ::socket(AF_INET6, SOCK_DGRAM, 0);  // both families
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("no free port");
  ::close(fd);
  return ntohs(address.sin6_port);
}

}  // namespace

const char* const MasterAgent::user = "vela_config_user";
const char* const MasterAgent::passPhrase = "rootSecret";

MasterAgent::MasterAgent() : _port(freePort()) {
  // The agent syncs its persistent file at every SET; on a disk that takes longer than the session waits for an answer.
  _folder = makeFolder(std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : temporaryFolder());
  std::ofstream conf(_folder + "/snmpd.conf");
  conf << "agentaddress udp:127.0.0.1:" << _port << ",udp6:[::1]:" << _port << "\n"
       << "rwuser " << user << " authPriv\ncom2sec Vela_public default public\n";
  const char* const users[][3] = {{user, "MD5", "DES"},
                                  {"vela_templ_SHA_DES", "SHA", "DES"},
                                  {"vela_templ_MD5_AES", "MD5", "AES"},
                                  {"vela_templ_SHA_AES", "SHA", "AES"}};
  for (const auto& [name, auth, priv] : users)
    conf << "createUser " << name << " " << auth << " " << passPhrase << " " << priv << " " << passPhrase << "\n";
  conf.close();
  start();
}

MasterAgent::~MasterAgent() {
  end();
  if (::testing::Test::HasFailure()) {
    std::ifstream log(_folder + "/snmpd.log");
    std::cerr << "snmpd.log:\n" << log.rdbuf() << std::endl;
  }
  std::error_code ignored;
  std::filesystem::remove_all(_folder, ignored);
}

void MasterAgent::start() {
  const std::string persistent = _folder + "/persist";
  std::filesystem::create_directories(persistent);
  _pid = ::fork();
  if (_pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test program that is killed leaves no agent behind
    ::setenv("SNMPCONFPATH", (_folder + ":" + persistent).c_str(), 1);
    ::setenv("SNMP_PERSISTENT_DIR", persistent.c_str(), 1);
    ::setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    const std::string log = _folder + "/snmpd.log";
    ::execlp("snmpd", "snmpd", "-f", "-I", "-smux", "-Lf", log.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
}

void MasterAgent::end() {
  if (_pid <= 0) return;
  ::kill(_pid, SIGKILL);
  ::waitpid(_pid, nullptr, 0);
  _pid = -1;
}

void MasterAgent::restart() {
  end();
  start();
}

void MasterAgent::setStopped(bool isStopped) const { ::kill(_pid, isStopped ? SIGSTOP : SIGCONT); }

void MasterAgent::open(SnmpMaSession& session) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (;;) {
    try {
      return session.initSession("127.0.0.1", _port, user, passPhrase, passPhrase);
    } catch (const SnmpSessionException&) {
      if (std::chrono::steady_clock::now() > end) throw;
      ::usleep(20000);
    }
  }
}

ToolResult runTool(std::vector<std::string> arguments) {
  const Vela::ScriptWrapper tool(arguments.front());
  arguments.erase(arguments.begin());
  std::string output;
  const int status = tool.run(arguments, 20000, output);
  return {status == 0, output};
}

std::string impliedIndex(const std::string& name) {
  std::string index;
  for (const unsigned char c : name) index += "." + std::to_string(c);
  return index;
}

namespace {

template <class Target>
Poco::AutoPtr<Target> target(const std::string& name) {
  Poco::AutoPtr<Target> result(new Target);
  result->name = name;
  result->moName = "ManagedElement=1,SystemFunctions=1,SysM=1,Snmp=1,Target=" + name;
  result->address = "127.0.0.1";
  result->port = 10162;
  return result;
}

}  // namespace

Poco::AutoPtr<SnmpTargetV1> targetV1(const std::string& name, const std::string& community) {
  auto result = target<SnmpTargetV1>(name);
  result->community = community;
  return result;
}

Poco::AutoPtr<SnmpTargetV2C> targetV2(const std::string& name, const std::string& community) {
  auto result = target<SnmpTargetV2C>(name);
  result->community = community;
  return result;
}

Poco::AutoPtr<SnmpTargetV3Usm> targetV3(const std::string& name, const std::string& user) {
  auto result = target<SnmpTargetV3Usm>(name);
  result->user = user;
  result->authKey = "authSecret";
  result->privKey = "privSecret";
  return result;
}

Poco::AutoPtr<SnmpTargetV3Tls> targetTls(const std::string& name, const std::string& user) {
  auto result = target<SnmpTargetV3Tls>(name);
  result->user = user;
  return result;
}

SnmpConfig configWith(const std::vector<Poco::AutoPtr<SnmpBaseTarget>>& targets) {
  SnmpConfig config;
  config.agentAddress = {{"127.0.0.1", 1161}};
  for (const auto& entry : targets) config.targets[entry->name] = entry;
  return config;
}
