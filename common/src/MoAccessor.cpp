#include "MoAccessor.h"

#include <exception>
#include <limits>
#include <type_traits>

#include "Portal.h"
#include "VelaException.h"

namespace Vela {

namespace {

const VelaOamSpiManagedObject_3T& service() {
  const auto* found = static_cast<const VelaOamSpiManagedObject_3T*>(
      Portal::getInterface(VELA_MO_COMPONENT, VELA_MO_INTERFACE, VELA_MO_VERSION));
  if (found == nullptr) throw VelaException("The managed object service is not available");
  return *found;
}

const char* errorText(const VelaOamSpiManagedObject_3T& objects) {
  const char* text = objects.getErrorText();
  return text != nullptr ? text : "no reason told";
}

bool isSigned(VelaOamSpiMoTypeT type) {
  return type == VELA_MO_INT16 || type == VELA_MO_INT32 || type == VELA_MO_INT64 || type == VELA_MO_ENUM;
}

bool isUnsigned(VelaOamSpiMoTypeT type) {
  return type == VELA_MO_UINT16 || type == VELA_MO_UINT32 || type == VELA_MO_UINT64;
}

bool isText(VelaOamSpiMoTypeT type) { return type == VELA_MO_STRING || type == VELA_MO_REFERENCE; }

template <class T>
bool readInteger(const VelaOamSpiMoValue_3T& value, T& result) {
  if (isSigned(value.type) && std::in_range<T>(value.i64)) {
    result = static_cast<T>(value.i64);
    return true;
  }
  if (isUnsigned(value.type) && std::in_range<T>(value.u64)) {
    result = static_cast<T>(value.u64);
    return true;
  }
  return false;
}

/** Each reads one value; false when its type does not fit. */
template <class T>
bool readValue(const VelaOamSpiMoValue_3T& value, T& result) {
  return readInteger(value, result);
}

bool readValue(const VelaOamSpiMoValue_3T& value, bool& result) {
  result = value.i64 != 0;
  return value.type == VELA_MO_BOOL;
}

bool readValue(const VelaOamSpiMoValue_3T& value, std::string& result) {
  if (!isText(value.type)) return false;
  result = value.text != nullptr ? value.text : "";
  return true;
}

bool readValue(const VelaOamSpiMoValue_3T& value, MoEnum& result) {
  return value.type == VELA_MO_ENUM && readInteger(value, result.value);
}

bool readValue(const VelaOamSpiMoValue_3T& value, MoReference& result) {
  return value.type == VELA_MO_REFERENCE && readValue(value, result.dn);
}

bool readValue(const VelaOamSpiMoValue_3T& value, MoStruct& result) {
  if (value.type != VELA_MO_STRUCT || (value.memberCount != 0 && value.members == nullptr)) return false;
  for (size_t i = 0; i < value.memberCount; ++i) {
    const VelaOamSpiMoMember_3T& member = value.members[i];
    if (!member.isSet) continue;
    if (member.name == nullptr) return false;
    if (member.value.type == VELA_MO_BOOL) {
      result.set(member.name, member.value.i64 != 0);
    } else if (isSigned(member.value.type)) {
      result.set(member.name, member.value.i64);
    } else if (isUnsigned(member.value.type)) {
      result.set(member.name, member.value.u64);
    } else if (isText(member.value.type)) {
      result.set(member.name, std::string(member.value.text != nullptr ? member.value.text : ""));
    } else {
      return false;
    }
  }
  return true;
}

/** Values in the form of the C interface; texts and members point into what is written. */
class Writer {
 public:
  template <class T>
  void add(const T& value) {
    _values.push_back(convert(value));
  }
  VelaOamSpiMoAttribute_3T attribute(const std::string& name, bool isSequence) const {
    return {name.c_str(), isSequence, true, _values.data(), _values.size()};
  }

