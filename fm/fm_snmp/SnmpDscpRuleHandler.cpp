#include "SnmpDscpRuleHandler.h"

#include <unistd.h>

#include <Poco/String.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <set>

#include "LoggingWrapper.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

constexpr int CommandTimeoutMs = 4000;
constexpr std::chrono::milliseconds NameTimeout{500};
constexpr std::uint32_t MaxPort = 65535;
/** The multiport match takes no more. */
constexpr size_t MaxPorts = 15;
constexpr int StatusNotRun = -1;
/** Status of the adding command when a rule of that name exists. */
constexpr int StatusRuleExists = 1;

struct TrafficClass {
  const char* rule;
  const char* word;
};
constexpr TrafficClass CmClass = {"vela-snmp-response", "OamCM"};
constexpr TrafficClass FmClass = {"vela-snmp-alarm", "OamFM"};

constexpr const char* ProtocolTexts[] = {"-p all", "-p udp", "-p tcp"};
/** By key of the option. */
constexpr const char* OptionTexts[] = {
    " -d ",  " --match multiport --dport ",   " -s ",   " --match multiport --sport ",
    " ! -d", " --match multiport ! --dport ", " ! -s ", " --match multiport ! --sport "};

std::string getVariable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

const SnmpBaseTarget& checked(const std::pair<const std::string, Poco::AutoPtr<SnmpBaseTarget>>& target) {
  if (target.second.isNull()) throw Vela::VelaException("no target behind the name %s", target.first.c_str());
  return *target.second;
}

/** Whether a text is an address or a name. */
bool canBeAddress(const std::string& text) {
  return !text.empty() && text.front() != '-' && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '.' || c == ':' || c == '-' || c == '_';
  });
}

bool isPort(std::uint32_t port) { return port != 0 && port <= MaxPort; }

std::string joinTexts(const std::vector<std::string>& texts, const char* separator) {
  std::string joined;
  for (const std::string& text : texts) {
    if (!joined.empty()) joined += separator;
    joined += text;
  }
  return joined;
}

/** Texts in the order in which they were added, each once. */
class TextList {
 public:
  void add(const std::string& text) {
    if (_known.insert(text).second) _texts.push_back(text);
  }
  size_t size() const { return _texts.size(); }
  void truncate(size_t size) { _texts.resize(std::min(size, _texts.size())); }
  std::string join() const { return joinTexts(_texts, ","); }

 private:
  std::vector<std::string> _texts;
  std::set<std::string> _known;
};

void logIfFailed(const Vela::ScriptWrapper& command, const SnmpDscpRuleHandler::Arguments& arguments, int status,
                 const std::string& output) {
  if (status == 0) return;
  VELA_LOG(Vela::LogError, "%s %s failed, retval: %d, output: %s", command.getCommand().c_str(),
           joinTexts(arguments, " ").c_str(), status, output.c_str());
}

SnmpDscpRuleHandler::Arguments rulePattern(const TrafficClass& trafficClass) {
  // The quotes belong to the argument: the node's command takes them off itself.
  return {"-r", std::string("'^") + trafficClass.rule + "'"};
}

SnmpDscpRuleHandler::Arguments ruleArguments(const TrafficClass& trafficClass, const Vela::IpTablesRule& rule) {
  SnmpDscpRuleHandler::Arguments arguments = {trafficClass.rule, trafficClass.word};
  SnmpDscpRuleHandler::addOptions(arguments, rule);
  return arguments;
}

}  // namespace

std::string getAddress(const std::pair<const std::string, Poco::AutoPtr<SnmpBaseTarget>>& target) {
  return checked(target).address;
}

std::string getPort(const std::pair<const std::string, Poco::AutoPtr<SnmpBaseTarget>>& target) {
  return std::to_string(checked(target).port);
}

