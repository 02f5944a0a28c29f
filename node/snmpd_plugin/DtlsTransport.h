#ifndef SNMPD_PLUGIN_DTLS_TRANSPORT_H
#define SNMPD_PLUGIN_DTLS_TRANSPORT_H

#include <memory>
#include <string>

#include "NetSnmp.h"

namespace SnmpdPlugin {

/**
 * The transport domain DTLS over UDP (RFC 6353) for snmpd, in place of the library's own. That one keeps an association
 * whose handshake got lost for ever, gives its waiting messages out as one, waits on closing, takes one certificate
 * only for trusted, and knows certificates by one hash each.
 *
 * An object is one transport of the library's; the library closes it.
 */
class DtlsTransport {
 public:
  /** Takes the library's place. Call once, before the first such transport is opened. */
  static void install();

  virtual ~DtlsTransport() = default;
  DtlsTransport(const DtlsTransport&) = delete;
  DtlsTransport& operator=(const DtlsTransport&) = delete;

  /** A received message: its octets and what is to be known about its sender. */
  struct Received {
    size_t length = 0; /**< 0: there was no message, or not for the agent */
    std::string securityName;
    netsnmp_indexed_addr_pair addresses{};
  };

  virtual Received receive(void* buffer, size_t capacity) = 0;
  /** `state`: of the request that is answered, or of what is to be sent; may be null. False: it cannot be sent. */
  virtual bool send(const void* message, size_t size, const netsnmp_tmStateReference* state) = 0;
  /** Takes a setting of the transport (certificates and names); unknown ones are for others. */
  virtual void configure(const std::string&, const std::string&) {}
  virtual const netsnmp_sockaddr_storage& address() const = 0;

 protected:
  explicit DtlsTransport(netsnmp_transport* face) : _face(face) {}
  /** Has the library wait for datagrams there from now on. */
  void useSocket(int descriptor) { _face->sock = descriptor; }

 private:
  static netsnmp_transport* open(const netsnmp_ep& endpoint, bool listens);
  static netsnmp_transport* openByText(const char* text, int listens, const char* defaultTarget);
  static netsnmp_transport* openByOctets(const void* octets, size_t length, int listens);
  static int onReceive(netsnmp_transport* face, void* buffer, int capacity, void** opaque, int* opaqueLength);
  static int onSend(netsnmp_transport* face, const void* message, int size, void** opaque, int* opaqueLength);
  static int onClose(netsnmp_transport* face);
  static int onListen(netsnmp_transport* face, netsnmp_session* session);
  static int onConfigure(netsnmp_transport* face, const char* token, const char* value);
  static char* onFormat(netsnmp_transport* face, const void* opaque, int opaqueLength);
  static void onTargetAddress(netsnmp_transport* face, void** address, size_t* length);
  static DtlsTransport* of(const netsnmp_transport* face);

  netsnmp_transport* const _face; /**< the library's; outlives this object */
};

}  // namespace SnmpdPlugin
#endif
