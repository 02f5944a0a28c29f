// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "AgentXTransport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net-snmp/library/snmp_transport.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "LoggingWrapper.h"

namespace VelaFmSnmp {

namespace {

/** The library looks for a domain by the text before the colon, and keeps domains apart by their identifiers. */
constexpr const char* Address = "vela-agentx:";
const char* prefixes[] = {"vela-agentx", nullptr};
constexpr oid DomainId[] = {0, 0};

/** What the threads share: the descriptor while it is open, and whether it may be. */
class Connection {
 public:
  /** Takes ownership of the descriptor. False, and it is closed, after interrupt. */
  bool open(int descriptor) {
    const std::lock_guard<std::mutex> lock(_mutex);
    closeNow();
    _descriptor = descriptor;
    if (_isInterrupted) closeNow();
    return _descriptor >= 0;
  }
  void close() {
    const std::lock_guard<std::mutex> lock(_mutex);
    closeNow();
  }
  int getDescriptor() {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _descriptor;
  }
  bool isInterrupted() {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _isInterrupted;
  }
  void setInterrupted(bool isInterrupted) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _isInterrupted = isInterrupted;
    if (isInterrupted && _descriptor >= 0) ::shutdown(_descriptor, SHUT_RDWR);
  }

 private:
  void closeNow() {
    if (_descriptor >= 0) ::close(_descriptor);
    _descriptor = -1;
  }

  std::mutex _mutex;
  int _descriptor = -1;
  bool _isInterrupted = false;
};
Connection connection;

/** RFC 2741, 6.1. */
constexpr std::size_t HeaderSize = 20;
enum HeaderOctet { TypeOctet = 1, FlagsOctet = 2, PayloadLengthOctet = 16 };
enum PduType : unsigned char { NotifyPdu = 12, ResponsePdu = 18 };
constexpr unsigned char NetworkByteOrder = 0x10;
constexpr std::uint16_t ProcessingError = 268;

/**
 * The request that the library waits for, by its header. A connection that ends in the middle of a registration leads
 * the library through memory that it has freed, so after an interrupt its requests are refused in the master agent's
 * place, and it never sees the end. The adaptor thread.
 */
class LastRequest {
 public:
  void remember(const void* message, std::size_t size) {
    const auto* octets = static_cast<const unsigned char*>(message);
    if (size < HeaderSize || octets[TypeOctet] == NotifyPdu || octets[TypeOctet] == ResponsePdu) return;
    std::copy_n(octets, HeaderSize, _header.begin());
    _isOpen = true;
  }
  /** Writes the refusal (RFC 2741, 6.2.16); yields its size, 0 when there is nothing (more) to refuse. */
  std::size_t refuse(void* buffer, std::size_t size) {
    constexpr std::size_t PayloadSize = 8;
    if (!std::exchange(_isOpen, false) || size < HeaderSize + PayloadSize) return 0;
    std::array<unsigned char, HeaderSize + PayloadSize> response = {};
    std::copy(_header.begin(), _header.end(), response.begin());
    response[TypeOctet] = ResponsePdu;
    const bool isNetworkOrder = (_header[FlagsOctet] & NetworkByteOrder) != 0;
    const std::uint32_t length = isNetworkOrder ? htonl(PayloadSize) : PayloadSize;
    const std::uint16_t error = isNetworkOrder ? htons(ProcessingError) : ProcessingError;
    std::memcpy(&response[PayloadLengthOctet], &length, sizeof length);
    std::memcpy(&response[HeaderSize + sizeof(std::uint32_t)], &error, sizeof error);
    std::copy(response.begin(), response.end(), static_cast<unsigned char*>(buffer));
    return response.size();
  }

 private:
  std::array<unsigned char, HeaderSize> _header = {};
  bool _isOpen = false;
};
LastRequest lastRequest;

int receiveForLibrary(netsnmp_transport* transport, void* buffer, int size, void** opaque, int* opaqueLength) {
  *opaque = nullptr;
  *opaqueLength = 0;
  return static_cast<int>(AgentXTransport::receive(transport->sock, buffer, static_cast<std::size_t>(size)));
}

int sendForLibrary(netsnmp_transport* transport, const void* message, int size, void**, int*) {
  return static_cast<int>(AgentXTransport::send(transport->sock, message, static_cast<std::size_t>(size)));
}

int closeTransport(netsnmp_transport* transport) {
  if (transport->sock < 0) return -1;
  transport->sock = -1;
  connection.close();
  return 0;
}

char* formatAddress(netsnmp_transport*, const void*, int) { return strdup("AgentX master agent"); }

/** Hands the open connection to the library, which frees the structure. */
netsnmp_transport* takeConnection(const char*, int, const char*) {
  const int descriptor = connection.getDescriptor();
  if (descriptor < 0) return nullptr;
  auto* transport = static_cast<netsnmp_transport*>(std::calloc(1, sizeof(netsnmp_transport)));
  if (transport == nullptr) return nullptr;
  transport->domain = DomainId;
  transport->domain_length = OID_LENGTH(DomainId);
  transport->sock = descriptor;
  transport->flags = NETSNMP_TRANSPORT_FLAG_STREAM;
  transport->msgMaxSize = SNMP_MAX_PACKET_LEN;
  transport->f_recv = receiveForLibrary;
  transport->f_send = sendForLibrary;
  transport->f_close = closeTransport;
  transport->f_fmtaddr = formatAddress;
  return transport;
}

}  // namespace

bool AgentXTransport::connect(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    VELA_LOG(Vela::LogError, "agentx socket path is too long: %s", path.c_str());
    return false;
  }
  path.copy(address.sun_path, path.size());
  // A master agent that hangs may have a full queue of connections, for room in which the call would wait.
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return false;
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(descriptor);
    return false;
  }
  ::fcntl(descriptor, F_SETFL, 0);
  return connection.open(descriptor);
}

const char* AgentXTransport::getAddress() {
  static netsnmp_tdomain domain = {};
  static const bool isRegistered = [] {
    domain.name = DomainId;
    domain.name_length = OID_LENGTH(DomainId);
    domain.prefix = prefixes;
    domain.f_create_from_tstring_new = takeConnection;
    return netsnmp_tdomain_register(&domain) != 0;
  }();
  static_cast<void>(isRegistered);
  return Address;
}

ssize_t AgentXTransport::receive(int descriptor, void* buffer, std::size_t size) {
  ssize_t length = 0;
  do {
    length = ::recv(descriptor, buffer, size, MSG_DONTWAIT);
  } while (length < 0 && errno == EINTR);
  if (length == 0 && connection.isInterrupted()) return static_cast<ssize_t>(lastRequest.refuse(buffer, size));
  return length;
}

ssize_t AgentXTransport::send(int descriptor, const void* message, std::size_t size) {
  lastRequest.remember(message, size);
  ssize_t length = 0;
  do {
    length = ::send(descriptor, message, size, MSG_NOSIGNAL);
  } while (length < 0 && errno == EINTR);
  return length < 0 && connection.isInterrupted() ? static_cast<ssize_t>(size) : length;
}

void AgentXTransport::interrupt() { connection.setInterrupted(true); }

bool AgentXTransport::isInterrupted() { return connection.isInterrupted(); }

void AgentXTransport::resume() { connection.setInterrupted(false); }

}  // namespace VelaFmSnmp
