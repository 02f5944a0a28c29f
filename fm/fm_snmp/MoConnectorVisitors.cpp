#include "MoConnectorVisitors.h"

#include <exception>
#include <utility>

#include "LoggingWrapper.h"
#include "SecApi.h"
#include "SnmpUtil.h"
#include "VelaException.h"

namespace VelaFmSnmp {

namespace {

constexpr std::int32_t Unlocked = 1;
constexpr std::int32_t Enabled = 1;
constexpr std::int32_t NoPrefix = -1;

/** Names of the attributes. Strings, since the alarm list is read by the hundred thousand. */
namespace attribute {
const std::string name = "name";
const std::string administrativeState = "administrativeState";
const std::string operationalState = "operationalState";
const std::string address = "address";
const std::string port = "port";
const std::string isMibWritable = "isMibWritable";
const std::string networkPrefixLength = "networkPrefixLength";
const std::string community = "community";
const std::string informRetryCount = "informRetryCount";
const std::string informTimeout = "informTimeout";
const std::string transportMethod = "transportMethod";
const std::string user = "user";
const std::string authKey = "authKey";
const std::string privKey = "privKey";
const std::string snmpSecurityLevel = "snmpSecurityLevel";
const std::string authProtocol = "authProtocol";
const std::string privProtocol = "privProtocol";
const std::string readOids = "readOids";
const std::string writeOids = "writeOids";

const std::string fmAlarmId = "fmAlarmId";
const std::string lastEventTime = "lastEventTime";
const std::string originalEventTime = "originalEventTime";
const std::string activeSeverity = "activeSeverity";
const std::string originalSeverity = "originalSeverity";
const std::string additionalText = "additionalText";
const std::string originalAdditionalText = "originalAdditionalText";
const std::string majorType = "majorType";
const std::string minorType = "minorType";
const std::string specificProblem = "specificProblem";
const std::string probableCause = "probableCause";
const std::string eventType = "eventType";
const std::string source = "source";
const std::string additionalInfo = "additionalInfo";
}  // namespace attribute

/** The value of the last step of a distinguished name. */
std::string rdnValue(const std::string& dn) {
  const size_t step = dn.rfind(',');
  const size_t equals = dn.find('=', step == std::string::npos ? 0 : step);
  return equals == std::string::npos ? dn : dn.substr(equals + 1);
}

void readCommon(AttributeReader& reader, SnmpBaseTarget& target) {
  target.moName = reader.getDn();
  target.hasNameAttribute = reader.read(attribute::name, target.name) && !target.name.empty();
  if (!target.hasNameAttribute) target.name = rdnValue(reader.getDn());

  std::int32_t state = Unlocked;
  reader.read(attribute::administrativeState, state);
  target.administrativeState = state == Unlocked;

  state = !Enabled;
  target.hasOperationalState = reader.read(attribute::operationalState, state);
  target.operationalState = target.operational = state == Enabled;

  reader.readMandatory(attribute::address, target.address);
  reader.readMandatory(attribute::port, target.port);
  reader.read(attribute::isMibWritable, target.isMibWritable);
}

/** The attributes of informs, alike in all classes that have them. */
template <class Target>
void readInform(AttributeReader& reader, Target& target) {
  reader.read(attribute::informRetryCount, target.informRetryCount);
  reader.read(attribute::informTimeout, target.informTimeout);
  reader.read(attribute::transportMethod, target.transportMethod);
}

template <class Target>
void readCommunity(AttributeReader& reader, Target& target) {
  reader.readMandatory(attribute::community, target.community);
  // Without a prefix by default: a prefix of length 0 would admit every source.
  target.networkPrefixLength = NoPrefix;
  reader.read(attribute::networkPrefixLength, target.networkPrefixLength);
}

/** A stored pass phrase cannot be decrypted, be it for ever or as long as the credential library is away. */
class DecryptionFailure : public Vela::VelaException {
 public:
  DecryptionFailure() : Vela::VelaException("Decryption of SNMP V3 password failed") {}
};

std::string clearText(const Vela::MoStruct& key) {
  std::string password = key.getString("password");
  if (key.getBool("cleartext") || password.empty()) return password;
  try {
    return Vela::SecApi::getInstance().decrypt(password);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Decryption of SNMP V3 password failed");
    VELA_TRACE("Decryption failed: %s", Vela::textOf(ex).c_str());
    throw DecryptionFailure();
  }
}

/** Reads a pass phrase. One that the security level does not need is not missed. */
void readKey(AttributeReader& reader, const std::string& name, bool isNeeded, SnmpTargetV3Usm& target,
             std::string& passPhrase) {
  Vela::MoStruct key;
  const bool isSet = isNeeded ? reader.readMandatory(name, key) : reader.read(name, key);
  if (!isSet) return;
  try {
    passPhrase = clearText(key);
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "Problem reading %s attribute from SPI, mo (%s). Ex: %s", name.c_str(),
             reader.getDn().c_str(), Vela::textOf(ex).c_str());
    if (!isNeeded) return;
    reader.addMissing();
    if (dynamic_cast<const DecryptionFailure*>(&ex) != nullptr) target.mayBeReadLater = true;
  }
}

void readSecurity(AttributeReader& reader, SnmpTargetV3Usm& target) {
  reader.readMandatory(attribute::user, target.user);
  reader.read(attribute::snmpSecurityLevel, target.snmpSecurityLevel);
  reader.read(attribute::authProtocol, target.authProtocol);
  reader.read(attribute::privProtocol, target.privProtocol);
  const bool needsAuth = target.snmpSecurityLevel != LevelNoAuthNoPriv && target.authProtocol != AuthNone;
  const bool needsPriv = target.snmpSecurityLevel == LevelAuthPriv && target.privProtocol != PrivNone;
  readKey(reader, attribute::authKey, needsAuth, target, target.authKey);
  readKey(reader, attribute::privKey, needsPriv, target, target.privKey);
}

const char* viewClassName(SnmpProtocolVersion version) {
  switch (version) {
    case SnmpProtocolV1:
      return "SnmpViewV1";
    case SnmpProtocolV2c:
      return "SnmpViewV2C";
    case SnmpProtocolV3:
      return "SnmpViewV3";
  }
  return "";
}

DaxOamSpiNotificationFmSeverityT readSeverity(AttributeReader& reader, const std::string& name,
                                              DaxOamSpiNotificationFmSeverityT fallback) {
  std::int16_t severity = 0;
  if (!reader.read(name, severity)) return fallback;
  try {
    return SnmpUtil::translateSeveritySPI_to_XMOD(severity);
  } catch (const std::exception&) {
    return fallback;  // logged by the translation
  }
}

}  // namespace