SnmpDscpRuleHandler::SnmpDscpRuleHandler(const std::string& commandDirectory)
    : _resolver(NameTimeout),
      _add("dscp-iptables-add"),
      _list("dscp-iptables-list"),
      _updateTuple("dscp-iptables-update-tuple"),
      _remove("dscp-iptables-remove"),
      _enabled("dscp-enabled"),
      _sudo(getVariable("SUDO_CMD")) {
  try {
    const int status = probe(commandDirectory);
    _apiAvailable = status == 0;
    if (_apiAvailable) {
      VELA_TRACE("DSCP iptables API is available");
    } else {
      VELA_TRACE("DSCP iptables API is not available, status %d", status);
    }
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Exception when running dscp-iptables-list reason: %s", Vela::textOf(ex).c_str());
  } catch (...) {
    VELA_LOG(Vela::LogError, "Exception when running dscp-iptables-list");
  }
}

int SnmpDscpRuleHandler::probe(const std::string& commandDirectory) {
  _whyUnavailable = _list.getCommand() + " cannot be run";
  if (getVariable("VELA_USER_MODE") == "1" && !_sudo.getCommand().empty()) {
    const std::string command = commandDirectory + _list.getCommand();
    if (access(command.c_str(), X_OK) != 0) {
      _whyUnavailable = command + " is no command, which " + _sudo.getCommand() + " would run";
      return StatusNotRun;
    }
    _useSudo = true;
  }
  std::string output;
  const int status = run(_list, {}, output);
  // A command that sudo has taken the environment from tells here what it misses.
  _whyUnavailable = (_useSudo ? _sudo.getCommand() + " " : "") + _list.getCommand() + " fails with exit status " +
                    std::to_string(status) + ": " + Poco::trim(output);
  return status;
}

void SnmpDscpRuleHandler::setCancellation(const Vela::ScriptCancellation* cancellation) {
  for (Vela::ScriptWrapper* command : {&_add, &_list, &_updateTuple, &_remove, &_enabled, &_sudo}) {
    command->setCancellation(cancellation);
  }
}

int SnmpDscpRuleHandler::run(const Vela::ScriptWrapper& command, Arguments arguments, std::string& output) const {
  if (!_useSudo) return command.run(arguments, CommandTimeoutMs, output);
  arguments.insert(arguments.begin(), command.getCommand());
  return _sudo.run(arguments, CommandTimeoutMs, output);
}

bool SnmpDscpRuleHandler::isDscpEnabled() const {
  std::string reason;
  return hasEffect(reason);
}

bool SnmpDscpRuleHandler::hasEffect(std::string& reason) const {
  try {
    return _enabled.run({}, CommandTimeoutMs, reason) == 0;
  } catch (const std::exception& ex) {
    reason = Vela::textOf(ex);
    VELA_LOG(Vela::LogError, "Exception when running %s reason: %s", _enabled.getCommand().c_str(), reason.c_str());
    return false;
  }
}

bool SnmpDscpRuleHandler::isUsable() const {
  std::string reason = _whyUnavailable;
  if (_apiAvailable && hasEffect(reason)) {
    _toldReason.clear();
    return true;
  }
  VELA_TRACE("DSCP iptables API is not available or DSCP feature is disabled");
  reason = Poco::trim(reason);
  if (reason != _toldReason) VELA_LOG(Vela::LogInfo, "Packets are not marked: %s", reason.c_str());
  _toldReason = reason;
  return false;
}

void SnmpDscpRuleHandler::setCmRule(const SnmpConfig& config) const {
  TextList ports;
  const auto add = [&ports](const SnmpConfig::AddressList& addresses) {
    for (const auto& [host, port] : addresses) {
      if (isPort(port)) {
        ports.add(std::to_string(port));
      } else {
        VELA_LOG(Vela::LogWarning, "No DSCP marking for agent address %s, bad port %u", host.c_str(), port);
      }
    }
  };
  add(config.agentAddress);
  if (config.tlsOptions.isEnabled()) add(config.tlsOptions.agentAddressDtls);
  if (!config.dscpCmEnabled || ports.size() == 0) return removeCmRule();
  if (!isUsable()) return;

  if (ports.size() > MaxPorts) {
    VELA_LOG(Vela::LogWarning, "Only %zu of %zu agent ports are marked with DSCP", MaxPorts, ports.size());
    ports.truncate(MaxPorts);
  }
  Vela::IpTablesRule rule;
  rule.protocol = Vela::IpTablesRule::ProtocolUdp;
  rule.options[Vela::IpTablesRule::SourcePorts] = ports.join();
  addOrModifyRule(ruleArguments(CmClass, rule));
}

