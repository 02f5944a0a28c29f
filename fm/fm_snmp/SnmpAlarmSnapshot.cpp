#include "SnmpAlarmSnapshot.h"

#include "Enduring.h"
#include "LoggingWrapper.h"

namespace VelaFmSnmp {

namespace {
constexpr DaxOamSpiNotificationFmSeverityT severityCleared = 0;
}  // namespace

SnmpAlarmSnapshot& SnmpAlarmSnapshot::getInstance() {
  static const Vela::Enduring<SnmpAlarmSnapshot> instance;
  return *instance;
}

MoConnector* SnmpAlarmSnapshot::setDataProvider(MoConnector* provider) {
  MoConnector* const previous = _provider;
  _provider = provider;
  removeAllAlarms();
  return previous;
}

bool SnmpAlarmSnapshot::syncWithSource() {
  if (_provider == nullptr) {
    VELA_LOG(Vela::LogError, "No DataProvider, can not sync");
    return false;
  }
  const bool isSynced = _provider->visit(*this);
  if (isSynced)
    _needsSync = false;
  else
    removeAllAlarms();
  VELA_TRACE("SnmpAlarmSnapshot::syncWithSource... done");
  return isSynced;
}

bool SnmpAlarmSnapshot::syncWithSourceIfNeeded() { return _needsSync && syncWithSource(); }

void SnmpAlarmSnapshot::removeAllAlarms() {
  _alarms.clear();
  _needsSync = true;
}

SnmpAlarm* SnmpAlarmSnapshot::getAlarm(unsigned int index) {
  syncWithSourceIfNeeded();
  const auto found = _alarms.find(index);
  return found == _alarms.end() ? nullptr : &found->second.alarm;
}

SnmpAlarm* SnmpAlarmSnapshot::getFirstAlarm() {
  syncWithSourceIfNeeded();
  return _alarms.empty() ? nullptr : &_alarms.begin()->second.alarm;
}

SnmpAlarm* SnmpAlarmSnapshot::getNextAlarm(unsigned int index) {
  syncWithSourceIfNeeded();
  const auto next = _alarms.upper_bound(index);
  return next == _alarms.end() ? nullptr : &next->second.alarm;
}

SnmpAlarm* SnmpAlarmSnapshot::getAlert(unsigned int) { return nullptr; }

SnmpAlarm* SnmpAlarmSnapshot::getFirstAlert() { return nullptr; }

SnmpAlarm* SnmpAlarmSnapshot::getNextAlert(unsigned int) { return nullptr; }

void SnmpAlarmSnapshot::beginAlarms() {
  for (auto& entry : _alarms) entry.second.stale = true;
}

void SnmpAlarmSnapshot::replicateAlarm(SnmpAlarm* alarm) {
  const unsigned int index = alarm->getIndex();
  VELA_TRACE("Replicating alarm %u", index);
  if (alarm->getSeverity() == severityCleared) {
    VELA_TRACE("NOT replicating alarm %u, because it's cleared", index);
  } else if (!alarm->isStateful()) {
    VELA_TRACE("NOT replicating alarm %u, because it's not stateful", index);
  } else if (const auto place = _alarms.lower_bound(index); place == _alarms.end() || place->first != index) {
    _alarms.emplace_hint(place, index, *alarm);
  } else {
    place->second.alarm = *alarm;
    place->second.stale = false;
  }
}

void SnmpAlarmSnapshot::endAlarms() {
  const auto removed = std::erase_if(_alarms, [](const auto& entry) { return entry.second.stale; });
  VELA_LOG(Vela::LogDebug, "Removed %d alarms", static_cast<int>(removed));
}

}  // namespace VelaFmSnmp
