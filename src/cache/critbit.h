// The node layer of the crit-bit tree: an ordered set of NUL-terminated byte strings, each mapped to one
// opaque value pointer.
//
// Layout is part of the contract (it is what makes the query cache cheap): each key costs one external
// block of key length + 9 bytes (the value pointer, the key bytes, a NUL) and one 24-byte internal node.
// Node references tag internal nodes with their lowest bit; every node is allocated 8-byte aligned.
//
// Threading: none. A tree is owned and used by one thread (or queue) at a time.
#pragma once

#include <cstdint>

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
int critbit_allprefixed(const critbit_tree* tree, const char* prefix, int (*callback)(const char* key, void* context),
                        void* context);

}  // namespace vorlen
