/** The JSON forms of the control socket that client and node share. */
#ifndef VELA_NODE_CONTROL_PROTOCOL_H
#define VELA_NODE_CONTROL_PROTOCOL_H

#include <Poco/JSON/Object.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fault/FmAlarm.h"

namespace VelaNode {

/** Where the control socket lies below a node's folder. */
inline constexpr const char* controlSocketName = "run/node.sock";
/** Longest path that a Unix socket can have, in octets. */
inline constexpr std::size_t maxSocketPathLength = 107;

/** A request that cannot be fulfilled; the text, one line, goes to the client. */
class ControlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

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
