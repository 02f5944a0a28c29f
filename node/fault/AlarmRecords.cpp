#include "fault/AlarmRecords.h"

#include <Poco/Checksum.h>

#include <concepts>
#include <limits>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace VelaNode {

namespace {

/** Begins with an octet that no text holds, so that an alarm's text cannot look like a record. The last octet counts
   the versions of the form. */
constexpr std::string_view marker("\0VJ\1", 4);
constexpr std::size_t checksumOffset = 8;
constexpr std::size_t headerSize = 12;
/** More than any request to the node can bring; a length beyond it is damaged. */
constexpr std::size_t maxLength = 16UL * 1024 * 1024;

enum Kind : std::uint8_t { Active = 1, Removed = 2, Numbers = 3 };

class Encoder {
 public:
  Encoder(Kind kind, const FmNumbers& numbers) : _octets(marker) {
    _octets.resize(headerSize);
    put(static_cast<std::uint8_t>(kind));
    put(numbers.alarmSequenceNo);
    put(numbers.lastAlarmTime);
    put(numbers.lastChanged);
    put(numbers.alertSequenceNo);
    put(numbers.lastAlertTime);
    put(numbers.lastIndex);
  }

  template <std::unsigned_integral T>
  void put(T number) {
    for (std::size_t i = 0; i < sizeof number; ++i) _octets += toOctet(number, i);
  }
  void put(const std::string& text) {
    put(static_cast<std::uint32_t>(text.size()));
    _octets += text;
  }

  std::string finish() {
    set(marker.size(), static_cast<std::uint32_t>(_octets.size() - headerSize));
    Poco::Checksum checksum(Poco::Checksum::TYPE_CRC32);
    checksum.update(_octets.data() + marker.size(), 4);
    checksum.update(_octets.data() + headerSize, static_cast<unsigned>(_octets.size() - headerSize));
    set(checksumOffset, checksum.checksum());
    return std::move(_octets);
  }

 private:
  template <class T>
  static char toOctet(T number, std::size_t index) {
    return static_cast<char>(static_cast<unsigned char>(number >> (8 * index)));
  }
  void set(std::size_t offset, std::uint32_t number) {
    for (std::size_t i = 0; i < sizeof number; ++i) _octets[offset + i] = toOctet(number, i);
  }

  std::string _octets;
};

/** Reads what an Encoder put. Once something is missing, everything reads as zero or empty and isWhole() is false. */
class Decoder {
 public:
  explicit Decoder(std::string_view octets) : _rest(octets) {}

  template <std::unsigned_integral T>
  void get(T& number) {
    const std::string_view taken = take(sizeof number);
    number = 0;
    for (std::size_t i = 0; i < taken.size(); ++i) {
      number = static_cast<T>(number | static_cast<T>(static_cast<T>(static_cast<unsigned char>(taken[i])) << (8 * i)));
    }
  }
  void get(std::string& text) {
    std::uint32_t size = 0;
    get(size);
    text = take(size);
  }
  void get(FmSeverity& severity) {
    std::uint8_t number = 0;
    get(number);
    if (number > FmCritical) _isWhole = false;
    severity = static_cast<FmSeverity>(number);
  }
  bool isWhole() const { return _isWhole; }
  bool isAtEnd() const { return _isWhole && _rest.empty(); }

 private:
  std::string_view take(std::size_t size) {
    if (size > _rest.size()) {
      _isWhole = false;
      return {};
    }
    const std::string_view taken = _rest.substr(0, size);
    _rest.remove_prefix(size);
    return taken;
  }

