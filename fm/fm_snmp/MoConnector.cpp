#include "MoConnector.h"

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "LoggingWrapper.h"
#include "MoConnectorVisitors.h"
#include "Portal.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

constexpr int LockPolicy = VELA_MO_LOCK_ON_WRITE;
constexpr unsigned LockTimeoutSeconds = 10;

const char* const NodePath = "ManagedElement";
const char* const FmPath = "ManagedElement,SystemFunctions,Fm";
const char* const SysMPath = "ManagedElement,SystemFunctions,SysM";
const char* const SnmpPath = "ManagedElement,SystemFunctions,SysM,Snmp";
const char* const TlsPath = "ManagedElement,SystemFunctions,SecM,Tls";
const char* const TransportPath = "ManagedElement,Transport";
const char* const AccessPointClass = "OamAccessPoint";
const char* const AlarmClass = "FmAlarm";

const char* const AdministrativeState = "administrativeState";
const char* const OperationalState = "operationalState";
const char* const HeartbeatInterval = "heartbeatInterval";

constexpr int Unlocked = 1;
constexpr int Disabled = 0;
constexpr int Enabled = 1;
constexpr std::uint32_t DefaultPort = 161;
constexpr std::uint32_t DefaultPortDtls = 10161;
const char* const DefaultCipherFilter = "ALL:!aNULL:!eNULL:@STRENGTH";

void logReadProblem(const char* attribute, const std::string& dn, const std::exception& ex) {
  VELA_LOG(Vela::LogError, "Problem reading %s attribute from SPI, mo (%s). Ex: %s", attribute, dn.c_str(),
           Vela::textOf(ex).c_str());
}

/** The base object, looked up again when it was not there at the start or is not there any more. */
std::string findBase(Vela::MoAccessor& accessor, const std::string& known, const char* classPath) {
  return !known.empty() && accessor.exists(known) ? known : accessor.getFirstMoInstance(classPath);
}

/** Reads an optional attribute; unset or unreadable (logged) gives the fallback. */
template <class T>
T readOr(Vela::MoAccessor& accessor, const std::string& dn, const char* attribute, T fallback) {
  try {
    return accessor.getOptionalAttr<T>(dn, attribute).value_or(std::move(fallback));
  } catch (const std::exception& ex) {
    logReadProblem(attribute, dn, ex);
    return fallback;
  }
}

void readService(Vela::MoAccessor& accessor, SnmpConfig& config) {
  const std::string& snmp = config.snmpMoName;
  config.administrativeState = accessor.getAttr<std::int32_t>(snmp, AdministrativeState) == Unlocked;
  config.snmpId = accessor.getOptionalAttr<std::string>(snmp, "snmpId").value_or("");
  config.engineId = accessor.getOptionalAttr<std::string>(snmp, "engineId").value_or("");
  if (config.engineId.empty()) {
    VELA_TRACE("Empty engineID");
  } else {
    VELA_TRACE("EngineId : %s", config.engineId.c_str());
  }
  config.enableSourceCheckForV1V2C = accessor.getOptionalAttr<bool>(snmp, "enableSourceCheckForV1V2C").value_or(false);
}

/** The addresses that the SNMP object itself has, none at all where it has no such list. An entry with a fault is left
 *  out; whoever configured it does not want the agent to listen elsewhere instead. */
std::optional<SnmpConfig::AddressList> readAddresses(Vela::MoAccessor& accessor, const std::string& snmp,
                                                     const char* attribute) {
  const std::vector<Vela::MoStruct> entries = accessor.getSeqAttr<Vela::MoStruct>(snmp, attribute);
  if (entries.empty()) return std::nullopt;
  SnmpConfig::AddressList addresses;
  for (const Vela::MoStruct& entry : entries) {
    try {
      std::string host = entry.getString("host");
      addresses.emplace_back(std::move(host), entry.getUInt32("port"));
    } catch (const std::exception& ex) {
      logReadProblem(attribute, snmp, ex);
    }
  }
  if (addresses.empty()) VELA_LOG(Vela::LogError, "No entry of %s of %s can be used", attribute, snmp.c_str());
  return addresses;
}

