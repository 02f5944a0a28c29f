#ifndef VELA_FM_SNMP_VARBINDS_H
#define VELA_FM_SNMP_VARBINDS_H

// The configuration header of net-snmp comes before its others.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <cstddef>
#include <cstdint>
#include <new>
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

  template <std::size_t Length>
  void addUnsigned(const oid (&name)[Length], std::uint32_t value) {
    add(name, Length, ASN_UNSIGNED, &value, sizeof value);
  }
  template <std::size_t Length>
  void addInteger(const oid (&name)[Length], std::int32_t value) {
    add(name, Length, ASN_INTEGER, &value, sizeof value);
  }
  template <std::size_t Length>
  void addText(const oid (&name)[Length], std::string_view value) {
    add(name, Length, ASN_OCTET_STR, value.data(), value.size());
  }
  template <std::size_t Length>
  void addOid(const oid (&name)[Length], const oid* value, std::size_t valueLength) {
    add(name, Length, ASN_OBJECT_ID, value, valueLength * sizeof(oid));
  }

  /** Stays this object's. */
  netsnmp_variable_list* list() const { return _list; }

 private:
  void add(const oid* name, std::size_t length, unsigned char type, const void* value, std::size_t size) {
    if (snmp_varlist_add_variable(&_list, name, length, type, value, size) == nullptr) throw std::bad_alloc();
  }

  netsnmp_variable_list* _list = nullptr;
};

}  // namespace VelaFmSnmp
#endif
