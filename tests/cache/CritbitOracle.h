// CritbitOracle: drives the crit-bit node layer and a std::map side by side and reports the first way in
// which they disagree: result codes, values, the value-release hook, prefix walks (order, early stop,
// result), size, and the shape invariants of the tree itself. Shared by the randomised test and the fuzz
// target, so every operation returns an empty string when all agrees, else a description of the fault.
//
// Keys are byte strings without NUL (the node layer's keys end at their first NUL; callers cut them there).
//
// Threading: one oracle per thread.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "cache/critbit.h"

namespace vorlen::test {

class CritbitOracle {
 public:
  CritbitOracle() { tree_.value_release = &release; }
  ~CritbitOracle() { critbit_clear(&tree_); }
  CritbitOracle(const CritbitOracle&) = delete;
  CritbitOracle& operator=(const CritbitOracle&) = delete;

  size_t size() const { return map_.size(); }
  const std::map<std::string, void*>& map() const { return map_; }

  // `sameValue`: insert the value the key already holds (when it holds one) rather than a new one.
  std::string insert(const std::string& key, bool replace, bool sameValue) {
    auto it = map_.find(key);
    Slot* value = (it != map_.end() && sameValue) ? static_cast<Slot*>(it->second) : newSlot();
    int want = it == map_.end() ? 2 : (it->second == value ? 0 : 1);
    int got = critbit_insert(&tree_, key.c_str(), value, replace ? 1 : 0);
    if (got != want)
      return fmt::format("insert '{}' replace {}: {} instead of {}", escaped(key), replace, got, want);
    if (want == 2) {
      map_.emplace(key, value);
    } else if (want == 1 && replace) {
      expectRelease(it->second);
      it->second = value;
    }
    return checkCounts("insert", key);
  }

  std::string remove(const std::string& key) {
    auto it = map_.find(key);
    int want = it == map_.end() ? 0 : 1;
    int got = critbit_delete(&tree_, key.c_str());
    if (got != want) return fmt::format("delete '{}': {} instead of {}", escaped(key), got, want);
    if (it != map_.end()) {
      expectRelease(it->second);
      map_.erase(it);
    }
    if (map_.empty() && tree_.root.flag != 0) return "empty tree keeps a root";
    return checkCounts("delete", key);
  }

  std::string contains(const std::string& key) const {
    auto it = map_.find(key);
    void* value = nullptr;
    int got = critbit_contains(&tree_, key.c_str(), &value);
    if (got != (it != map_.end() ? 1 : 0)) return fmt::format("contains '{}': {}", escaped(key), got);
    if (got && value != it->second) return fmt::format("contains '{}': wrong value", escaped(key));
    if (critbit_contains(&tree_, key.c_str(), nullptr) != got) return "contains without out-value differs";
    return {};
  }

  // Walks `prefix`, stopping after `stopAfter` keys (0: never) with result 0, or with another value when
  // `oddStop`, which must turn into -1.
  std::string prefixWalk(const std::string& prefix, size_t stopAfter, bool oddStop) const {
    std::vector<std::string> want;
    bool stops = false;
    for (auto it = map_.lower_bound(prefix);
         it != map_.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
      want.push_back(it->first);
      if (stopAfter && want.size() == stopAfter) {
        stops = true;
        break;
      }
    }
    Walk walk{{}, stopAfter, oddStop};
    int got = critbit_allprefixed(&tree_, prefix.c_str(), &Walk::visit, &walk);
    int wantResult = stops ? (oddStop ? -1 : 0) : 1;
    if (walk.keys != want)
      return fmt::format("walk '{}' (stop after {}): {} keys instead of {}", escaped(prefix), stopAfter,
                         walk.keys.size(), want.size());
    if (got != wantResult)
      return fmt::format("walk '{}': result {} instead of {}", escaped(prefix), got, wantResult);
    return {};
  }

  std::string clear() {
    for (auto& [key, value] : map_) expectRelease(value);
    map_.clear();
    critbit_clear(&tree_);
    if (tree_.root.flag != 0 || tree_.size != 0) return "clear left nodes";
    return checkCounts("clear", "");
  }

