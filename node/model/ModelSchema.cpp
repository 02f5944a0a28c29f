#include "model/ModelSchema.h"

#include <algorithm>
#include <numeric>

#include "model/MoAttribute.h"
#include "model/MoValue.h"

namespace VelaNode {

namespace {

constexpr MoEnumName AdministrativeStates[] = {{"LOCKED", 0}, {"UNLOCKED", 1}};
constexpr MoEnumName OperationalStates[] = {{"DISABLED", 0}, {"ENABLED", 1}};
constexpr MoEnumName TransportMethods[] = {{"TRAP", 1}, {"INFORM", 2}};
constexpr MoEnumName SecurityLevels[] = {{"NO_AUTH_NO_PRIV", 1}, {"AUTH_NO_PRIV", 2}, {"AUTH_PRIV", 3}};
constexpr MoEnumName AuthProtocols[] = {{"NONE", 0}, {"MD5", 1}, {"SHA", 2}};
constexpr MoEnumName PrivProtocols[] = {{"NONE", 0}, {"DES", 1}, {"AES", 2}};

constexpr MoMemberDef HostAndPort[] = {{"host", VELA_MO_STRING}, {"port", VELA_MO_UINT32}};
constexpr const char* Cleartext = "cleartext";
constexpr MoMemberDef Credential[] = {{Cleartext, VELA_MO_BOOL}, {"password", VELA_MO_STRING, true}};
constexpr MoMemberDef NameAndValue[] = {{"name", VELA_MO_STRING}, {"value", VELA_MO_STRING}};

MoAttributeDef scalar(const char* name, VelaOamSpiMoTypeT type, const char* defaultText = nullptr) {
  return {.name = name, .type = type, .defaultText = defaultText};
}
MoAttributeDef text(const char* name, const char* defaultText = nullptr) {
  return scalar(name, VELA_MO_STRING, defaultText);
}
MoAttributeDef texts(const char* name) { return {.name = name, .type = VELA_MO_STRING, .isSequence = true}; }
MoAttributeDef enumeration(const char* name, std::span<const MoEnumName> names, const char* defaultText) {
  return {.name = name, .type = VELA_MO_ENUM, .defaultText = defaultText, .enumNames = names};
}
MoAttributeDef credential(const char* name) { return {.name = name, .type = VELA_MO_STRUCT, .members = Credential}; }
MoAttributeDef structs(const char* name, std::span<const MoMemberDef> members) {
  return {.name = name, .type = VELA_MO_STRUCT, .isSequence = true, .members = members};
}
MoAttributeDef runTime(MoAttributeDef definition) {
  definition.isRunTime = true;
  return definition;
}

const MoAttributeDef AdministrativeState = enumeration("administrativeState", AdministrativeStates, "UNLOCKED");
const MoAttributeDef OperationalState = runTime(enumeration("operationalState", OperationalStates, "DISABLED"));
const MoAttributeDef TransportMethod = enumeration("transportMethod", TransportMethods, "TRAP");

struct ClassRow {
  const char* name;
  const char* parent;
  std::vector<MoAttributeDef> attributes;
};

/** What the targets of all protocol versions have in common. */
std::vector<MoAttributeDef> target(const char* defaultPort, std::vector<MoAttributeDef> more) {
  std::vector<MoAttributeDef> all = {text("name"),
                                     AdministrativeState,
                                     OperationalState,
                                     text("address"),
                                     scalar("port", VELA_MO_UINT32, defaultPort),
                                     scalar("isMibWritable", VELA_MO_BOOL, "false")};
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

/** What targets have that may send informs. */
std::vector<MoAttributeDef> informTarget(const char* defaultPort, std::vector<MoAttributeDef> more) {
  std::vector<MoAttributeDef> all =
      target(defaultPort, {scalar("informRetryCount", VELA_MO_UINT32, "3"),
                           scalar("informTimeout", VELA_MO_UINT32, "300"), TransportMethod});
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

std::vector<MoAttributeDef> view() { return {text("name"), texts("community"), texts("readOids"), texts("writeOids")}; }

const MoAttributeDef Community = text("community");
const MoAttributeDef PrefixLength = scalar("networkPrefixLength", VELA_MO_INT16, "-1");

const ClassRow Rows[] = {
    {"ManagedElement", nullptr, {text("userLabel")}},
    {"SystemFunctions", "ManagedElement", {}},
    {"Fm",
     "SystemFunctions",
     {scalar("heartbeatInterval", VELA_MO_UINT32, "60"), runTime(scalar("sumCritical", VELA_MO_UINT32, "0")),
      runTime(scalar("sumMajor", VELA_MO_UINT32, "0")), runTime(scalar("sumMinor", VELA_MO_UINT32, "0")),
      runTime(scalar("sumWarning", VELA_MO_UINT32, "0")), runTime(scalar("totalActive", VELA_MO_UINT32, "0")),
      runTime(scalar("lastSequenceNo", VELA_MO_UINT64, "0")), runTime(text("lastChanged"))}},
    {"FmAlarm",
     "Fm",
     {runTime(scalar("fmAlarmId", VELA_MO_UINT32)), runTime(text("lastEventTime")), runTime(text("originalEventTime")),
      runTime(scalar("activeSeverity", VELA_MO_INT16)), runTime(scalar("originalSeverity", VELA_MO_INT16)),
      runTime(text("additionalText")), runTime(text("originalAdditionalText")), runTime(text("specificProblem")),
      runTime(text("source")), runTime(scalar("majorType", VELA_MO_UINT32)),
      runTime(scalar("minorType", VELA_MO_UINT32)), runTime(scalar("probableCause", VELA_MO_UINT32)),
      runTime(scalar("eventType", VELA_MO_UINT32)), runTime(structs("additionalInfo", NameAndValue))}},
    {"SysM", "SystemFunctions", {}},
    {"Snmp",
     "SysM",
     {AdministrativeState, OperationalState, text("snmpId", ""), text("engineId"), structs("agentAddress", HostAndPort),
      structs("agentAddressDtls", HostAndPort), scalar("port", VELA_MO_UINT32, "161"),
      scalar("portDtls", VELA_MO_UINT32, "10161"), scalar("enableSourceCheckForV1V2C", VELA_MO_BOOL, "false")}},
    {"SnmpTargetV1", "Snmp", target("162", {PrefixLength, Community})},
    {"SnmpTargetV2C", "Snmp", informTarget("162", {PrefixLength, Community})},
    {"SnmpTargetV3", "Snmp",
     informTarget("162", {text("user"), enumeration("snmpSecurityLevel", SecurityLevels, "AUTH_PRIV"),
                          enumeration("authProtocol", AuthProtocols, "SHA"), credential("authKey"),
                          enumeration("privProtocol", PrivProtocols, "AES"), credential("privKey")})},
    {"SnmpTargetV3Dtls", "Snmp", informTarget("10162", {text("user")})},
    {"SnmpViewV1", "Snmp", view()},
    {"SnmpViewV2C", "Snmp", view()},
    {"SnmpViewV3", "Snmp", view()},
    {"OamAccessPoint", "SysM", {scalar("accessPoint", VELA_MO_REFERENCE)}},
    {"SecM", "SystemFunctions", {}},
    {"Tls", "SecM", {text("cipherFilter"), text("nodeCredential"), texts("trustCategory")}},
    {"Transport", "ManagedElement", {}},
    {"Address", "Transport", {text("address")}},
    {"DiffServCategory", "Transport", {scalar("dscp", VELA_MO_UINT32, "0"), AdministrativeState}},
};

/** Objects that live no longer than the process and are named by a number. */
constexpr std::string_view RunTimeClass = "FmAlarm";

MoAttributePtr makeDefault(const MoAttributeDef& definition) {
  if (definition.defaultText == nullptr) return makeUnsetAttribute(definition);
  return makeAttribute(definition, {parseScalar(definition.type, definition.enumNames, definition.defaultText)});
}

}  // namespace

bool MoAttributeDef::isCredential() const { return members.data() == Credential; }

int MoClass::findAttribute(std::string_view name) const noexcept {
  const auto found =
      std::lower_bound(_byName.begin(), _byName.end(), name, [this](unsigned short index, std::string_view wanted) {
        return std::string_view(_attributes[index].name) < wanted;
      });
  return found != _byName.end() && name == _attributes[*found].name ? *found : -1;
}

std::vector<MoClass> ModelSchema::build() {
  std::vector<const ClassRow*> rows;
  for (const ClassRow& row : Rows) rows.push_back(&row);
  const auto nameOf = [](const ClassRow* row) { return std::string_view(row->name); };
  std::ranges::sort(rows, {}, nameOf);

  std::vector<MoClass> classes(rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const ClassRow& row = *rows[i];
    MoClass& made = classes[i];
    made._name = row.name;
    made._rank = static_cast<unsigned>(i);
    made._isRunTime = made._isNumbered = row.name == RunTimeClass;
    if (row.parent != nullptr) {
      const auto parent = std::ranges::lower_bound(rows, std::string_view(row.parent), {}, nameOf);
      made._parent = &classes[static_cast<std::size_t>(parent - rows.begin())];
    }
    made._attributes = row.attributes;
    made._byName.resize(row.attributes.size());
    std::iota(made._byName.begin(), made._byName.end(), static_cast<unsigned short>(0));
    std::ranges::sort(made._byName, {},
                      [&made](unsigned short index) { return std::string_view(made._attributes[index].name); });
    for (const MoAttributeDef& definition : made._attributes) {
      made._hasCredentials = made._hasCredentials || definition.isCredential();
      made._defaults.push_back(makeDefault(definition));
    }
  }
  return classes;
}

const std::vector<MoClass>& ModelSchema::getClasses() {
  static const std::vector<MoClass> classes = build();
  return classes;
}

const MoClass* ModelSchema::findClass(std::string_view name) noexcept {
  const std::vector<MoClass>& classes = getClasses();
  const auto found =
      std::ranges::lower_bound(classes, name, {}, [](const MoClass& item) { return std::string_view(item.getName()); });
  return found != classes.end() && name == found->getName() ? &*found : nullptr;
}

}  // namespace VelaNode
