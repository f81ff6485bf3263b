#include "cache/CritbitTree.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace vorlen {
namespace {

std::vector<std::string> prefixed(const CritbitTree<int>& t, const std::string& prefix, size_t stopAfter = SIZE_MAX) {
  std::vector<std::string> out;
  t.keysMatchingPrefix(prefix, [&](std::string_view k, bool& stop) {
    out.emplace_back(k);
    stop = out.size() >= stopAfter;
  });
  return out;
}

TEST(CritbitTreeTest, PrefixWalksAreOrderedBytewiseWithKeysBeforeTheirExtensions) {
  CritbitTree<int> t;
  for (const char* k : {"newt", "new", "news", "apple", "New", "ne", "zebra", "\xc3\xa9t\xc3\xa9"})
    t.setObject(std::make_shared<int>(1), k);
  EXPECT_EQ(prefixed(t, "new"), (std::vector<std::string>{"new", "news", "newt"}));
  EXPECT_EQ(prefixed(t, ""), (std::vector<std::string>{"New", "apple", "ne", "new", "news", "newt", "zebra",
                                                        "\xc3\xa9t\xc3\xa9"}));
  EXPECT_TRUE(prefixed(t, "newsy").empty());
  EXPECT_TRUE(prefixed(t, "q").empty());
  EXPECT_EQ(prefixed(t, "n", 1), (std::vector<std::string>{"ne"}));
  EXPECT_EQ(t.count(), 8u);
}

TEST(CritbitTreeTest, ReferencesAreTakenAndReleasedExactlyOnce) {
  CritbitTree<int> t;
  auto a = std::make_shared<int>(1), b = std::make_shared<int>(2);
  t.setObject(a, "k");
  EXPECT_EQ(a.use_count(), 2);
  t.setObject(a, "k");  // same object again: no extra reference
  EXPECT_EQ(a.use_count(), 2);
  t.setObject(b, "k");  // replaced: old released once
  EXPECT_EQ(a.use_count(), 1);
  EXPECT_EQ(*t.objectForKey("k"), 2);
  t.removeObjectForKey("absent");
  EXPECT_EQ(t.count(), 1u);
  t.removeObjectForKey("k");
  EXPECT_EQ(b.use_count(), 1);
  EXPECT_EQ(t.count(), 0u);
  EXPECT_TRUE(prefixed(t, "").empty());
  {
    CritbitTree<int> scoped;
    scoped.setObject(a, "x");
    scoped.setObject(b, "y");
  }
  EXPECT_EQ(a.use_count(), 1);
  EXPECT_EQ(b.use_count(), 1);
}

TEST(CritbitNodeLayerTest, ResultCodesOfTheCLayer) {
  critbit_tree t;
  int released = 0;
  static int* counter;
  counter = &released;
  t.value_release = [](void*) { ++*counter; };
  int v1 = 0, v2 = 0;
  EXPECT_EQ(critbit_insert(&t, "a", &v1, 1), 2);
  EXPECT_EQ(critbit_insert(&t, "a", &v1, 1), 0);  // exactly this value already
  EXPECT_EQ(critbit_insert(&t, "a", &v2, 0), 1);  // exists, not replaced
  void* out = nullptr;
  EXPECT_EQ(critbit_contains(&t, "a", &out), 1);
  EXPECT_EQ(out, &v1);
  EXPECT_EQ(released, 0);
  EXPECT_EQ(critbit_insert(&t, "a", &v2, 1), 1);
  EXPECT_EQ(released, 1);
  EXPECT_EQ(critbit_allprefixed(&t, "zz", [](const char*, void*) { return 0; }, nullptr), 1);
  EXPECT_EQ(critbit_allprefixed(&t, "", [](const char*, void*) { return 0; }, nullptr), 0);
  EXPECT_EQ(critbit_allprefixed(&t, "", [](const char*, void*) { return 7; }, nullptr), -1);
  EXPECT_EQ(critbit_delete(&t, "b"), 0);
  EXPECT_EQ(critbit_delete(&t, "a"), 1);
  EXPECT_EQ(released, 2);
  EXPECT_EQ(t.size, 0u);
  EXPECT_EQ(t.root.flag, 0u);
}

// Random operations against std::map as the oracle, with keys from a small alphabet so that prefixes,
// extensions and deep shared paths are frequent.
TEST(CritbitTreeTest, AgreesWithAnOrderedMapOracle) {
  std::mt19937 rng(12345);
  const std::string alphabet = "abAB\x01\xff";
  auto randomKey = [&] {
    std::string k;
    size_t len = rng() % 7;
    for (size_t i = 0; i < len; ++i) k.push_back(alphabet[rng() % alphabet.size()]);
    return k;
  };
  CritbitTree<int> tree;
  std::map<std::string, int> oracle;
  for (int step = 0; step < 20000; ++step) {
    std::string k = randomKey();
    switch (rng() % 4) {
      case 0:
      case 1: {
        int v = static_cast<int>(rng());
        tree.setObject(std::make_shared<int>(v), k);
        oracle[k] = v;
        break;
      }
      case 2:
        tree.removeObjectForKey(k);
        oracle.erase(k);
        break;
      case 3: {
        auto got = tree.objectForKey(k);
        auto it = oracle.find(k);
        ASSERT_EQ(bool(got), it != oracle.end()) << step;
        if (got) {
          ASSERT_EQ(*got, it->second);
        }
        std::vector<std::string> want;
        size_t stopAfter = 1 + rng() % 4;
        for (auto o = oracle.lower_bound(k); o != oracle.end() && o->first.compare(0, k.size(), k) == 0; ++o) {
          if (want.size() < stopAfter) want.push_back(o->first);
        }
        ASSERT_EQ(prefixed(tree, k, stopAfter), want) << step;
        break;
      }
    }
    ASSERT_EQ(tree.count(), oracle.size());
  }
}

}  // namespace
}  // namespace vorlen
