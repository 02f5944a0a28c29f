#include "fault/FmService.h"

#include <Poco/Timestamp.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "LoggingWrapper.h"
#include "VelaException.h"
#include "fault/AlarmObject.h"
#include "fault/AlarmRecords.h"

namespace VelaNode {

namespace {

constexpr const char* fmClassPath = "ManagedElement,SystemFunctions,Fm";
constexpr const char* fmDnExpression = "^ManagedElement=[^,]*,SystemFunctions=[^,]*,Fm=[^,]*$";
constexpr const char* alarmClass = "FmAlarm";
constexpr const char* heartbeatIntervalAttribute = "heartbeatInterval";

/** The model's sums and the severities that they count. An indeterminate alarm is in the total only. */
constexpr std::pair<const char*, FmSeverity> sumAttributes[] = {
    {"sumCritical", FmCritical}, {"sumMajor", FmMajor}, {"sumMinor", FmMinor}, {"sumWarning", FmWarning}};

std::string alarmDn(const std::string& fmDn, std::uint32_t index) {
  return fmDn + "," + alarmClass + "=" + std::to_string(index);
}

void writeAlarm(MoTransaction& transaction, const std::string& fmDn, const FmAlarmPtr& alarm) {
  transaction.put(alarmDn(fmDn, alarm->index), std::make_shared<const AlarmObject>(alarm));
}

void checkTexts(const FmReport& report) {
  const auto check = [](const std::string& text) {
    if (text.find('\0') != std::string::npos) {
      throw Vela::VelaException(VELA_INVALID, "A text must not hold a NUL character");
    }
  };
  for (const std::string* text : {&report.key.source, &report.key.specificProblem, &report.additionalText})
    check(*text);
  for (const auto& [name, value] : report.additionalInfo) {
    check(name);
    check(value);
  }
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

FmService::~FmService() {
  stop();
  _journal.reset();  // asks this service what to write
}

void FmService::keepIn(const std::string& path) {
  auto journal = std::make_unique<AlarmJournal>(path);
  {
    const std::lock_guard lock(_mutex);
    _state = journal->load();
    _byKey.clear();
    _sums = {};
    _state.alarms.forEach([this](const ActiveAlarm& active) {
      _byKey.insert(active.alarm);
      ++_sums[active.alarm->severity];
      return true;
    });
    MoTransaction transaction(_store);
    if (const auto dn = transaction.findFirst(fmClassPath)) {
      writeList(transaction, *dn, _sums, _state);
      transaction.commit();
    }
    _journal = std::move(journal);
  }
  _journal->start([this](std::uint64_t& position) {
    const std::lock_guard lock(_mutex);
    position = _journal->position();
    return _state;
  });
}

void FmService::sync() {
  if (_journal) _journal->sync();
}

void FmService::start() {
  if (_heartbeatThread.joinable()) return;
  {
    const std::lock_guard lock(_mutex);
    MoTransaction transaction(_store);
    if (const auto dn = transaction.findFirst(fmClassPath)) {
      if (_state.numbers.lastChanged == 0) _state.numbers.lastChanged = _clock.wallNs();
      writeSums(transaction, *dn, _sums, _state);
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
  const auto active = _byKey.find(report.key);
  const FmAlarmPtr before = active == _byKey.end() ? nullptr : *active;
  FmAlarm alarm;
  static_cast<FmReport&>(alarm) = report;
  alarm.eventTime = _clock.wallNs();
  alarm.index = before ? before->index : _state.numbers.lastIndex + 1;
  alarm.originalEventTime = before ? before->originalEventTime : alarm.eventTime;
  alarm.originalSeverity = before ? before->originalSeverity : alarm.severity;
  alarm.originalAdditionalText = before ? before->originalAdditionalText : alarm.additionalText;
  const std::uint32_t index = alarm.index;
  update(before, std::move(alarm));
  return index;
}

void FmService::change(std::uint32_t index, const FmChange& change) {
  if (change.severity) checkSeverity(*change.severity, FmIndeterminate);
  const std::lock_guard lock(_mutex);
  const FmAlarmPtr before = find(index);
  FmAlarm alarm = *before;
  alarm.eventTime = _clock.wallNs();
  if (change.severity) alarm.severity = *change.severity;
  if (change.additionalText) alarm.additionalText = *change.additionalText;
  if (change.additionalInfo) alarm.additionalInfo = *change.additionalInfo;
  update(before, std::move(alarm));
}

void FmService::clear(std::uint32_t index) {
  const std::lock_guard lock(_mutex);
  remove(index);
}

std::size_t FmService::clearAll() {
  std::size_t count = 0;
  for (FmAlarmPtr alarm = getNext(0); alarm; alarm = getNext(alarm->index)) {
    const std::lock_guard lock(_mutex);
    if (_state.alarms.find(alarm->index) == nullptr) continue;
    remove(alarm->index);
    ++count;
  }
  return count;
}

std::uint64_t FmService::alert(const FmReport& report) {
  checkSeverity(report.severity, FmCleared);
  const std::lock_guard lock(_mutex);
  FmNumbers& numbers = _state.numbers;
  numbers.lastAlertTime = _clock.wallNs();
  ++numbers.alertSequenceNo;
  keep(encodeNumbers(numbers));
  VelaOamApiFmNotificationEventValue_4T event{};
  event.sequenceNumber = static_cast<std::int64_t>(numbers.alertSequenceNo);
  event.originalEventTime = numbers.lastAlertTime;
  event.originalAdditionalText = report.additionalText.c_str();
  event.originalSeverity = report.severity;
  post(_router, report, report.severity, numbers.lastAlertTime, event);
  return numbers.alertSequenceNo;
}

void FmService::sendHeartbeat() {
  const std::lock_guard lock(_mutex);
  VelaOamApiFmHeartbeatEventValue_4T event{};
  event.lastAlarmTime = _state.numbers.lastAlarmTime;
  event.lastAlarmSequenceNumber = static_cast<std::uint32_t>(_state.numbers.alarmSequenceNo);
  event.lastAlertTime = _state.numbers.lastAlertTime;
  event.lastAlertSequenceNumber = static_cast<std::uint32_t>(_state.numbers.alertSequenceNo);
  _router.postHeartbeat(event);
  _lastHeartbeatTime = _clock.wallNs();
}

void FmService::rebuild() {
  const std::lock_guard lock(_mutex);
  MoTransaction transaction(_store);
  const std::string dn = fmDn(transaction);
  FmState state = _state;
  state.numbers.lastChanged = _clock.wallNs();
  transaction.traverse(dn, alarmClass, [&](const MoObjectPtr& object) {
    const auto index = static_cast<std::uint32_t>(object->getName().number);
    if (state.alarms.find(index) == nullptr) transaction.remove(object->getDn());
    return true;
  });
  writeList(transaction, dn, _sums, state);
  transaction.commit();
  _state = std::move(state);
  keep(encodeNumbers(_state.numbers));
  _router.postAlarmListRebuilt();
}

std::size_t FmService::countActive() const {
  const std::lock_guard lock(_mutex);
  return _state.alarms.getSize();
}

FmAlarmPtr FmService::getNext(std::uint32_t index) const {
  const std::lock_guard lock(_mutex);
  const ActiveAlarm* const next = _state.alarms.next(index);
  return next == nullptr ? nullptr : next->alarm;
}

std::uint64_t FmService::getLastAlarmSequenceNo() const {
  const std::lock_guard lock(_mutex);
  return _state.numbers.alarmSequenceNo;
}

std::uint64_t FmService::getLastAlertSequenceNo() const {
  const std::lock_guard lock(_mutex);
  return _state.numbers.alertSequenceNo;
}

std::uint64_t FmService::getLastHeartbeatTime() const {
  const std::lock_guard lock(_mutex);
  return _lastHeartbeatTime;
}

FmAlarmPtr FmService::find(std::uint32_t index) const {
  const ActiveAlarm* const found = _state.alarms.find(index);
  if (found == nullptr) throw Vela::VelaException(VELA_NOT_FOUND, "No active alarm has the index %u", index);
  return found->alarm;
}

std::string FmService::fmDn(MoTransaction& transaction) const {
  const std::optional<std::string> dn = transaction.findFirst(fmClassPath);
  if (!dn) throw Vela::VelaException(VELA_NOT_FOUND, "The model has no Fm object");
  return *dn;
}

void FmService::writeSums(MoTransaction& transaction, const std::string& dn, const Sums& sums, const FmState& state) {
  for (const auto& [name, severity] : sumAttributes) transaction.set(dn, name, sums[severity]);
  transaction.set(dn, "totalActive", static_cast<std::uint32_t>(state.alarms.getSize()));
  transaction.set(dn, "lastSequenceNo", state.numbers.alarmSequenceNo);
  transaction.set(dn, "lastChanged", formatTime(state.numbers.lastChanged));
}

void FmService::writeList(MoTransaction& transaction, const std::string& dn, const Sums& sums, const FmState& state) {
  state.alarms.forEach([&](const ActiveAlarm& active) {
    writeAlarm(transaction, dn, active.alarm);
    return true;
  });
  writeSums(transaction, dn, sums, state);
}

/** The state with the numbers of the next change of the list. */
FmState FmService::nextState(std::uint64_t time) const {
  FmState state = _state;
  ++state.numbers.alarmSequenceNo;
  state.numbers.lastAlarmTime = state.numbers.lastChanged = time;
  return state;
}

/** Puts a new alarm, or the next state of the one before, into the model and the list. */
void FmService::update(const FmAlarmPtr& before, FmAlarm alarm) {
  checkTexts(alarm);
  const auto after = std::make_shared<const FmAlarm>(std::move(alarm));
  FmState state = nextState(after->eventTime);
  state.numbers.lastIndex = std::max(state.numbers.lastIndex, after->index);
  state.alarms.put({after});
  Sums sums = _sums;
  ++sums[after->severity];
  if (before) --sums[before->severity];
  MoTransaction transaction(_store);
  const std::string dn = fmDn(transaction);
  writeAlarm(transaction, dn, after);
  writeSums(transaction, dn, sums, state);
  transaction.commit();

  _state = std::move(state);
  _sums = sums;
  if (before) _byKey.erase(before);
  _byKey.insert(after);
  keep(encodeActive(*after, _state.numbers));
  emitAlarm(*after, after->severity, before != nullptr);
}

void FmService::remove(std::uint32_t index) {
  const FmAlarmPtr before = find(index);
  FmAlarm alarm = *before;
  alarm.eventTime = _clock.wallNs();
  FmState state = nextState(alarm.eventTime);
  state.alarms.erase(index);
  Sums sums = _sums;
  --sums[before->severity];
  MoTransaction transaction(_store);
  const std::string dn = fmDn(transaction);
  const std::string object = alarmDn(dn, index);
  if (transaction.find(object)) transaction.remove(object);
  writeSums(transaction, dn, sums, state);
  transaction.commit();

  _state = std::move(state);
  _sums = sums;
  _byKey.erase(before);
  keep(encodeRemoved(index, _state.numbers));
  emitAlarm(alarm, FmCleared, true);
}

void FmService::keep(std::string record) {
  if (_journal) _journal->append(std::move(record));
}

void FmService::emitAlarm(const FmAlarm& alarm, FmSeverity severity, bool isUpdate) {
  VelaOamApiFmNotificationEventValue_4T event{};
  event.stateful = true;
  event.alarmUpdate = isUpdate;
  event.sequenceNumber = static_cast<std::int64_t>(_state.numbers.alarmSequenceNo);
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