  std::string_view _rest;
  bool _isWhole = true;
};

std::optional<FmAlarm> decodeAlarm(Decoder& decoder) {
  FmAlarm alarm;
  decoder.get(alarm.index);
  decoder.get(alarm.key.source);
  decoder.get(alarm.key.majorType);
  decoder.get(alarm.key.minorType);
  decoder.get(alarm.key.specificProblem);
  decoder.get(alarm.severity);
  decoder.get(alarm.additionalText);
  decoder.get(alarm.eventType);
  decoder.get(alarm.probableCause);
  decoder.get(alarm.eventTime);
  decoder.get(alarm.originalEventTime);
  decoder.get(alarm.originalAdditionalText);
  decoder.get(alarm.originalSeverity);
  std::uint32_t infoCount = 0;
  decoder.get(infoCount);
  for (std::uint32_t i = 0; i < infoCount && decoder.isWhole(); ++i) {
    auto& [name, value] = alarm.additionalInfo.emplace_back();
    decoder.get(name);
    decoder.get(value);
  }
  if (!decoder.isAtEnd() || alarm.index == 0 || alarm.severity == FmCleared) return std::nullopt;
  return alarm;
}

/** Applies what follows a record's header; false when it makes no sense. */
bool apply(std::string_view content, FmState& state) {
  Decoder decoder(content);
  std::uint8_t kind = 0;
  FmNumbers numbers;
  decoder.get(kind);
  decoder.get(numbers.alarmSequenceNo);
  decoder.get(numbers.lastAlarmTime);
  decoder.get(numbers.lastChanged);
  decoder.get(numbers.alertSequenceNo);
  decoder.get(numbers.lastAlertTime);
  decoder.get(numbers.lastIndex);
  if (kind == Active) {
    std::optional<FmAlarm> alarm = decodeAlarm(decoder);
    if (!alarm) return false;
    state.alarms.put({std::make_shared<const FmAlarm>(std::move(*alarm))});
  } else if (kind == Removed) {
    std::uint32_t index = 0;
    decoder.get(index);
    if (!decoder.isAtEnd()) return false;
    state.alarms.erase(index);
  } else if (kind != Numbers || !decoder.isAtEnd()) {
    return false;
  }
  state.numbers = numbers;
  return true;
}

/** The size of the record that the octets begin with, applied; 0 when they begin with none. */
std::size_t readRecord(std::string_view octets, FmState& state) {
  if (octets.size() < headerSize || octets.substr(0, marker.size()) != marker) return 0;
  Decoder header(octets.substr(marker.size(), headerSize - marker.size()));
  std::uint32_t length = 0;
  std::uint32_t expected = 0;
  header.get(length);
  header.get(expected);
  if (length > maxLength || length > octets.size() - headerSize) return 0;
  const std::string_view content = octets.substr(headerSize, length);
  Poco::Checksum checksum(Poco::Checksum::TYPE_CRC32);
  checksum.update(octets.data() + marker.size(), 4);
  checksum.update(content.data(), static_cast<unsigned>(content.size()));
  if (checksum.checksum() != expected || !apply(content, state)) return 0;
  return headerSize + length;
}

/** Takes out all but the last raised of the alarms with one key, and brings the numbers up to the alarms. */
void settle(FmState& state) {
  std::map<FmAlarmKey, std::uint32_t> lastOfKey;
  std::vector<std::uint32_t> ghosts;
  state.alarms.forEach([&](const ActiveAlarm& active) {
    const auto [place, isNew] = lastOfKey.emplace(active.alarm->key, active.alarm->index);
    if (!isNew) ghosts.push_back(std::exchange(place->second, active.alarm->index));
    state.numbers.lastIndex = std::max(state.numbers.lastIndex, active.alarm->index);
    return true;
  });
  for (const std::uint32_t index : ghosts) state.alarms.erase(index);
}

}  // namespace

std::string encodeActive(const FmAlarm& alarm, const FmNumbers& numbers) {
  Encoder encoder(Active, numbers);
  encoder.put(alarm.index);
  encoder.put(alarm.key.source);
  encoder.put(alarm.key.majorType);
  encoder.put(alarm.key.minorType);
  encoder.put(alarm.key.specificProblem);
  encoder.put(static_cast<std::uint8_t>(alarm.severity));
  encoder.put(alarm.additionalText);
  encoder.put(alarm.eventType);
  encoder.put(alarm.probableCause);
  encoder.put(alarm.eventTime);
  encoder.put(alarm.originalEventTime);
  encoder.put(alarm.originalAdditionalText);
  encoder.put(static_cast<std::uint8_t>(alarm.originalSeverity));
  encoder.put(static_cast<std::uint32_t>(alarm.additionalInfo.size()));
  for (const auto& [name, value] : alarm.additionalInfo) {
    encoder.put(name);
    encoder.put(value);
  }
  return encoder.finish();
}

std::string encodeRemoved(std::uint32_t index, const FmNumbers& numbers) {
  Encoder encoder(Removed, numbers);
  encoder.put(index);
  return encoder.finish();
}

std::string encodeNumbers(const FmNumbers& numbers) { return Encoder(Numbers, numbers).finish(); }

DecodedRecords decodeRecords(std::string_view octets) {
  DecodedRecords decoded;
  std::size_t position = 0;
  while (position < octets.size()) {
    if (const std::size_t size = readRecord(octets.substr(position), decoded.state)) {
      decoded.damagedOctets += position - decoded.validEnd;
      ++decoded.recordCount;
      position += size;
      decoded.validEnd = position;
    } else {
      position = std::min(octets.find(marker, position + 1), octets.size());
    }
  }
  settle(decoded.state);
  return decoded;
}

}  // namespace VelaNode