std::string SnmpDscpRuleHandler::addressOf(const std::string& name, const SnmpBaseTarget& target) const {
  if (!isPort(target.port)) {
    VELA_LOG(Vela::LogWarning, "No DSCP marking for target %s, bad port %u", name.c_str(), target.port);
    return {};
  }
  if (!canBeAddress(target.address)) {
    VELA_LOG(Vela::LogWarning, "No DSCP marking for target %s, bad address", name.c_str());
    return {};
  }
  try {
    // The command gets no names: it would wait for a slow name server until it is ended, and the rule with it.
    return _resolver.resolve(target.address).toString();
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogWarning, "No DSCP marking for target %s yet: %s", name.c_str(), Vela::textOf(ex).c_str());
    _isNameMissing = true;
    return {};
  }
}

void SnmpDscpRuleHandler::setFmRule(const SnmpConfig& config) const {
  _isNameMissing = false;
  if (!config.dscpFmEnabled) return removeFmRule();
  if (!isUsable()) return;

  TextList addresses;
  TextList ports;
  _resolver.forget();
  try {
    for (const auto& target : config.getTargets()) _resolver.prepare(getAddress(target));
    for (const auto& target : config.getTargets()) {
      const std::string address = addressOf(target.first, checked(target));
      if (address.empty()) continue;
      addresses.add(address);
      ports.add(getPort(target));
    }
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Failed to set DSCP rule %s: %s", FmClass.rule, Vela::textOf(ex).c_str());
    return;
  }
  if (addresses.size() == 0) return removeRule(rulePattern(FmClass));

  Vela::IpTablesRule rule;
  rule.protocol = Vela::IpTablesRule::ProtocolUdp;
  rule.options[Vela::IpTablesRule::DestinationAddress] = addresses.join();
  // With more ports than can be matched the addresses alone tell what is marked.
  if (ports.size() <= MaxPorts) rule.options[Vela::IpTablesRule::DestinationPorts] = ports.join();
  addOrModifyRule(ruleArguments(FmClass, rule));
}

void SnmpDscpRuleHandler::removeCmRule() const {
  if (isUsable()) removeRule(rulePattern(CmClass));
}

void SnmpDscpRuleHandler::removeFmRule() const {
  if (isUsable()) removeRule(rulePattern(FmClass));
}

void SnmpDscpRuleHandler::addOptions(Arguments& arguments, const Vela::IpTablesRule& rule) {
  std::string options = ProtocolTexts[rule.protocol];
  for (const auto& [key, value] : rule.options) options += OptionTexts[key] + value;
  arguments.push_back(std::move(options));
}

void SnmpDscpRuleHandler::removeRule(const Arguments& arguments) const {
  try {
    std::string output;
    const int status = run(_remove, arguments, output);
    logIfFailed(_remove, arguments, status, output);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Exception when running %s reason: %s", _remove.getCommand().c_str(),
             Vela::textOf(ex).c_str());
  }
}

void SnmpDscpRuleHandler::addOrModifyRule(Arguments arguments) const {
  const Vela::ScriptWrapper* command = &_add;
  try {
    std::string output;
    int status = run(*command, arguments, output);
    if (status == StatusRuleExists) {
      VELA_TRACE("Rule already exists, trying modify instead");
      // The traffic class of a rule is fixed when it is added.
      std::erase(arguments, CmClass.word);
      std::erase(arguments, FmClass.word);
      command = &_updateTuple;
      status = run(*command, arguments, output);
    }
    logIfFailed(*command, arguments, status, output);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Exception when running %s reason: %s", command->getCommand().c_str(),
             Vela::textOf(ex).c_str());
  }
}

}  // namespace VelaFmSnmp
