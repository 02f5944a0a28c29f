#include "ctl/Commands.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "control/ControlProtocol.h"
#include "ctl/NodeClient.h"
#include "ctl/Output.h"
#include "ctl/Secret.h"
#include "ctl/StatusView.h"
#include "ctl/Terminal.h"

namespace VelaNode {

namespace {

using Poco::JSON::Object;

constexpr const char* attributeWords = "ATTRIBUTE=VALUE...";
constexpr std::chrono::milliseconds statusInterval{200};
constexpr std::size_t anyNumber = std::numeric_limits<std::size_t>::max();

constexpr const char* attributeNotes =
    "Structs and sequences are JSON: agentAddress='[{\"host\":\"127.0.0.1\",\"port\":1161}]'. An empty VALUE takes "
    "the\n"
    "attribute's value away. A pass phrase (authKey, privKey) is read with @FILE from a file or with - from standard\n"
    "input, so that it never stands in the process list: authKey=@phrase.txt. All attributes are changed, or none.";

// ---- what the commands share ----------------------------------------------------------------------------------------

/** Where a command's request goes and what it prints. */
struct Session {
  const CommandSpec& command;
  const Arguments& arguments;
  Output& output;
  NodeClient node;

  Object request() const {
    Object object;
    object.set("command", command.path);
    return object;
  }
};

std::pair<std::string, std::string> splitAssignment(const std::string& word, const char* form) {
  const std::size_t equals = word.find('=');
  if (equals == std::string::npos || equals == 0) throw UsageError("'" + word + "' is not " + form);
  return {word.substr(0, equals), word.substr(equals + 1)};
}

/** Checks the name here, so that a wrong one is a wrong usage. */
std::string severityOption(const Arguments& arguments, bool mayBeCleared) {
  std::string name = arguments.get("severity");
  FmSeverity severity = FmCleared;
  if (!parseSeverity(name, severity) || (severity == FmCleared && !mayBeCleared)) {
    throw UsageError("--severity can not be '" + name + "'");
  }
  return name;
}

void addInfo(Object& request, const Arguments& arguments) {
  FmAdditionalInfo info;
  for (const std::string& word : arguments.getAll("info")) info.push_back(splitAssignment(word, "NAME=VALUE"));
  request.set("info", toJson(info));
}

Object reportRequest(const Session& session, bool mayBeCleared) {
  const Arguments& arguments = session.arguments;
  Object request = session.request();
  request.set("mo", arguments.get("mo"));
  request.set("severity", severityOption(arguments, mayBeCleared));
  request.set("majorType", arguments.getNumber("major", 0));
  request.set("minorType", arguments.getNumber("minor", 0));
  request.set("specificProblem", arguments.get("problem"));
  request.set("text", arguments.get("text"));
  if (arguments.has("event-type")) request.set("eventType", arguments.getNumber("event-type", 0));
  if (arguments.has("cause")) request.set("probableCause", arguments.getNumber("cause", 0));
  addInfo(request, arguments);
  return request;
}

Object indexRequest(const Session& session) {
  Object request = session.request();
  request.set("index", session.arguments.numberAt(0, "INDEX"));
  return request;
}

// ---- alarms and alerts ----------------------------------------------------------------------------------------------

void raiseAlarm(Session& session) {
  const Object::Ptr result = session.node.call(reportRequest(session, false));
  session.output.print(*result, result->getValue<std::string>("index"));
}

void changeAlarm(Session& session) {
  const Arguments& arguments = session.arguments;
  Object request = indexRequest(session);
  if (arguments.has("severity")) request.set("severity", severityOption(arguments, false));
  if (arguments.has("text")) request.set("text", arguments.get("text"));
  if (arguments.has("info")) addInfo(request, arguments);
  session.output.print(*session.node.call(request), "");
}

void clearAlarm(Session& session) {
  if (session.arguments.has("all") == !session.arguments.words().empty()) {
    throw UsageError("'alarm clear' needs either INDEX or --all");
  }
  if (!session.arguments.has("all")) {
    session.output.print(*session.node.call(indexRequest(session)), "");
    return;
  }
  Object request;
  request.set("command", "alarm clear-all");
  const Object::Ptr result = session.node.call(request);
  session.output.print(*result, result->getValue<std::string>("count"));
}

std::string alarmHeader() {
  std::ostringstream line;
  line << std::setw(6) << "INDEX"
       << "  " << std::left << std::setw(13) << "SEVERITY"
       << "  " << std::setw(27) << "TIME"
       << "  OBJECT  MAJOR/MINOR  PROBLEM: TEXT";
  return line.str();
}

std::string alarmLine(const Object& alarm) {
  const auto text = [&](const char* name) { return Output::visibleLine(alarm.getValue<std::string>(name)); };
  std::ostringstream line;
  line << std::setw(6) << text("index") << "  " << std::left << std::setw(13) << text("severity") << "  "
       << text("time") << "  " << text("mo") << "  " << text("majorType") << '/' << text("minorType") << "  "
       << text("specificProblem");
  if (!text("text").empty()) line << ": " << text("text");
  return line.str();
}

constexpr const char* sortKeys[] = {"index", "severity", "time", "mo"};

/** Orders alarms by a key: the most severe and the latest first. */
bool isBefore(const Object& left, const Object& right, const std::string& key) {
  if (key == "severity") {
    FmSeverity severities[] = {FmCleared, FmCleared};
    parseSeverity(left.getValue<std::string>(key), severities[0]);
    parseSeverity(right.getValue<std::string>(key), severities[1]);
    return severities[0] > severities[1];
  }
  const auto text = [&](const Object& alarm) { return alarm.getValue<std::string>(key); };
  return key == "time" ? text(left) > text(right) : text(left) < text(right);
}

Object listRequest(const Session& session) {
  const Arguments& arguments = session.arguments;
  Object request = session.request();
  if (arguments.has("severity")) request.set("severity", severityOption(arguments, false));
  if (arguments.has("mo")) request.set("mo", arguments.get("mo"));
  if (arguments.has("after")) request.set("after", arguments.getNumber("after", 0));
  return request;
}

void listAlarms(Session& session) {
  const Arguments& arguments = session.arguments;
  const std::string key = arguments.get("sort", sortKeys[0]);
  if (std::ranges::find(sortKeys, key) == std::end(sortKeys)) throw UsageError("--sort can not be '" + key + "'");
  const bool isSorted = key != sortKeys[0];
  const std::uint64_t limit = arguments.getNumber("limit", std::numeric_limits<std::uint32_t>::max());
  Object request = listRequest(session);
  if (!isSorted && arguments.has("limit")) request.set("limit", limit);

  const Terminal terminal = Terminal::ofStandardOutput();
  bool isFirst = true;
  const auto print = [&](const Object& alarm) {
    if (session.output.isJson()) return session.output.printItem(alarm, "");
    const std::string header = std::exchange(isFirst, false) ? terminal.cut(alarmHeader()) + "\n" : "";
    session.output.printItem(alarm, header + terminal.cut(alarmLine(alarm)));
  };
  std::vector<Object> alarms;
  session.node.call(request, [&](const Object& alarm) {
    if (!isSorted) return print(alarm);
    alarms.push_back(alarm);
  });
  std::ranges::stable_sort(alarms, [&](const Object& left, const Object& right) { return isBefore(left, right, key); });
  alarms.resize(std::min<std::size_t>(alarms.size(), limit));
  for (const Object& alarm : alarms) print(alarm);
  session.output.endList();
}

void raiseStorm(Session& session) {
  const Arguments& arguments = session.arguments;
  Object request = session.request();
  request.set("count", arguments.getNumber("count", 0));
  request.set("rate", arguments.getNumber("rate", 0));
  if (arguments.has("mo")) request.set("mo", arguments.get("mo"));
  if (arguments.has("severity")) request.set("severity", severityOption(arguments, false));
  const Object::Ptr result = session.node.call(request);
  session.output.print(*result, result->getValue<std::string>("first") + " " + result->getValue<std::string>("last"));
}

void sendAlert(Session& session) {
  const Object::Ptr result = session.node.call(reportRequest(session, true));
  session.output.print(*result, result->getValue<std::string>("sequenceNo"));
}

/** A command without arguments and without an answer for people. */
void simplyCall(Session& session) { session.output.print(*session.node.call(session.request()), ""); }

// ---- the model ------------------------------------------------------------------------------------------------------

void listObjects(Session& session) {
  Object request = session.request();
  if (!session.arguments.words().empty()) request.set("dn", session.arguments.words()[0]);
  session.node.call(
      request, [&](const Object& object) { session.output.printItem(object, object.getValue<std::string>("dn")); });
  session.output.endList();
}

std::string objectLines(const Object& object) {
  std::string lines;
  const Object::Ptr attributes = object.getObject("attributes");
  for (const std::string& name : attributes->getNames()) {
    const Poco::Dynamic::Var value = attributes->get(name);
    lines += (lines.empty() ? "" : "\n") + name + (value.isEmpty() ? " is not set" : " = " + Output::toText(value));
  }
  return lines;
}

void getObject(Session& session) {
  const std::vector<std::string>& words = session.arguments.words();
  Object request = session.request();
  request.set("dn", words[0]);
  if (words.size() > 1) request.set("attribute", words[1]);
  const Object::Ptr result = session.node.call(request);
  session.output.print(*result, words.size() > 1 ? Output::toText(result->get("value")) : objectLines(*result));
}

void writeObject(Session& session) {
  const std::vector<std::string>& words = session.arguments.words();
  Poco::JSON::Array attributes;
  for (std::size_t i = 1; i < words.size(); ++i) {
    const auto [name, value] = splitAssignment(words[i], "ATTRIBUTE=VALUE");
    Object attribute;
    attribute.set("name", name);
    if (const auto secret = Secret::read(words[0], name, value)) {
      attribute.set("secret", *secret);
    } else {
      attribute.set("value", value);
    }
    attributes.add(attribute);
  }
  Object request = session.request();
  request.set("dn", words[0]);
  request.set("attributes", attributes);
  session.output.print(*session.node.call(request), "");
}

// ---- the node -------------------------------------------------------------------------------------------------------

/** Asks again until all that should work does, or the time is over. */
Object::Ptr awaitStatus(Session& session, std::chrono::seconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    Object::Ptr status = session.node.call(session.request());
    if (StatusView::findFault(*status).empty() || std::chrono::steady_clock::now() >= deadline) return status;
    std::this_thread::sleep_for(statusInterval);
  }
}

void showStatus(Session& session) {
  const Arguments& arguments = session.arguments;
  const Object::Ptr status = awaitStatus(session, std::chrono::seconds(arguments.getNumber("wait", 0)));
  session.output.printColoured(*status, StatusView::format(*status, Terminal::ofStandardOutput()));
  if (!arguments.has("check") && !arguments.has("wait")) return;
  if (const std::string fault = StatusView::findFault(*status); !fault.empty()) throw CommandError(fault);
}

void stopNode(Session& session) {
  const Object::Ptr result = session.node.call(session.request());
  session.node.waitForEnd();
  session.output.print(*result, "");
}

// ---- the table ------------------------------------------------------------------------------------------------------

const OptionSpec severityChoice = {"severity", "critical|major|minor|warning|indeterminate", "severity"};
const OptionSpec textOption = {"text", "TEXT", "additional text"};
const OptionSpec infoOption = {"info", "NAME=VALUE", "additional information", false, true};

OptionSpec required(OptionSpec option) {
  option.isRequired = true;
  return option;
}

std::vector<OptionSpec> reportOptions(const OptionSpec& severity) {
  return {required({"mo", "DN", "distinguished name of the alarming object"}),
          required(severity),
          required({"major", "N", "major type"}),
          required({"minor", "N", "minor type"}),
          required({"problem", "TEXT", "specific problem"}),
          textOption,
          {"event-type", "N", "event type (default 1)"},
          {"cause", "N", "probable cause (default 418)"},
          infoOption};
}

struct Entry {
  CommandSpec spec;
  void (*run)(Session& session);
};

const std::vector<Entry>& table() {
  static const std::vector<Entry> entries = {
      {{"alarm raise", "", 0, 0, "Raise an alarm, or update it when it is active; prints its index.",
        reportOptions(severityChoice), "An alarm is known by its DN, major type, minor type and specific problem."},
       raiseAlarm},
      {{"alarm change",
        "INDEX",
        1,
        1,
        "Change an active alarm; what is not given stays.",
        {severityChoice, textOption, infoOption},
        ""},
       changeAlarm},
      {{"alarm clear",
        "INDEX",
        0,
        1,
        "Clear an active alarm, or all; --all prints how many.",
        {{"all", "", "clear all active alarms, one by one"}},
        ""},
       clearAlarm},
      {{"alarm list",
        "",
        0,
        0,
        "List the active alarms.",
        {severityChoice,
         {"mo", "PREFIX", "only alarms of objects whose names begin so"},
         {"sort", "index|severity|time|mo", "order (default: index); the most severe and the latest come first"},
         {"after", "INDEX", "only alarms with a greater index"},
         {"limit", "N", "at most so many"}},
        "A page: --limit 100, and then --after with the last index of the page before. On a terminal lines are cut to\n"
        "its width; --json has the whole texts."},
       listAlarms},
      {{"alarm storm",
        "",
        0,
        0,
        "Raise many distinct alarms; prints the first and the last index.",
        {required({"count", "N", "number of alarms"}),
         {"rate", "PER_SECOND", "alarms per second (default: as fast as it goes)"},
         {"mo", "PREFIX", "beginning of the alarming objects' names; a number is put behind it"},
         severityChoice},
        ""},
       raiseStorm},
      {{"alert", "", 0, 0, "Send an alert; prints its sequence number.",
        reportOptions({"severity", "critical|major|minor|warning|indeterminate|cleared", "severity"}), ""},
       sendAlert},
      {{"heartbeat", "", 0, 0, "Send a heartbeat now.", {}, ""}, simplyCall},
      {{"rebuild", "", 0, 0, "Rebuild the model's alarm list and tell the managers.", {}, ""}, simplyCall},
      {{"mo list", "[DN]", 0, 1, "List the objects of the model, or an object and all below it.", {}, ""}, listObjects},
      {{"mo get", "DN [ATTRIBUTE]", 1, 2, "Show an object's attributes, or one attribute's value.", {}, ""}, getObject},
      {{"mo set",
        std::string("DN ") + attributeWords,
        2,
        anyNumber,
        "Change attributes of an object.",
        {},
        attributeNotes},
       writeObject},
      {{"mo create", std::string("DN [") + attributeWords + "]", 1, anyNumber, "Create an object.", {}, attributeNotes},
       writeObject},
      {{"mo delete", "DN", 1, 1, "Delete an object and all below it.", {}, ""}, writeObject},
      {{"status",
        "",
        0,
        0,
        "Show the state of the node, its component, its master agent and its targets.",
        {{"check", "", "fail unless the SNMP service and all targets that are not locked are operational"},
         {"wait", "SECONDS", "wait until they are, at most so long; fail if they are not then"}},
        ""},
       showStatus},
      {{"stop", "", 0, 0, "Stop the node and wait until it has ended.", {}, ""}, stopNode},
  };
  return entries;
}

}  // namespace

std::vector<OptionSpec> Commands::getCommonOptions() {
  return {required({"dir", "DIR", "folder of the node"}),
          {"json", "", "print one JSON document"},
          {"help", "", "help on the command"}};
}

std::vector<CommandSpec> Commands::getSpecs() {
  std::vector<CommandSpec> specs;
  for (const Entry& entry : table()) specs.push_back(entry.spec);
  return specs;
}

void Commands::run(const CommandSpec& command, const Arguments& arguments) {
  Output output(arguments.has("json"));
  for (const Entry& entry : table()) {
    if (entry.spec.path != command.path) continue;
    Session session{command, arguments, output, NodeClient(arguments.get("dir"))};
    entry.run(session);
  }
}

}  // namespace VelaNode
