#include "cache/critbit.h"

// malloc returns blocks aligned for any scalar (16 bytes on this platform), which keeps the tag bit free.

#include <cstdlib>
#include <cstring>

namespace vorlen {

namespace {

using critbit_detail::direction;
using critbit_detail::internalOf;
using critbit_detail::isInternal;

inline critbit_node tagInternal(critbit_internal_node* p) {
  critbit_node n;
  n.flag = reinterpret_cast<uintptr_t>(p) + 1;
  return n;
}
inline void*& valueOf(void* external) {
  return *static_cast<void**>(external);
}
inline const uint8_t* keyOf(const void* external) {
  return static_cast<const uint8_t*>(external) + sizeof(void*);
}

void* closestExternal(critbit_node p, const uint8_t* key, size_t len) {
  while (isInternal(p)) p = internalOf(p)->child[direction(internalOf(p), key, len)];
  return p.external;
}

void release(const critbit_tree* t, void* value) {
  if (t->value_release) t->value_release(value);
}

void clearNode(critbit_tree* t, critbit_node p) {
  if (!p.flag) return;
  if (isInternal(p)) {
    critbit_internal_node* q = internalOf(p);
    clearNode(t, q->child[0]);
    clearNode(t, q->child[1]);
    std::free(q);
  } else {
    release(t, valueOf(p.external));
    std::free(p.external);
  }
}

}  // namespace

int critbit_contains(const critbit_tree* t, const char* key, void** value) {
  if (!t->root.flag) return 0;
  const uint8_t* k = reinterpret_cast<const uint8_t*>(key);
  size_t len = std::strlen(key);
  void* e = closestExternal(t->root, k, len);
  if (std::strcmp(key, reinterpret_cast<const char*>(keyOf(e))) != 0) return 0;
  if (value) *value = valueOf(e);
  return 1;
}

int critbit_insert(critbit_tree* t, const char* key, void* value, int replace) {
  const uint8_t* k = reinterpret_cast<const uint8_t*>(key);
  size_t len = std::strlen(key);

  if (!t->root.flag) {
    void* e = std::malloc(len + 9);
    if (!e) return 0;
    valueOf(e) = value;
    std::memcpy(static_cast<uint8_t*>(e) + sizeof(void*), key, len + 1);
    t->root.external = e;
    t->size = 1;
    return 2;
  }

  void* found = closestExternal(t->root, k, len);
  const uint8_t* stored = keyOf(found);
  // First differing byte, counting the terminators: a key that is a prefix of another differs at its end.
  uint32_t newbyte = 0;
  uint32_t newotherbits = 0;
  for (; newbyte < len; ++newbyte) {
    if (stored[newbyte] != k[newbyte]) {
      newotherbits = stored[newbyte] ^ k[newbyte];
      break;
    }
  }
  if (newbyte == len) {
    if (stored[newbyte] == 0) {
      void*& v = valueOf(found);
      if (v == value) return 0;
      if (!replace) return 1;
      release(t, v);
      v = value;
      return 1;
    }
    newotherbits = stored[newbyte];
  }
  newotherbits |= newotherbits >> 1;
  newotherbits |= newotherbits >> 2;
  newotherbits |= newotherbits >> 4;
  newotherbits = (newotherbits & ~(newotherbits >> 1)) ^ 255;
  uint8_t c = stored[newbyte];
  int newdirection = (1 + (newotherbits | c)) >> 8;

  // The internal node first, so a failure of either allocation leaves the tree untouched.
  auto* node = static_cast<critbit_internal_node*>(std::malloc(sizeof(critbit_internal_node)));
  if (!node) return 0;
  void* e = std::malloc(len + 9);
  if (!e) {
    std::free(node);
    return 0;
  }
  valueOf(e) = value;
  std::memcpy(static_cast<uint8_t*>(e) + sizeof(void*), key, len + 1);
  node->byte = newbyte;
  node->otherbits = static_cast<uint8_t>(newotherbits);
  node->child[1 - newdirection].external = e;

  critbit_node* where = &t->root;
  for (;;) {
    critbit_node p = *where;
    if (!isInternal(p)) break;
    critbit_internal_node* q = internalOf(p);
    if (q->byte > newbyte) break;
    if (q->byte == newbyte && q->otherbits > newotherbits) break;
    where = &q->child[direction(q, k, len)];
  }
  node->child[newdirection] = *where;
  *where = tagInternal(node);
  ++t->size;
  return 2;
}

int critbit_delete(critbit_tree* t, const char* key) {
  if (!t->root.flag) return 0;
  const uint8_t* k = reinterpret_cast<const uint8_t*>(key);
  size_t len = std::strlen(key);
  critbit_node* where = &t->root;
  critbit_node* whereq = nullptr;
  critbit_internal_node* q = nullptr;
  int dir = 0;
  while (isInternal(*where)) {
    whereq = where;
    q = internalOf(*where);
    dir = direction(q, k, len);
    where = &q->child[dir];
  }
  void* e = where->external;
  if (std::strcmp(key, reinterpret_cast<const char*>(keyOf(e))) != 0) return 0;
  release(t, valueOf(e));
  std::free(e);
  --t->size;
  if (!whereq) {
    t->root.flag = 0;
    return 1;
  }
  *whereq = q->child[1 - dir];
  std::free(q);
  return 1;
}

void critbit_clear(critbit_tree* t) {
  clearNode(t, t->root);
  t->root.flag = 0;
  t->size = 0;
}

int critbit_allprefixed(const critbit_tree* t, const char* prefix, int (*cb)(const char*, void*), void* ctx) {
  return critbit_walkprefixed(t, prefix, std::strlen(prefix), [cb, ctx](const char* key, size_t) {
    int r = cb(key, ctx);
    return r == 1 ? 1 : (r == 0 ? 0 : -1);
  });
}

}  // namespace vorlen