void readAgentAddress(Vela::MoAccessor& accessor, MoConnector::OamAccessPointHandler& accessPoints,
                      SnmpConfig& config) {
  const std::string& snmp = config.snmpMoName;
  config.isAgentAddressFromAccessPoint = false;
  if (const auto addresses = readAddresses(accessor, snmp, "agentAddress")) {
    config.agentAddress = *addresses;
    return;
  }
  VELA_LOG(Vela::LogInfo, "No agentAddress struct under SNMP, checking oamAccessPoint moref");
  config.agentAddress =
      accessPoints.buildAgentAddressesWithGivenPort(accessor, readOr(accessor, snmp, "port", DefaultPort));
  config.isAgentAddressFromAccessPoint = !config.agentAddress.empty();
  if (config.isAgentAddressFromAccessPoint) return;
  VELA_LOG(Vela::LogInfo, "No agentAddress struct defined in either SNMP or under oamAccessPoint moref");
}

void readAgentAddressDtls(Vela::MoAccessor& accessor, MoConnector::OamAccessPointHandler& accessPoints,
                          SnmpConfig& config) {
  const std::string& snmp = config.snmpMoName;
  SnmpConfig::AddressList& addresses = config.tlsOptions.agentAddressDtls;
  if (const auto own = readAddresses(accessor, snmp, "agentAddressDtls")) {
    addresses = *own;
    return;
  }
  VELA_LOG(Vela::LogInfo, "No agentAddressDtls  struct under SNMP, checking oamAccessPoint moref");
  addresses =
      accessPoints.buildAgentAddressesWithGivenPort(accessor, readOr(accessor, snmp, "portDtls", DefaultPortDtls));
  if (!addresses.empty()) return;
  VELA_LOG(Vela::LogInfo, "No agentAddressDtls struct defined in either SNMP or under oamAccessPoint moref");
}

void readTargetsAndViews(Vela::MoAccessor& accessor, SnmpConfig& config) {
  SnmpTargetV1Visitor v1(config);
  SnmpTargetV2Visitor v2c(config);
  SnmpTargetV3Visitor v3(config);
  SnmpTargetV3DtlsVisitor v3Dtls(config);
  SnmpView viewV1(config, SnmpProtocolV1);
  SnmpView viewV2c(config, SnmpProtocolV2c);
  SnmpView viewV3(config, SnmpProtocolV3);
  const std::pair<const char*, Vela::MoAccessor::IMoTraverser*> visitors[] = {
      {"SnmpTargetV1", &v1},   {"SnmpTargetV2C", &v2c},   {"SnmpTargetV3", &v3},   {"SnmpTargetV3Dtls", &v3Dtls},
      {"SnmpViewV1", &viewV1}, {"SnmpViewV2C", &viewV2c}, {"SnmpViewV3", &viewV3},
  };
  for (const auto& [className, visitor] : visitors) accessor.traverseChildren(config.snmpMoName, className, *visitor);
}

/** Digest of everything configured in the DTLS targets; empty when there are none. */
std::string digestOfTlsTargets(const SnmpConfig& config) {
  std::string text;
  for (const auto& [name, target] : config.getTargets()) text += target->digestText();
  if (text.empty()) return {};
  Poco::SHA2Engine engine;
  engine.update(text);
  return Poco::DigestEngine::digestToHex(engine.digest());
}

void readTls(Vela::MoAccessor& accessor, SnmpConfig::tlsOptions_t& options) {
  options.cipherFilter = DefaultCipherFilter;
  const std::string tls = accessor.getFirstMoInstance(TlsPath);
  if (tls.empty()) {
    VELA_LOG(Vela::LogInfo, "Unable to get SecM_Tls_Dn from db");
    return;
  }
  try {
    options.cipherFilter = accessor.getOptionalAttr<std::string>(tls, "cipherFilter").value_or(DefaultCipherFilter);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Unable to get cipherFilter from db");
    VELA_TRACE("%s", Vela::textOf(ex).c_str());
  }
  options.nodeCredential = readOr(accessor, tls, "nodeCredential", std::string());
  try {
    options.trustCategories = accessor.getSeqAttr<std::string>(tls, "trustCategory");
  } catch (const std::exception& ex) {
    logReadProblem("trustCategory", tls, ex);
  }
}

/** Whether packets of a traffic class are to be marked: unless its object exists and is locked. */
bool readDscpEnabled(Vela::MoAccessor& accessor, const std::string& transport, const char* category) {
  if (transport.empty()) return true;
  const std::string dn = transport + ",DiffServCategory=" + category;
  if (!accessor.exists(dn)) return true;
  return readOr<std::int32_t>(accessor, dn, AdministrativeState, Unlocked) == Unlocked;
}