  // The shape of the whole tree: tag bits and alignment, critical bytes rising along every path (and
  // critical bits falling within one byte), every key on the side its critical bit says, keys below a
  // node agreeing before its byte, in-order leaves equal to the map, released values exactly once.
  std::string checkStructure() const {
    std::vector<std::string> leaves;
    if (tree_.root.flag) {
      std::string fault = checkNode(tree_.root, 0, 0, leaves);
      if (!fault.empty()) return fault;
    }
    std::vector<std::string> want;
    for (auto& [key, value] : map_) want.push_back(key);
    if (leaves != want)
      return fmt::format("in-order leaves ({}) differ from the map ({})", leaves.size(), want.size());
    for (const Slot& s : slots_) {
      if (s.releases != s.expectedReleases)
        return fmt::format("a value was released {} times instead of {}", s.releases, s.expectedReleases);
    }
    return {};
  }

 private:
  struct Slot {
    CritbitOracle* owner;
    int releases = 0;
    int expectedReleases = 0;
  };
  struct Walk {
    std::vector<std::string> keys;
    size_t stopAfter;
    bool oddStop;
    static int visit(const char* key, void* context) {
      auto* w = static_cast<Walk*>(context);
      w->keys.emplace_back(key);
      if (w->stopAfter && w->keys.size() == w->stopAfter) return w->oddStop ? 7 : 0;
      return 1;
    }
  };

  static void release(void* value) {
    auto* slot = static_cast<Slot*>(value);
    slot->releases++;
    slot->owner->releases_++;
  }
  void expectRelease(void* value) {
    static_cast<Slot*>(value)->expectedReleases++;
    expectedReleases_++;
  }
  Slot* newSlot() { return &slots_.emplace_back(Slot{this}); }

  static std::string escaped(const std::string& key) {
    std::string out;
    for (unsigned char c : key) {
      if (c >= 0x20 && c < 0x7f) {
        out.push_back(static_cast<char>(c));
      } else {
        out += fmt::format("\\x{:02x}", c);
      }
    }
    return out;
  }
  static uint8_t byteAt(const std::string& key, uint32_t i) {
    return i < key.size() ? static_cast<uint8_t>(key[i]) : 0;
  }

  std::string checkCounts(const char* op, const std::string& key) const {
    if (tree_.size != map_.size())
      return fmt::format("{} '{}': size {} instead of {}", op, escaped(key), tree_.size, map_.size());
    // Totals here; which value was released is checked value by value in checkStructure().
    if (releases_ != expectedReleases_)
      return fmt::format("{} '{}': {} releases instead of {}", op, escaped(key), releases_,
                         expectedReleases_);
    return {};
  }

  // Appends the node's keys in order; `minByte`/`maxOtherbits` are the bounds the parent sets.
  std::string checkNode(critbit_node n, uint32_t minByte, int parentOtherbits,
                        std::vector<std::string>& out) const {
    if (!(n.flag & 1)) {
      if (n.flag & 7) return "external node not 8-byte aligned";
      out.emplace_back(static_cast<const char*>(n.external) + sizeof(void*));
      return {};
    }
    auto* q = reinterpret_cast<const critbit_internal_node*>(n.flag - 1);
    if (reinterpret_cast<uintptr_t>(q) & 7) return "internal node not 8-byte aligned";
    uint8_t bit = static_cast<uint8_t>(~q->otherbits);
    if (bit == 0 || (bit & (bit - 1)) != 0)
      return fmt::format("otherbits {:#x} is not one cleared bit", q->otherbits);
    if (q->byte < minByte || (q->byte == minByte && q->otherbits <= parentOtherbits))
      return fmt::format("critical position does not advance (byte {} after {})", q->byte, minByte);
    size_t first = out.size();
    std::string fault = checkNode(q->child[0], q->byte, q->otherbits, out);
    if (!fault.empty()) return fault;
    size_t middle = out.size();
    fault = checkNode(q->child[1], q->byte, q->otherbits, out);
    if (!fault.empty()) return fault;
    if (middle == first || middle == out.size()) return "internal node with an empty side";
    for (size_t i = first; i < out.size(); ++i) {
      int side = (1 + (q->otherbits | byteAt(out[i], q->byte))) >> 8;
      if (side != (i < middle ? 0 : 1)) return fmt::format("key '{}' on the wrong side", escaped(out[i]));
      // The parent has checked the bytes before its own critical byte.
      for (uint32_t b = minByte; b < q->byte; ++b) {
        if (byteAt(out[i], b) != byteAt(out[first], b))
          return fmt::format("keys below byte {} differ earlier, at {}", q->byte, b);
      }
    }
    return {};
  }

  critbit_tree tree_;
  std::map<std::string, void*> map_;
  std::deque<Slot> slots_;  // stable addresses: the values handed to the tree
  uint64_t releases_ = 0;
  uint64_t expectedReleases_ = 0;
};

}  // namespace vorlen::test
