/**
 * tarn: the node's management tool for the SNMP master agent. It alone knows where snmpd's configuration, users,
 * password and persistent state lie, and it starts and stops the process.
 */
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "AgentConfiguration.h"
#include "AgentProcess.h"
#include "Credentials.h"
#include "Failure.h"
#include "Files.h"
#include "NodeFolder.h"
#include "PersistentState.h"
#include "Revision.h"
#include "TarnSpi.h"

namespace {

using namespace Tarn;
using Arguments = std::vector<std::string>;

constexpr const char* Usage =
    "usage: tarn spi-revision\n"
    "       tarn pso no-backup\n"
    "       tarn snmp start|stop|restart|status\n"
    "       tarn snmp isDtlsSupported|isExactEngineIdSupported|ipv6PortReverseByteOrder\n"
    "       tarn snmp configure [NAME=VALUE...]\n"
    "           ipAddress=ADDR[,ADDR...]         udp:HOST:PORT, udp6:[HOST]:PORT, dtlsudp:..., dtlsudp6:...\n"
    "           snmpId=TEXT                      name of the system, together with ipAddress\n"
    "           communities=FILE                 lines of COMMUNITY<TAB>SOURCE\n"
    "           trapsess=FILE                    lines of the agent's trapsess directive\n"
    "           dtlsNodeCredential=FINGERPRINT\n"
    "           setCipherString=TEXT\n"
    "           engineId=0xHEX\n"
    "       tarn tls init                        makes the node's certificate unless there is one; prints its "
    "fingerprint\n"
    "       tarn tls add FILE                    takes a peer's or an authority's certificate; prints its fingerprint\n"
    "       tarn tls show                        lists the certificates and what is wrong with the files\n"
    "An empty value clears its part. The environment variable VELA_NODE_DIR names the node's folder.\n";

/** Keeps two runs of the tool on one node from working at the same time. */
class NodeLock {
 public:
  explicit NodeLock(const NodeFolder& folder)
      : _fd(NodeFiles::openOwn(folder.lockFile(), O_RDWR | O_CREAT, S_IRUSR | S_IWUSR, geteuid())) {
    while (flock(_fd.get(), LOCK_EX) != 0)
      if (errno != EINTR) throw Failure("cannot lock " + folder.lockFile().string() + ": " + systemError(errno));
  }

