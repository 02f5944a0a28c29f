#ifndef VELA_NODE_PERSISTENT_MAP_H
#define VELA_NODE_PERSISTENT_MAP_H

#include <algorithm>
#include <compare>
#include <cstddef>
#include <memory>
#include <utility>

namespace VelaNode {

/**
 * An ordered map whose copies share their content: copying costs one reference, changing a copy costs the logarithm of
 * its size and leaves the other copies as they were. A value carries its key: `Key Value::key() const`, which may refer
 * into the value. A map that nobody changes may be read from any thread.
 *
 * It is an AVL tree of immutable nodes; a change makes new nodes along the path from the root.
 */
template <class Key, class Value>
class PersistentMap {
 public:
  bool isEmpty() const { return !_root; }
  std::size_t getSize() const { return sizeOf(_root); }

  /** Null if there is none. Valid as long as a map that shares the value lives. */
  const Value* find(const Key& key) const {
    const Node* node = _root.get();
    while (node != nullptr) {
      const auto order = key <=> node->value.key();
      if (std::is_eq(order)) return &node->value;
      node = std::is_lt(order) ? node->left.get() : node->right.get();
    }
    return nullptr;
  }

  /** The least one, or null. */
  const Value* first() const {
    const Node* node = _root.get();
    while (node != nullptr && node->left) node = node->left.get();
    return node == nullptr ? nullptr : &node->value;
  }

  /** The least one above a key, or null. */
  const Value* next(const Key& key) const {
    const Value* found = nullptr;
    const Node* node = _root.get();
    while (node != nullptr) {
      const bool isAbove = std::is_lt(key <=> node->value.key());
      if (isAbove) found = &node->value;
      node = isAbove ? node->left.get() : node->right.get();
    }
    return found;
  }

  /** Visits all values in order, until the visitor returns false; false then. */
  template <class Visitor>
  bool forEach(Visitor&& visitor) const {
    return walk(_root.get(), visitor);
  }

  /** Adds a value or replaces the one with its key. */
  void put(Value value) { _root = inserted(_root, std::move(value)); }
  /** Takes a value out; nothing happens if there is none. */
  void erase(const Key& key) {
    if (find(key) != nullptr) _root = erased(_root, key);
  }

 private:
  struct Node;
  using Link = std::shared_ptr<const Node>;
  struct Node {
    Value value;
    Link left;
    Link right;
    int height;
    std::size_t size;
  };

  static int heightOf(const Link& link) { return link ? link->height : 0; }
  static std::size_t sizeOf(const Link& link) { return link ? link->size : 0; }

  static Link make(Value value, Link left, Link right) {
    const int height = 1 + std::max(heightOf(left), heightOf(right));
    const std::size_t size = 1 + sizeOf(left) + sizeOf(right);
    return std::make_shared<const Node>(Node{std::move(value), std::move(left), std::move(right), height, size});
  }

  /** As make, for subtrees whose heights differ by at most two. */
  static Link balanced(Value value, Link left, Link right) {
    if (heightOf(left) > heightOf(right) + 1) {
      if (heightOf(left->left) >= heightOf(left->right)) {
        return make(left->value, left->left, make(std::move(value), left->right, std::move(right)));
      }
      const Node& middle = *left->right;
      return make(middle.value, make(left->value, left->left, middle.left),
                  make(std::move(value), middle.right, std::move(right)));
    }
    if (heightOf(right) > heightOf(left) + 1) {
      if (heightOf(right->right) >= heightOf(right->left)) {
        return make(right->value, make(std::move(value), std::move(left), right->left), right->right);
      }
      const Node& middle = *right->left;
      return make(middle.value, make(std::move(value), std::move(left), middle.left),
                  make(right->value, middle.right, right->right));
    }
    return make(std::move(value), std::move(left), std::move(right));
  }

  static Link inserted(const Link& link, Value value) {
    if (!link) return make(std::move(value), nullptr, nullptr);
    const auto order = value.key() <=> link->value.key();
    if (std::is_eq(order)) return make(std::move(value), link->left, link->right);
    if (std::is_lt(order)) return balanced(link->value, inserted(link->left, std::move(value)), link->right);
    return balanced(link->value, link->left, inserted(link->right, std::move(value)));
  }

  static Link erased(const Link& link, const Key& key) {
    const auto order = key <=> link->value.key();
    if (std::is_lt(order)) return balanced(link->value, erased(link->left, key), link->right);
    if (std::is_gt(order)) return balanced(link->value, link->left, erased(link->right, key));
    if (!link->left) return link->right;
    if (!link->right) return link->left;
    const Node* next = link->right.get();
    while (next->left) next = next->left.get();
    return balanced(next->value, link->left, erased(link->right, next->value.key()));
  }

  template <class Visitor>
  static bool walk(const Node* node, Visitor& visitor) {
    if (node == nullptr) return true;
    return walk(node->left.get(), visitor) && visitor(node->value) && walk(node->right.get(), visitor);
  }

  Link _root;
};

}  // namespace VelaNode
#endif
