#include "host/Node.h"

#include <Poco/DateTimeFormatter.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <span>
#include <string_view>

#include "LoggingWrapper.h"
#include "ScriptWrapper.h"
#include "SecApi.h"
#include "VelaException.h"
#include "files/AgentRecord.h"
#include "model/MoAttribute.h"

namespace VelaNode {

namespace {

constexpr const char* hostName = "vela-node";
constexpr const char* managementTool = "tarn";
/** Time-out of the tool's stop, which itself goes from asking to killing. */
constexpr int agentStopTimeoutMs = 15000;
constexpr const char* fmClassPath = "ManagedElement,SystemFunctions,Fm";
constexpr const char* snmpClassPath = "ManagedElement,SystemFunctions,SysM,Snmp";

/** Sums of the status: its names and the Fm object's. */
constexpr std::pair<const char*, const char*> alarmSums[] = {{"total", "totalActive"},
                                                             {"critical", "sumCritical"},
                                                             {"major", "sumMajor"},
                                                             {"minor", "sumMinor"},
                                                             {"warning", "sumWarning"}};
constexpr std::string_view targetClassPrefix = "SnmpTarget";
constexpr const char* persistentConfiguration = "persist/snmpd.conf";
constexpr const char* bootCountKey = "engineBoots";

std::string formatMoment(const Poco::Timestamp& moment) {
  return Poco::DateTimeFormatter::format(moment, "%Y-%m-%dT%H:%M:%SZ");
}

/** How often the master agent was started, as it keeps it; 0: never, or unknown. */
unsigned long readBootCount(const std::filesystem::path& file) {
  std::ifstream lines(file);
  unsigned long count = 0;
  for (std::string key, rest; lines >> key && std::getline(lines, rest);) {
    if (key == bootCountKey) count = std::strtoul(rest.c_str(), nullptr, 10);
  }
  return count;
}

Poco::UInt64 countIndeterminate(const Poco::JSON::Object& sums) {
  Poco::UInt64 rest = sums.getValue<Poco::UInt64>(alarmSums[0].first);
  for (const auto& [name, attribute] : std::span(alarmSums).subspan(1)) rest -= sums.getValue<Poco::UInt64>(name);
  return rest;
}

std::string enumName(const MoObject& object, const char* attribute) {
  const int index = object.getClass().findAttribute(attribute);
  const auto position = static_cast<std::size_t>(index);
  const VelaOamSpiMoAttribute_3T& content = *object.getAttribute(position);
  return content.isSet ? formatScalar(content.values[0], object.getClass().getAttributes()[position].enumNames) : "";
}

}  // namespace

Node::Node(const NodeFolder& folder, const NodeOptions& options)
    : _folder(folder),
      _model(folder.model()),
      _services(hostName, folder.path()),
      _commands(_services.getStore(), _fm, {[this] { return getStatus(); }, [] { ::kill(::getpid(), SIGTERM); }}),
      _control(
          [this](const Poco::JSON::Object& request, ControlReply& reply) { return _commands.handle(request, reply); }) {
  _adaptorState.setListener([this](const AdaptorStateWatch::State& state) {
    if (state.name == AdaptorStateWatch::operationalState) _listRebuilt.tell();
  });
  HostLog& log = _services.getLog();
  log.setLevel(options.logLevel);
  log.setEcho(options.isVerbose);
  log.setBounds(options.logOctets(), static_cast<unsigned>(options.logFiles));
  log.open(folder.log());
  Vela::LoggingWrapper::getInstance().setInterfaces(HostLog::getLogTable(), HostLog::getTraceTable());

  MoStore& store = _services.getStore();
  store.setEncryptor([](const std::string& clearText) { return Vela::SecApi::getInstance().encrypt(clearText); });
  _model.load(store);
  store.setPersister([this](const MoTree& tree) { _model.save(tree); });
}

Node::~Node() {
  stop();
  Vela::LoggingWrapper::getInstance().setInterfaces(nullptr, nullptr);
}

void Node::start(const std::filesystem::path& componentLibrary) {
  cleanUp();
  _fm.keepIn(_folder.alarms());
  _fm.start();
  _component.load(componentLibrary, AdaptorStateWatch::getAccessor(), _folder.configuration());
  _component.start();
  _control.start(_folder.controlSocket());
}

void Node::reopenLog() {
  try {
    _services.getLog().open(_folder.log());
  } catch (const Vela::VelaException& ex) {
    _services.getLog().print(Vela::LogError, __func__, "The log goes on in its old file: %s", ex.what());
  }
}

void Node::stop() {
  _component.stop();
  _fm.stop();
  _control.stop();
}

void Node::cleanUp() {
  std::string output;
  int status = 0;
  try {
    status = Vela::ScriptWrapper(managementTool).run({"snmp", "stop"}, agentStopTimeoutMs, output);
  } catch (const Vela::VelaException& ex) {
    status = -1;
    output = ex.what();
  }
  if (status != 0) {
    _services.getLog().print(Vela::LogWarning, __func__, "A left-over master agent could not be stopped: %s",
                             output.c_str());
  }
  for (const std::filesystem::directory_entry& entry :
       std::filesystem::directory_iterator(_folder.controlSocket().parent_path())) {
    if (entry.is_socket()) std::filesystem::remove(entry.path());
  }
}

Poco::JSON::Object Node::getTarget(const MoObject& target) const {
  const std::string& dn = target.getDn();
  const std::string name = target.getText("name").value_or(std::string(target.getName().text));
  const std::string address = target.getText("address").value_or("");
  const bool isLocked = enumName(target, "administrativeState") == "LOCKED";
  const bool isOperational = enumName(target, "operationalState") == "ENABLED";
  Poco::JSON::Object shown(Poco::JSON_PRESERVE_KEY_ORDER);
  shown.set("name", name);
  shown.set("dn", dn);
  shown.set("kind", std::string(target.getClass().getName()).substr(targetClassPrefix.size()));
  shown.set("address", address);
  shown.set("port", static_cast<Poco::UInt64>(target.getUnsigned("port").value_or(0)));
  shown.set("administrativeState", enumName(target, "administrativeState"));
  shown.set("operationalState", enumName(target, "operationalState"));
  if (!isOperational) shown.set("reason", isLocked ? "locked" : _adaptorState.findComplaint({dn, "target " + name}));
  return shown;
}

Poco::JSON::Array::Ptr Node::getTargets(const MoTree& tree, const MoObjectPtr& snmp) const {
  Poco::JSON::Array::Ptr targets(new Poco::JSON::Array);
  if (!snmp) return targets;
  tree.traverse(snmp->getDn(), nullptr, [&](const MoObjectPtr& child) {
    if (std::string_view(child->getClass().getName()).starts_with(targetClassPrefix)) targets->add(getTarget(*child));
    return true;
  });
  return targets;
}

Poco::JSON::Object::Ptr Node::getStatus() {
  const AdaptorStateWatch::State adaptor = _adaptorState.getState();
  const auto agent = NodeFiles::AgentRecord::find(_folder.path());
  const MoTree tree = _services.getStore().getTree();
  const MoObjectPtr fm = tree.findFirst(fmClassPath);
  const MoObjectPtr snmp = tree.findFirst(snmpClassPath);

  Poco::JSON::Object::Ptr status(new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER));
  status->set("directory", _folder.path().string());
  status->set("pid", ::getpid());
  status->set("component", ComponentHost::getStateName(_component.getState()));
  status->set("adaptorState", adaptor.name);
  status->set("adaptorStateReason", adaptor.reason);
  status->set("adaptorStateSince", adaptor.name.empty() ? "" : formatMoment(adaptor.since));
  status->set("snmpAdministrativeState", snmp ? enumName(*snmp, "administrativeState") : "");
  status->set("snmpOperationalState", snmp ? enumName(*snmp, "operationalState") : "");
  Poco::JSON::Object snmpd(Poco::JSON_PRESERVE_KEY_ORDER);
  snmpd.set("running", agent.has_value());
  if (agent) snmpd.set("pid", agent->pid);
  snmpd.set("bootCount", static_cast<Poco::UInt64>(readBootCount(_folder.path() / persistentConfiguration)));
  status->set("snmpd", snmpd);
  status->set("targets", getTargets(tree, snmp));
  Poco::JSON::Object alarms(Poco::JSON_PRESERVE_KEY_ORDER);
  for (const auto& [name, attribute] : alarmSums) {
    alarms.set(name, static_cast<Poco::UInt64>(fm ? fm->getUnsigned(attribute).value_or(0) : 0));
  }
  // The model has no sum of these: they are the rest.
  alarms.set("indeterminate", countIndeterminate(alarms));
  status->set("alarms", alarms);
  const std::uint64_t heartbeat = _fm.getLastHeartbeatTime();
  status->set("lastHeartbeat", heartbeat == 0 ? "" : formatTime(heartbeat));
  status->set("lastAlarmSequenceNo", static_cast<Poco::UInt64>(_fm.getLastAlarmSequenceNo()));
  status->set("lastAlertSequenceNo", static_cast<Poco::UInt64>(_fm.getLastAlertSequenceNo()));
  return status;
}

}  // namespace VelaNode
