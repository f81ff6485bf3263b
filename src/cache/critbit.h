// The node layer of the crit-bit tree: an ordered set of NUL-terminated byte strings, each mapped to one
// opaque value pointer.
//
// Layout is part of the contract (it is what makes the query cache cheap): each key costs one external
// block of key length + 9 bytes (the value pointer, the key bytes, a NUL) and one 24-byte internal node.
// Node references tag internal nodes with their lowest bit; every node is allocated 8-byte aligned.
//
// Threading: none. A tree is owned and used by one thread (or queue) at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vorlen {

struct critbit_internal_node;

// A node reference: an external block (tag bit clear) or an internal node (tag bit set); null when empty.
union critbit_node {
  uintptr_t flag;
  critbit_internal_node* internal;
  void* external;
};

struct critbit_internal_node {
  critbit_node child[2];
  uint32_t byte;      // index of the first byte at which the keys below differ
  uint8_t otherbits;  // every bit set except the critical one
};
static_assert(sizeof(critbit_internal_node) == 24, "internal nodes are 24 bytes");

struct critbit_tree {
  critbit_node root{};
  uint64_t size = 0;
  void (*value_release)(void* value) = nullptr;  // called when the tree lets go of a value; may be null
};

// 1 and *value when present, else 0. `value` may be null.
int critbit_contains(const critbit_tree* tree, const char* key, void** value);
// 2 when added; 1 when the key existed (value replaced after releasing the old one when `replace`, else
// untouched); 0 when the key already held exactly this value, or on allocation failure (nothing changed).
int critbit_insert(critbit_tree* tree, const char* key, void* value, int replace);
// 1 when removed (its value released), 0 when absent.
int critbit_delete(critbit_tree* tree, const char* key);
// Releases every value, frees every node; size becomes 0.
void critbit_clear(critbit_tree* tree);
// Calls callback(key, context) for each key beginning with `prefix`, ascending. The callback returns 1 to
// go on, 0 to stop. Result: 1 when the walk finished (also with no match), 0 when stopped, -1 for any
// other callback result. The key passed points into the tree and is valid only during the call.
int critbit_allprefixed(const critbit_tree* tree, const char* prefix,
                        int (*callback)(const char* key, void* context), void* context);

// The walk behind critbit_allprefixed, for callers that can take the visitor inline: calls
// visit(key, keyLength) for each key beginning with the first `len` bytes of `prefix`, ascending, with the
// key's length already known. visit returns 1 to go on; any other value ends the walk and is the result.
// Result 1 when the walk finished (also with no match). `prefix` must not hold a NUL in its first `len`
// bytes.
template <class Visit>
int critbit_walkprefixed(const critbit_tree* tree, const char* prefix, size_t len, Visit&& visit);

// The value stored with a key, given the key bytes that a walk hands to its visitor (they sit right after
// the value pointer in the key's block), so a walk needs no second descent to read values.
inline void* critbit_value_of_walked_key(const char* key) {
  void* value;
  std::memcpy(&value, key - sizeof(void*), sizeof value);
  return value;
}

// ---- implementation of the inline walk ----

namespace critbit_detail {

inline bool isInternal(critbit_node n) {
  return n.flag & 1;
}
inline critbit_internal_node* internalOf(critbit_node n) {
  return reinterpret_cast<critbit_internal_node*>(n.flag - 1);
}
inline const void* addressOf(critbit_node n) {
  return reinterpret_cast<const void*>(n.flag & ~uintptr_t{1});
}
// External block: [void* value][key bytes][NUL].
inline const char* keyOf(const void* external) {
  return static_cast<const char*>(external) + sizeof(void*);
}

inline int direction(const critbit_internal_node* q, const uint8_t* key, size_t len) {
  uint8_t c = q->byte < len ? key[q->byte] : 0;
  return (1 + (q->otherbits | c)) >> 8;
}

// A subtree still to walk, with the critical byte of the node it hangs from. Every key below a node whose
// critical byte is b is at least b bytes long (two keys that agree on their first b bytes and differ at byte
// b cannot both end before b), so the key length is counted from there rather than from the start.
struct PendingSubtree {
  critbit_node node;
  size_t knownLength;
};

// In-order walk of one subtree with an explicit stack: descend child 0, keep child 1 for later and prefetch
// it, so its cache miss overlaps the walk of the left side. The stack holds pending right subtrees only; a
// deeper left spine than it can hold (adversarial keys only) continues in a nested call with its own stack.
// `checkPrefix` is set until the first key has been seen: all keys of the subtree agree on the first `len`
// bytes, so the first key decides whether any key matches.
template <class Visit>
int walkSubtree(critbit_node root, size_t knownLength, const char* prefix, size_t len, bool& checkPrefix,
                Visit& visit) {
  constexpr size_t kStackDepth = 64;
  PendingSubtree stack[kStackDepth];
  size_t depth = 0;
  critbit_node p = root;
  for (;;) {
    while (isInternal(p)) {
      const critbit_internal_node* q = internalOf(p);
      const size_t byte = q->byte;
      if (depth == kStackDepth) {
        int r = walkSubtree(q->child[0], byte, prefix, len, checkPrefix, visit);
        if (r != 1) return r;
      } else {
        __builtin_prefetch(addressOf(q->child[1]));
        stack[depth++] = PendingSubtree{q->child[1], byte};
        p = q->child[0];
        knownLength = byte;
        continue;
      }
      p = q->child[1];
      knownLength = byte;
    }
    const char* key = keyOf(p.external);
    if (checkPrefix) {
      // strncmp stops at the stored key's NUL, so a key shorter than the prefix is never over-read.
      if (std::strncmp(key, prefix, len) != 0) return 1;
      checkPrefix = false;
    }
    size_t keyLength = knownLength;
    while (key[keyLength]) ++keyLength;
    int r = visit(key, keyLength);
    if (r != 1) return r;
    if (depth == 0) return 1;
    const PendingSubtree& next = stack[--depth];
    p = next.node;
    knownLength = next.knownLength;
  }
}

}  // namespace critbit_detail

template <class Visit>
int critbit_walkprefixed(const critbit_tree* tree, const char* prefix, size_t len, Visit&& visit) {
  using namespace critbit_detail;
  if (!tree->root.flag) return 1;
  const uint8_t* k = reinterpret_cast<const uint8_t*>(prefix);
  // Descend while the critical byte lies inside the prefix. Critical bytes never decrease along a path, so
  // the first node whose byte is at or past the prefix length (or the leaf reached) roots the subtree of
  // every key that agrees with the prefix on its first `len` bytes, if any does.
  critbit_node p = tree->root;
  size_t knownLength = 0;
  while (isInternal(p)) {
    const critbit_internal_node* q = internalOf(p);
    if (q->byte >= len) break;
    knownLength = q->byte;
    p = q->child[direction(q, k, len)];
  }
  bool checkPrefix = true;
  return walkSubtree(p, knownLength, prefix, len, checkPrefix, visit);
}

}  // namespace vorlen
