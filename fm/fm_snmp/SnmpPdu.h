#ifndef VELA_FM_SNMP_PDU_H
#define VELA_FM_SNMP_PDU_H

#include <cstddef>
#include <string>

#include "SnmpOid.h"

struct snmp_pdu;

namespace VelaFmSnmp {

/** Owner of one net-snmp PDU. The add operations need a PDU and throw Vela::VelaException when memory runs out. */
class SnmpPdu {
 public:
  /** Holds no PDU. */
  SnmpPdu() = default;
  /** Holds a new PDU of the command (SNMP_MSG_GET, SNMP_MSG_SET). */
  explicit SnmpPdu(int command);
  ~SnmpPdu();
  SnmpPdu(const SnmpPdu&) = delete;
  SnmpPdu& operator=(const SnmpPdu&) = delete;

  /** The PDU, still owned here; null when there is none. */
  snmp_pdu* get() const { return _pdu; }
  /** Hands the PDU to the caller and holds none afterwards. */
  snmp_pdu* release();
  /** Frees the PDU held, if any, and takes over the new one. */
  void set(snmp_pdu* pdu);

  /** A varbind without a value, as a GET needs it. */
  void addNullVarbind(const SnmpOid& oid);
  void addVarbind(const SnmpOid& oid, int value);                /**< INTEGER */
  void addVarbind(const SnmpOid& oid, unsigned int value);       /**< INTEGER */
  void addVarbind(const SnmpOid& oid, const char* value);        /**< OCTET STRING */
  void addVarbind(const SnmpOid& oid, const std::string& value); /**< OCTET STRING, may hold NUL octets */
  void addVarbind(const SnmpOid& oid, const SnmpOid& value);     /**< OBJECT IDENTIFIER */
  /** A value of `length` octets in net-snmp's form of the ASN.1 type `type`. */
  void addVarbind(const SnmpOid& oid, const void* value, std::size_t length, unsigned char type);

 private:
  snmp_pdu* _pdu = nullptr;
};

}  // namespace VelaFmSnmp
#endif
