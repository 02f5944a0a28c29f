#include "SnmpAlarmSnapshot.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "Enduring.h"
#include "LoggingWrapper.h"

namespace VelaFmSnmp {

namespace {
constexpr DaxOamSpiNotificationFmSeverityT severityCleared = 0;

/** Looking for an alarm costs more than reading it among all others. */
constexpr std::size_t alarmsPerLookUp = 4;
constexpr std::size_t maxLookUpsOfFew = 32;

/** Changed alarms are pulled one by one no longer than this, so that nothing that they miss stays for long. */
constexpr std::chrono::seconds wholePullInterval(60);
/** Whole pulls for that reason take no more than this part of the time. */
constexpr int wholePullShare = 50;
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
  const Clock::time_point begin = Clock::now();
  const bool isSynced = _provider->visit(*this);
  _pulledWhole = Clock::now();
  _pullTook = _pulledWhole - begin;
  _changed.clear();
  if (isSynced)
    _needsSync = false;
  else
    removeAllAlarms();
  VELA_TRACE("SnmpAlarmSnapshot::syncWithSource... done");
  return isSynced;
}

bool SnmpAlarmSnapshot::syncWithSourceIfNeeded() {
  if (_needsSync) return syncWithSource();
  return !_changed.empty() && syncChanged();
}

void SnmpAlarmSnapshot::invalidateAlarm(unsigned int index, bool isCleared) {
  if (_needsSync) return;
  _changed[index] = isCleared;
  if (_changed.size() > std::max(maxLookUpsOfFew, _alarms.size() / alarmsPerLookUp)) invalidateSnapshot();
}

bool SnmpAlarmSnapshot::isWholePullDue() const {
  return Clock::now() - _pulledWhole > std::max<Clock::duration>(wholePullInterval, _pullTook * wholePullShare);
}

bool SnmpAlarmSnapshot::syncChanged() {
  if (_provider != nullptr && !isWholePullDue() && pullChanged()) {
    _changed.clear();
    return true;
  }
  return syncWithSource();
}

bool SnmpAlarmSnapshot::pullChanged() {
  std::vector<unsigned int> indices;
  for (const auto& [index, isCleared] : _changed) {
    indices.push_back(index);
    if (const auto kept = _alarms.find(index); kept != _alarms.end()) kept->second.stale = true;
  }
  std::vector<unsigned int> missing;
  if (!_provider->visitAlarms(indices, *this, missing)) return false;
  // One that is still active has an object somewhere.
  if (!std::all_of(missing.begin(), missing.end(), [this](unsigned int index) { return _changed[index]; }))
    return false;
  for (const unsigned int index : indices) {
    if (const auto kept = _alarms.find(index); kept != _alarms.end() && kept->second.stale) _alarms.erase(kept);
  }
  return true;
}

void SnmpAlarmSnapshot::removeAllAlarms() {
  _alarms.clear();
  _changed.clear();
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
