#include "framework/ManagedObjectService.h"

#include <chrono>

#include "VelaException.h"

namespace VelaNode {

using Vela::VelaException;

namespace {

thread_local std::string errorText;
thread_local std::string foundDn;

VelaReturnT fail(VelaReturnT code, const char* text) {
  errorText = text;
  return code == VELA_OK ? VELA_ERROR : code;
}

/** Runs the body of a C function: what it throws becomes a code and the thread's error text. */
template <class Body>
VelaReturnT call(const Body& body) {
  try {
    ManagedObjectService* const service = CurrentInstance<ManagedObjectService>::get();
    if (service == nullptr) return fail(VELA_ERROR, "There is no managed-object service");
    body(*service);
    return VELA_OK;
  } catch (const VelaException& ex) {
    return fail(ex.getCode(), ex.what());
  } catch (const std::exception& ex) {
    return fail(VELA_ERROR, ex.what());
  }
}

const char* required(const char* text, const char* what) {
  if (text == nullptr) throw VelaException(VELA_INVALID, "No %s given", what);
  return text;
}
void requireOut(const void* out) {
  if (out == nullptr) throw VelaException(VELA_INVALID, "No place for the result given");
}

/** To the other side of the interface an object is opaque. */
const VelaOamSpiMoObjectT* toHandle(const MoView* view) { return reinterpret_cast<const VelaOamSpiMoObjectT*>(view); }
const MoView* fromHandle(const VelaOamSpiMoObjectT* handle) { return reinterpret_cast<const MoView*>(handle); }

}  // namespace

VelaOamSpiMoTransactionT ManagedObjectService::begin(int lockPolicy, unsigned timeoutSeconds) {
  auto transaction = std::make_shared<MoTransaction>(_store, lockPolicy, std::chrono::seconds(timeoutSeconds));
  const std::lock_guard lock(_mutex);
  _transactions.emplace(++_lastId, std::move(transaction));
  return _lastId;
}

std::shared_ptr<MoTransaction> ManagedObjectService::find(VelaOamSpiMoTransactionT id) const {
  const std::lock_guard lock(_mutex);
  const auto found = _transactions.find(id);
  if (found == _transactions.end()) throw VelaException(VELA_INVALID, "No such transaction");
  return found->second;
}

std::shared_ptr<MoTransaction> ManagedObjectService::take(VelaOamSpiMoTransactionT id) {
  const std::lock_guard lock(_mutex);
  const auto node = _transactions.extract(id);
  if (node.empty()) throw VelaException(VELA_INVALID, "No such transaction");
  return node.mapped();
}

const MoView* ManagedObjectService::open(MoObjectPtr object) {
  auto opened = std::make_unique<const OpenObject>(std::move(object));
  const MoView* const view = &opened->view;
  const std::lock_guard lock(_mutex);
  _openObjects.emplace(view, std::move(opened));
  return view;
}

void ManagedObjectService::close(const MoView* view) {
  const std::lock_guard lock(_mutex);
  _openObjects.erase(view);
}

std::size_t ManagedObjectService::countTransactions() const {
  const std::lock_guard lock(_mutex);
  return _transactions.size();
}

std::size_t ManagedObjectService::countOpenObjects() const {
  const std::lock_guard lock(_mutex);
  return _openObjects.size();
}

/** The functions of the C table. */
struct ManagedObjectCalls {
  static VelaReturnT beginTransaction(int32_t lockPolicy, uint32_t timeoutSeconds, VelaOamSpiMoTransactionT* out) {
    return call([&](ManagedObjectService& service) {
      requireOut(out);
      *out = service.begin(lockPolicy, timeoutSeconds);
    });
  }

  static VelaReturnT commit(VelaOamSpiMoTransactionT id) {
    return call([&](ManagedObjectService& service) { service.take(id)->commit(); });
  }

  static VelaReturnT abort(VelaOamSpiMoTransactionT id) {
    return call([&](ManagedObjectService& service) { service.take(id)->abort(); });
  }

  static const char* getErrorText() { return errorText.c_str(); }

