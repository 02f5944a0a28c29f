#include "ctl/StatusView.h"

#include <Poco/JSON/Array.h>

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <vector>

#include "ctl/Output.h"

namespace VelaNode {

namespace {

using Poco::JSON::Object;

constexpr std::size_t width = 80;
constexpr std::size_t labelWidth = 11;
constexpr std::size_t indentation = 4;

std::string text(const Object& object, const char* name) {
  return object.has(name) ? Output::visibleLine(object.getValue<std::string>(name)) : std::string();
}

std::string known(const std::string& value) { return value.empty() ? "unknown" : value; }

/** Breaks a text at blanks into lines that begin with so many blanks. */
std::string wrapped(const std::string& value, std::size_t indent) {
  std::istringstream words(value);
  std::string lines;
  std::string line(indent, ' ');
  for (std::string word; words >> word;) {
    if (line.size() > indent && line.size() + 1 + word.size() > width) {
      lines += line + "\n";
      line.assign(indent, ' ');
    }
    line += (line.size() > indent ? " " : "") + word;
  }
  return lines + line;
}

/** A line "label:     value", continued below the value. */
std::string entry(const std::string& label, const std::string& value) {
  std::string lines = wrapped(value, labelWidth + 1);
  lines.replace(0, label.size() + 1, label + ":");
  return lines + "\n";
}

std::string agentText(const Object& status) {
  const Object::Ptr agent = status.getObject("snmpd");
  std::string line = agent->getValue<bool>("running") ? "running, process " + text(*agent, "pid") : "not running";
  if (agent->getValue<unsigned>("bootCount") > 0) line += ", started " + text(*agent, "bootCount") + " times";
  return line;
}

std::string alarmText(const Object& status) {
  const Object::Ptr alarms = status.getObject("alarms");
  std::string line = text(*alarms, "total");
  for (const char* severity : {"critical", "major", "minor", "warning", "indeterminate"}) {
    line += std::string(line.find(' ') == line.npos ? " active: " : ", ") + text(*alarms, severity) + " " + severity;
  }
  return line;
}

bool isOperational(const Object& object, const char* name) { return text(object, name) == "ENABLED"; }
bool isLocked(const Object& object, const char* name) { return text(object, name) == "LOCKED"; }

std::vector<Object::Ptr> targetsOf(const Object& status) {
  std::vector<Object::Ptr> targets;
  const Poco::JSON::Array::Ptr list = status.getArray("targets");
  for (unsigned i = 0; list && i < list->size(); ++i) targets.push_back(list->getObject(i));
  return targets;
}

std::string targetText(const Object& target, const Terminal& terminal) {
  const bool isGood = isOperational(target, "operationalState");
  const std::string address = text(target, "address") + " port " + text(target, "port");
  const std::string state = isGood ? "ENABLED" : "DISABLED";
  std::ostringstream line;
  line << "  " << std::left << std::setw(22) << text(target, "name") << ' ' << std::setw(7) << text(target, "kind")
       << ' ' << std::setw(30) << address << ' ';
  std::string shown = line.str() + (isGood ? terminal.good(state) : terminal.bad(state)) + "\n";
  const std::string reason = text(target, "reason");
  if (!isGood && !reason.empty()) shown += wrapped(reason, indentation) + "\n";
  return shown;
}

}  // namespace

std::string StatusView::format(const Object& status, const Terminal& terminal) {
  const std::string reason = text(status, "adaptorStateReason");
  const std::string since = text(status, "adaptorStateSince");
  std::string shown = "node:       " + text(status, "directory") + ", process " + text(status, "pid") + "\n";
  shown += entry("component", text(status, "component"));
  shown += entry("adaptor", known(text(status, "adaptorState")) + (reason.empty() ? "" : " (" + reason + ")") +
                                (since.empty() ? "" : ", since " + since));
  shown += entry("SNMP",
                 known(text(status, "snmpAdministrativeState")) + ", " + known(text(status, "snmpOperationalState")));
  shown += entry("snmpd", agentText(status));
  shown += entry("alarms", alarmText(status));
  shown += entry("numbers", "last alarm " + text(status, "lastAlarmSequenceNo") + ", last alert " +
                                text(status, "lastAlertSequenceNo"));
  const std::string heartbeat = text(status, "lastHeartbeat");
  shown += entry("heartbeat", heartbeat.empty() ? "none yet" : "last at " + heartbeat);
  const std::vector<Object::Ptr> targets = targetsOf(status);
  shown += entry("targets", targets.empty() ? "none" : std::to_string(targets.size()));
  for (const Object::Ptr& target : targets) shown += targetText(*target, terminal);
  shown.pop_back();
  return shown;
}

std::string StatusView::findFault(const Object& status) {
  if (!isOperational(status, "snmpOperationalState")) {
    const std::string reason = text(status, "adaptorStateReason");
    return "the SNMP service is not operational: " + known(text(status, "adaptorState")) +
           (reason.empty() ? "" : " (" + reason + ")");
  }
  std::string names;
  for (const Object::Ptr& target : targetsOf(status)) {
    if (isLocked(*target, "administrativeState") || isOperational(*target, "operationalState")) continue;
    names += (names.empty() ? "" : ", ") + text(*target, "name");
  }
  return names.empty() ? "" : "targets that are not operational: " + names;
}

}  // namespace VelaNode
