#include "model/MoTree.h"

#include <algorithm>

#include "VelaException.h"

namespace VelaNode {

namespace {

using Families = std::vector<MoFamily>;

/** Where the family of a class stands, or would stand: families are in the order of the class names. */
template <class Range>
auto position(Range& families, const MoClass& moClass) {
  return std::ranges::lower_bound(families, moClass.getRank(), {},
                                  [](const MoFamily& family) { return family.moClass->getRank(); });
}

/** The node with an object put at the end of the path that starts at a depth below it. */
MoNode withObject(const MoNode& node, const MoDn& path, std::size_t depth, MoObjectPtr object) {
  const MoDn::Step& step = path[depth];
  const MoFamily* const family = node.findFamily(*step.moClass);
  const MoNode* const old = family == nullptr ? nullptr : family->members.find(step.name);
  const bool isLast = depth + 1 == path.size();
  if (old == nullptr && !isLast) throw Vela::VelaException(VELA_NOT_FOUND, "The object above does not exist");

  MoNode child;
  if (isLast) {
    child.object = std::move(object);
    if (old != nullptr) child.families = old->families;
  } else {
    child = withObject(*old, path, depth + 1, std::move(object));
  }

  MoNode changed = node;
  auto place = position(changed.families, *step.moClass);
  if (place == changed.families.end() || place->moClass != step.moClass) {
    place = changed.families.insert(place, MoFamily{step.moClass, {}});
  }
  place->members.put(std::move(child));
  return changed;
}

/** The node without the object at the end of the path, which exists. */
MoNode withoutObject(const MoNode& node, const MoDn& path, std::size_t depth) {
  const MoDn::Step& step = path[depth];
  MoNode changed = node;
  const auto family = position(changed.families, *step.moClass);
  if (depth + 1 < path.size()) {
    family->members.put(withoutObject(*family->members.find(step.name), path, depth + 1));
  } else {
    family->members.erase(step.name);
    if (family->members.isEmpty()) changed.families.erase(family);
  }
  return changed;
}

void collectFrom(const MoNode& node, std::vector<MoObjectPtr>& objects) {
  for (const MoFamily& family : node.families) {
    family.members.forEach([&objects](const MoNode& child) {
      collectFrom(child, objects);
      return true;
    });
  }
  objects.push_back(node.object);
}

}  // namespace

const MoFamily* MoNode::findFamily(const MoClass& moClass) const {
  const auto found = position(families, moClass);
  return found == families.end() || found->moClass != &moClass ? nullptr : &*found;
}

MoTree::MoTree() : _root(std::make_shared<const MoNode>()) {}

const MoNode* MoTree::findNode(std::string_view dn) const {
  if (dn.empty()) return _root.get();
  MoDn path;
  if (!path.parse(dn)) return nullptr;
  const MoNode* node = _root.get();
  for (std::size_t i = 0; i < path.size() && node != nullptr; ++i) {
    const MoFamily* const family = node->findFamily(*path[i].moClass);
    node = family == nullptr ? nullptr : family->members.find(path[i].name);
  }
  return node;
}

MoObjectPtr MoTree::find(std::string_view dn) const {
  const MoNode* const node = findNode(dn);
  return node == nullptr ? nullptr : node->object;
}

bool MoTree::traverse(std::string_view parentDn, const MoClass* moClass, const Visitor& visitor) const {
  const std::shared_ptr<const MoNode> keptAlive = _root;
  const MoNode* const parent = findNode(parentDn);
  if (parent == nullptr) return false;
  const auto visitMember = [&visitor](const MoNode& node) { return visitor(node.object); };
  for (const MoFamily& family : parent->families) {
    if (moClass != nullptr && family.moClass != moClass) continue;
    if (!family.members.forEach(visitMember)) break;
  }
  return true;
}

MoObjectPtr MoTree::findFirst(std::string_view classPath) const {
  const MoNode* node = _root.get();
  while (node != nullptr) {
    const std::size_t comma = classPath.find(',');
    const MoClass* const moClass = ModelSchema::findClass(classPath.substr(0, comma));
    const MoFamily* const family = moClass == nullptr ? nullptr : node->findFamily(*moClass);
    node = family == nullptr ? nullptr : family->members.first();
    if (node == nullptr || comma == std::string_view::npos) break;
    classPath.remove_prefix(comma + 1);
  }
  return node == nullptr ? nullptr : node->object;
}

std::vector<MoObjectPtr> MoTree::collect(std::string_view dn) const {
  std::vector<MoObjectPtr> objects;
  const MoNode* const node = findNode(dn);
  if (node != nullptr && node->object) collectFrom(*node, objects);
  return objects;
}

void MoTree::put(MoObjectPtr object) {
  MoDn path;
  std::string reason;
  if (!path.parse(object->getDn(), &reason)) throw Vela::VelaException(VELA_INVALID, "%s", reason.c_str());
  // The path refers to the DN's text, so the object stays while it is in use.
  const MoObjectPtr keptAlive = object;
  _root = std::make_shared<const MoNode>(withObject(*_root, path, 0, std::move(object)));
}

void MoTree::erase(std::string_view dn) {
  const MoObjectPtr object = find(dn);
  if (!object) return;
  MoDn path;
  path.parse(object->getDn());
  _root = std::make_shared<const MoNode>(withoutObject(*_root, path, 0));
}

}  // namespace VelaNode
