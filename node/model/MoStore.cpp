#include "model/MoStore.h"

#include <utility>

#include "model/MoAttribute.h"

namespace VelaNode {

namespace {

/** Positions of a credential's members in the schema. */
enum { CleartextMember = 0, PasswordMember = 1 };

bool isClearPassword(const VelaOamSpiMoAttribute_3T& attribute) {
  if (!attribute.isSet) return false;
  const VelaOamSpiMoMember_3T* const members = attribute.values[0].members;
  return members[CleartextMember].isSet && members[CleartextMember].value.i64 != 0 && members[PasswordMember].isSet;
}

}  // namespace

MoTree MoStore::getTree() const {
  const std::lock_guard lock(_mutex);
  return _tree;
}

bool MoStore::lockWriter(std::chrono::milliseconds timeout) {
  std::unique_lock lock(_writerMutex);
  if (!_writerFreed.wait_for(lock, timeout, [this] { return !_hasWriter; })) return false;
  _hasWriter = true;
  return true;
}

void MoStore::unlockWriter() {
  {
    const std::lock_guard lock(_writerMutex);
    _hasWriter = false;
  }
  _writerFreed.notify_one();
}

MoObjectPtr MoStore::encrypted(const MoObject& object) const {
  if (!_encryptor || !object.getClass().hasCredentials()) return nullptr;
  std::shared_ptr<MoObject> changed;
  const std::vector<MoAttributeDef>& definitions = object.getClass().getAttributes();
  for (std::size_t i = 0; i < definitions.size(); ++i) {
    const VelaOamSpiMoAttribute_3T& attribute = *object.getAttribute(i);
    if (!definitions[i].isCredential() || !isClearPassword(attribute)) continue;
    const VelaOamSpiMoMember_3T* const members = attribute.values[0].members;
    if (!changed) changed = std::make_shared<MoObject>(object);
    changed->setAttribute(
        i, makeAttribute(definitions[i], {MoValue::Members{{members[CleartextMember].name, false},
                                                           {members[PasswordMember].name,
                                                            _encryptor(members[PasswordMember].value.text)}}}));
  }
  return changed;
}

void MoStore::publish(const MoTree& tree, const std::shared_ptr<const MoChanges>& changes, bool mustPersist) {
  if (mustPersist && _persister) _persister(tree);
  MoTree published = tree;
  {
    const std::lock_guard lock(_mutex);
    std::swap(_tree, published);
  }
  if (_listener) _listener(changes);
}

bool MoStore::install(MoTree tree) {
  const MoTree given = tree;
  bool hasEncrypted = false;
  for (const MoFamily& roots : given.getRoot().families) {
    roots.members.forEach([&](const MoNode& root) {
      for (const MoObjectPtr& object : given.collect(root.object->getDn())) {
        if (MoObjectPtr changed = encrypted(*object)) {
          tree.put(std::move(changed));
          hasEncrypted = true;
        }
      }
      return true;
    });
  }
  const std::lock_guard lock(_mutex);
  std::swap(_tree, tree);
  return hasEncrypted;
}

}  // namespace VelaNode
