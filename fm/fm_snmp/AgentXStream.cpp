#include "AgentXStream.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

#include "AgentXTransport.h"
#include "LoggingWrapper.h"

namespace VelaFmSnmp {

namespace {

/** RFC 2741, 6.1: places in the header, and values. */
constexpr std::size_t TypePlace = 1;
constexpr std::size_t FlagsPlace = 2;
constexpr std::size_t PacketIdPlace = 12;
constexpr std::size_t PayloadLengthPlace = 16;
constexpr std::size_t ErrorPlace = 24;
constexpr std::size_t ErrorIndexPlace = 26;
constexpr unsigned char Version = 1;
constexpr unsigned char NetworkByteOrder = 0x10;
constexpr unsigned char TypeGet = 5;
constexpr unsigned char TypeTestSet = 8;
constexpr unsigned char TypeResponse = 18;

constexpr std::uint16_t ErrorTooBig = 1;

/** The one that the library reads and writes through. */
AgentXStream* attached = nullptr;

bool isNetworkOrder(const unsigned char* header) { return (header[FlagsPlace] & NetworkByteOrder) != 0; }

std::uint32_t read32(const unsigned char* header, std::size_t place) {
  std::uint32_t value;
  std::memcpy(&value, header + place, sizeof value);
  return isNetworkOrder(header) ? ntohl(value) : value;
}

std::uint16_t read16(const unsigned char* header, std::size_t place) {
  std::uint16_t value;
  std::memcpy(&value, header + place, sizeof value);
  return isNetworkOrder(header) ? ntohs(value) : value;
}

void write32(unsigned char* header, std::size_t place, std::uint32_t value) {
  if (isNetworkOrder(header)) value = htonl(value);
  std::memcpy(header + place, &value, sizeof value);
}

void write16(unsigned char* header, std::size_t place, std::uint16_t value) {
  if (isNetworkOrder(header)) value = htons(value);
  std::memcpy(header + place, &value, sizeof value);
}

}  // namespace

void AgentXStream::attach(netsnmp_transport& transport) {
  _socket = transport.sock;
  _passing = _skipping = 0;
  _incomplete.clear();
  _awaited.clear();
  _responses.clear();
  transport.f_recv = &AgentXStream::onReceive;
  transport.f_send = &AgentXStream::onSend;
  attached = this;
}

void AgentXStream::detach() {
  if (attached == this) attached = nullptr;
  _socket = -1;
  _awaited.clear();
}

int AgentXStream::onReceive(netsnmp_transport* transport, void* buffer, int size, void**, int*) {
  if (attached == nullptr || size <= 0) return -1;
  const int length = attached->receive(static_cast<unsigned char*>(buffer), static_cast<std::size_t>(size));
  // Otherwise the library takes it for the end of the connection.
  if (length == 0 && attached->_socket >= 0) transport->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT;
  return length;
}

int AgentXStream::onSend(netsnmp_transport*, const void* message, int length, void**, int*) {
  if (attached == nullptr || length < static_cast<int>(headerLength)) return -1;
  const auto* const octets = static_cast<const unsigned char*>(message);
  const auto size = static_cast<std::size_t>(length);
  const bool isTooLong = size > maxMessage && octets[TypePlace] == TypeResponse;
  const bool isSent = isTooLong ? attached->sendTooBig(octets) : attached->sendAll(octets, size);
  return isSent ? length : -1;
}

bool AgentXStream::request(std::uint32_t id, const unsigned char* message, std::size_t length) {
  if (_socket < 0 || !sendAll(message, length)) return false;
  _awaited.insert(id);
  return true;
}

bool AgentXStream::hasUnread() const {
  pollfd descriptor = {_socket, POLLIN, 0};
  return _socket >= 0 && ::poll(&descriptor, 1, 0) > 0;
}

int AgentXStream::receive(unsigned char* buffer, std::size_t size) {
  const std::size_t kept = _incomplete.size();
  std::copy(_incomplete.begin(), _incomplete.end(), buffer);
  const ssize_t received = AgentXTransport::receive(_socket, buffer + kept, size - kept);
  if (received <= 0) {
    _socket = -1;
    return static_cast<int>(received);
  }
  _incomplete.clear();
  return static_cast<int>(filter(buffer, kept + static_cast<std::size_t>(received)));
}

std::size_t AgentXStream::filter(unsigned char* buffer, std::size_t length) {
  std::size_t kept = 0;
  std::size_t place = 0;
  while (place < length) {
    const std::size_t left = length - place;
    if (_passing > 0) {
      const std::size_t octets = std::min(_passing, left);
      std::memmove(buffer + kept, buffer + place, octets);
      kept += octets;
      place += octets;
      _passing -= octets;
    } else if (_skipping > 0) {
      const std::size_t octets = std::min(_skipping, left);
      place += octets;
      _skipping -= octets;
    } else {
      // A response is not shorter than this.
      const bool isResponse = left >= headerLength && buffer[place + TypePlace] == TypeResponse;
      if (left < (isResponse ? responseLength : headerLength)) break;
      beginMessage(buffer + place);
    }
  }
  _incomplete.assign(buffer + place, buffer + length);
  return kept;
}

void AgentXStream::beginMessage(const unsigned char* message) {
  if (message[0] != Version) {
    // Nothing that this can be told apart from is to come; the library closes the connection.
    _passing = std::numeric_limits<std::size_t>::max();
    return;
  }
  const unsigned char type = message[TypePlace];
  const std::size_t length = headerLength + read32(message, PayloadLengthPlace);
  if (type == TypeResponse && _awaited.erase(read32(message, PacketIdPlace)) > 0) {
    _responses.push_back({read32(message, PacketIdPlace), read16(message, ErrorPlace)});
    _skipping = length;
  } else if (length > maxMessage && type >= TypeGet && type <= TypeTestSet) {
    sendTooBig(message);
    _skipping = length;
  } else {
    _passing = length;
  }
}

bool AgentXStream::sendTooBig(const unsigned char* header) const {
  VELA_TRACE("request %u: tooBig", read32(header, PacketIdPlace));
  std::array<unsigned char, responseLength> response = {};
  std::copy_n(header, headerLength, response.begin());
  response[TypePlace] = TypeResponse;
  // The flags of a response are none but the order of its octets.
  response[FlagsPlace] &= NetworkByteOrder;
  write32(response.data(), PayloadLengthPlace, responseLength - headerLength);
  write16(response.data(), ErrorPlace, ErrorTooBig);
  write16(response.data(), ErrorIndexPlace, 1);
  return sendAll(response.data(), response.size());
}

bool AgentXStream::sendAll(const unsigned char* message, std::size_t length) const {
  while (length > 0) {
    const ssize_t sent = AgentXTransport::send(_socket, message, length);
    if (sent < 0) return false;
    message += sent;
    length -= static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace VelaFmSnmp
