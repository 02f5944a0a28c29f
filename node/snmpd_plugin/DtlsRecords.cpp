#include "DtlsRecords.h"

#include <cstdint>

namespace SnmpdPlugin {

namespace {

enum ContentType : unsigned char { ChangeCipherSpec = 20, Alert = 21, Handshake = 22 };
enum MessageType : unsigned char {
  ClientHelloMessage = 1,
  HelloVerifyRequestMessage = 3,
  CertificateMessage = 11,
  CertificateVerifyMessage = 15,
  ClientKeyExchangeMessage = 16
};

/** The header of a record: content type, version, epoch, sequence number, length. */
constexpr std::size_t RecordHeader = 13;
constexpr std::size_t EpochAt = 3;
constexpr std::size_t SequenceLength = 8;  // with the epoch
constexpr std::size_t RecordLengthAt = 11;

/** The messages that a client sends in a handshake once its hello has a cookie, the place of each in the order. */
constexpr struct {
  unsigned char type;
  std::uint32_t number;
  std::uint32_t maxLength;
} ClientMessages[] = {{ClientHelloMessage, 1, 4096},
                      {CertificateMessage, 2, MaxCertificates},
                      {ClientKeyExchangeMessage, 3, 4096},
                      {CertificateVerifyMessage, 4, 4096}};
/** A client without a certificate, or one that leaves the message out, is one behind. */
constexpr std::uint32_t MaxAhead = 1;

constexpr std::size_t RandomLength = 32;
constexpr char Dtls10[] = {'\xfe', '\xff'};

/** Takes numbers and texts off the front of octets; once they do not suffice, nothing more. */
class Reader {
 public:
  explicit Reader(std::string_view octets) : _octets(octets) {}

  std::uint32_t number(std::size_t length) {
    std::uint32_t value = 0;
    for (const char octet : text(length)) value = value << 8 | static_cast<unsigned char>(octet);
    return value;
  }
  std::string_view text(std::size_t length) {
    _isGood = _isGood && length <= _octets.size();
    if (!_isGood) return {};
    const std::string_view taken = _octets.substr(0, length);
    _octets.remove_prefix(length);
    return taken;
  }
  bool isGood() const { return _isGood; }
  bool isAtEnd() const { return _octets.empty(); }

 private:
  std::string_view _octets;
  bool _isGood = true;
};

/** A fragment of a message of the handshake (RFC 6347, 4.2.2). */
struct Fragment {
  std::uint32_t type = 0;
  std::uint32_t length = 0; /**< of the whole message */
  std::uint32_t number = 0;
  std::uint32_t offset = 0;
  std::string_view content;
};

Fragment readFragment(Reader& reader) {
  Fragment fragment;
  fragment.type = reader.number(1);
  fragment.length = reader.number(3);
  fragment.number = reader.number(2);
  fragment.offset = reader.number(3);
  fragment.content = reader.text(reader.number(3));
  return fragment;
}

bool isOfClient(const Fragment& fragment) {
  for (const auto& known : ClientMessages) {
    if (fragment.type == known.type)
      return fragment.length <= known.maxLength && fragment.number <= known.number &&
             fragment.number + MaxAhead >= known.number;
  }
  return false;
}

std::string numberText(std::size_t value, std::size_t length) {
  std::string text;
  for (std::size_t i = length; i-- > 0;) text += static_cast<char>(value >> (8 * i));
  return text;
}

}  // namespace

std::vector<std::string_view> recordsOf(std::string_view datagram) {
  std::vector<std::string_view> records;
  while (datagram.size() > RecordHeader) {
    const std::size_t length = RecordHeader + Reader(datagram.substr(RecordLengthAt)).number(2);
    if (length > datagram.size()) break;
    records.push_back(datagram.substr(0, length));
    datagram.remove_prefix(length);
  }
  return records;
}

bool isProtected(std::string_view record) { return Reader(record.substr(EpochAt)).number(2) != 0; }

bool isPartOfHandshake(std::string_view record) {
  const auto type = static_cast<unsigned char>(record.front());
  if (type == ChangeCipherSpec || type == Alert) return true;
  if (type != Handshake) return false;
  Reader reader(record.substr(RecordHeader));
  do {
    const Fragment fragment = readFragment(reader);
    if (!reader.isGood() || !isOfClient(fragment)) return false;
  } while (!reader.isAtEnd());
  return true;
}

std::optional<ClientHello> clientHelloOf(std::string_view datagram) {
  const auto records = recordsOf(datagram);
  if (records.empty() || isProtected(records.front())) return std::nullopt;
  const std::string_view record = records.front();
  Reader outer(record.substr(RecordHeader));
  const Fragment fragment = readFragment(outer);
  const bool isHello = static_cast<unsigned char>(record.front()) == Handshake && outer.isGood() &&
                       fragment.type == ClientHelloMessage && fragment.offset == 0;
  if (!isHello) return std::nullopt;
  Reader reader(fragment.content);
  ClientHello hello;
  hello.sequence = record.substr(EpochAt, SequenceLength);
  reader.number(2);  // version
  hello.random = reader.text(RandomLength);
  reader.text(reader.number(1));  // session id
  hello.cookie = reader.text(reader.number(1));
  return reader.isGood() ? std::optional(hello) : std::nullopt;
}

std::string helloVerifyRequest(const ClientHello& hello, std::string_view cookie) {
  // The version is 1.0 whichever will be agreed on (RFC 6347, 4.2.1).
  const std::string version(Dtls10, sizeof(Dtls10));
  const std::string content = version + numberText(cookie.size(), 1) + std::string(cookie);
  const std::string length = numberText(content.size(), 3);
  const std::string message =
      numberText(HelloVerifyRequestMessage, 1) + length + numberText(0, 2) + numberText(0, 3) + length + content;
  return numberText(Handshake, 1) + version + std::string(hello.sequence) + numberText(message.size(), 2) + message;
}

}  // namespace SnmpdPlugin
