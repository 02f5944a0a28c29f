#ifndef TARN_DIRECTIVES_H
#define TARN_DIRECTIVES_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Tarn {

/** Where the agent listens, as far as the sockets of the process show it. */
struct ListenAddress {
  std::string transport; /**< udp, udp6, dtlsudp or dtlsudp6 */
  std::string host;      /**< without brackets */
  uint16_t port = 0;

  bool isIpv6() const { return transport.back() == '6'; }
  std::string toString() const;
};

/*
 * Each function turns the value of one configure option into lines of the master agent's configuration. A value whose
 * text could mean more than one value, or that the agent would refuse, throws Failure. Where a value is a list of
 * independent entries (communities, trapsess), an entry that cannot be used is left out and `warnings` says which.
 * An empty value yields no line.
 */

/** Splits and checks "udp:127.0.0.1:161,udp6:[::1]:161". */
std::vector<ListenAddress> parseAddresses(const std::string& value);

std::string renderAddresses(const std::string& value);
std::string renderSystemName(const std::string& value);
std::string renderCommunities(const std::string& file, std::vector<std::string>& warnings);
std::string renderTrapSessions(const std::string& file, std::vector<std::string>& warnings);
/**
 * `tls`: folder of the node's certificates and keys. A credential that cannot be used, or is not there, yields no line
 * either: the agent then runs without DTLS, and `warnings` says why.
 */
std::string renderNodeCredential(const std::string& fingerprint, const std::filesystem::path& tls,
                                 std::vector<std::string>& warnings);
std::string renderCipherString(const std::string& value);
std::string renderEngineId(const std::string& value);

/** The text as one word of the agent's configuration, whatever characters it has (control characters excepted). */
std::string asWord(const std::string& text);

/** Whether the text has a character that ends or splits a line. */
bool hasControlCharacter(const std::string& text);

}  // namespace Tarn
#endif
