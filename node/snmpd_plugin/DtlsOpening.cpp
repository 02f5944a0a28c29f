#include "DtlsOpening.h"

#include <utility>

#include "DtlsRecords.h"

namespace SnmpdPlugin {

namespace {

/** The end of a handshake is one small record, and may be repeated. */
constexpr size_t MaxHeld = 2;
constexpr size_t MaxHeldOctets = 512;

}  // namespace

size_t DtlsOpening::receive(std::string_view datagram, void* message, size_t capacity) {
  size_t length = 0;
  const auto take = [&](std::string_view record) {
    // The library would read nothing else of a datagram once it has yielded a message.
    if (length == 0) length = _session->receive(record.data(), record.size(), message, capacity);
  };
  for (const std::string_view record : recordsOf(datagram)) {
    if (isProtected(record) && !_session->hasKeys())
      hold(record);
    else if (isProtected(record) || isPartOfHandshake(record))
      take(record);
    if (!_session->hasKeys()) continue;
    for (const std::string& held : std::exchange(_held, {})) take(held);
  }
  return length;
}

void DtlsOpening::hold(std::string_view record) {
  if (record.size() > MaxHeldOctets) return;
  if (_held.size() >= MaxHeld) _held.erase(_held.begin());
  _held.emplace_back(record);
}

}  // namespace SnmpdPlugin