void readDscp(Vela::MoAccessor& accessor, SnmpConfig& config) {
  const std::string transport = accessor.getFirstMoInstance(TransportPath);
  config.dscpCmEnabled = readDscpEnabled(accessor, transport, "OamCM");
  config.dscpFmEnabled = readDscpEnabled(accessor, transport, "OamFM");
}

/** A regular expression that matches exactly one distinguished name. */
std::string toExpression(const std::string& dn) {
  static const std::string special = "\\^$.|?*+()[]{}";
  std::string expression = "^";
  for (const char c : dn) {
    if (special.find(c) != std::string::npos) expression += '\\';
    expression += c;
  }
  return expression + "$";
}

std::list<std::string> toExpressions(const std::list<std::string>& references) {
  std::list<std::string> expressions;
  for (const std::string& reference : references) expressions.push_back(toExpression(reference));
  return expressions;
}

int failureCode(const std::exception& ex) {
  const auto* failure = dynamic_cast<const Vela::VelaException*>(&ex);
  return failure != nullptr && failure->getCode() != VELA_OK ? failure->getCode() : VELA_ERROR;
}

bool operator==(const Vela::MoEnum& left, const Vela::MoEnum& right) { return left.value == right.value; }

/** Whether an attribute has a value already. */
template <class T>
bool hasValue(Vela::MoAccessor& accessor, const std::string& dn, const char* attribute, const T& value) {
  const std::optional<T> current = accessor.getOptionalAttr<T>(dn, attribute);
  return current.has_value() && *current == value;
}

}  // namespace

// --- Access points

void MoConnector::OamAccessPointHandler::setSubscriptions(Subscriptions* subscriptions) {
  _subscriptions = subscriptions;
}

void MoConnector::OamAccessPointHandler::reset() {
  endTemporaryWatch();
  _inUse.clear();
  _found.clear();
}

std::list<std::string> MoConnector::OamAccessPointHandler::getAllAccessPointMorefList(
    Vela::MoAccessor& accessor) const {
  std::list<std::string> references;
  for (const std::string& dn : accessor.getChildren(accessor.getFirstMoInstance(SysMPath), AccessPointClass)) {
    const std::string reference = readOr(accessor, dn, "accessPoint", std::string());
    const bool isKnown = std::find(references.begin(), references.end(), reference) != references.end();
    if (!reference.empty() && !isKnown) references.push_back(reference);
  }
  return references;
}

SnmpConfig::AddressList MoConnector::OamAccessPointHandler::buildAgentAddressesWithGivenPort(Vela::MoAccessor& accessor,
                                                                                             std::uint32_t port) {
  _found = getAllAccessPointMorefList(accessor);
  watchTemporarily();
  SnmpConfig::AddressList addresses;
  for (const std::string& dn : _found) {
    const std::string address = readOr(accessor, dn, "address", std::string());
    const std::string host = address.substr(0, address.find('/'));
    if (host.empty()) continue;
    if (std::find(addresses.begin(), addresses.end(), SnmpConfig::Address(host, port)) != addresses.end()) continue;
    VELA_LOG(Vela::LogInfo, "Building agentAddress with host: %s and port: %u", host.c_str(), port);
    addresses.emplace_back(host, port);
  }
  return addresses;
}

void MoConnector::OamAccessPointHandler::checkAndRestartSubscriptions() {
  if (_found == _inUse) {
    VELA_LOG(Vela::LogInfo, "Nothing changed, no stop or start subscriptions required.");
  } else {
    if (_subscriptions != nullptr) {
      _subscriptions->stopSubscriptionsOnOamAccessPointMoRefs();
      _subscriptions->startSubscriptionsOnOamAccessPointMoRefs(toExpressions(_found));
    }
    setToList();
  }
  endTemporaryWatch();
}

void MoConnector::OamAccessPointHandler::watchTemporarily() {
  if (_found.empty() || _found == _inUse || _found == _temporary) return;
  endTemporaryWatch();
  _temporary = _found;
  if (_subscriptions != nullptr)
    _subscriptions->startTemporarySubscriptionsOnOamAccessPointMoRefs(toExpressions(_found));
}

void MoConnector::OamAccessPointHandler::endTemporaryWatch() {
  if (_temporary.empty()) return;
  if (_subscriptions != nullptr) _subscriptions->stopTemporarySubscriptionsOnOamAccessPointMoRefs();
  _temporary.clear();
}

