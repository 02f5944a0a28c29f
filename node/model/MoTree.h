#ifndef VELA_NODE_MO_TREE_H
#define VELA_NODE_MO_TREE_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/MoObject.h"
#include "support/PersistentMap.h"

namespace VelaNode {

struct MoFamily;

/** An object and what stands below it, by class. */
struct MoNode {
  MoObjectPtr object; /**< null in the node above the roots */
  std::vector<MoFamily> families;

  const MoFamily* findFamily(const MoClass& moClass) const;
  MoName key() const { return object->getName(); }
};

/** The objects of one class below one object, in their order. */
struct MoFamily {
  const MoClass* moClass;
  PersistentMap<MoName, MoNode> members;
};

/**
 * The whole model at one moment. Copying a tree costs one reference; changing a copy leaves every other copy as it was
 * and costs no more than the logarithm of the number of objects.
 */
class MoTree {
 public:
  /** Returns false to end the walk. */
  using Visitor = std::function<bool(const MoObjectPtr& object)>;

  MoTree();

  /** Null when there is no such object. */
  MoObjectPtr find(std::string_view dn) const;
  /** The direct children of an object in order, or those of one class; parent "": the roots. False when the parent
      does not exist. */
  bool traverse(std::string_view parentDn, const MoClass* moClass, const Visitor& visitor) const;
  /** First instance of a class path ("ManagedElement,SystemFunctions"; each step the first by name), or null. */
  MoObjectPtr findFirst(std::string_view classPath) const;
  /** An object and all below it, children before their parent. Nothing when there is no such object. */
  std::vector<MoObjectPtr> collect(std::string_view dn) const;
  const MoNode& getRoot() const { return *_root; }

  /** Adds an object or replaces its version; the parent must exist. */
  void put(MoObjectPtr object);
  /** Takes an object out, with all below it. */
  void erase(std::string_view dn);

 private:
  const MoNode* findNode(std::string_view dn) const;

  std::shared_ptr<const MoNode> _root;
};

}  // namespace VelaNode
#endif
