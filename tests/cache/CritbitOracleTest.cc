// The crit-bit tree against std::map: random operations from fixed seeds, with keys drawn so that shared
// prefixes, keys that extend each other, high-bit bytes and long deep paths are all common.
#include <gtest/gtest.h>

#include <random>

#include "cache/CritbitOracle.h"
#include "cache/CritbitTree.h"

namespace vorlen {
namespace {

class KeySource {
 public:
  explicit KeySource(uint32_t seed) : rng_(seed) {}

  std::string key() {
    switch (rng_() % 8) {
      case 0:  // query-like
        return std::string(kWords[rng_() % std::size(kWords)]) + (rng_() % 2 ? " " : "") +
               kWords[rng_() % std::size(kWords)];
      case 1: {  // long, sharing a long stem, so paths get deep
        std::string k(100 + rng_() % 200, 'q');
        k += narrow(1 + rng_() % 4);
        return k;
      }
      default:
        return narrow(rng_() % 9);
    }
  }
  // A prefix of a known key, a fresh key, or nothing at all.
  std::string prefix(const std::map<std::string, void*>& known) {
    if (!known.empty() && rng_() % 2) {
      auto it = known.begin();
      std::advance(it, rng_() % std::min<size_t>(known.size(), 64));
      return it->first.substr(0, rng_() % (it->first.size() + 1));
    }
    return rng_() % 8 ? key().substr(0, rng_() % 4) : std::string();
  }
  uint32_t next() { return rng_(); }

 private:
  // Bytes on both sides of 0x80 and next to the terminator, so every critical bit position occurs.
  std::string narrow(size_t len) {
    static const char kAlphabet[] = {'a', 'b', 'c', '\x01', '\x7f', '\x80', '\xc3', '\xff'};
    std::string k;
    for (size_t i = 0; i < len; ++i) k.push_back(kAlphabet[rng_() % std::size(kAlphabet)]);
    return k;
  }
  static constexpr const char* kWords[] = {"new",         "news",        "new york", "newt", "weather", "we",
                                           "caf\xc3\xa9", "Caf\xc3\xa9", "a",        "ab",   ""};
  std::mt19937 rng_;
};

TEST(CritbitOracleTest, NodeLayerAgreesWithAnOrderedMap) {
  for (uint32_t seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    KeySource keys(seed);
    test::CritbitOracle oracle;
    for (int step = 0; step < 4000; ++step) {
      std::string fault;
      uint32_t op = keys.next() % 100;
      if (op < 40) {
        uint32_t flags = keys.next();
        fault = oracle.insert(keys.key(), flags & 1, flags & 2);
      } else if (op < 60) {
        fault = oracle.remove(keys.key());
      } else if (op < 75) {
        fault = oracle.contains(keys.key());
      } else if (op < 99) {
        uint32_t stop = keys.next() % 6;  // 0: walk to the end
        fault = oracle.prefixWalk(keys.prefix(oracle.map()), stop, keys.next() % 4 == 0);
      } else if (keys.next() % 8 == 0) {
        fault = oracle.clear();
      }
      ASSERT_EQ(fault, "") << "step " << step;
      if (step % 200 == 0) {
        ASSERT_EQ(oracle.checkStructure(), "") << "step " << step;
      }
    }
    ASSERT_EQ(oracle.checkStructure(), "");
    ASSERT_EQ(oracle.prefixWalk("", 0, false), "");
    ASSERT_EQ(oracle.clear(), "");
    ASSERT_EQ(oracle.checkStructure(), "");
  }
}

// Chains where each key extends the previous one, on either side of the terminator: thousands of levels,
// which in-order walks, deletes and clears must get through.
TEST(CritbitOracleTest, DeepChainsOfExtendingKeys) {
  test::CritbitOracle oracle;
  // 1,500 levels: the tree itself walks them in loops, but the oracle's structure check recurses once per
  // level, and deeper would overflow the stack of a sanitizer build.
  for (size_t n = 1; n <= 500; ++n) {
    ASSERT_EQ(oracle.insert(std::string(n, 'a'), true, false), "");
    ASSERT_EQ(oracle.insert(std::string(n, 'a') + "z", true, false), "");
    ASSERT_EQ(oracle.insert(std::string(n, 'a') + "\x01", true, false), "");
  }
  ASSERT_EQ(oracle.checkStructure(), "");
  ASSERT_EQ(oracle.prefixWalk("aaa", 0, false), "");
  ASSERT_EQ(oracle.prefixWalk(std::string(450, 'a'), 7, false), "");
  for (size_t n = 1; n <= 500; n += 3) ASSERT_EQ(oracle.remove(std::string(n, 'a') + "z"), "");
  ASSERT_EQ(oracle.checkStructure(), "");
  ASSERT_EQ(oracle.clear(), "");
}

// The class layer: the same walks through string keys, and one reference held per stored object.
TEST(CritbitOracleTest, ClassLayerKeepsExactlyOneReferencePerStoredObject) {
  KeySource keys(99);
  CritbitTree<int> tree;
  std::map<std::string, std::shared_ptr<int>> oracle;
  std::vector<std::shared_ptr<int>> dropped;  // objects the tree let go of: only we hold them
  for (int step = 0; step < 5000; ++step) {
    std::string k = keys.key();
    auto it = oracle.find(k);
    switch (keys.next() % 4) {
      case 0:
      case 1: {
        if (it != oracle.end() && keys.next() % 3 == 0) {
          tree.setObject(it->second, k);  // the object it holds already
        } else {
          auto object = std::make_shared<int>(step);
          tree.setObject(object, k);
          if (it != oracle.end()) {
            dropped.push_back(std::exchange(it->second, object));
          } else {
            oracle.emplace(k, object);
          }
        }
        break;
      }
      case 2:
        tree.removeObjectForKey(k);
        if (it != oracle.end()) {
          dropped.push_back(it->second);
          oracle.erase(it);
        }
        break;
      case 3: {
        ASSERT_EQ(tree.objectForKey(k), it == oracle.end() ? nullptr : it->second);
        std::string prefix = k.substr(0, keys.next() % (k.size() + 1));
        size_t stopAfter = 1 + keys.next() % 5;
        std::vector<std::string> got, want;
        tree.keysMatchingPrefix(prefix, [&](std::string_view key, bool& stop) {
          got.emplace_back(key);
          stop = got.size() == stopAfter;
        });
        for (auto o = oracle.lower_bound(prefix);
             o != oracle.end() && o->first.compare(0, prefix.size(), prefix) == 0 && want.size() < stopAfter;
             ++o)
          want.push_back(o->first);
        ASSERT_EQ(got, want) << step;
        break;
      }
    }
    ASSERT_EQ(tree.count(), oracle.size());
  }
  for (auto& [key, object] : oracle) ASSERT_EQ(object.use_count(), 2) << key;
  for (auto& object : dropped) ASSERT_EQ(object.use_count(), 1);
  tree.removeAllObjects();
  for (auto& [key, object] : oracle) ASSERT_EQ(object.use_count(), 1) << key;
}

}  // namespace
}  // namespace vorlen