// --- MoConnector

MoConnector::MoConnector() = default;

MoConnector::~MoConnector() = default;

void MoConnector::init(VelaMgmtSpiInterfacePortal_1T* portal) {
  if (portal != nullptr && Vela::Portal::get() == nullptr) Vela::Portal::set(portal);
  _accessPoints.reset();
  Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
  _fmBaseDn = accessor.getFirstMoInstance(FmPath);
  _snmpBaseDn = accessor.getFirstMoInstance(SnmpPath);
  _nodeBaseDn = accessor.getFirstMoInstance(NodePath);
  VELA_TRACE("node %s, FM %s, SNMP %s", _nodeBaseDn.c_str(), _fmBaseDn.c_str(), _snmpBaseDn.c_str());
}

void MoConnector::setSubscriptions(OamAccessPointHandler::Subscriptions* subscriptions) {
  _accessPoints.setSubscriptions(subscriptions);
}

void MoConnector::getSnmpConfig(SnmpConfig& config, bool dtlsSupported) const {
  try {
    Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
    SnmpConfig read;
    read.snmpMoName = findBase(accessor, _snmpBaseDn, SnmpPath);
    if (read.snmpMoName.empty()) throw Vela::VelaException("The model has no object %s", SnmpPath);
    _accessPoints.beginReading();
    readService(accessor, read);
    readAgentAddress(accessor, _accessPoints, read);
    if (dtlsSupported) readAgentAddressDtls(accessor, _accessPoints, read);
    readTargetsAndViews(accessor, read);
    read.tlsOptions.targetDigest = digestOfTlsTargets(read);
    if (dtlsSupported) readTls(accessor, read.tlsOptions);
    readDscp(accessor, read);
    _accessPoints.checkAndRestartSubscriptions();
    config = std::move(read);
  } catch (const Vela::VelaException&) {
    throw;
  } catch (const std::exception& ex) {
    throw Vela::VelaException("%s", Vela::textOf(ex).c_str());
  }
}

bool MoConnector::visit(ISnmpXmodDataProviderAlarmVisitor& visitor) {
  try {
    Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
    AlarmVisitor alarms(visitor);
    visitor.beginAlarms();
    accessor.traverseChildren(findBase(accessor, _fmBaseDn, FmPath), AlarmClass, alarms);
    visitor.endAlarms();
    _areAlarmsNamedById = alarms.areNamedById();
    return true;
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Failed to retrieve alarm list from the IMM: %s", Vela::textOf(ex).c_str());
  } catch (...) {
    VELA_LOG(Vela::LogError, "Failed to retrieve alarm list from the IMM");
  }
  return false;
}

bool MoConnector::visitAlarms(const std::vector<unsigned int>& ids, ISnmpXmodDataProviderAlarmVisitor& visitor,
                              std::vector<unsigned int>& missing) {
  if (!_areAlarmsNamedById) return false;
  try {
    Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
    AlarmVisitor alarms(visitor);
    const std::string prefix = findBase(accessor, _fmBaseDn, FmPath) + "," + AlarmClass + "=";
    for (const unsigned int id : ids) {
      const std::string dn = prefix + std::to_string(id);
      if (accessor.exists(dn))
        alarms.visit(accessor, dn);
      else
        missing.push_back(id);
    }
    return alarms.areNamedById();
  } catch (const std::exception& ex) {
    VELA_TRACE("Failed to retrieve single alarms: %s", ex.what());
    return false;
  }
}

template <class T>
int MoConnector::getAnyAttribute(const std::string& base, const char* classPath, const char* name, T& value) const {
  try {
    Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
    value = accessor.getAttr<T>(findBase(accessor, base, classPath), name);
    return VELA_OK;
  } catch (const std::exception& ex) {
    logReadProblem(name, base, ex);
    return failureCode(ex);
  }
}

int MoConnector::getHeartbeatInterval(unsigned int& seconds) const {
  return getAnyAttribute(_fmBaseDn, FmPath, HeartbeatInterval, seconds);
}

int MoConnector::getAlarmSumCritical(unsigned int& count) const {
  return getAnyAttribute(_fmBaseDn, FmPath, "sumCritical", count);
}

int MoConnector::getAlarmSumMajor(unsigned int& count) const {
  return getAnyAttribute(_fmBaseDn, FmPath, "sumMajor", count);
}

