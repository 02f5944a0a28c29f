#include "NotificationHandover.h"

#include <algorithm>
#include <utility>

#include "LoggingWrapper.h"
#include "SnmpUtil.h"

namespace VelaFmSnmp {

namespace {

/** A message that breaks the connection each time is given up after so many times. */
constexpr unsigned int MaxFailures = 3;

}  // namespace

NotificationHandover::NotificationHandover(AgentXSubAgent& subAgent, Sender sender)
    : _subAgent(subAgent), _sender(std::move(sender)) {}

void NotificationHandover::add(std::unique_ptr<Vela::PipeMessage> message) {
  _messages.emplace_back().owned = std::move(message);
}

NotificationHandover::Outcome NotificationHandover::send(const Vela::PipeMessage& message, unsigned int& pdus) {
  if (!_subAgent.isAttached()) return Outcome::Failed;
  const AgentXSubAgent::NotificationCounts before = _subAgent.getNotificationCounts();
  int result = 0;
  _subAgent.send([&] { result = _sender(message); });
  const AgentXSubAgent::NotificationCounts after = _subAgent.getNotificationCounts();
  pdus = static_cast<unsigned int>(after.sent - before.sent);
  if (after.failed != before.failed) return Outcome::Failed;
  if (pdus > 0) return Outcome::Sent;
  return result == 0 ? Outcome::Failed : Outcome::NothingToSend;
}

void NotificationHandover::noteSent(Entry& entry, unsigned int pdus) {
  if (_inFlight == 0) _progress = SnmpUtil::getNow();
  entry.unacknowledged = pdus;
  _inFlight += pdus;
  ++_sent;
}

NotificationHandover::Outcome NotificationHandover::sendNow(const Vela::PipeMessage& message) {
  collect();
  unsigned int pdus = 0;
  const Outcome outcome = send(message, pdus);
  if (outcome == Outcome::Sent) {
    noteSent(*_messages.emplace(_messages.begin() + static_cast<std::ptrdiff_t>(_sent)), pdus);
  } else if (outcome == Outcome::Failed) {
    loseConnection();
  }
  return outcome;
}

void NotificationHandover::sendNext() {
  const auto next = _messages.begin() + static_cast<std::ptrdiff_t>(_sent);
  unsigned int pdus = 0;
  const Outcome outcome = send(*next->owned, pdus);
  if (outcome == Outcome::Sent) {
    noteSent(*next, pdus);
    return;
  }
  const bool givenUp = outcome == Outcome::Failed && ++next->failures >= MaxFailures;
  if (givenUp) VELA_LOG(Vela::LogError, "notification given up after %u failed attempts to send it", next->failures);
  if (givenUp || outcome == Outcome::NothingToSend) _messages.erase(next);
  if (outcome == Outcome::Failed) loseConnection();
}

void NotificationHandover::pump() {
  collect();
  while (_subAgent.isAttached() && isReadyToSend()) sendNext();
}

void NotificationHandover::collect() {
  if (_inFlight == 0) return;
  const unsigned long acknowledged = _subAgent.getNotificationCounts().acknowledged;
  unsigned long arrived = acknowledged - _acknowledged;
  _acknowledged = acknowledged;
  if (arrived > 0) _progress = SnmpUtil::getNow();
  while (arrived > 0 && _sent > 0) {
    Entry& oldest = _messages.front();
    const auto taken = static_cast<unsigned int>(std::min<unsigned long>(arrived, oldest.unacknowledged));
    oldest.unacknowledged -= taken;
    _inFlight -= taken;
    arrived -= taken;
    if (oldest.unacknowledged > 0) break;
    _messages.pop_front();
    --_sent;
  }
  if (_inFlight > 0 && _subAgent.isAttached() && SnmpUtil::getNow() - _progress > acknowledgementTimeout) {
    VELA_LOG(Vela::LogWarning, "The master agent does not acknowledge notifications (%u on their way)", _inFlight);
    _subAgent.giveUp();
    onConnectionLost();
  }
}

void NotificationHandover::loseConnection() {
  _subAgent.close();
  onConnectionLost();
}

std::size_t NotificationHandover::clear() {
  const auto dropped =
      std::count_if(_messages.begin(), _messages.end(), [](const Entry& entry) { return entry.owned != nullptr; });
  _messages.resize(_sent);
  for (Entry& entry : _messages) entry.owned.reset();
  return static_cast<std::size_t>(dropped);
}

void NotificationHandover::onConnectionLost() {
  collect();
  const auto firstDue = _messages.begin() + static_cast<std::ptrdiff_t>(_sent);
  const auto again =
      std::count_if(_messages.begin(), firstDue, [](const Entry& entry) { return entry.owned != nullptr; });
  if (again > 0) {
    VELA_LOG(Vela::LogWarning, "%td notifications were not acknowledged and go out again, %zu more wait", again,
             _messages.size() - _sent);
  }
  for (auto entry = _messages.begin(); entry != firstDue; ++entry) entry->unacknowledged = 0;
  _messages.erase(std::remove_if(_messages.begin(), firstDue, [](const Entry& entry) { return !entry.owned; }),
                  firstDue);
  _sent = 0;
  _inFlight = 0;
  _acknowledged = 0;
}

}  // namespace VelaFmSnmp
