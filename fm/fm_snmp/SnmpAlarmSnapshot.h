#ifndef VELA_FM_SNMP_SNMP_ALARM_SNAPSHOT_H
#define VELA_FM_SNMP_SNMP_ALARM_SNAPSHOT_H

#include <chrono>
#include <map>

#include "MoConnector.h"
#include "SnmpAlarm.h"

namespace VelaFmSnmp {

/**
 * Copy of the model's list of active alarms, from which the MIB's tables answer. It is pulled from the connector when
 * it is read and has been invalidated before: whole, or those alarms only that have changed. The adaptor thread only.
 */
class SnmpAlarmSnapshot : public MoConnector::ISnmpXmodDataProviderAlarmVisitor {
 public:
  static SnmpAlarmSnapshot& getInstance();

  SnmpAlarmSnapshot() = default;
  SnmpAlarmSnapshot(const SnmpAlarmSnapshot&) = delete;
  SnmpAlarmSnapshot& operator=(const SnmpAlarmSnapshot&) = delete;
  ~SnmpAlarmSnapshot() override = default;

  /** Takes the connector to pull from (not owned; null: none), empties the snapshot and invalidates it. Returns the
      previous one. */
  MoConnector* setDataProvider(MoConnector* provider);
  /** The next read pulls the whole list again. Before the first call nothing is ever pulled. */
  void invalidateSnapshot() { _needsSync = true; }
  /** The next read pulls this alarm again. Whether it was cleared is only taken as a hint where to look. */
  void invalidateAlarm(unsigned int index, bool isCleared);
  /** Pulls the list. False, and empty, when that failed; without a provider false, and as it was. */
  bool syncWithSource();
  /** Pulls if invalidated; false when there was no need. */
  bool syncWithSourceIfNeeded();
  /** Empties the snapshot and invalidates it. */
  void removeAllAlarms();

  /** Reading an alarm pulls the list first if needed. Null if there is none. The alarm stays the snapshot's and is
     valid until the next pull. */
  SnmpAlarm* getAlarm(unsigned int index);
  SnmpAlarm* getFirstAlarm();
  /** The alarm with the smallest index greater than the given one. */
  SnmpAlarm* getNextAlarm(unsigned int index);
  /** Alerts have no state, so none is ever kept: always null. */
  SnmpAlarm* getAlert(unsigned int index);
  SnmpAlarm* getFirstAlert();
  SnmpAlarm* getNextAlert(unsigned int index);

  /** The provider's side during a pull: alarms that are not replicated between begin and end are dropped at the end.
      An alarm kept before is updated in place. The record stays the caller's. */
  void beginAlarms() override;
  void replicateAlarm(SnmpAlarm* alarm) override;
  void endAlarms() override;

 private:
  struct Kept {
    explicit Kept(const SnmpAlarm& source) : alarm(source) {}
    SnmpAlarm alarm;
    bool stale = false;
  };

  using Clock = std::chrono::steady_clock;

  bool isWholePullDue() const;
  bool syncChanged();
  /** False when the list has to be pulled whole. */
  bool pullChanged();

  MoConnector* _provider = nullptr;
  std::map<unsigned int, Kept> _alarms;
  bool _needsSync = false;
  std::map<unsigned int, bool> _changed; /**< since the last pull: index, and whether it was cleared */
  Clock::time_point _pulledWhole;
  Clock::duration _pullTook = Clock::duration::zero();
};

}  // namespace VelaFmSnmp
#endif
