#include "host/NodeOptions.h"

#include <Poco/NumberParser.h>
#include <getopt.h>

#include "VelaException.h"
#include "framework/HostLog.h"

namespace VelaNode {

namespace {

enum Code { Dir = 1, Model, Config, AgentUser, LogLevel, LogSize, LogFiles, Verbose, Help = 'h' };

constexpr option longOptions[] = {
    {"dir", required_argument, nullptr, Dir},
    {"model", required_argument, nullptr, Model},
    {"config", required_argument, nullptr, Config},
    {"agent-user", required_argument, nullptr, AgentUser},
    {"log-level", required_argument, nullptr, LogLevel},
    {"log-size", required_argument, nullptr, LogSize},
    {"log-files", required_argument, nullptr, LogFiles},
    {"verbose", no_argument, nullptr, Verbose},
    {"help", no_argument, nullptr, Help},
    {nullptr, 0, nullptr, 0},
};

constexpr int defaultLogSize = 10;
constexpr int defaultLogFiles = 5;
constexpr int maxLogSize = 1024;
constexpr int maxLogFiles = 100;

int parseNumber(const char* option, const char* text, int least, int most) {
  int number = 0;
  if (!Poco::NumberParser::tryParse(text, number) || number < least || number > most)
    throw Vela::VelaException("--%s is not a number from %d to %d: '%s'", option, least, most, text);
  return number;
}

}  // namespace

NodeOptions NodeOptions::parse(int argc, char** argv) {
  NodeOptions options;
  options.logLevel = HostLog::DefaultLevel;
  options.logSize = defaultLogSize;
  options.logFiles = defaultLogFiles;
  opterr = 0;
  for (int code = 0; (code = ::getopt_long(argc, argv, ":h", longOptions, nullptr)) != -1;) {
    switch (code) {
      case Dir:
        options.directory = optarg;
        break;
      case Model:
        options.modelFile = optarg;
        break;
      case Config:
        options.configurationFile = optarg;
        break;
      case AgentUser:
        options.agentUser = optarg;
        break;
      case LogLevel:
        options.logLevel = parseNumber("log-level", optarg, 0, HostLog::MaxLevel);
        break;
      case LogSize:
        options.logSize = parseNumber("log-size", optarg, 1, maxLogSize);
        break;
      case LogFiles:
        options.logFiles = parseNumber("log-files", optarg, 1, maxLogFiles);
        break;
      case Verbose:
        options.isVerbose = true;
        break;
      case Help:
        options.isHelpWanted = true;
        return options;
      case ':':
        throw Vela::VelaException("%s needs a value", argv[optind - 1]);
      default:
        throw Vela::VelaException("unknown option %s", argv[optind - 1]);
    }
  }
  if (optind < argc) throw Vela::VelaException("unexpected argument '%s'", argv[optind]);
  if (options.directory.empty()) throw Vela::VelaException("missing --dir DIR");
  return options;
}

const char* NodeOptions::getHelp() {
  return R"(usage: vela-node --dir DIR [OPTION]...

Runs a node: a managed-object model, fault management, and the SNMP adaptor with its master agent. Stays in the
foreground until SIGINT, SIGTERM or "vela-nodectl --dir DIR stop".

  --dir DIR        folder that holds everything of this node; made when missing. One node at a time runs on a folder.
                   Folder, files and the folders above must be such that nobody but the caller and root can change them.
  --model FILE     model to begin with. It is copied to DIR/model.xml, which all later starts use and in which the node
                   keeps every change. Given again, it REPLACES DIR/model.xml, changes and all. Without it the first
                   start makes a default model.
  --config FILE    configuration of the SNMP component, copied to DIR/config.xml. Without it, DIR/config.xml is used as
                   it is, or made with defaults.
  --agent-user U   for a node that root runs: the user that snmpd becomes once it has bound its ports (the same as the
                   environment variable VELA_AGENT_USER). Default Debian-snmp, which the package snmpd brings.
  --log-level N    0 to 9: log lines up to this severity (3 errors, 4 warnings, 5 notices, 6 information, 7 debug; above
                   7 traces too). Default 6.
  --log-size N     a log file has at most N MiB (1 to 1024); then it is renamed to FILE.1, FILE.1 to FILE.2 and so on.
                   Default 10. It counts for DIR/log/node.log and for the master agent's DIR/log/snmpd.log.
  --log-files N    so many files (1 to 100) of each log are kept. Default 5.
  --verbose        log to standard error too, besides DIR/log/node.log.
  --help           this text.

SIGUSR1 makes the node open DIR/log/node.log anew, for who rotates it himself.

Exit status: 0 stopped as told; 1 failed while running; 2 wrong usage, model, configuration or installation - then
nothing was started and nothing in DIR was replaced.
)";
}

}  // namespace VelaNode