int MoConnector::getAlarmSumMinor(unsigned int& count) const {
  return getAnyAttribute(_fmBaseDn, FmPath, "sumMinor", count);
}

int MoConnector::getAlarmSumWarning(unsigned int& count) const {
  return getAnyAttribute(_fmBaseDn, FmPath, "sumWarning", count);
}

int MoConnector::getAlarmNumActive(unsigned int& count) const {
  return getAnyAttribute(_fmBaseDn, FmPath, "totalActive", count);
}

int MoConnector::getAlarmLastSeqenceNo(unsigned long long& number) const {
  std::uint64_t value = 0;
  const int code = getAnyAttribute(_fmBaseDn, FmPath, "lastSequenceNo", value);
  if (code == VELA_OK) number = value;
  return code;
}

int MoConnector::getAlarmLastChanged(std::string& time) const {
  return getAnyAttribute(_fmBaseDn, FmPath, "lastChanged", time);
}

template <class T>
void MoConnector::writeAttribute(const std::string& dn, const char* name, const T& value) const {
  VELA_TRACE(">> Setting attribute <%s> in mo <%s>", name, dn.c_str());
  try {
    Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
    if (hasValue(accessor, dn, name, value)) return;
    accessor.setAttr(dn, name, value);
    accessor.commit();
  } catch (const std::exception& ex) {
    const auto* failure = dynamic_cast<const Vela::VelaException*>(&ex);
    if (failure != nullptr && failure->getCode() != VELA_OK) {
      VELA_LOG(Vela::LogError, "Failed to set attribute :'%s' in MO :%s, reason (%d )!", name, dn.c_str(),
               failure->getCode());
    } else {
      VELA_LOG(Vela::LogError, "Problem setting attribute (%s) in (%s), msg :(%s)", name, dn.c_str(),
               Vela::textOf(ex).c_str());
    }
    if (failure != nullptr) throw;
    throw Vela::VelaException("%s", Vela::textOf(ex).c_str());
  }
}

template <class T>
int MoConnector::setAnyAttribute(const std::string& base, const char* classPath, const char* name,
                                 const T& value) const {
  try {
    writeAttribute(currentBase(base, classPath), name, value);
    return VELA_OK;
  } catch (const std::exception& ex) {
    return failureCode(ex);  // logged where it happened
  }
}

std::string MoConnector::currentBase(const std::string& base, const char* classPath) const {
  Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
  return findBase(accessor, base, classPath);
}

int MoConnector::setHeartbeatInterval(unsigned int seconds) {
  return setAnyAttribute(_fmBaseDn, FmPath, HeartbeatInterval, static_cast<std::uint32_t>(seconds));
}

int MoConnector::setEngineId(const std::string& engineId) const {
  return setAnyAttribute(_snmpBaseDn, SnmpPath, "engineId", engineId);
}

void MoConnector::setSnmpOperationalState(bool enabled) const {
  setTargetOperationalState(currentBase(_snmpBaseDn, SnmpPath).c_str(), enabled);
}

void MoConnector::setTargetOperationalState(const char* dn, bool enabled) const {
  writeAttribute(dn, OperationalState, Vela::MoEnum{enabled ? Enabled : Disabled});
}

std::vector<std::string> MoConnector::setOperationalStates(const std::map<std::string, bool>& targets,
                                                           bool service) const {
  Vela::MoAccessor accessor(LockPolicy, LockTimeoutSeconds);
  std::vector<std::string> failures;
  bool isChanged = false;
  const auto write = [&](const std::string& dn, bool enabled) {
    const Vela::MoEnum value{enabled ? Enabled : Disabled};
    try {
      if (hasValue(accessor, dn, OperationalState, value)) return;
      accessor.setAttr(dn, OperationalState, value);
      isChanged = true;
    } catch (const Vela::VelaException& ex) {
      VELA_LOG(Vela::LogError, "Failed to set attribute :'%s' in MO :%s, reason (%d )!", OperationalState, dn.c_str(),
               ex.getCode());
      if (ex.getCode() == VELA_TIMEOUT) throw;  // of the lock, which is waited for once
      failures.emplace_back(ex.what());
    }
  };
  for (const auto& [dn, enabled] : targets) write(dn, enabled);
  write(findBase(accessor, _snmpBaseDn, SnmpPath), service);
  if (isChanged) accessor.commit();
  return failures;
}

}  // namespace VelaFmSnmp
