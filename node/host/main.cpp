#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "VelaException.h"
#include "control/ControlProtocol.h"
#include "host/ComponentConfigCheck.h"
#include "host/Node.h"
#include "host/NodeEnvironment.h"
#include "host/NodeFolder.h"
#include "host/NodeOptions.h"
#include "model/ModelFile.h"
#include "support/Files.h"

namespace {

using namespace VelaNode;

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;
constexpr const char* programName = "vela-node";
constexpr const char* masterAgent = "snmpd";
constexpr const char* masterAgentPackage = "snmpd";

/** The signals that end the node, and the one that reopens its log. They are blocked in all threads and taken by the
 * main thread's wait. */
sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);
  struct sigaction hangup {};
  // A node that was started to outlive its terminal has this one ignored.
  if (::sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // A peer that goes away is an error of the call that writes to it.
  ::signal(SIGPIPE, SIG_IGN);
  return signals;
}

void checkSocketPath(const std::string& path, const char* what) {
  if (path.size() > maxSocketPathLength) {
    throw Vela::VelaException("The path of the %s has %zu octets, a socket's has at most %zu: %s", what, path.size(),
                              maxSocketPathLength, path.c_str());
  }
}

/** The texts of the files that the node is to run on; empty: the folder's own stays. */
struct Inputs {
  std::string model;
  std::string configuration;
};

/** Checks all that the node is told, before anything is written or started. */
Inputs checkInputs(const NodeOptions& options, const NodeFolder& folder) {
  Inputs inputs;
  if (!options.modelFile.empty()) {
    inputs.model = readWholeFile(options.modelFile);
    ModelFile::parse(inputs.model, options.modelFile);
  } else if (std::filesystem::exists(folder.model())) {
    ModelFile::parse(readWholeFile(folder.model()), folder.model());
  } else {
    inputs.model = ModelFile::getDefaultText();
  }

  std::string configurationFile = options.configurationFile;
  if (!configurationFile.empty()) {
    inputs.configuration = readWholeFile(configurationFile);
  } else {
    configurationFile = folder.configuration();
    if (!std::filesystem::exists(configurationFile)) {
      writeWholeFile(configurationFile, ComponentConfigCheck::getDefaultText());
    }
  }
  const ComponentPaths paths = ComponentConfigCheck::check(configurationFile);
  checkSocketPath(paths.agentxSocket, "AgentX socket");
  checkSocketPath(folder.controlSocket(), "control socket");
  NodeEnvironment::set(paths);
  return inputs;
}

void installInputs(const Inputs& inputs, const NodeFolder& folder) {
  folder.makeTree();
  if (!inputs.model.empty()) writeWholeFile(folder.model(), inputs.model);
  if (!inputs.configuration.empty()) writeWholeFile(folder.configuration(), inputs.configuration);
}

void waitForStop(const sigset_t& signals, Node& node) {
  for (int signal = SIGUSR1; signal == SIGUSR1;) {
    ::sigwait(&signals, &signal);
    if (signal == SIGUSR1) node.reopenLog();
  }
}

int run(const NodeOptions& options, const sigset_t& stopSignals) {
  int failure = exitUsage;
  try {
    if (!options.agentUser.empty()) NodeEnvironment::setAgentUser(options.agentUser);
    const NodeFolder folder(options.directory);
    const NodeEnvironment environment;
    environment.set(folder.path());
    NodeEnvironment::setLogBounds(options.logOctets(), static_cast<unsigned>(options.logFiles));
    NodeEnvironment::requireProgram(masterAgent, masterAgentPackage);
    installInputs(checkInputs(options, folder), folder);

    failure = exitFailure;
    Node node(folder, options);
    node.start(environment.componentLibrary());
    std::printf("%s: running in %s\n", programName, folder.path().c_str());
    std::fflush(stdout);
    waitForStop(stopSignals, node);
    node.stop();
    return 0;
  } catch (const std::exception& ex) {
    std::fprintf(stderr, "%s\n", ex.what());
    return failure;
  }
}

}  // namespace

int main(int argc, char** argv) {
  ::umask(S_IRWXG | S_IRWXO);
  NodeOptions options;
  try {
    options = NodeOptions::parse(argc, argv);
  } catch (const Vela::VelaException& ex) {
    std::fprintf(stderr, "%s: %s (see %s --help)\n", programName, ex.what(), programName);
    return exitUsage;
  }
  if (options.isHelpWanted) {
    std::fputs(NodeOptions::getHelp(), stdout);
    return 0;
  }
  return run(options, blockStopSignals());
}
