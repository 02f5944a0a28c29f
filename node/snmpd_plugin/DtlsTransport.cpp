#include "DtlsTransport.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "DtlsListener.h"
#include "DtlsNotifier.h"
#include "UdpSocket.h"

namespace SnmpdPlugin {

namespace {

/** What the library keeps for a transport and frees itself. */
struct Link {
  DtlsTransport* transport;
};

/** What the two forms of an address in snmpTargetAddrTAddress consist of. */
constexpr size_t PortOctets = sizeof(in_port_t);
constexpr size_t Ipv4Length = sizeof(in_addr) + PortOctets;
constexpr size_t Ipv6Length = sizeof(in6_addr) + PortOctets;

/** The library frees it, so it comes from the library's allocator. */
template <class Object>
Object* allocate() {
  return static_cast<Object*>(std::calloc(1, sizeof(Object)));
}

netsnmp_tmStateReference* makeState(const DtlsTransport::Received& received) {
  auto* state = allocate<netsnmp_tmStateReference>();
  if (state == nullptr) return nullptr;
  std::memcpy(state->transportDomain, netsnmpDTLSUDPDomain, netsnmpDTLSUDPDomain_len * sizeof(oid));
  state->transportDomainLen = netsnmpDTLSUDPDomain_len;
  state->securityNameLen = received.securityName.copy(state->securityName, sizeof(state->securityName) - 1);
  state->transportSecurityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
  state->have_addresses = 1;
  state->addresses = received.addresses;
  return state;
}

const netsnmp_tmStateReference* toState(const void* opaque, int length) {
  return length == sizeof(netsnmp_tmStateReference) ? static_cast<const netsnmp_tmStateReference*>(opaque) : nullptr;
}

}  // namespace

void DtlsTransport::install() {
  // The library frees the list of prefixes and leaves the rest alone.
  static netsnmp_tdomain domain{};
  constexpr const char* Prefixes[] = {"dtlsudp", "dtls", "dtlsudp6", "dtls6", nullptr};
  domain.name = netsnmpDTLSUDPDomain;
  domain.name_length = netsnmpDTLSUDPDomain_len;
  domain.prefix = static_cast<const char**>(netsnmp_memdup(Prefixes, sizeof(Prefixes)));
  domain.f_create_from_tstring_new = openByText;
  domain.f_create_from_ostring = openByOctets;
  // The list has one entry per domain, the first to come; the library's own entries follow.
  netsnmp_clear_tdomain_list();
  netsnmp_tdomain_register(&domain);
  netsnmp_tdomain_init();
  snmp_register_callback(
      SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_SHUTDOWN,
      [](int, int, void*, void*) {
        DtlsAssociation::closeAll();
        return SNMPERR_SUCCESS;
      },
      nullptr);
}

DtlsTransport* DtlsTransport::of(const netsnmp_transport* face) {
  return face == nullptr || face->data == nullptr ? nullptr : static_cast<Link*>(face->data)->transport;
}

netsnmp_transport* DtlsTransport::open(const netsnmp_ep& endpoint, bool listens) {
  auto* face = allocate<netsnmp_transport>();
  auto* link = allocate<Link>();
  if (face == nullptr || link == nullptr) {
    std::free(face);
    std::free(link);
    return nullptr;
  }
  face->data = link;
  face->data_length = sizeof(*link);
  face->domain = netsnmpDTLSUDPDomain;
  face->domain_length = static_cast<int>(netsnmpDTLSUDPDomain_len);
  face->flags = NETSNMP_TRANSPORT_FLAG_TUNNELED;
  // One message is one record (RFC 6353, 4.1.1).
  face->msgMaxSize = SSL3_RT_MAX_PLAIN_LENGTH;
  face->f_recv = onReceive;
  face->f_send = onSend;
  face->f_close = onClose;
  face->f_config = onConfigure;
  face->f_setup_session = listens ? onListen : netsnmp_tlsbase_session_init;
  face->f_fmtaddr = onFormat;
  face->f_get_taddr = onTargetAddress;
  try {
    std::unique_ptr<DtlsTransport> transport;
    if (listens)
      transport = std::make_unique<DtlsListener>(face, endpoint);
    else
      transport = std::make_unique<DtlsNotifier>(face, endpoint);
    link->transport = transport.release();
  } catch (const std::exception& error) {
    snmp_log(LOG_ERR, "vela_snmpd_plugin: no DTLS transport: %s\n", error.what());
    netsnmp_transport_free(face);
    return nullptr;
  }
  const std::string address = targetAddress(link->transport->address());
  void** kept = listens ? &face->local : &face->remote;
  *kept = netsnmp_memdup(address.data(), address.size());
  (listens ? face->local_length : face->remote_length) = static_cast<int>(address.size());
  return face;
}

netsnmp_transport* DtlsTransport::openByText(const char* text, int listens, const char* defaultTarget) {
  netsnmp_ep endpoint{};
  if (netsnmp_sockaddr_in3(&endpoint, text, defaultTarget) == 0 &&
      netsnmp_sockaddr_in6_3(&endpoint, text, defaultTarget) == 0)
    return nullptr;
  return open(endpoint, listens != 0);
}

netsnmp_transport* DtlsTransport::openByOctets(const void* octets, size_t length, int listens) {
  netsnmp_ep endpoint{};
  const auto* address = static_cast<const char*>(octets);
  if (length == Ipv4Length) {
    endpoint.a.sin.sin_family = AF_INET;
    std::memcpy(&endpoint.a.sin.sin_addr, address, sizeof(in_addr));
    std::memcpy(&endpoint.a.sin.sin_port, address + sizeof(in_addr), PortOctets);
  } else if (length == Ipv6Length) {
    endpoint.a.sin6.sin6_family = AF_INET6;
    std::memcpy(&endpoint.a.sin6.sin6_addr, address, sizeof(in6_addr));
    std::memcpy(&endpoint.a.sin6.sin6_port, address + sizeof(in6_addr), PortOctets);
  } else {
    return nullptr;
  }
  return open(endpoint, listens != 0);
}

int DtlsTransport::onReceive(netsnmp_transport* face, void* buffer, int capacity, void** opaque, int* opaqueLength) {
  *opaque = nullptr;
  *opaqueLength = 0;
  DtlsTransport* transport = of(face);
  if (transport == nullptr) return -1;
  const Received received = transport->receive(buffer, static_cast<size_t>(capacity));
  if (received.length != 0) *opaque = makeState(received);
  if (*opaque == nullptr) {
    // A datagram of the handshake, say: nothing for the library, and no error either.
    face->flags |= NETSNMP_TRANSPORT_FLAG_EMPTY_PKT;
    return 0;
  }
  *opaqueLength = sizeof(netsnmp_tmStateReference);
  return static_cast<int>(received.length);
}

int DtlsTransport::onSend(netsnmp_transport* face, const void* message, int size, void** opaque, int* opaqueLength) {
  DtlsTransport* transport = of(face);
  const auto* state = opaque == nullptr || opaqueLength == nullptr ? nullptr : toState(*opaque, *opaqueLength);
  if (transport == nullptr || !transport->send(message, static_cast<size_t>(size), state)) {
    errno = ENOTCONN;
    return -1;
  }
  if (face->remote != nullptr && opaque != nullptr && opaqueLength != nullptr) {
    // When a request is repeated, the library makes a new state and complains about the one that is still there.
    SNMP_FREE(*opaque);
    *opaqueLength = 0;
  }
  return size;
}

int DtlsTransport::onClose(netsnmp_transport* face) {
  const std::unique_ptr<DtlsTransport> transport(of(face));
  if (!transport) return -1;
  static_cast<Link*>(face->data)->transport = nullptr;
  face->sock = -1;
  return 0;
}

int DtlsTransport::onListen(netsnmp_transport* face, netsnmp_session* session) {
  // No other version goes with this transport (RFC 6353, 1); the library would say that it was asked for one.
  session->version = SNMP_VERSION_3;
  return netsnmp_tlsbase_session_init(face, session);
}

int DtlsTransport::onConfigure(netsnmp_transport* face, const char* token, const char* value) {
  DtlsTransport* transport = of(face);
  if (transport == nullptr || token == nullptr || value == nullptr) return SNMPERR_GENERR;
  transport->configure(token, value);
  return SNMPERR_SUCCESS;
}

char* DtlsTransport::onFormat(netsnmp_transport* face, const void* opaque, int opaqueLength) {
  const auto* state = toState(opaque, opaqueLength);
  const DtlsTransport* transport = of(face);
  if (state != nullptr && state->have_addresses != 0)
    return strdup(("DTLSUDP: " + addressText(state->addresses.remote_addr)).c_str());
  return strdup(transport == nullptr ? "DTLSUDP: unknown" : ("DTLSUDP: " + addressText(transport->address())).c_str());
}

void DtlsTransport::onTargetAddress(netsnmp_transport* face, void** address, size_t* length) {
  const DtlsTransport* transport = of(face);
  const std::string octets = transport == nullptr ? std::string() : targetAddress(transport->address());
  *address = netsnmp_memdup(octets.data(), octets.size());
  *length = octets.size();
}

}  // namespace SnmpdPlugin