 private:
  static VelaOamSpiMoValue_3T make(VelaOamSpiMoTypeT type, int64_t i64, uint64_t u64, const char* text) {
    return {type, i64, u64, text, nullptr, 0};
  }
  static VelaOamSpiMoValue_3T convert(bool value) { return make(VELA_MO_BOOL, value ? 1 : 0, 0, nullptr); }
  static VelaOamSpiMoValue_3T convert(std::int16_t value) { return make(VELA_MO_INT16, value, 0, nullptr); }
  static VelaOamSpiMoValue_3T convert(std::uint16_t value) { return make(VELA_MO_UINT16, 0, value, nullptr); }
  static VelaOamSpiMoValue_3T convert(std::int32_t value) { return make(VELA_MO_INT32, value, 0, nullptr); }
  static VelaOamSpiMoValue_3T convert(std::uint32_t value) { return make(VELA_MO_UINT32, 0, value, nullptr); }
  static VelaOamSpiMoValue_3T convert(std::int64_t value) { return make(VELA_MO_INT64, value, 0, nullptr); }
  static VelaOamSpiMoValue_3T convert(std::uint64_t value) { return make(VELA_MO_UINT64, 0, value, nullptr); }
  static VelaOamSpiMoValue_3T convert(const MoEnum& value) { return make(VELA_MO_ENUM, value.value, 0, nullptr); }
  static VelaOamSpiMoValue_3T convert(const std::string& value) { return make(VELA_MO_STRING, 0, 0, value.c_str()); }
  static VelaOamSpiMoValue_3T convert(const MoReference& value) {
    return make(VELA_MO_REFERENCE, 0, 0, value.dn.c_str());
  }

  std::vector<VelaOamSpiMoValue_3T> _values;
};

}  // namespace

// --- MoStruct

namespace {

const MoStruct::Member& memberOf(const std::map<std::string, MoStruct::Member>& members, const std::string& name) {
  const auto found = members.find(name);
  if (found == members.end()) throw VelaException("Struct member not set: '%s'", name.c_str());
  return found->second;
}

[[noreturn]] void wrongMemberType(const std::string& name) {
  throw VelaException("Struct member has another type: '%s'", name.c_str());
}

}  // namespace

std::string MoStruct::getString(const std::string& name) const {
  const Member& member = memberOf(_members, name);
  const auto* text = std::get_if<std::string>(&member);
  if (text == nullptr) wrongMemberType(name);
  return *text;
}

std::uint32_t MoStruct::getUInt32(const std::string& name) const {
  const Member& member = memberOf(_members, name);
  if (const auto* number = std::get_if<std::uint64_t>(&member)) {
    if (std::in_range<std::uint32_t>(*number)) return static_cast<std::uint32_t>(*number);
  } else if (const auto* signedNumber = std::get_if<std::int64_t>(&member)) {
    if (std::in_range<std::uint32_t>(*signedNumber)) return static_cast<std::uint32_t>(*signedNumber);
  }
  wrongMemberType(name);
}

bool MoStruct::getBool(const std::string& name) const {
  const Member& member = memberOf(_members, name);
  const auto* flag = std::get_if<bool>(&member);
  if (flag == nullptr) wrongMemberType(name);
  return *flag;
}

// --- Transaction

Transaction::Transaction(int lockPolicy, unsigned timeoutSeconds) {
  const VelaOamSpiManagedObject_3T& objects = service();
  const VelaReturnT code = objects.beginTransaction(lockPolicy, timeoutSeconds, &_id);
  if (code != VELA_OK) throw VelaException(code, "Failed to begin a transaction: %s", errorText(objects));
}

Transaction::~Transaction() { abort(); }

void Transaction::commit() {
  const VelaOamSpiManagedObject_3T& objects = service();
  const VelaReturnT code = objects.commit(std::exchange(_id, 0));
  if (code != VELA_OK) throw VelaException(code, "Failed to commit: %s", errorText(objects));
}

void Transaction::abort() noexcept {
  if (_id == 0) return;
  try {
    service().abort(std::exchange(_id, 0));
  } catch (const std::exception&) {
    _id = 0;  // the host has taken its service away, and the transaction with it
  }
}

// --- MoAccessor

/** Keeps an object of the service open. */
class MoAccessor::OpenObject {
 public:
  OpenObject(const VelaOamSpiManagedObject_3T& objects, const VelaOamSpiMoObjectT* object, std::string dn)
      : _service(objects), _object(object), _dn(std::move(dn)) {}
  ~OpenObject() { _service.closeObject(_object); }
  OpenObject(const OpenObject&) = delete;
  OpenObject& operator=(const OpenObject&) = delete;

