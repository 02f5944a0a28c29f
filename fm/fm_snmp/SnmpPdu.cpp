// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include "SnmpPdu.h"

#include <VelaException.h>

#include "NetSnmpLock.h"

namespace VelaFmSnmp {

SnmpPdu::SnmpPdu(int command) {
  // The library counts its messages.
  const NetSnmpLock lock;
  _pdu = snmp_pdu_create(command);
  if (_pdu == nullptr) throw Vela::VelaException("Failed to create a pdu, out of memory");
}

SnmpPdu::~SnmpPdu() { set(nullptr); }

snmp_pdu* SnmpPdu::release() {
  snmp_pdu* pdu = _pdu;
  _pdu = nullptr;
  return pdu;
}

void SnmpPdu::set(snmp_pdu* pdu) {
  if (_pdu != nullptr) snmp_free_pdu(_pdu);
  _pdu = pdu;
}

void SnmpPdu::addNullVarbind(const SnmpOid& oid) { addVarbind(oid, nullptr, 0, ASN_NULL); }

void SnmpPdu::addVarbind(const SnmpOid& oid, int value) {
  const long number = value;
  addVarbind(oid, &number, sizeof number, ASN_INTEGER);
}

void SnmpPdu::addVarbind(const SnmpOid& oid, unsigned int value) {
  const long number = value;
  addVarbind(oid, &number, sizeof number, ASN_INTEGER);
}

void SnmpPdu::addVarbind(const SnmpOid& oid, const char* value) { addVarbind(oid, std::string(value ? value : "")); }

void SnmpPdu::addVarbind(const SnmpOid& oid, const std::string& value) {
  addVarbind(oid, value.data(), value.size(), ASN_OCTET_STR);
}

void SnmpPdu::addVarbind(const SnmpOid& oid, const SnmpOid& value) {
  addVarbind(oid, value.getOidPtr(), value.length() * sizeof(::oid), ASN_OBJECT_ID);
}

void SnmpPdu::addVarbind(const SnmpOid& oid, const void* value, std::size_t length, unsigned char type) {
  if (_pdu == nullptr) throw Vela::VelaException("Failed to add %s, there is no pdu", oid.toString().c_str());
  if (snmp_pdu_add_variable(_pdu, oid.getOidPtr(), oid.length(), type, value, length) == nullptr)
    throw Vela::VelaException("Failed to add %s to the pdu", oid.toString().c_str());
}

}  // namespace VelaFmSnmp
