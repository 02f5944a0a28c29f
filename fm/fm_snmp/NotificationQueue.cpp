#include "NotificationQueue.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "LoggingWrapper.h"
#include "PduParser.h"
#include "SnmpMessages.h"
#include "SnmpUtil.h"

namespace VelaFmSnmp {

namespace {

const SnmpAlarm& alarmOf(const Vela::PipeMessage& message) {
  return static_cast<const SnmpAlarmMessage&>(message).getAlarm();
}

bool isHeartbeat(const Vela::PipeMessage& message) { return message.getMessageType() == SnmpMessageHeartbeat; }

std::string describe(const Vela::PipeMessage& message) {
  constexpr std::size_t maxNameLength = 200;
  if (isHeartbeat(message)) return "a heartbeat";
  if (message.getMessageType() != SnmpMessageAlarm) return "the rebuilt alarm list";
  const SnmpAlarm& alarm = alarmOf(message);
  const std::string kind = alarm.isStateful() ? "alarm " + std::to_string(alarm.getIndex()) : "an alert";
  return kind + " of " + alarm.getManagedObject().substr(0, maxNameLength) + " (type " +
         std::to_string(alarm.getMajorType()) + "/" + std::to_string(alarm.getMinorType()) + ")";
}

}  // namespace

// --- Held messages and the probe -----------------------------------------------------------------------------------

void NotificationQueue::release(int count) {
  if (_held.empty() || count <= 0) return;
  const std::size_t releasing = std::min(static_cast<std::size_t>(count), _held.size());
  VELA_LOG(Vela::LogInfo, "Sending %d of %d queued notifications...", static_cast<int>(releasing),
           static_cast<int>(_held.size()));
  settle(_held.front());
  _due.splice(_due.end(), _held, _held.begin(), std::next(_held.begin(), static_cast<std::ptrdiff_t>(releasing)));
}

void NotificationQueue::dropHeld() {
  if (_held.empty()) return;
  VELA_LOG(Vela::LogWarning, "%zu queued notifications are dropped", _held.size());
  settle(_held.front());
  _held.clear();
}

bool NotificationQueue::sendProbe() {
  // What the master agent before this one left over is older.
  if (!_due.empty()) return false;
  while (!_held.empty()) {
    VELA_LOG(Vela::LogInfo, "Trying to send one notification (%d in queue)...", static_cast<int>(_held.size()));
    const Outcome outcome = send(_held.front());
    if (outcome == Outcome::Closed) loseConnection();
    if (outcome != Outcome::NothingToSend) return true;
    _held.pop_front();
  }
  return false;
}

bool NotificationQueue::confirmProbe(const unsigned char* datagram, std::size_t length) {
  if (_held.empty()) return true;
  PduParser parser(datagram, length);
  if (!parser.parse()) return false;
  const Vela::PipeMessage& first = *_held.front().message;
  const bool isFirst =
      first.getMessageType() == SnmpMessageAlarm ? parser.matches(alarmOf(first)) : parser.matchesAlarmListRebuilt();
  if (isFirst) {
    settle(_held.front());
    _held.pop_front();
  }
  return isFirst;
}

// --- Sending -------------------------------------------------------------------------------------------------------

TrapSender::Notifications NotificationQueue::build(const Vela::PipeMessage& message) {
  const int type = message.getMessageType();
  try {
    switch (type) {
      case SnmpMessageHeartbeat:
        return TrapSender::buildHeartbeat(static_cast<const SnmpHeartbeatMessage&>(message).getHeartbeat());
      case SnmpMessageAlarmListRebuilt:
        return TrapSender::buildAlarmListRebuilt("");
      case SnmpMessageAlarm: {
        const SnmpAlarm& alarm = alarmOf(message);
        VELA_TRACE("*** trap %s", alarm.toString().c_str());
        return alarm.isStateful() ? TrapSender::buildAlarm(alarm) : TrapSender::buildAlert(alarm);
      }
      default:
        return {};
    }
  } catch (const std::exception& ex) {
    VELA_LOG(Vela::LogError, "exception caught while handling incoming message type %d, %s", type, ex.what());
    return {};
  }
}

NotificationQueue::Outcome NotificationQueue::send(Entry& entry) {
  if (!_subAgent.isAttached()) return Outcome::Closed;
  Outcome outcome = Outcome::NothingToSend;
  for (const Varbinds& notification : build(*entry.message)) {
    const AgentXSubAgent::Sent sent = _subAgent.notify(notification);
    if (sent.outcome == AgentXSubAgent::Outcome::Closed) return Outcome::Closed;
    if (sent.outcome == AgentXSubAgent::Outcome::TooLong) {
      VELA_LOG(Vela::LogError, "The notification of %s is given up: a message cannot carry its %zu octets",
               describe(*entry.message).c_str(), sent.octets);
      continue;
    }
    noteSent(entry, sent);
    outcome = Outcome::Sent;
  }
  return outcome;
}

void NotificationQueue::noteSent(Entry& entry, const AgentXSubAgent::Sent& sent) {
  if (entry.requests.empty()) {
    entry.number = ++_lastNumber;
    entry.sentAt = SnmpUtil::getNow();
  }
  entry.requests.push_back(sent.request);
  entry.octets += sent.octets;
  ++_pdusOnWay;
  _octetsOnWay += sent.octets;
}

void NotificationQueue::settle(Entry& entry) {
  _pdusOnWay -= static_cast<unsigned int>(entry.requests.size());
  _octetsOnWay -= entry.octets;
  entry.requests.clear();
  entry.octets = 0;
}

bool NotificationQueue::isRoomFor(const Entry& entry) const {
  if (_pdusOnWay == 0) return true;
  const bool isSuspectOnWay =
      (!_onWay.empty() && _onWay.front().isSuspect) || (isProbeOnWay() && _held.front().isSuspect);
  if (entry.isSuspect || isSuspectOnWay) return false;
  return _pdusOnWay < window && _octetsOnWay < maxOctetsOnWay;
}

void NotificationQueue::sendNext() {
  _onWay.splice(_onWay.end(), _due, _due.begin());
  switch (send(_onWay.back())) {
    case Outcome::Sent:
      return;
    case Outcome::NothingToSend:
      _onWay.pop_back();
      return;
    case Outcome::Closed:
      loseConnection();
  }
}

void NotificationQueue::pump() {
  collect();
  while (_subAgent.isAttached() && !_due.empty() && isRoomFor(_due.front())) sendNext();
}

// --- Answers, and their absence ------------------------------------------------------------------------------------

void NotificationQueue::collect() {
  takeAnswers();
  if (_subAgent.isAttached()) judge();
}

void NotificationQueue::takeAnswers() {
  const std::vector<AgentXSubAgent::Answer> answers = _subAgent.takeAnswers();
  if (!answers.empty()) _lastAnswerAt = SnmpUtil::getNow();
  for (const AgentXSubAgent::Answer& answer : answers) take(answer);
}

void NotificationQueue::take(const AgentXSubAgent::Answer& answer) {
  if (_ping.number != 0 && _ping.request == answer.request) {
    _lastAnswered = std::max(_lastAnswered, _ping.number);
    return;
  }
  Entry* const entry = find(answer.request);
  if (!entry) return;
  _lastAnswered = std::max(_lastAnswered, entry->number);
  if (answer.error != 0) {
    giveUp(*entry, "the master agent refuses it (error " + std::to_string(answer.error) + ")");
    return;
  }
  if (entry->requests.size() > 1) {
    std::erase(entry->requests, answer.request);
    --_pdusOnWay;
    return;
  }
  settle(*entry);
  entry->failures = 0;
  entry->isSuspect = false;
  // A probe is held until the internal listener has received it.
  if (_held.empty() || entry != &_held.front()) erase(*entry);
}

void NotificationQueue::judge() {
  Entry* const oldest = findOldest();
  if (!oldest) return;
  const unsigned long long now = SnmpUtil::getNow();
  const unsigned long long waited = now - oldest->sentAt;
  const unsigned long long silent = std::min(waited, now - _lastAnswerAt);
  const unsigned long long timeout = std::max(acknowledgementTimeout, _subAgent.getAnswerTimeout());
  // What was not read yet is no silence, however long the adaptor was busy.
  if (waited <= timeout / 2 || _subAgent.hasUnread()) return;
  if (_lastAnswered > oldest->number) {
    if (waited > timeout) giveUp(*oldest, "the master agent answers, but not to it");
  } else if (silent > timeout / 2 && (_ping.number < oldest->number || _ping.sentAt < _lastAnswerAt)) {
    askForLife(now);
  } else if (silent > timeout && now - _ping.sentAt >= timeout / 2) {
    VELA_LOG(Vela::LogWarning, "The master agent does not acknowledge notifications (%u on their way)", _pdusOnWay);
    _subAgent.giveUp();
    onConnectionLost();
  }
}

void NotificationQueue::askForLife(unsigned long long now) {
  const AgentXSubAgent::Sent sent = _subAgent.ping();
  if (sent.outcome == AgentXSubAgent::Outcome::Sent) {
    _ping = {sent.request, ++_lastNumber, now};
  } else {
    loseConnection();
  }
}

// --- The end of a connection ---------------------------------------------------------------------------------------

void NotificationQueue::loseConnection() {
  _subAgent.close();
  onConnectionLost();
}

void NotificationQueue::onConnectionLost() {
  takeAnswers();
  if (Entry* const only = findOnlyOne(); only && ++only->failures >= maxFailures) {
    giveUp(*only, "the connection to the master agent ended " + std::to_string(maxFailures) +
                      " times with no other on its way");
  }
  // A heartbeat tells of its own moment.
  for (Entries* entries : {&_onWay, &_due}) {
    std::erase_if(*entries, [](const Entry& entry) { return isHeartbeat(*entry.message); });
  }
  if (!_onWay.empty()) {
    VELA_LOG(Vela::LogWarning, "%zu notifications were not acknowledged and go out again, %zu more wait", _onWay.size(),
             _due.size());
  }
  for (Entry& entry : _onWay) {
    entry.isSuspect = !entry.requests.empty();
    settle(entry);
  }
  if (isProbeOnWay()) {
    _held.front().isSuspect = true;
    settle(_held.front());
  }
  _due.splice(_due.begin(), _onWay);
  _pdusOnWay = 0;
  _octetsOnWay = 0;
  _ping = {};
}

void NotificationQueue::dropDue() {
  const std::size_t dropped = _due.size() + _onWay.size();
  if (dropped > 0) VELA_LOG(Vela::LogWarning, "%zu notifications that were not acknowledged are dropped", dropped);
  for (Entry& entry : _onWay) settle(entry);
  _onWay.clear();
  _due.clear();
}

// --- Entries -------------------------------------------------------------------------------------------------------

NotificationQueue::Entry* NotificationQueue::findOldest() {
  Entry* const probe = isProbeOnWay() ? &_held.front() : nullptr;
  if (_onWay.empty()) return probe;
  return probe && probe->number < _onWay.front().number ? probe : &_onWay.front();
}

NotificationQueue::Entry* NotificationQueue::findOnlyOne() {
  if (_onWay.size() + (isProbeOnWay() ? 1 : 0) != 1) return nullptr;
  Entry* const entry = findOldest();
  // One whose sending failed never reached the master agent.
  return entry->requests.empty() ? nullptr : entry;
}

NotificationQueue::Entry* NotificationQueue::find(AgentXSubAgent::Request request) {
  const auto isAsked = [request](const Entry& entry) {
    return std::find(entry.requests.begin(), entry.requests.end(), request) != entry.requests.end();
  };
  const auto found = std::find_if(_onWay.begin(), _onWay.end(), isAsked);
  if (found != _onWay.end()) return &*found;
  return isProbeOnWay() && isAsked(_held.front()) ? &_held.front() : nullptr;
}

void NotificationQueue::erase(const Entry& entry) {
  const auto isThis = [&entry](const Entry& other) { return &other == &entry; };
  Entries& entries = !_held.empty() && isThis(_held.front()) ? _held : _onWay;
  entries.erase(std::find_if(entries.begin(), entries.end(), isThis));
}

void NotificationQueue::giveUp(Entry& entry, const std::string& reason) {
  VELA_LOG(Vela::LogError, "The notification of %s is given up: %s", describe(*entry.message).c_str(), reason.c_str());
  settle(entry);
  erase(entry);
}

}  // namespace VelaFmSnmp
