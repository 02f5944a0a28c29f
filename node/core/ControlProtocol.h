/** The JSON forms of the control socket that client and node share. */
#ifndef VELA_NODE_CONTROL_PROTOCOL_H
#define VELA_NODE_CONTROL_PROTOCOL_H

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "FmAlarm.h"

namespace VelaNode {

/** Where the control socket lies below a node's folder. */
inline constexpr const char* controlSocketName = "run/node.sock";

/** "cleared", "indeterminate", "warning", "minor", "major", "critical". */
const char* severityName(FmSeverity severity);
/** False when the text is no such name. */
bool parseSeverity(std::string_view name, FmSeverity& severity);

/** Typed reads of a request's arguments. Each throws ControlError that names the argument. */
class ControlRequest {
 public:
  explicit ControlRequest(const Poco::JSON::Object& request) : _request(request) {}

  bool has(const std::string& name) const { return _request.has(name); }
  std::string text(const std::string& name) const;
  std::string text(const std::string& name, const std::string& byDefault) const;
  std::uint32_t number(const std::string& name) const;
  std::uint32_t number(const std::string& name, std::uint32_t byDefault) const;
  FmSeverity severity(const std::string& name) const;
  /** A list of {"name":..., "value":...}; an empty one when there is none. */
  FmAdditionalInfo additionalInfo(const std::string& name) const;

 private:
  const Poco::JSON::Object& _request;
};

Poco::JSON::Array::Ptr toJson(const FmAdditionalInfo& info);
Poco::JSON::Object::Ptr toJson(const FmAlarm& alarm);

}  // namespace VelaNode
#endif