// --- AttributeReader

template <class Read>
bool AttributeReader::attempt(const std::string& name, Read read) {
  try {
    read();
    return true;
  } catch (const std::exception& ex) {
    if (name == attribute::networkPrefixLength) {
      VELA_LOG(Vela::LogError, "Problem reading attribute networkPrefixLength from SPI, mo (%s): %s", _dn.c_str(),
               Vela::textOf(ex).c_str());
    } else {
      VELA_LOG(Vela::LogError, "Problem reading %s attribute from SPI, mo (%s). Ex: %s", name.c_str(), _dn.c_str(),
               Vela::textOf(ex).c_str());
    }
  } catch (...) {
    VELA_LOG(Vela::LogError, "Problem reading %s attribute from SPI, mo (%s)", name.c_str(), _dn.c_str());
  }
  return false;
}

template <class T>
bool AttributeReader::read(const std::string& name, T& value) {
  bool isSet = false;
  const bool isReadable = attempt(name, [&] {
    std::optional<T> found = _accessor.getOptionalAttr<T>(_dn, name);
    isSet = found.has_value();
    if (isSet) value = std::move(*found);
  });
  if (!isReadable) ++_defaulted;
  return isSet;
}

template <class T>
bool AttributeReader::readMandatory(const std::string& name, T& value) {
  const bool isSet = attempt(name, [&] { value = _accessor.getAttr<T>(_dn, name); });
  if (!isSet) addMissing();
  return isSet;
}

template <class T>
bool AttributeReader::readSequence(const std::string& name, std::vector<T>& values) {
  const bool isReadable = attempt(name, [&] { values = _accessor.getSeqAttr<T>(_dn, name); });
  if (!isReadable) ++_defaulted;
  return isReadable;
}

// --- Targets

bool SnmpTargetVisitor::visit(Vela::MoAccessor& accessor, const std::string& dn) {
  AttributeReader reader(accessor, dn);
  Poco::AutoPtr<SnmpBaseTarget> target = build(reader);
  target->missingAttributes = reader.getMissing();
  target->defaultedAttributes = reader.getDefaulted();
  target->isComplete = target->missingAttributes == 0;
  const auto [place, isNew] = _config.targets.emplace(target->name, target);
  if (!isNew) {
    _config.leftOut.push_back(dn);
    VELA_LOG(Vela::LogWarning, "The target name '%s' of %s is taken by %s, the target is left out",
             target->name.c_str(), dn.c_str(), place->second->moName.c_str());
  }
  return true;
}

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV1Visitor::build(AttributeReader& reader) {
  Poco::AutoPtr<SnmpTargetV1> target(new SnmpTargetV1);
  readCommon(reader, *target);
  readCommunity(reader, *target);
  return target;
}

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV2Visitor::build(AttributeReader& reader) {
  Poco::AutoPtr<SnmpTargetV2C> target(new SnmpTargetV2C);
  readCommon(reader, *target);
  readCommunity(reader, *target);
  readInform(reader, *target);
  return target;
}

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV3Visitor::build(AttributeReader& reader) {
  Poco::AutoPtr<SnmpTargetV3Usm> target(new SnmpTargetV3Usm);
  readCommon(reader, *target);
  readSecurity(reader, *target);
  readInform(reader, *target);
  return target;
}

