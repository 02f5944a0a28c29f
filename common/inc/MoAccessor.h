#ifndef VELA_MO_ACCESSOR_H
#define VELA_MO_ACCESSOR_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "VelaOamSpiManagedObject.h"

namespace Vela {

/** Number of an enumeration attribute, to tell it from a plain integer when it is written. */
struct MoEnum {
  int value = 0;
};

/** Distinguished name held by a reference attribute. */
struct MoReference {
  std::string dn;
};

/** A struct value: its members, typed reads. A copy of its own, independent of the accessor. */
class MoStruct {
 public:
  using Member = std::variant<bool, std::int64_t, std::uint64_t, std::string>;

  void set(const std::string& name, Member value) { _members[name] = std::move(value); }
  bool isSet(const std::string& name) const { return _members.count(name) != 0; }
  /** Each throws Vela::VelaException "Struct member not set: '%s'", or names the member whose type does not fit. */
  std::string getString(const std::string& name) const;
  std::uint32_t getUInt32(const std::string& name) const;
  bool getBool(const std::string& name) const;

 private:
  std::map<std::string, Member> _members;
};

/** A transaction of the managed-object service; aborted when it goes out of scope without commit. */
class Transaction {
 public:
  /** Policies VELA_MO_LOCK_...; time-out in seconds. Throws Vela::VelaException. */
  Transaction(int lockPolicy, unsigned timeoutSeconds);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit(); /**< throws Vela::VelaException; the transaction has ended either way */
  void abort() noexcept;
  VelaOamSpiMoTransactionT getId() const { return _id; }

 private:
  VelaOamSpiMoTransactionT _id = 0;
};

/**
 * Typed access to the managed-object model in one transaction of its own, aborted at destruction unless committed.
 * One thread at a time. Whatever the host or a library below answers badly becomes a Vela::VelaException.
 *
 * Value types T: bool, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t,
 * std::string (also reads references), MoEnum (also read as std::int32_t), MoReference; MoStruct can be read only.
 * Integers convert when the value fits.
 */
class MoAccessor {
 public:
  /** Visitor of a traversal. During the call, reads of that object through the accessor cost no look-up. */
  class IMoTraverser {
   public:
    virtual ~IMoTraverser() = default;
    /** Returns false to end the walk. An exception ends the walk and reaches the caller of traverseChildren. */
    virtual bool visit(MoAccessor& accessor, const std::string& dn) = 0;
  };

  MoAccessor(int lockPolicy, unsigned timeoutSeconds);
  ~MoAccessor();
  MoAccessor(const MoAccessor&) = delete;
  MoAccessor& operator=(const MoAccessor&) = delete;

  /** Distinguished name of the first instance of a class path; empty if there is none. */
  std::string getFirstMoInstance(const std::string& classPath);
  bool exists(const std::string& dn);
  std::vector<std::string> getChildren(const std::string& dn, const std::string& className);
  /** Direct children of a class, one visit each. A parent that does not exist has no children. */
  void traverseChildren(const std::string& dn, const std::string& className, IMoTraverser& traverser);

  /** A single value. Throws "Attribute has no value set: %s::%s" or "Attribute is a sequence: %s::%s" (dn, name). */
  template <class T>
  T getAttr(const std::string& dn, const std::string& name);
  /** A single value, or nothing when it has none; a sequence throws as in getAttr. */
  template <class T>
  std::optional<T> getOptionalAttr(const std::string& dn, const std::string& name);
  template <class T>
  std::vector<T> getSeqAttr(const std::string& dn, const std::string& name);

  template <class T>
  void setAttr(const std::string& dn, const std::string& name, const T& value);
  template <class T>
  void setSeqAttr(const std::string& dn, const std::string& name, const std::vector<T>& values);

  void commit();
  void abort() noexcept;

 private:
  class OpenObject;
  struct Walk;
  const VelaOamSpiMoAttribute_3T& attribute(const std::string& dn, const std::string& name);
  const VelaOamSpiMoObjectT* object(const std::string& dn);
  void write(const std::string& dn, const VelaOamSpiMoAttribute_3T& attribute);
  static bool visitObject(void* context, const char* dn, const VelaOamSpiMoObjectT* object);
  [[noreturn]] void fail(const char* what, const std::string& dn, const std::string& name, VelaReturnT code) const;

  const VelaOamSpiManagedObject_3T* _service;
  Transaction _transaction;
  std::unique_ptr<OpenObject> _open;              // the object read last, kept until another is read
  const VelaOamSpiMoObjectT* _visited = nullptr;  // the object of the visit that is under way
  std::string _visitedDn;
};

}  // namespace Vela
#endif
