#ifndef SNMPD_PLUGIN_CERTIFICATE_MAP_H
#define SNMPD_PLUGIN_CERTIFICATE_MAP_H

#include <openssl/x509.h>

#include <string>
#include <vector>

#include "CertificateFolder.h"

namespace SnmpdPlugin {

/** A certificate, its issuer, and so on. Not owned. */
using CertificateChain = std::vector<X509*>;

/** How a security name is made of a certificate (RFC 6353, snmpTlstmCertToTSNMIBIdentities). */
enum class NameMapping { Specified = 1, Rfc822Name, DnsName, IpAddress, AnyAltName, CommonName };

/**
 * Who is trusted, and under which security name: the rows of snmpTlstmCertToTSNTable in the library's own container,
 * with those from the agent's configuration among them. A fingerprint matches whatever hash the certificate was signed
 * with.
 */
class CertificateMap {
 public:
  CertificateMap() = delete;

  /** Fingerprints of all rows, plain. */
  static std::vector<std::string> fingerprints();
  /**
   * The security name of the first row that has one for a certificate of the verified chain; empty: none has. A name
   * that another row gives to a certificate on file is no name for the chain, unless an authority in it has issued that
   * certificate, too: each authority speaks for its own.
   */
  static std::string securityNameOf(const CertificateChain& chain, const NodeTls::CertificateFolder& onFile);

  /**
   * Why somebody who is trusted is not who goes by one of the names: certificates on file have such a name, and the
   * chain gives none of the names. Empty otherwise.
   */
  static std::string impostureOf(const CertificateChain& chain, const std::vector<std::string>& names,
                                 const NodeTls::CertificateFolder& onFile);

  /**
   * Whether there are rows and none is being written: the agent gets them one after the other when it has started, and
   * a peer should not be refused meanwhile.
   */
  static bool isSettled();
  /** Counts the changes of the rows, so that who has looked at them knows when to look again. */
  static unsigned generation();
  static void changed();
};

}  // namespace SnmpdPlugin
#endif
