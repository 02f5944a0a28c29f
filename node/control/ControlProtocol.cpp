#include "control/ControlProtocol.h"

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>

#include <algorithm>
#include <iterator>

namespace VelaNode {

namespace {

constexpr const char* severityNames[] = {"cleared", "indeterminate", "warning", "minor", "major", "critical"};

}  // namespace

const char* severityName(FmSeverity severity) { return severityNames[severity]; }

bool parseSeverity(std::string_view name, FmSeverity& severity) {
  const auto found = std::find(std::begin(severityNames), std::end(severityNames), name);
  if (found == std::end(severityNames)) return false;
  severity = static_cast<FmSeverity>(found - std::begin(severityNames));
  return true;
}

std::string ControlRequest::text(const std::string& name) const {
  const Poco::Dynamic::Var value = _request.get(name);
  if (!value.isString()) throw ControlError("\"" + name + "\" is missing or no text");
  std::string content = value.extract<std::string>();
  if (content.find('\0') != std::string::npos) throw ControlError("\"" + name + "\" holds a null character");
  return content;
}

std::string ControlRequest::text(const std::string& name, const std::string& byDefault) const {
  return has(name) ? text(name) : byDefault;
}

std::uint32_t ControlRequest::number(const std::string& name) const {
  const Poco::Dynamic::Var value = _request.get(name);
  try {
    if (value.isInteger() && !value.isBoolean()) return value.convert<std::uint32_t>();
  } catch (const Poco::Exception&) {
  }
  throw ControlError("\"" + name + "\" is missing or no number from 0 to 4294967295");
}

std::uint32_t ControlRequest::number(const std::string& name, std::uint32_t byDefault) const {
  return has(name) ? number(name) : byDefault;
}

FmSeverity ControlRequest::severity(const std::string& name) const {
  FmSeverity severity = FmIndeterminate;
  if (!parseSeverity(text(name), severity)) throw ControlError("\"" + name + "\" is no severity");
  return severity;
}

FmAdditionalInfo ControlRequest::additionalInfo(const std::string& name) const {
  FmAdditionalInfo info;
  if (!has(name)) return info;
  const Poco::JSON::Array::Ptr items = _request.getArray(name);
  if (!items) throw ControlError("\"" + name + "\" is no list");
  for (unsigned i = 0; i < items->size(); ++i) {
    const Poco::JSON::Object::Ptr item = items->getObject(i);
    if (!item) throw ControlError("\"" + name + "\" holds something that is no object");
    const ControlRequest pair(*item);
    info.emplace_back(pair.text("name"), pair.text("value"));
  }
  return info;
}

Poco::JSON::Array::Ptr toJson(const FmAdditionalInfo& info) {
  Poco::JSON::Array::Ptr list(new Poco::JSON::Array);
  for (const auto& [name, value] : info) {
    Poco::JSON::Object item;
    item.set("name", name);
    item.set("value", value);
    list->add(item);
  }
  return list;
}

Poco::JSON::Object::Ptr toJson(const FmAlarm& alarm) {
  Poco::JSON::Object::Ptr object(new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER));
  object->set("index", alarm.index);
  object->set("severity", severityName(alarm.severity));
  object->set("mo", alarm.key.source);
  object->set("majorType", alarm.key.majorType);
  object->set("minorType", alarm.key.minorType);
  object->set("specificProblem", alarm.key.specificProblem);
  object->set("text", alarm.additionalText);
  object->set("eventType", alarm.eventType);
  object->set("probableCause", alarm.probableCause);
  object->set("time", formatTime(alarm.eventTime));
  object->set("originalTime", formatTime(alarm.originalEventTime));
  object->set("originalSeverity", severityName(alarm.originalSeverity));
  object->set("originalText", alarm.originalAdditionalText);
  object->set("info", toJson(alarm.additionalInfo));
  return object;
}

}  // namespace VelaNode
