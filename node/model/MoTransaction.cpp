#include "model/MoTransaction.h"

#include "VelaException.h"
#include "model/MoAttribute.h"

namespace VelaNode {

using Vela::VelaException;

namespace {

VelaException noSuchObject(std::string_view dn) {
  return VelaException(VELA_NOT_FOUND, "No such object: %s", quoted(dn).c_str());
}

}  // namespace

MoTransaction::MoTransaction(MoStore& store, int lockPolicy, std::chrono::milliseconds timeout)
    : _store(store), _timeout(timeout) {
  if (lockPolicy != VELA_MO_LOCK_ON_WRITE && lockPolicy != VELA_MO_LOCK_AT_ONCE) {
    throw VelaException(VELA_INVALID, "Unknown lock policy: %d", lockPolicy);
  }
  if (lockPolicy == VELA_MO_LOCK_AT_ONCE) lock();
}

MoTransaction::~MoTransaction() { abort(); }

void MoTransaction::requireActive() const {
  if (!_isActive) throw VelaException(VELA_INVALID, "The transaction has ended");
}

void MoTransaction::lock() {
  requireActive();
  if (_isWriter) return;
  if (!_store.lockWriter(_timeout)) {
    throw VelaException(VELA_TIMEOUT, "Another transaction is writing: no lock within %lld ms",
                        static_cast<long long>(_timeout.count()));
  }
  _isWriter = true;
  _base = _store.getTree();
  _working = _base;
}

void MoTransaction::flush() {
  if (_draft) _working.put(std::exchange(_draft, nullptr));
}

const MoTree& MoTransaction::tree() {
  requireActive();
  if (!_isWriter) {
    _base = _store.getTree();
    return _base;
  }
  flush();
  return _working;
}

void MoTransaction::touch(const std::string& dn) {
  const auto [place, isNew] = _touched.insert(dn);
  if (isNew) _touchedOrder.push_back(&*place);
}

// ---- reading ------------------------------------------------------------------------------------------------------

MoObjectPtr MoTransaction::find(std::string_view dn) { return tree().find(dn); }

MoObjectPtr MoTransaction::get(std::string_view dn) {
  MoObjectPtr object = find(dn);
  if (!object) throw noSuchObject(dn);
  return object;
}

void MoTransaction::traverse(std::string_view parentDn, std::string_view className, const MoTree::Visitor& visitor) {
  const MoClass* const moClass = ModelSchema::findClass(className);
  if (moClass == nullptr && !className.empty()) {
    throw VelaException(VELA_NOT_FOUND, "No such class: %s", quoted(className).c_str());
  }
  const MoTree seen = tree();
  if (!seen.traverse(parentDn, moClass, visitor)) throw noSuchObject(parentDn);
}

std::vector<MoObjectPtr> MoTransaction::children(std::string_view parentDn, std::string_view className) {
  std::vector<MoObjectPtr> objects;
  traverse(parentDn, className, [&objects](const MoObjectPtr& object) {
    objects.push_back(object);
    return true;
  });
  return objects;
}

std::optional<std::string> MoTransaction::findFirst(std::string_view classPath) {
  const MoObjectPtr object = tree().findFirst(classPath);
  return object ? std::optional(object->getDn()) : std::nullopt;
}

// ---- writing ------------------------------------------------------------------------------------------------------

MoObject& MoTransaction::draft(std::string_view dn) {
  if (!_draft || _draft->getDn() != dn) {
    const MoObjectPtr object = get(dn);
    _draft = std::make_shared<MoObject>(*object);
    touch(_draft->getDn());
  }
  return *_draft;
}

template <class Maker>
void MoTransaction::write(std::string_view dn, std::string_view name, const Maker& make) {
  lock();
  MoObject& object = draft(dn);
  const MoClass& moClass = object.getClass();
  const int found = moClass.findAttribute(name);
  if (found < 0) {
    throw VelaException(VELA_NOT_FOUND, "%s: class %s has no attribute %s", object.getDn().c_str(), moClass.getName(),
                        quoted(name).c_str());
  }
  const auto index = static_cast<std::size_t>(found);
  const MoAttributeDef& definition = moClass.getAttributes()[index];
  try {
    MoAttributePtr made = make(definition);
    if (!made->isSet) made = moClass.getDefaults()[index];
    object.setAttribute(index, std::move(made));
  } catch (const VelaException& ex) {
    throw VelaException(ex.getCode(), "%s::%s: %s", object.getDn().c_str(), definition.name, ex.what());
  }
}

void MoTransaction::set(std::string_view dn, std::string_view name, const MoValue& value) {
  write(dn, name, [&](const MoAttributeDef& definition) {
    if (definition.isSequence) throw VelaException(VELA_INVALID, "a sequence is expected, not a single value");
    return makeAttribute(definition, {value});
  });
}

void MoTransaction::setSequence(std::string_view dn, std::string_view name, const std::vector<MoValue>& values) {
  write(dn, name, [&](const MoAttributeDef& definition) {
    if (!definition.isSequence) throw VelaException(VELA_INVALID, "a single value is expected, not a sequence");
    return makeAttribute(definition, values);
  });
}

void MoTransaction::setText(std::string_view dn, std::string_view name, const std::string& text) {
  write(dn, name, [&](const MoAttributeDef& definition) {
    return text.empty() ? makeUnsetAttribute(definition) : makeAttributeFromText(definition, text);
  });
}

void MoTransaction::setJson(std::string_view dn, std::string_view name, const Poco::Dynamic::Var& json) {
  write(dn, name, [&](const MoAttributeDef& definition) { return makeAttributeFromJson(definition, json); });
}

void MoTransaction::setAttribute(std::string_view dn, const VelaOamSpiMoAttribute_3T& attribute) {
  if (attribute.name == nullptr) throw VelaException(VELA_INVALID, "An attribute without a name cannot be set");
  write(dn, attribute.name, [&](const MoAttributeDef& definition) { return makeAttribute(definition, attribute); });
}

void MoTransaction::unset(std::string_view dn, std::string_view name) {
  write(dn, name, [](const MoAttributeDef& definition) { return makeUnsetAttribute(definition); });
}

/** The class of an object that exists or may be created; has the writer's lock. */
const MoClass& MoTransaction::requirePlace(std::string_view dn) {
  MoDn path;
  std::string reason;
  if (!path.parse(dn, &reason)) throw VelaException(VELA_INVALID, "%s", reason.c_str());
  lock();
  if (path.size() > 1 && !find(parentDn(dn))) {
    throw VelaException(VELA_NOT_FOUND, "%s: the object above it does not exist", quoted(dn).c_str());
  }
  return *path.back().moClass;
}

void MoTransaction::create(std::string_view dn) {
  const MoClass& moClass = requirePlace(dn);
  if (find(dn)) throw VelaException(VELA_EXISTS, "The object exists already: %s", quoted(dn).c_str());
  _draft = std::make_shared<MoObject>(moClass, std::string(dn));
  touch(_draft->getDn());
}

void MoTransaction::put(std::string_view dn, MoRecordPtr record) {
  const MoClass& moClass = requirePlace(dn);
  flush();
  auto object = std::make_shared<const MoObject>(moClass, std::string(dn), std::move(record));
  touch(object->getDn());
  _working.put(std::move(object));
}

void MoTransaction::remove(std::string_view dn) {
  lock();
  const std::vector<MoObjectPtr> removed = tree().collect(dn);
  if (removed.empty()) throw noSuchObject(dn);
  for (const MoObjectPtr& object : removed) touch(object->getDn());
  _working.erase(dn);
}

// ---- the end ------------------------------------------------------------------------------------------------------

void MoTransaction::encryptPasswords() {
  for (const std::string* dn : _touchedOrder) {
    const MoObjectPtr object = _working.find(*dn);
    if (!object) continue;
    if (MoObjectPtr encrypted = _store.encrypted(*object)) _working.put(std::move(encrypted));
  }
}

MoChanges MoTransaction::diff(bool& mustPersist) const {
  MoChanges changes;
  for (const std::string* dn : _touchedOrder) {
    const MoObjectPtr before = _base.find(*dn);
    const MoObjectPtr after = _working.find(*dn);
    if (!before && !after) continue;
    if (!before || !after) {
      mustPersist = mustPersist || !(before ? before : after)->getClass().isRunTime();
      changes.push_back({before ? DAX_CM_EVENT_DELETED : DAX_CM_EVENT_CREATED, *dn, {}});
      continue;
    }
    std::vector<const char*> names;
    const std::vector<MoAttributeDef>& definitions = after->getClass().getAttributes();
    const MoView old(*before);
    const MoView now(*after);
    for (std::size_t i = 0; i < definitions.size(); ++i) {
      if (isEqual(old[i], now[i])) continue;
      mustPersist = mustPersist || !definitions[i].isRunTime;
      names.push_back(definitions[i].name);
    }
    if (!names.empty()) changes.push_back({DAX_CM_EVENT_MODIFIED, *dn, std::move(names)});
  }
  return changes;
}

MoChanges MoTransaction::commit() {
  requireActive();
  if (!_isWriter) {
    finish();
    return {};
  }
  try {
    flush();
    encryptPasswords();
    bool mustPersist = false;
    const auto changes = std::make_shared<const MoChanges>(diff(mustPersist));
    if (!changes->empty()) _store.publish(_working, changes, mustPersist);
    finish();
    return *changes;
  } catch (...) {
    finish();
    throw;
  }
}

void MoTransaction::abort() noexcept {
  if (_isActive) finish();
}

void MoTransaction::finish() noexcept {
  _isActive = false;
  if (std::exchange(_isWriter, false)) _store.unlockWriter();
  _draft.reset();
  _touchedOrder.clear();
  _touched.clear();
}

}  // namespace VelaNode
