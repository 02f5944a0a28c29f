#ifndef VELA_FM_SNMP_TLS_CONFIGURATOR_H
#define VELA_FM_SNMP_TLS_CONFIGURATOR_H

#include <string>
#include <vector>

#include "ConfigurationPass.h"
#include "SnmpTypes.h"

namespace VelaFmSnmp {

class SnmpMaSession;
class SnmpPdu;

/**
 * The rows of the master agent's TLSTM tables (RFC 6353): which certificates managers may have, and which ones
 * notifications over DTLS are sent with. Requests throw as SnmpMaSession::sendPdu.
 */
class TlsConfigurator {
 public:
  /**
   * A fingerprint in hexadecimal as SnmpTLSFingerprint: the octet of the hash algorithm (RFC 5246), told by the length,
   * and the hash. Throws ConfigurationFault "Failed to parse fingerprint" for a text that is none.
   */
  static std::string encodeFingerPrint(const char* text);

  /** Takes over the settings that the operations below use. */
  void setOptions(const SnmpConfig::tlsOptions_t& options) { _options = options; }
  bool isEnabled() const { return _options.isEnabled(); }
  /** Forgets what was written, without a request. */
  void clear() { _writtenTrust.clear(); }

  /** Writes the trusted certificates, if they changed or all is written anew. A row that the agent refuses is logged.
   */
  void reconfigureTrustCategory(const ConfigurationPass& pass);

  /** The node's own certificate, encoded. Throws ConfigurationFault as encodeFingerPrint. */
  std::string getLocalFingerPrint() const;

  /** Rows of one DTLS target, under the names of its parameter and address rows. */
  static void tlsCreateParamsEntry(SnmpPdu& pdu, const std::string& name, const std::string& fingerprint);
  static void tlsDeleteParamsEntry(SnmpPdu& pdu, const std::string& name);
  static void tlsCreateAddrEntry(SnmpPdu& pdu, const std::string& name);
  static void tlsDeleteAddrEntry(SnmpPdu& pdu, const std::string& name);

 private:
  void tlsCreateTrustCategory(SnmpMaSession& session, unsigned priority, const std::string& fingerprint);
  void tlsDeleteTrustCategory(SnmpMaSession& session, unsigned priority);
  static void tlsCreateCertEntry(SnmpPdu& pdu, unsigned priority, const std::string& encodedFingerprint);
  static void tlsDeleteCertEntry(SnmpPdu& pdu, unsigned priority);

  SnmpConfig::tlsOptions_t _options;
  std::vector<std::string> _writtenTrust; /**< by priority, beginning with 1 */
};

}  // namespace VelaFmSnmp
#endif
