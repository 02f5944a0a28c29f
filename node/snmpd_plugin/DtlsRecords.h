#ifndef SNMPD_PLUGIN_DTLS_RECORDS_H
#define SNMPD_PLUGIN_DTLS_RECORDS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace SnmpdPlugin {

/** Octets of a handshake's largest message, the certificates of a client. */
constexpr std::size_t MaxCertificates = 16384;

/**
 * The records of a datagram (RFC 6347, 4.1), each with its header. What follows a record that is cut short is left out.
 * All views here are into the datagram.
 */
std::vector<std::string_view> recordsOf(std::string_view datagram);

/** Whether a record is protected by keys that a handshake has agreed on. */
bool isProtected(std::string_view record);

/**
 * Whether an unprotected record may be part of a client's handshake: a library that takes it keeps what comes out of
 * order, so only messages that a client has to send pass, each of a size that it can have.
 */
bool isPartOfHandshake(std::string_view record);

/** What a server looks at in a ClientHello (RFC 6347, 4.2.1) before it keeps anything of it. */
struct ClientHello {
  std::string_view sequence; /**< epoch and sequence number of its record */
  std::string_view random;
  std::string_view cookie; /**< empty: the client has none yet */
};

/** The ClientHello that a datagram begins with; nothing when it is none, or its first fragment ends before the cookie.
 */
std::optional<ClientHello> clientHelloOf(std::string_view datagram);

/** The datagram that asks a client to repeat its hello with a cookie. */
std::string helloVerifyRequest(const ClientHello& hello, std::string_view cookie);

}  // namespace SnmpdPlugin
#endif