Poco::AutoPtr<SnmpBaseTarget> SnmpTargetV3DtlsVisitor::build(AttributeReader& reader) {
  Poco::AutoPtr<SnmpTargetV3Tls> target(new SnmpTargetV3Tls);
  readCommon(reader, *target);
  reader.readMandatory(attribute::user, target->user);
  readInform(reader, *target);
  return target;
}

// --- Views

bool SnmpView::visit(Vela::MoAccessor& accessor, const std::string& dn) {
  AttributeReader reader(accessor, dn);
  Poco::AutoPtr<SnmpBaseView> view(new SnmpBaseView(_version));
  reader.read(attribute::name, view->name);
  if (view->name.empty()) view->name = rdnValue(dn);
  reader.readSequence(attribute::community, view->community);
  reader.readSequence(attribute::readOids, view->readOids);
  reader.readSequence(attribute::writeOids, view->writeOids);

  // Views of different versions may well have one name; the name is only the key, so another one serves as well.
  if (_config.views.count(view->name) != 0) view->name += std::string(" (") + viewClassName(_version) + ")";
  // No view is left out: those whom it names would see what is shown by default.
  if (_config.views.count(view->name) != 0) view->name = dn;
  _config.views.emplace(view->name, view);
  return true;
}

// --- Alarms

bool AlarmVisitor::visit(Vela::MoAccessor& accessor, const std::string& dn) {
  AttributeReader reader(accessor, dn);
  unsigned int number = 0;
  const bool hasId = reader.readMandatory(attribute::fmAlarmId, number);
  _areNamedById = _areNamedById && hasId && rdnValue(dn) == std::to_string(number);
  if (!hasId) return true;  // without its index there is no row for it
  _alarm.reset();
  _alarm.setIndex(number);
  _alarm.setStateful(true);
  takeTimes(reader);
  _alarm.setSeverity(readSeverity(reader, attribute::activeSeverity, _alarm.getSeverity()));
  _alarm.setOriginalSeverity(readSeverity(reader, attribute::originalSeverity, _alarm.getOriginalSeverity()));

  std::string text;
  if (reader.read(attribute::source, text)) _alarm.setManagedObject(text);
  if (reader.read(attribute::additionalText, text)) _alarm.setAdditionalText(text);
  if (reader.read(attribute::originalAdditionalText, text)) _alarm.setOriginalAdditionalText(text);
  if (reader.read(attribute::specificProblem, text)) _alarm.setSpecificProblem(text);
  if (reader.read(attribute::majorType, number)) _alarm.setMajorType(number);
  if (reader.read(attribute::minorType, number)) _alarm.setMinorType(number);
  if (reader.read(attribute::probableCause, number)) _alarm.setProbableCause(number);
  if (reader.read(attribute::eventType, number)) _alarm.setEventType(number);
  takeAdditionalInfo(reader);

  _visitor.replicateAlarm(&_alarm);
  return true;
}

void AlarmVisitor::takeTimes(AttributeReader& reader) {
  std::string last;
  std::string original;
  if (reader.read(attribute::lastEventTime, last)) _alarm.setEventTime(SnmpUtil::parseTimeStr(last.c_str()));
  if (!reader.read(attribute::originalEventTime, original)) return;
  // Most alarms have not changed since they were raised, and parsing is what costs most here.
  _alarm.setOriginalEventTime(original == last ? _alarm.getEventTime() : SnmpUtil::parseTimeStr(original.c_str()));
}

void AlarmVisitor::takeAdditionalInfo(AttributeReader& reader) {
  std::vector<Vela::MoStruct> items;
  if (!reader.readSequence(attribute::additionalInfo, items) || items.empty()) return;
  try {
    SnmpAlarm::AdditionalInfo info;
    for (const Vela::MoStruct& item : items) info.emplace_back(item.getString("name"), item.getString("value"));
    if (_alarm.setAdditionalInfo(info)) {
      _alarm.formatAdditionalInfo();
      return;
    }
    VELA_LOG(Vela::LogInfo, "Incorrect additional information received, setting to default.");
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogInfo, "Incorrect additional information received, setting to default. (%s)",
             Vela::textOf(ex).c_str());
  }
}

}  // namespace VelaFmSnmp
