#include "fault/FmService.h"

#include <Poco/Timestamp.h>

#include <cstring>
#include <utility>

#include "LoggingWrapper.h"
#include "VelaException.h"

namespace VelaNode {

namespace {

constexpr const char* fmClassPath = "ManagedElement,SystemFunctions,Fm";
constexpr const char* fmDnExpression = "^ManagedElement=[^,]*,SystemFunctions=[^,]*,Fm=[^,]*$";
constexpr const char* alarmClass = "FmAlarm";
constexpr const char* heartbeatIntervalAttribute = "heartbeatInterval";

/** Severities as the model's alarm objects hold them, by severity of the events. */
constexpr std::int64_t modelSeverities[] = {1, 2, 6, 5, 4, 3};

/** The model's sums and the severities that they count. An indeterminate alarm is in the total only. */
constexpr std::pair<const char*, FmSeverity> sumAttributes[] = {
    {"sumCritical", FmCritical}, {"sumMajor", FmMajor}, {"sumMinor", FmMinor}, {"sumWarning", FmWarning}};

std::string alarmDn(const std::string& fmDn, std::uint32_t index) {
  return fmDn + "," + alarmClass + "=" + std::to_string(index);
}

void writeAlarm(MoTransaction& transaction, const std::string& fmDn, const FmAlarm& alarm) {
  const std::string dn = alarmDn(fmDn, alarm.index);
  if (!transaction.find(dn)) transaction.create(dn);
  const std::pair<const char*, MoValue> values[] = {
      {"fmAlarmId", alarm.index},
      {"lastEventTime", formatTime(alarm.eventTime)},
      {"originalEventTime", formatTime(alarm.originalEventTime)},
      {"activeSeverity", modelSeverities[alarm.severity]},
      {"originalSeverity", modelSeverities[alarm.originalSeverity]},
      {"additionalText", alarm.additionalText},
      {"originalAdditionalText", alarm.originalAdditionalText},
      {"specificProblem", alarm.key.specificProblem},
      {"source", alarm.key.source},
      {"majorType", alarm.key.majorType},
      {"minorType", alarm.key.minorType},
      {"probableCause", alarm.probableCause},
      {"eventType", alarm.eventType},
  };
  for (const auto& [name, value] : values) transaction.set(dn, name, value);
  std::vector<MoValue> info;
  info.reserve(alarm.additionalInfo.size());
  for (const auto& [name, value] : alarm.additionalInfo)
    info.emplace_back(MoValue::Members{{"name", name}, {"value", value}});
  transaction.setSequence(dn, "additionalInfo", info);
}

void checkSeverity(FmSeverity severity, FmSeverity least) {
  if (severity < least || severity > FmCritical) {
    throw Vela::VelaException(VELA_INVALID, "Severity %d is not possible here", static_cast<int>(severity));
  }
}

/** Emits a report; the event's pointers refer to the report during the call. */
void post(EventRouter& router, const FmReport& report, DaxOamSpiNotificationFmSeverityT severity, std::uint64_t time,
          VelaOamApiFmNotificationEventValue_4T event) {
  std::vector<DaxOamSpiFmAdditionalInfoT> info;
  info.reserve(report.additionalInfo.size());
  for (const auto& [name, value] : report.additionalInfo) info.push_back({name.c_str(), value.c_str()});
  DaxOamSpiNotificationFmT notification{};
  notification.dn = report.key.source.c_str();
  notification.majorType = report.key.majorType;
  notification.minorType = report.key.minorType;
  notification.eventTime = time;
  notification.additionalText = report.additionalText.c_str();
  notification.severity = severity;
  notification.additionalInfo = {static_cast<std::uint32_t>(info.size()), info.data()};
  event.notification = &notification;
  event.eventType = report.eventType;
  event.probableCause = report.probableCause;
  event.specificProblem = report.key.specificProblem.c_str();
  router.postNotification(event);
}

bool isIntervalChanged(const DaxOamSpiCmEvent_Notification_1T& notification) {
  for (auto event = notification.events; event != nullptr && *event != nullptr; ++event) {
    if ((*event)->eventType != DAX_CM_EVENT_MODIFIED) return true;
    for (auto attribute = (*event)->attributes; attribute != nullptr && *attribute != nullptr; ++attribute) {
      if ((*attribute)->name != nullptr && std::strcmp((*attribute)->name, heartbeatIntervalAttribute) == 0)
        return true;
    }
  }
  return false;
}

}  // namespace

FmClock FmClock::system() {
  return {[] { return static_cast<std::uint64_t>(Poco::Timestamp().epochMicroseconds()) * 1000; },
          [] {
            const auto now = std::chrono::steady_clock::now().time_since_epoch();
            return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
          }};
}

FmService::FmService(MoStore& store, EventRouter& router, FmClock clock)
    : _store(store), _router(router), _clock(std::move(clock)) {}

FmService::~FmService() { stop(); }

void FmService::start() {
  if (_heartbeatThread.joinable()) return;
  {
    const std::lock_guard lock(_mutex);
    MoTransaction transaction(_store);
    if (const auto dn = transaction.findFirst(fmClassPath)) {
      writeSums(transaction, *dn, _counters, _clock.wallNs());
      transaction.commit();
    }
  }
  {
    const std::lock_guard lock(_heartbeatMutex);
    _isStopping = false;
    _isIntervalStale = true;
  }
  static const VelaOamSpiEventConsumer_1T consumer = {&FmService::onFmObjectChange};
  const VelaOamSpiEventFilter_1T filter = {DAX_CM_EVENT_FILTER_REGEXP, fmDnExpression};
  const VelaOamSpiEventFilter_1T* const filters[] = {&filter, nullptr};
  std::uint32_t subscriptionId = 0;
  if (_router.registerConsumer(&consumer, &_consumerId) != VELA_OK ||
      _router.addSubscription(_consumerId, DAX_CM_EVENT_TYPE, filters, &subscriptionId) != VELA_OK) {
    throw Vela::VelaException("Could not subscribe to changes of the heartbeat interval");
  }
  _heartbeatThread = std::thread([this] { runHeartbeat(); });
}

void FmService::stop() {
  if (_consumerId != 0) _router.unregisterConsumer(std::exchange(_consumerId, 0));
  if (!_heartbeatThread.joinable()) return;
  {
    const std::lock_guard lock(_heartbeatMutex);
    _isStopping = true;
  }
  _heartbeatChanged.notify_all();
  _heartbeatThread.join();
}

std::uint32_t FmService::raise(const FmReport& report) {
  checkSeverity(report.severity, FmIndeterminate);
  const std::lock_guard lock(_mutex);
  const auto active = _indexes.find(report.key);
  FmAlarm alarm;
  static_cast<FmReport&>(alarm) = report;
  alarm.eventTime = _clock.wallNs();
  if (active != _indexes.end()) {
    const FmAlarm& before = find(active->second);
    alarm.index = before.index;
    alarm.originalEventTime = before.originalEventTime;
    alarm.originalSeverity = before.originalSeverity;
    alarm.originalAdditionalText = before.originalAdditionalText;
    update(before.index, std::move(alarm));
    return active->second;
  }
  alarm.index = _lastIndex + 1;
  alarm.originalEventTime = alarm.eventTime;
  alarm.originalSeverity = alarm.severity;
  alarm.originalAdditionalText = alarm.additionalText;
  update(0, std::move(alarm));
  return _lastIndex;
}

void FmService::change(std::uint32_t index, const FmChange& change) {
  if (change.severity) checkSeverity(*change.severity, FmIndeterminate);
  const std::lock_guard lock(_mutex);
  FmAlarm alarm = find(index);
  alarm.eventTime = _clock.wallNs();
  if (change.severity) alarm.severity = *change.severity;
  if (change.additionalText) alarm.additionalText = *change.additionalText;
  if (change.additionalInfo) alarm.additionalInfo = *change.additionalInfo;
  update(index, std::move(alarm));
}

void FmService::clear(std::uint32_t index) {
  const std::lock_guard lock(_mutex);
  remove(index);
}

std::size_t FmService::clearAll() {
  std::size_t count = 0;
  FmAlarm alarm;
  for (std::uint32_t index = 0; getNext(index, alarm); index = alarm.index) {
    const std::lock_guard lock(_mutex);
    if (_alarms.count(alarm.index) == 0) continue;
    remove(alarm.index);
    ++count;
  }
  return count;
}

std::uint64_t FmService::alert(const FmReport& report) {
  checkSeverity(report.severity, FmCleared);
  const std::lock_guard lock(_mutex);
  _lastAlertTime = _clock.wallNs();
  VelaOamApiFmNotificationEventValue_4T event{};
  event.sequenceNumber = static_cast<std::int64_t>(++_lastAlertSequenceNo);
  event.originalEventTime = _lastAlertTime;
  event.originalAdditionalText = report.additionalText.c_str();
  event.originalSeverity = report.severity;
  post(_router, report, report.severity, _lastAlertTime, event);
  return _lastAlertSequenceNo;
}

void FmService::sendHeartbeat() {
  const std::lock_guard lock(_mutex);
  VelaOamApiFmHeartbeatEventValue_4T event{};
  event.lastAlarmTime = _lastAlarmTime;
  event.lastAlarmSequenceNumber = static_cast<std::uint32_t>(_counters.sequenceNo);
  event.lastAlertTime = _lastAlertTime;
  event.lastAlertSequenceNumber = static_cast<std::uint32_t>(_lastAlertSequenceNo);
  _router.postHeartbeat(event);
}

void FmService::rebuild() {
  const std::lock_guard lock(_mutex);
  MoTransaction transaction(_store);
  const std::string dn = fmDn(transaction);
  transaction.traverse(dn, alarmClass, [&](const MoObjectPtr& object) {
    if (_alarms.count(static_cast<std::uint32_t>(object->getName().number)) == 0) transaction.remove(object->getDn());
    return true;
  });
  for (const auto& [index, alarm] : _alarms) writeAlarm(transaction, dn, alarm);
  writeSums(transaction, dn, _counters, _clock.wallNs());
  transaction.commit();
  _router.postAlarmListRebuilt();
}

std::size_t FmService::countActive() const {
  const std::lock_guard lock(_mutex);
  return _alarms.size();
}

bool FmService::getNext(std::uint32_t index, FmAlarm& alarm) const {
  const std::lock_guard lock(_mutex);
  const auto next = _alarms.upper_bound(index);
  if (next == _alarms.end()) return false;
  alarm = next->second;
  return true;
}

std::uint64_t FmService::getLastAlarmSequenceNo() const {
  const std::lock_guard lock(_mutex);
  return _counters.sequenceNo;
}

std::uint64_t FmService::getLastAlertSequenceNo() const {
  const std::lock_guard lock(_mutex);
  return _lastAlertSequenceNo;
}

const FmAlarm& FmService::find(std::uint32_t index) const {
  const auto found = _alarms.find(index);
  if (found == _alarms.end()) throw Vela::VelaException(VELA_NOT_FOUND, "No active alarm has the index %u", index);
  return found->second;
}

std::string FmService::fmDn(MoTransaction& transaction) const {
  const std::optional<std::string> dn = transaction.findFirst(fmClassPath);
  if (!dn) throw Vela::VelaException(VELA_NOT_FOUND, "The model has no Fm object");
  return *dn;
}

void FmService::writeSums(MoTransaction& transaction, const std::string& dn, const Counters& counters,
                          std::uint64_t time) const {
  for (const auto& [name, severity] : sumAttributes) transaction.set(dn, name, counters.bySeverity[severity]);
  transaction.set(dn, "totalActive", counters.total);
  transaction.set(dn, "lastSequenceNo", counters.sequenceNo);
  transaction.set(dn, "lastChanged", formatTime(time));
}

/** Puts a new alarm (index 0) or the next state of an active one into the model and the list. */
void FmService::update(std::uint32_t index, FmAlarm alarm) {
  const bool isUpdate = index != 0;
  Counters counters = _counters;
  ++counters.sequenceNo;
  ++counters.bySeverity[alarm.severity];
  if (isUpdate) {
    --counters.bySeverity[find(index).severity];
  } else {
    ++counters.total;
  }
  MoTransaction transaction(_store);
  const std::string dn = fmDn(transaction);
  writeAlarm(transaction, dn, alarm);
  writeSums(transaction, dn, counters, alarm.eventTime);
  transaction.commit();

  _counters = counters;
  _lastAlarmTime = alarm.eventTime;
  if (!isUpdate) {
    _lastIndex = alarm.index;
    _indexes.emplace(alarm.key, alarm.index);
  }
  emitAlarm(alarm, alarm.severity, isUpdate);
  _alarms.insert_or_assign(alarm.index, std::move(alarm));
}

void FmService::remove(std::uint32_t index) {
  FmAlarm alarm = find(index);
  alarm.eventTime = _clock.wallNs();
  Counters counters = _counters;
  ++counters.sequenceNo;
  --counters.bySeverity[alarm.severity];
  --counters.total;
  MoTransaction transaction(_store);
  const std::string dn = fmDn(transaction);
  const std::string object = alarmDn(dn, index);
  if (transaction.find(object)) transaction.remove(object);
  writeSums(transaction, dn, counters, alarm.eventTime);
  transaction.commit();

  _counters = counters;
  _lastAlarmTime = alarm.eventTime;
  _indexes.erase(alarm.key);
  _alarms.erase(index);
  emitAlarm(alarm, FmCleared, true);
}

void FmService::emitAlarm(const FmAlarm& alarm, FmSeverity severity, bool isUpdate) {
  VelaOamApiFmNotificationEventValue_4T event{};
  event.stateful = true;
  event.alarmUpdate = isUpdate;
  event.sequenceNumber = static_cast<std::int64_t>(_counters.sequenceNo);
  event.index = alarm.index;
  event.originalEventTime = alarm.originalEventTime;
  event.originalAdditionalText = alarm.originalAdditionalText.c_str();
  event.originalSeverity = alarm.originalSeverity;
  post(_router, alarm, severity, alarm.eventTime, event);
}

void FmService::onFmObjectChange(const char*, const void* eventValue) {
  FmService* service = CurrentInstance<FmService>::get();
  if (service == nullptr || !isIntervalChanged(*static_cast<const DaxOamSpiCmEvent_Notification_1T*>(eventValue))) {
    return;
  }
  {
    const std::lock_guard lock(service->_heartbeatMutex);
    service->_isIntervalStale = true;
  }
  service->_heartbeatChanged.notify_all();
}

unsigned long long FmService::readHeartbeatInterval() const {
  const MoObjectPtr fm = _store.getTree().findFirst(fmClassPath);
  return fm ? fm->getUnsigned(heartbeatIntervalAttribute).value_or(0) : 0;
}

std::chrono::milliseconds FmService::updateHeartbeat() {
  const std::uint64_t now = _clock.steadyMs();
  bool isDue = false;
  std::uint64_t wait = 0;
  {
    const std::lock_guard lock(_heartbeatMutex);
    if (std::exchange(_isIntervalStale, false)) {
      // A heartbeat that was off counts from its switching on.
      if (_interval == 0) _lastHeartbeatMs = now;
      _interval = readHeartbeatInterval();
    }
    if (_interval == 0) return std::chrono::milliseconds::max();
    const std::uint64_t intervalMs = _interval * 1000;
    isDue = now - _lastHeartbeatMs >= intervalMs;
    // In step with the interval unless one or more were missed.
    if (isDue) _lastHeartbeatMs = now - _lastHeartbeatMs < 2 * intervalMs ? _lastHeartbeatMs + intervalMs : now;
    wait = _lastHeartbeatMs + intervalMs - now;
  }
  if (isDue) sendHeartbeat();
  return std::chrono::milliseconds(wait);
}

void FmService::runHeartbeat() {
  for (;;) {
    const std::chrono::milliseconds wait = updateHeartbeat();
    std::unique_lock lock(_heartbeatMutex);
    const auto isToAct = [this] { return _isStopping || _isIntervalStale; };
    if (wait == std::chrono::milliseconds::max()) {
      _heartbeatChanged.wait(lock, isToAct);
    } else {
      _heartbeatChanged.wait_for(lock, wait, isToAct);
    }
    if (_isStopping) return;
  }
}

}  // namespace VelaNode
