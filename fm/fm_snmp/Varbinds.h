#ifndef VELA_FM_SNMP_VARBINDS_H
#define VELA_FM_SNMP_VARBINDS_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <span>
#include <string_view>
#include <utility>

namespace VelaFmSnmp {

/** Owns the varbinds of one notification, snmpTrapOID.0 first. Memory exhaustion is std::bad_alloc. */
class Varbinds {
 public:
  Varbinds() = default;
  ~Varbinds() { snmp_free_varbind(_list); }
  Varbinds(Varbinds&& other) noexcept : _list(std::exchange(other._list, nullptr)) {}
  Varbinds& operator=(Varbinds&& other) noexcept {
    std::swap(_list, other._list);
    return *this;
  }
  Varbinds(const Varbinds&) = delete;
  Varbinds& operator=(const Varbinds&) = delete;

  void addUnsigned(std::span<const oid> name, std::uint32_t value) { add(name, ASN_UNSIGNED, &value, sizeof value); }
  void addInteger(std::span<const oid> name, std::int32_t value) { add(name, ASN_INTEGER, &value, sizeof value); }
  void addText(std::span<const oid> name, std::string_view value) {
    add(name, ASN_OCTET_STR, value.data(), value.size());
  }
  void addOid(std::span<const oid> name, std::span<const oid> value) {
    add(name, ASN_OBJECT_ID, value.data(), value.size_bytes());
  }

  /** Stays this object's. */
  netsnmp_variable_list* list() const { return _list; }

 private:
  void add(std::span<const oid> name, unsigned char type, const void* value, std::size_t size) {
    if (snmp_varlist_add_variable(&_list, name.data(), name.size(), type, value, size) == nullptr)
      throw std::bad_alloc();
  }

  netsnmp_variable_list* _list = nullptr;
};

}  // namespace VelaFmSnmp
#endif