  static VelaReturnT getFirstInstance(VelaOamSpiMoTransactionT id, const char* classPath, const char** dn) {
    return call([&](ManagedObjectService& service) {
      requireOut(dn);
      const auto found = service.find(id)->findFirst(required(classPath, "class path"));
      if (!found) throw VelaException(VELA_NOT_FOUND, "No instance of %s", classPath);
      foundDn = *found;
      *dn = foundDn.c_str();
    });
  }

  static VelaReturnT traverseChildren(VelaOamSpiMoTransactionT id, const char* parentDn, const char* className,
                                      VelaOamSpiMoVisitorT visitor, void* context) {
    return call([&](ManagedObjectService& service) {
      requireOut(reinterpret_cast<const void*>(visitor));
      // The empty name stands for the roots in the store only; here it is the name of no object.
      if (*required(parentDn, "parent") == '\0') throw VelaException(VELA_NOT_FOUND, "No such object: \"\"");
      service.find(id)->traverse(parentDn, className == nullptr ? "" : className, [&](const MoObjectPtr& object) {
        const MoView view(*object);
        return visitor(context, object->getDn().c_str(), toHandle(&view));
      });
    });
  }

  static VelaReturnT openObject(VelaOamSpiMoTransactionT id, const char* dn, const VelaOamSpiMoObjectT** object) {
    return call([&](ManagedObjectService& service) {
      requireOut(object);
      *object = toHandle(service.open(service.find(id)->get(required(dn, "object"))));
    });
  }

  static void closeObject(const VelaOamSpiMoObjectT* object) {
    call([&](ManagedObjectService& service) { service.close(fromHandle(object)); });
  }

  static const char* getClassName(const VelaOamSpiMoObjectT* object) {
    return object == nullptr ? nullptr : fromHandle(object)->getObject().getClass().getName();
  }

  static VelaReturnT getAttribute(const VelaOamSpiMoObjectT* object, const char* name,
                                  const VelaOamSpiMoAttribute_3T** attribute) {
    if (object == nullptr || name == nullptr || attribute == nullptr) return fail(VELA_INVALID, "An argument is null");
    *attribute = fromHandle(object)->find(name);
    if (*attribute != nullptr) return VELA_OK;
    errorText = std::string("Class ") + getClassName(object) + " has no attribute " + name;
    return VELA_NOT_FOUND;
  }

  static VelaReturnT setAttribute(VelaOamSpiMoTransactionT id, const char* dn,
                                  const VelaOamSpiMoAttribute_3T* attribute) {
    return call([&](ManagedObjectService& service) {
      if (attribute == nullptr) throw VelaException(VELA_INVALID, "No attribute given");
      service.find(id)->setAttribute(required(dn, "object"), *attribute);
    });
  }

  static VelaReturnT createObject(VelaOamSpiMoTransactionT id, const char* dn) {
    return call([&](ManagedObjectService& service) { service.find(id)->create(required(dn, "object")); });
  }

  static VelaReturnT deleteObject(VelaOamSpiMoTransactionT id, const char* dn) {
    return call([&](ManagedObjectService& service) { service.find(id)->remove(required(dn, "object")); });
  }
};

const VelaOamSpiManagedObject_3T* ManagedObjectService::getTable() {
  using Calls = ManagedObjectCalls;
  static constexpr VelaOamSpiManagedObject_3T table = {
      .beginTransaction = &Calls::beginTransaction,
      .commit = &Calls::commit,
      .abort = &Calls::abort,
      .getErrorText = &Calls::getErrorText,
      .getFirstInstance = &Calls::getFirstInstance,
      .traverseChildren = &Calls::traverseChildren,
      .openObject = &Calls::openObject,
      .closeObject = &Calls::closeObject,
      .getClassName = &Calls::getClassName,
      .getAttribute = &Calls::getAttribute,
      .setAttribute = &Calls::setAttribute,
      .createObject = &Calls::createObject,
      .deleteObject = &Calls::deleteObject,
  };
  return &table;
}

}  // namespace VelaNode
