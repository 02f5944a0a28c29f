#ifndef VELA_NODE_FM_SERVICE_H
#define VELA_NODE_FM_SERVICE_H

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "fault/AlarmJournal.h"
#include "fault/FmAlarm.h"
#include "framework/CurrentInstance.h"
#include "framework/EventRouter.h"
#include "model/MoTransaction.h"

namespace VelaNode {

/** The clocks of the fault-management service, replaceable for tests. */
struct FmClock {
  std::function<std::uint64_t()> wallNs;   /**< ns since the epoch, in whole microseconds */
  std::function<std::uint64_t()> steadyMs; /**< never goes back */

  static FmClock system();
};

/**
 * The fault-management service: keeps the active alarms, and with each change, in one transaction, the FmAlarm objects
 * and the summary attributes of the model's first Fm object; then emits the event, in the order of the changes. Indexes
 * rise from 1 and are never used again; alarms and alerts are each numbered from 1. All that lives as long as the
 * service, or, when it is kept in a file, as long as the file.
 *
 * Any thread. A failing operation throws Vela::VelaException (VELA_NOT_FOUND for an index that is not active,
 * VELA_INVALID for a bad argument) and has changed nothing. One at a time per process.
 */
class FmService {
 public:
  FmService(MoStore& store, EventRouter& router, FmClock clock = FmClock::system());
  ~FmService(); /**< stops */
  FmService(const FmService&) = delete;
  FmService& operator=(const FmService&) = delete;

  /** Takes up the alarms and numbers that the file holds, and keeps them there from now on. Before anything else. */
  void keepIn(const std::string& path);
  /** Waits until everything that was done before is on the disk, if it is kept. Throws Vela::VelaException when it
      cannot be written; it is done nevertheless. */
  void sync();

  /** Starts the heartbeat at the model's interval; a change of the interval takes effect at once. */
  void start();
  void stop();

  /** Raises an alarm and returns its index. When the alarm that the key names is active, it is updated instead: it
     keeps its index and its original time, text and severity. The severity must not be cleared. */
  std::uint32_t raise(const FmReport& report);
  void change(std::uint32_t index, const FmChange& change);
  void clear(std::uint32_t index);
  /** Clears all alarms, one by one in the order of their indexes, and returns how many. */
  std::size_t clearAll();
  /** Sends an alert and returns its sequence number. */
  std::uint64_t alert(const FmReport& report);
  void sendHeartbeat();
  /** Writes the model's alarm list and sums anew from the active alarms and tells that it was rebuilt. */
  void rebuild();

  std::size_t countActive() const;
  /** The alarm with the smallest index above the given one, or null. */
  FmAlarmPtr getNext(std::uint32_t index) const;
  std::uint64_t getLastAlarmSequenceNo() const;
  std::uint64_t getLastAlertSequenceNo() const;
  /** When the last heartbeat was sent, ns since the epoch; 0: none yet. */
  std::uint64_t getLastHeartbeatTime() const;

  /** Sends the regular heartbeat when it is due. Returns how long to wait for the next one; max(): for ever. What the
      service's own thread does. */
  std::chrono::milliseconds updateHeartbeat();

 private:
  /** Orders alarms by what makes them one. */
  struct ByKey {
    using is_transparent = void;
    static const FmAlarmKey& keyOf(const FmAlarmPtr& alarm) { return alarm->key; }
    static const FmAlarmKey& keyOf(const FmAlarmKey& key) { return key; }
    template <class Left, class Right>
    bool operator()(const Left& left, const Right& right) const {
      return keyOf(left) < keyOf(right);
    }
  };
  using Sums = std::array<std::uint32_t, FmCritical + 1>; /**< by severity; of no use for cleared */

  static void onFmObjectChange(const char* eventType, const void* eventValue);

  FmAlarmPtr find(std::uint32_t index) const;
  std::string fmDn(MoTransaction& transaction) const;
  static void writeSums(MoTransaction& transaction, const std::string& dn, const Sums& sums, const FmState& state);
  static void writeList(MoTransaction& transaction, const std::string& dn, const Sums& sums, const FmState& state);
  FmState nextState(std::uint64_t time) const;
  void update(const FmAlarmPtr& before, FmAlarm alarm);
  void remove(std::uint32_t index);
  void keep(std::string record);
  void emitAlarm(const FmAlarm& alarm, FmSeverity severity, bool isUpdate);
  unsigned long long readHeartbeatInterval() const;
  void runHeartbeat();

  MoStore& _store;
  EventRouter& _router;
  const FmClock _clock;

  mutable std::mutex _mutex; /**< held from a change's start until its event is posted, which keeps both in one order */
  FmState _state;
  std::set<FmAlarmPtr, ByKey> _byKey;
  Sums _sums{};
  std::uint64_t _lastHeartbeatTime = 0;

  std::mutex _heartbeatMutex;
  std::condition_variable _heartbeatChanged;
  bool _isIntervalStale = true;
  bool _isStopping = false;
  unsigned long long _interval = 0;        /**< seconds; 0: no heartbeat */
  unsigned long long _lastHeartbeatMs = 0; /**< when the regular heartbeat was last sent, or began to run */
  std::uint32_t _consumerId = 0;
  std::thread _heartbeatThread;
  std::unique_ptr<AlarmJournal> _journal; /**< may be null */
  CurrentInstance<FmService> _current{this};
};

}  // namespace VelaNode
#endif
