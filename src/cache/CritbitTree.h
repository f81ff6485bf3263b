// CritbitTree: an ordered map from text keys to shared objects over the crit-bit node layer, built for
// cheap in-order enumeration of every key that begins with a prefix (what the user has typed so far).
// Keys compare byte-wise on UTF-8 (so "B" < "a"), a key before its own extensions. Keys must not contain
// NUL bytes (a key is cut at its first NUL).
//
// The tree holds one reference to each stored object and drops it when the object is replaced, removed
// or cleared, or when the tree goes away.
//
// Threading: none; owned and used by one queue.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "cache/critbit.h"

namespace vorlen {

template <class T>
class CritbitTree {
 public:
  CritbitTree() { tree_.value_release = &releaseBox; }
  ~CritbitTree() { critbit_clear(&tree_); }
  CritbitTree(const CritbitTree&) = delete;
  CritbitTree& operator=(const CritbitTree&) = delete;

  // Inserts or replaces. Setting the object a key already holds changes nothing.
  void setObject(std::shared_ptr<T> object, const std::string& key) {
    void* existing = nullptr;
    if (critbit_contains(&tree_, key.c_str(), &existing) &&
        static_cast<Box*>(existing)->get() == object.get())
      return;
    auto* box = new Box(std::move(object));
    int r = critbit_insert(&tree_, key.c_str(), box, 1);
    if (r != 1 && r != 2) delete box;  // not taken (allocation failure)
  }

  std::shared_ptr<T> objectForKey(const std::string& key) const {
    void* v = nullptr;
    return critbit_contains(&tree_, key.c_str(), &v) ? *static_cast<Box*>(v) : nullptr;
  }

  void removeObjectForKey(const std::string& key) { critbit_delete(&tree_, key.c_str()); }
  void removeAllObjects() { critbit_clear(&tree_); }
  uint64_t count() const { return tree_.size; }

  // Calls block(key, stop) for each key beginning with `prefix`, ascending; setting stop ends the walk.
  // The key views the tree's own bytes and is valid only during the call. `block` is any callable taking
  // (std::string_view, bool&); it is called inline, without a type-erased hop per key.
  template <class Block>
  void keysMatchingPrefix(const std::string& prefix, Block&& block) const {
    // A prefix is cut at its first NUL, as keys are.
    critbit_walkprefixed(&tree_, prefix.c_str(), std::strlen(prefix.c_str()),
                         [&block](const char* key, size_t len) {
                           bool stop = false;
                           block(std::string_view(key, len), stop);
                           return stop ? 0 : 1;
                         });
  }

  // As keysMatchingPrefix(), with each key's object: block(key, object, stop).
  template <class Block>
  void objectsMatchingPrefix(const std::string& prefix, Block&& block) const {
    critbit_walkprefixed(
        &tree_, prefix.c_str(), std::strlen(prefix.c_str()), [&block](const char* key, size_t len) {
          bool stop = false;
          block(std::string_view(key, len), *static_cast<const Box*>(critbit_value_of_walked_key(key)), stop);
          return stop ? 0 : 1;
        });
  }

 private:
  using Box = std::shared_ptr<T>;
  static void releaseBox(void* v) { delete static_cast<Box*>(v); }
  critbit_tree tree_;
};

}  // namespace vorlen
