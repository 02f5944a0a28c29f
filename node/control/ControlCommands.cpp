#include "control/ControlCommands.h"

#include <Poco/JSON/Array.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <limits>
#include <optional>
#include <utility>

#include "VelaException.h"
#include "control/ControlProtocol.h"
#include "model/MoAttribute.h"
#include "model/MoTransaction.h"

namespace VelaNode {

namespace {

using Poco::JSON::Object;
using Clock = std::chrono::steady_clock;

/** Time-out for getting the writer's lock. */
constexpr std::chrono::seconds lockTimeout{60};
/** A storm looks this often, in alarms, whether its client is still there. */
constexpr std::uint32_t stormCheckInterval = 256;
constexpr const char* stormSource = "ManagedElement=1,Storm=";

Object::Ptr makeResult() { return new Object(Poco::JSON_PRESERVE_KEY_ORDER); }

FmReport readReport(const ControlRequest& request) {
  FmReport report;
  report.key.source = request.text("mo");
  report.severity = request.severity("severity");
  report.key.majorType = request.number("majorType");
  report.key.minorType = request.number("minorType");
  report.key.specificProblem = request.text("specificProblem");
  report.additionalText = request.text("text", "");
  report.eventType = request.number("eventType", report.eventType);
  report.probableCause = request.number("probableCause", report.probableCause);
  report.additionalInfo = request.additionalInfo("info");
  return report;
}

FmSeverity uncleared(FmSeverity severity) {
  if (severity == FmCleared) throw ControlError("an alarm is cleared with its own command, not by its severity");
  return severity;
}

const MoClass& classOf(const std::string& dn) {
  MoDn parsed;
  std::string reason;
  if (!parsed.parse(dn, &reason)) throw ControlError(reason);
  return *parsed.back().moClass;
}

/** Run-time parts of the model tell what is; operators change what shall be. */
const MoClass& configurableClassOf(const std::string& dn) {
  const MoClass& moClass = classOf(dn);
  if (moClass.isRunTime())
    throw ControlError(std::string("Objects of class ") + moClass.getName() + " are kept by the node: " + dn);
  return moClass;
}

void requireConfigurable(const std::string& dn, const MoClass& moClass, const std::string& attribute) {
  const int index = moClass.findAttribute(attribute);
  if (index >= 0 && moClass.getAttributes()[static_cast<std::size_t>(index)].isRunTime) {
    throw ControlError(dn + ": " + attribute + " is kept by the node");
  }
}

void writeAttributes(MoTransaction& transaction, const std::string& dn, const MoClass& moClass, const Object& request) {
  const Poco::JSON::Array::Ptr attributes = request.getArray("attributes");
  if (!attributes) return;
  for (unsigned i = 0; i < attributes->size(); ++i) {
    const Object::Ptr item = attributes->getObject(i);
    if (!item) throw ControlError("\"attributes\" holds something that is no object");
    const ControlRequest attribute(*item);
    const std::string name = attribute.text("name");
    requireConfigurable(dn, moClass, name);
    if (attribute.has("secret")) {
      Object::Ptr credential(new Object);
      credential->set("cleartext", true);
      credential->set("password", attribute.text("secret"));
      transaction.setJson(dn, name, credential);
    } else {
      transaction.setText(dn, name, attribute.text("value"));
    }
  }
}

void listBelow(const MoTree& tree, const std::string& dn, ControlReply& reply) {
  tree.traverse(dn, nullptr, [&](const MoObjectPtr& object) {
    Object item(Poco::JSON_PRESERVE_KEY_ORDER);
    item.set("dn", object->getDn());
    item.set("class", object->getClass().getName());
    reply.sendItem(item);
    listBelow(tree, object->getDn(), reply);
    return true;
  });
}

}  // namespace

const ControlCommands::Entry ControlCommands::commands[] = {
    {"alarm raise", &ControlCommands::raiseAlarm, true},
    {"alarm change", &ControlCommands::changeAlarm, true},
    {"alarm clear", &ControlCommands::clearAlarm, true},
    {"alarm clear-all", &ControlCommands::clearAllAlarms, true},
    {"alarm list", &ControlCommands::listAlarms},
    {"alarm storm", &ControlCommands::raiseStorm, true},
    {"alert", &ControlCommands::sendAlert, true},
    {"heartbeat", &ControlCommands::sendHeartbeat},
    {"rebuild", &ControlCommands::rebuild, true},
    {"mo list", &ControlCommands::listObjects},
    {"mo get", &ControlCommands::getObject},
    {"mo set", &ControlCommands::setAttributes},
    {"mo create", &ControlCommands::createObject},
    {"mo delete", &ControlCommands::deleteObject},
    {"status", &ControlCommands::getStatus},
    {"stop", &ControlCommands::stop},
};

ControlCommands::ControlCommands(MoStore& store, FmService& fm, Host host)
    : _store(store), _fm(fm), _host(std::move(host)) {}

Poco::JSON::Object::Ptr ControlCommands::handle(const Object& request, ControlReply& reply) {
  const std::string name = ControlRequest(request).text("command");
  const auto entry =
      std::find_if(std::begin(commands), std::end(commands), [&](const Entry& known) { return name == known.name; });
  if (entry == std::end(commands)) throw ControlError("unknown command " + quoted(name));
  Result result = (this->*entry->command)(request, reply);
  if (!entry->mustLast) return result;
  try {
    _fm.sync();
  } catch (const Vela::VelaException& ex) {
    throw ControlError(std::string("done, but it would not survive a restart: ") + ex.what());
  }
  return result;
}

ControlCommands::Result ControlCommands::raiseAlarm(const Object& request, ControlReply&) {
  FmReport report = readReport(ControlRequest(request));
  report.severity = uncleared(report.severity);
  Result result = makeResult();
  result->set("index", _fm.raise(report));
  return result;
}

ControlCommands::Result ControlCommands::changeAlarm(const Object& request, ControlReply&) {
  const ControlRequest arguments(request);
  FmChange change;
  if (arguments.has("severity")) change.severity = uncleared(arguments.severity("severity"));
  if (arguments.has("text")) change.additionalText = arguments.text("text");
  if (arguments.has("info")) change.additionalInfo = arguments.additionalInfo("info");
  const std::uint32_t index = arguments.number("index");
  _fm.change(index, change);
  Result result = makeResult();
  result->set("index", index);
  return result;
}

ControlCommands::Result ControlCommands::clearAlarm(const Object& request, ControlReply&) {
  const std::uint32_t index = ControlRequest(request).number("index");
  _fm.clear(index);
  Result result = makeResult();
  result->set("index", index);
  return result;
}

ControlCommands::Result ControlCommands::clearAllAlarms(const Object&, ControlReply&) {
  Result result = makeResult();
  result->set("count", static_cast<Poco::UInt64>(_fm.clearAll()));
  return result;
}

ControlCommands::Result ControlCommands::listAlarms(const Object& request, ControlReply& reply) {
  const ControlRequest arguments(request);
  const std::uint32_t limit = arguments.number("limit", std::numeric_limits<std::uint32_t>::max());
  const std::string prefix = arguments.text("mo", "");
  std::optional<FmSeverity> severity;
  if (arguments.has("severity")) severity = arguments.severity("severity");
  Poco::UInt64 count = 0;
  for (FmAlarmPtr alarm = _fm.getNext(arguments.number("after", 0)); alarm && count < limit;
       alarm = _fm.getNext(alarm->index)) {
    if (!alarm->key.source.starts_with(prefix) || (severity && alarm->severity != *severity)) continue;
    reply.sendItem(*toJson(*alarm));
    ++count;
  }
  Result result = makeResult();
  result->set("count", count);
  return result;
}

/** A number that keeps a storm's alarms apart from those of all other storms, those before a restart too. */
std::uint64_t ControlCommands::nextStorm() {
  const std::lock_guard lock(_stormMutex);
  _lastStorm = std::max(_lastStorm, _fm.getLastAlarmSequenceNo()) + 1;
  return _lastStorm;
}

ControlCommands::Result ControlCommands::raiseStorm(const Object& request, ControlReply& reply) {
  const ControlRequest arguments(request);
  const std::uint32_t count = arguments.number("count");
  const std::uint32_t rate = arguments.number("rate", 0);
  if (count == 0) throw ControlError("a storm has at least one alarm");
  const std::string source = arguments.text("mo", stormSource);
  FmReport report;
  report.severity = arguments.has("severity") ? uncleared(arguments.severity("severity")) : FmMajor;
  report.key.majorType = arguments.number("majorType", 1);
  report.additionalText = "Alarm of a storm";
  const std::string problem = "Storm " + std::to_string(nextStorm()) + ", alarm ";

  Result result = makeResult();
  const Clock::time_point begin = Clock::now();
  for (std::uint32_t i = 0; i < count; ++i) {
    int waitMs = 0;
    if (rate != 0) {
      const auto due = begin + std::chrono::microseconds(std::uint64_t{1000000} * i / rate);
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
      waitMs = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }
    if ((waitMs > 0 || i % stormCheckInterval == 0) && reply.isAbandoned(waitMs)) {
      throw ControlError("the storm was broken off after " + std::to_string(i) + " alarms");
    }
    report.key.source = source + std::to_string(i + 1);
    report.key.minorType = i + 1;
    report.key.specificProblem = problem + std::to_string(i + 1);
    const std::uint32_t index = _fm.raise(report);
    if (i == 0) result->set("first", index);
    result->set("last", index);
  }
  return result;
}

ControlCommands::Result ControlCommands::sendAlert(const Object& request, ControlReply&) {
  Result result = makeResult();
  result->set("sequenceNo", static_cast<Poco::UInt64>(_fm.alert(readReport(ControlRequest(request)))));
  return result;
}

ControlCommands::Result ControlCommands::sendHeartbeat(const Object&, ControlReply&) {
  _fm.sendHeartbeat();
  return makeResult();
}

ControlCommands::Result ControlCommands::rebuild(const Object&, ControlReply&) {
  _fm.rebuild();
  return makeResult();
}

ControlCommands::Result ControlCommands::listObjects(const Object& request, ControlReply& reply) {
  const std::string dn = ControlRequest(request).text("dn", "");
  const MoTree tree = _store.getTree();
  if (!dn.empty()) {
    const MoObjectPtr object = tree.find(dn);
    if (!object) throw ControlError("No such object: " + quoted(dn));
    Object item(Poco::JSON_PRESERVE_KEY_ORDER);
    item.set("dn", object->getDn());
    item.set("class", object->getClass().getName());
    reply.sendItem(item);
  }
  listBelow(tree, dn, reply);
  return makeResult();
}

ControlCommands::Result ControlCommands::getObject(const Object& request, ControlReply&) {
  const ControlRequest arguments(request);
  const std::string dn = arguments.text("dn");
  const MoObjectPtr object = _store.getTree().find(dn);
  if (!object) throw ControlError("No such object: " + quoted(dn));
  if (!arguments.has("attribute")) return object->toJson();
  const std::string name = arguments.text("attribute");
  const int index = object->getClass().findAttribute(name);
  if (index < 0) {
    throw ControlError(dn + ": class " + object->getClass().getName() + " has no attribute " + quoted(name));
  }
  const auto position = static_cast<std::size_t>(index);
  Result result = makeResult();
  result->set("dn", dn);
  result->set("attribute", name);
  result->set("value", toJson(object->getClass().getAttributes()[position], *object->getAttribute(position)));
  return result;
}

ControlCommands::Result ControlCommands::setAttributes(const Object& request, ControlReply&) {
  const std::string dn = ControlRequest(request).text("dn");
  MoTransaction transaction(_store, VELA_MO_LOCK_AT_ONCE, lockTimeout);
  transaction.get(dn);
  writeAttributes(transaction, dn, configurableClassOf(dn), request);
  transaction.commit();
  return makeResult();
}

ControlCommands::Result ControlCommands::createObject(const Object& request, ControlReply&) {
  const std::string dn = ControlRequest(request).text("dn");
  const MoClass& moClass = configurableClassOf(dn);
  MoTransaction transaction(_store, VELA_MO_LOCK_AT_ONCE, lockTimeout);
  transaction.create(dn);
  writeAttributes(transaction, dn, moClass, request);
  transaction.commit();
  return makeResult();
}

ControlCommands::Result ControlCommands::deleteObject(const Object& request, ControlReply&) {
  const std::string dn = ControlRequest(request).text("dn");
  MoTransaction transaction(_store, VELA_MO_LOCK_AT_ONCE, lockTimeout);
  transaction.get(dn);
  configurableClassOf(dn);
  transaction.remove(dn);
  transaction.commit();
  return makeResult();
}

ControlCommands::Result ControlCommands::getStatus(const Object&, ControlReply&) { return _host.getStatus(); }

ControlCommands::Result ControlCommands::stop(const Object&, ControlReply&) {
  _host.requestStop();
  return makeResult();
}

}  // namespace VelaNode