  const VelaOamSpiMoObjectT* get() const { return _object; }
  const std::string& getDn() const { return _dn; }

 private:
  const VelaOamSpiManagedObject_3T& _service;
  const VelaOamSpiMoObjectT* _object;
  std::string _dn;
};

/** What a walk's callback needs; exceptions must not cross the C interface, so they wait here. */
struct MoAccessor::Walk {
  MoAccessor& accessor;
  IMoTraverser& traverser;
  std::exception_ptr failure;
};

MoAccessor::MoAccessor(int lockPolicy, unsigned timeoutSeconds)
    : _service(&service()), _transaction(lockPolicy, timeoutSeconds) {}

MoAccessor::~MoAccessor() = default;

void MoAccessor::fail(const char* what, const std::string& dn, const std::string& name, VelaReturnT code) const {
  throw VelaException(code, "%s %s::%s: %s (%d)", what, dn.c_str(), name.c_str(), errorText(*_service), code);
}

std::string MoAccessor::getFirstMoInstance(const std::string& classPath) {
  const char* dn = nullptr;
  const VelaReturnT code = _service->getFirstInstance(_transaction.getId(), classPath.c_str(), &dn);
  if (code == VELA_NOT_FOUND) return {};
  if (code != VELA_OK || dn == nullptr) fail("Failed to look up", classPath, "", code);
  return dn;
}

bool MoAccessor::exists(const std::string& dn) {
  const VelaOamSpiMoObjectT* found = nullptr;
  if (_service->openObject(_transaction.getId(), dn.c_str(), &found) != VELA_OK || found == nullptr) return false;
  _service->closeObject(found);
  return true;
}

std::vector<std::string> MoAccessor::getChildren(const std::string& dn, const std::string& className) {
  struct Collector : IMoTraverser {
    std::vector<std::string> names;
    bool visit(MoAccessor&, const std::string& child) override {
      names.push_back(child);
      return true;
    }
  } collector;
  traverseChildren(dn, className, collector);
  return std::move(collector.names);
}

bool MoAccessor::visitObject(void* context, const char* dn, const VelaOamSpiMoObjectT* visited) {
  Walk& walk = *static_cast<Walk*>(context);
  MoAccessor& accessor = walk.accessor;
  try {
    if (dn == nullptr) throw VelaException("The managed object service names no object");
    accessor._visitedDn = dn;
    accessor._visited = visited;
    const bool goOn = walk.traverser.visit(accessor, accessor._visitedDn);
    accessor._visited = nullptr;
    return goOn;
  } catch (...) {
    accessor._visited = nullptr;
    walk.failure = std::current_exception();
    return false;
  }
}

void MoAccessor::traverseChildren(const std::string& dn, const std::string& className, IMoTraverser& traverser) {
  Walk walk{*this, traverser, nullptr};
  const VelaReturnT code =
      _service->traverseChildren(_transaction.getId(), dn.c_str(), className.empty() ? nullptr : className.c_str(),
                                 &MoAccessor::visitObject, &walk);
  if (walk.failure) std::rethrow_exception(walk.failure);
  if (code != VELA_OK && code != VELA_NOT_FOUND) fail("Failed to walk the children of", dn, className, code);
}

const VelaOamSpiMoObjectT* MoAccessor::object(const std::string& dn) {
  if (_visited != nullptr && _visitedDn == dn) return _visited;
  if (_open == nullptr || _open->getDn() != dn) {
    _open.reset();
    const VelaOamSpiMoObjectT* found = nullptr;
    const VelaReturnT code = _service->openObject(_transaction.getId(), dn.c_str(), &found);
    if (code != VELA_OK || found == nullptr) fail("Failed to open", dn, "", code);
    _open = std::make_unique<OpenObject>(*_service, found, dn);
  }
  return _open->get();
}

const VelaOamSpiMoAttribute_3T& MoAccessor::attribute(const std::string& dn, const std::string& name) {
  const VelaOamSpiMoAttribute_3T* found = nullptr;
  const VelaReturnT code = _service->getAttribute(object(dn), name.c_str(), &found);
  if (code != VELA_OK || found == nullptr) fail("Failed to read", dn, name, code);
  return *found;
}

template <class T>
std::optional<T> MoAccessor::getOptionalAttr(const std::string& dn, const std::string& name) {
  const VelaOamSpiMoAttribute_3T& read = attribute(dn, name);
  if (read.isSequence) throw VelaException("Attribute is a sequence: %s::%s", dn.c_str(), name.c_str());
  if (!read.isSet) return std::nullopt;
  if (read.valueCount == 0 || read.values == nullptr) throw VelaException("Attribute is not set");
  T result{};
  if (!readValue(read.values[0], result)) {
    throw VelaException("Attribute has another type or range: %s::%s", dn.c_str(), name.c_str());
  }
  return result;
}

template <class T>
T MoAccessor::getAttr(const std::string& dn, const std::string& name) {
  std::optional<T> value = getOptionalAttr<T>(dn, name);
  if (!value) throw VelaException("Attribute has no value set: %s::%s", dn.c_str(), name.c_str());
  return std::move(*value);
}

template <class T>
std::vector<T> MoAccessor::getSeqAttr(const std::string& dn, const std::string& name) {
  const VelaOamSpiMoAttribute_3T& read = attribute(dn, name);
  if (!read.isSequence) throw VelaException("Attribute is not a sequence: %s::%s", dn.c_str(), name.c_str());
  if (read.valueCount != 0 && read.values == nullptr) throw VelaException("Attribute is not set");
  std::vector<T> results;
  results.reserve(read.valueCount);
  for (size_t i = 0; i < read.valueCount; ++i) {
    T result{};
    if (!readValue(read.values[i], result)) {
      throw VelaException("Attribute has another type or range: %s::%s", dn.c_str(), name.c_str());
    }
    results.push_back(std::move(result));
  }
  return results;
}

void MoAccessor::write(const std::string& dn, const VelaOamSpiMoAttribute_3T& written) {
  _open.reset();  // what was read before shows the object as it was
  const VelaReturnT code = _service->setAttribute(_transaction.getId(), dn.c_str(), &written);
  if (code != VELA_OK) fail("Failed to write", dn, written.name, code);
}

template <class T>
void MoAccessor::setAttr(const std::string& dn, const std::string& name, const T& value) {
  Writer writer;
  writer.add(value);
  write(dn, writer.attribute(name, false));
}

template <class T>
void MoAccessor::setSeqAttr(const std::string& dn, const std::string& name, const std::vector<T>& values) {
  Writer writer;
  for (const auto& value : values) writer.add(static_cast<const T&>(value));
  write(dn, writer.attribute(name, true));
}

void MoAccessor::commit() {
  _open.reset();
  _transaction.commit();
}

void MoAccessor::abort() noexcept {
  _open.reset();
  _transaction.abort();
}

#define VELA_MO_READS(T)                                                                            \
  template T MoAccessor::getAttr<T>(const std::string&, const std::string&);                        \
  template std::optional<T> MoAccessor::getOptionalAttr<T>(const std::string&, const std::string&); \
  template std::vector<T> MoAccessor::getSeqAttr<T>(const std::string&, const std::string&);
#define VELA_MO_READS_AND_WRITES(T)                                                       \
  VELA_MO_READS(T)                                                                        \
  template void MoAccessor::setAttr<T>(const std::string&, const std::string&, const T&); \
  template void MoAccessor::setSeqAttr<T>(const std::string&, const std::string&, const std::vector<T>&);

VELA_MO_READS_AND_WRITES(bool)
VELA_MO_READS_AND_WRITES(std::int16_t)
VELA_MO_READS_AND_WRITES(std::uint16_t)
VELA_MO_READS_AND_WRITES(std::int32_t)
VELA_MO_READS_AND_WRITES(std::uint32_t)
VELA_MO_READS_AND_WRITES(std::int64_t)
VELA_MO_READS_AND_WRITES(std::uint64_t)
VELA_MO_READS_AND_WRITES(std::string)
VELA_MO_READS_AND_WRITES(MoEnum)
VELA_MO_READS_AND_WRITES(MoReference)
VELA_MO_READS(MoStruct)

}  // namespace Vela
