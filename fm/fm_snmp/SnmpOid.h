#ifndef VELA_FM_SNMP_SNMP_OID_H
#define VELA_FM_SNMP_SNMP_OID_H

#include <string>
#include <vector>

namespace VelaFmSnmp {

/**
 * An SNMP object identifier: a sequence of at most 128 sub-identifiers. A value type; no operation throws except when
 * memory runs out.
 */
class SnmpOid {
 public:
  static constexpr unsigned int maxLength = 128;

  /** The null identifier .0.0. */
  SnmpOid();
  /** Copies exactly `len` sub-identifiers; the limit of 128 is the caller's affair here. */
  SnmpOid(const unsigned long* oid, unsigned int len);
  /** Reads a dotted text as fromString does; a bad (or null) text leaves the identifier empty. */
  SnmpOid(const char* text);  // NOLINT(google-explicit-constructor): a dotted text stands for an identifier

  /** Reads ".1.3.6" (each decimal number behind a dot, at most 4294967295). False, and empty, on anything else. */
  bool fromString(const char* text);
  /** ".1.3.6", or "<<Invalid OID>>" for an empty identifier. */
  std::string toString() const;

  unsigned int length() const { return static_cast<unsigned int>(_ids.size()); }
  /** The first sub-identifier, valid until the next change. For the agent library, together with length(). */
  const unsigned long* getOidPtr() const { return _ids.data(); }

  bool beginsWith(const SnmpOid& prefix) const;
  bool operator==(const SnmpOid& other) const { return _ids == other._ids; }
  /** Lexicographic; a prefix is less than what it begins. */
  bool operator<(const SnmpOid& other) const { return _ids < other._ids; }

  /** False, and nothing changed, when the index is outside the identifier. */
  bool setValue(int index, unsigned long value);
  /** The sub-identifier, 0 for an index outside the identifier. */
  unsigned long getValue(int index) const;
  /** True for an empty identifier and for .0.0. */
  bool isNull() const;

  /** Appending, all or nothing: false, and nothing changed, when the result would be longer than 128. */
  bool append(int value);
  /** A sub-identifier per byte, their count in front if asked for (without: an IMPLIED index). A null text is empty. */
  bool append(const char* text, bool withLength);
  bool append(const std::string& text, bool withLength);
  /** An OCTET STRING index: the count, then a sub-identifier per byte. */
  bool append(const unsigned char* bytes, unsigned int len);
  /** An OBJECT IDENTIFIER index: the count, then the sub-identifiers. */
  bool append(const unsigned long* oid, unsigned int len);
  bool append(const SnmpOid& other);

  /** Row identifiers behind a table column's fixed OID. A part that would pass the limit of 128 is left out, which no
      table takes for a row. */
  /** vacmViewTreeFamilyTable (RFC 3415): view name and subtree. */
  static SnmpOid createViewOid(const unsigned long (&base)[12], const std::string& viewName, const SnmpOid& subtree);
  /** vacmSecurityToGroupTable (RFC 3415): security model and name. */
  static SnmpOid createSec2GroupOid(const unsigned long (&base)[11], int securityModel,
                                    const std::string& securityName);
  /** vacmAccessTable (RFC 3415): group, context prefix, security model and level. */
  static SnmpOid createAccessOid(const unsigned long (&base)[11], const std::string& groupName,
                                 const char* contextPrefix, int securityModel, int securityLevel);
  /** usmUserTable (RFC 3414): engine id (raw octets) and user name. */
  static SnmpOid createUsmUserOid(const unsigned long (&base)[12], const std::string& engineId,
                                  const std::string& userName);
  /** Tables of RFC 3413: an IMPLIED name. */
  static SnmpOid createStrIndexOid(const unsigned long (&base)[11], const std::string& name);
  /** Tables of RFC 6353: an IMPLIED name, or a number for the certificate map. */
  static SnmpOid createTlsParamsOid(const unsigned long (&base)[13], const std::string& name);
  static SnmpOid createTlsCertOid(const SnmpOid& base, unsigned int index);
  static SnmpOid createTlsAddrOid(const SnmpOid& base, const std::string& name);

 private:
  bool fits(std::size_t more) const { return _ids.size() + more <= maxLength; }
  template <class Element>
  bool appendAll(const Element* elements, std::size_t count, bool withLength);

  std::vector<unsigned long> _ids;
};

}  // namespace VelaFmSnmp
#endif