 private:
  Descriptor _fd;
};

void start(const NodeFolder& folder) {
  const AgentProcess process(folder);
  if (process.find()) return;
  const AgentConfiguration configuration(folder);
  for (const std::string& receiver : configuration.generateForStart()) {
    std::cout << Vela::TarnSpi::ReceiverLeftOut << ' ' << receiver << '\n';
    std::cerr << "the inform receiver " << receiver << " is left out, its name has no address\n";
  }
  folder.takeBackPersistent();
  PersistentState(folder.persistent(), folder.agentUser().uid).prepareStart(configuration.engineId());
  folder.handOverCredentials();
  if (!std::filesystem::exists(folder.plugin()))
    std::cerr << "VELA_SNMPD_PLUGIN names no file: snmpd runs without the node's plugin\n";
  process.start();
}

void configure(const NodeFolder& folder, const Arguments& arguments) {
  for (const std::string& warning : AgentConfiguration(folder).configure(arguments)) std::cerr << warning << '\n';
}

void status(const NodeFolder& folder) {
  const auto pid = AgentProcess(folder).find();
  if (pid)
    std::cout << "snmpd is running on pid " << *pid << '\n';
  else
    std::cout << "snmpd is not running\n";
}

void answer(bool isYes) { std::cout << (isYes ? "yes" : "no") << '\n'; }

/** A word behind "tarn snmp" and what it does. */
struct Command {
  const char* word;
  bool isChange; /**< works on the folder: made when missing, and locked meanwhile */
  bool takesArguments;
  void (*run)(const NodeFolder& folder, const Arguments& arguments);
};

const Command Commands[] = {
    {"start", true, false, [](const NodeFolder& folder, const Arguments&) { start(folder); }},
    {"stop", true, false, [](const NodeFolder& folder, const Arguments&) { AgentProcess(folder).stop(); }},
    {"restart", true, false,
     [](const NodeFolder& folder, const Arguments&) {
       AgentProcess(folder).stop();
       start(folder);
     }},
    {"configure", true, true, configure},
    {"status", false, false, [](const NodeFolder& folder, const Arguments&) { status(folder); }},
    {"isDtlsSupported", false, false,
     [](const NodeFolder& folder, const Arguments&) {
       require("isDtlsSupported", Vela::TarnSpi::DtlsRevision);
       // The agent itself has the transport, the tables that configure its use come with the plugin.
       answer(std::filesystem::exists(folder.plugin()) && AgentProcess::isDtlsBuiltIn());
     }},
    {"isExactEngineIdSupported", false, false,
     [](const NodeFolder&, const Arguments&) {
       require("isExactEngineIdSupported", Vela::TarnSpi::EngineIdRevision);
       answer(true);
     }},
    {"ipv6PortReverseByteOrder", false, false,
     [](const NodeFolder&, const Arguments&) {
       require("ipv6PortReverseByteOrder", Vela::TarnSpi::Ipv6PortOrderRevision);
       // net-snmp's transport for IPv6 takes the two port octets of an address in network order.
       answer(false);
     }},
};

void runSnmp(const Arguments& arguments) {
  const std::string word = arguments.empty() ? "" : arguments.front();
  const auto command =
      std::find_if(std::begin(Commands), std::end(Commands), [&](const Command& c) { return word == c.word; });
  if (command == std::end(Commands)) throw Failure("unknown command 'snmp " + word + "'", Failure::WrongUsage);
  const Arguments rest(arguments.begin() + 1, arguments.end());
  if (!rest.empty() && !command->takesArguments)
    throw Failure("'snmp " + word + "' takes no arguments", Failure::WrongUsage);
  const NodeFolder folder = NodeFolder::fromEnvironment();
  if (!command->isChange) {
    command->run(folder, rest);
    return;
  }
  folder.make();
  const NodeLock lock(folder);
  command->run(folder, rest);
}

void runTls(const Arguments& arguments) {
  const std::string word = arguments.empty() ? "" : arguments.front();
  const size_t wanted = word == "add" ? 2 : 1;
  if ((word != "init" && word != "add" && word != "show") || arguments.size() != wanted)
    throw Failure("'tarn tls' takes init, add FILE or show", Failure::WrongUsage);
  const NodeFolder folder = NodeFolder::fromEnvironment();
  const Credentials credentials(folder);
  if (word == "show") {
    std::cout << credentials.show();
    return;
  }
  folder.make();
  const NodeLock lock(folder);
  std::cout << (word == "init" ? credentials.init() : credentials.add(arguments.back())) << '\n';
  folder.handOverCredentials();
}

void run(const Arguments& arguments) {
  if (arguments == Arguments{"--help"} || arguments == Arguments{"-h"}) {
    std::cout << Usage;
  } else if (arguments == Arguments{"spi-revision"}) {
    std::cout << currentRevision().toString() << '\n';
  } else if (arguments == Arguments{"pso", "no-backup"}) {
    std::cout << NodeFolder::fromEnvironment().noBackup().string() << '\n';
  } else if (!arguments.empty() && arguments.front() == "snmp") {
    runSnmp(Arguments(arguments.begin() + 1, arguments.end()));
  } else if (!arguments.empty() && arguments.front() == "tls") {
    runTls(Arguments(arguments.begin() + 1, arguments.end()));
  } else {
    throw Failure("unknown command; 'tarn --help' lists them", Failure::WrongUsage);
  }
}

}  // namespace

int main(int argc, char** argv) {
  umask(S_IRWXG | S_IRWXO);
  try {
    run(Arguments(argv + 1, argv + argc));
    std::cout.flush();
    return std::cout ? 0 : Failure::Failed;
  } catch (const Failure& failure) {
    std::cerr << "tarn: " << failure.what() << '\n';
    return failure.exitStatus();
  } catch (const std::exception& error) {
    std::cerr << "tarn: " << error.what() << '\n';
    return Failure::Failed;
  }
}
