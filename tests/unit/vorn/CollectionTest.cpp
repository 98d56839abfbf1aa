// The keyed collection: map behaviour, and walks that survive changes made while they run.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/String.h"

using Vorn::Collection;
using Vorn::String;

namespace {

std::vector<uint32_t> keysInOrder(Collection<uint32_t, int> const & c) {
  std::vector<uint32_t> keys;
  for (auto const & e : c) keys.push_back(e.key);
  return keys;
}

TEST(Collection, BehavesAsAMap) {
  Collection<String, int> c;
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(c.find("a"), nullptr);
  EXPECT_EQ(c.get("a"), 0);  // zero value when absent

  EXPECT_TRUE(c.set("a", 1));
  EXPECT_FALSE(c.set("a", 1));  // same value: nothing changes
  EXPECT_TRUE(c.set("a", 2));
  EXPECT_EQ(c.get("a"), 2);
  EXPECT_EQ(c.size(), 1u);

  EXPECT_TRUE(c.del("a"));
  EXPECT_FALSE(c.del("a"));
  EXPECT_TRUE(c.empty());
}

TEST(Collection, AgreesWithAReferenceMapUnderRandomChanges) {
  Collection<uint32_t, int> c;
  std::map<uint32_t, int> ref;
  uint32_t seed = 12345;
  auto next = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int i = 0; i < 20000; ++i) {
    uint32_t key = (next() >> 8) % 3000;
    if (next() % 3 == 0) {
      EXPECT_EQ(c.del(key), ref.erase(key) == 1);
    } else {
      int v = static_cast<int>(next() % 5);
      bool changed = ref.count(key) == 0 || ref[key] != v;
      ref[key] = v;
      EXPECT_EQ(c.set(key, v), changed);
    }
  }
  ASSERT_EQ(c.size(), ref.size());
  std::map<uint32_t, int> walked;
  for (auto const & e : c) walked.emplace(e.key, e.value);
  EXPECT_EQ(walked, ref);
  for (auto const & [k, v] : ref) EXPECT_EQ(c.get(k), v);
}

TEST(Collection, GrowingNeverReordersExistingEntries) {
  Collection<uint32_t, int> c;
  for (uint32_t k = 0; k < 10; ++k) c.set(k * 7919, 1);
  auto before = keysInOrder(c);
  for (uint32_t k = 100000; k < 105000; ++k) c.set(k, 1);  // many doublings of the table
  auto after = keysInOrder(c);
  std::vector<uint32_t> firstTen;
  for (uint32_t k : after) {
    if (std::find(before.begin(), before.end(), k) != before.end()) firstTen.push_back(k);
  }
  EXPECT_EQ(firstTen, before);
}

// Keys inserted in another collection's walk order (each beyond the last) and in the reverse order.
TEST(Collection, CopiesInWalkOrderOrReverseKeepOrderAndLookups) {
  Collection<uint32_t, int> source;
  for (uint32_t k = 0; k < 3000; ++k) source.set(k * 2654435761u, 1);
  std::vector<uint32_t> const order = keysInOrder(source);
  Collection<uint32_t, int> forward, backward;
  for (uint32_t k : order) forward.set(k, 1);
  for (auto k = order.rbegin(); k != order.rend(); ++k) backward.set(*k, 1);
  EXPECT_EQ(keysInOrder(forward), order);
  EXPECT_EQ(keysInOrder(backward), order);
  for (uint32_t k : order) EXPECT_TRUE(forward.contains(k) && backward.contains(k)) << k;
}

// Deleted nodes serve later inserts, also those made during a walk, up to the collection's high-water
// mark; a node under a walk's cursor is kept until the cursor moves on.
TEST(Collection, DeletedNodesServeLaterInserts) {
  Collection<uint32_t, int> c;
  for (uint32_t k = 0; k < 64; ++k) c.set(k, 0);
  while (uint32_t const * k = c.anyKey()) c.del(*k);
  std::vector<size_t> spares = {c.spareNodes()};
  for (uint32_t k = 0; k < 60; ++k) c.set(1000 + k, 0);
  spares.push_back(c.spareNodes());
  for (auto const & e : c) {
    c.del(e.key);  // pinned: not a spare yet
    spares.push_back(c.spareNodes());
    c.set(e.key + 100000, 1);
    break;
  }
  spares.push_back(c.spareNodes());
  for (uint32_t k = 0; k < 1000; ++k) c.set(k, 0);
  while (uint32_t const * k = c.anyKey()) c.del(*k);
  spares.push_back(c.spareNodes());
  EXPECT_EQ(spares, (std::vector<size_t>{64, 4, 4, 4, 1060}));
}

TEST(Collection, WalkVisitsEveryLiveEntryOnceWhileEntriesComeAndGo) {
  Collection<uint32_t, int> c;
  for (uint32_t k = 0; k < 500; ++k) c.set(k, 0);
  std::multiset<uint32_t> visited;
  std::set<uint32_t> deletedAhead;
  for (auto it = c.begin(); it != c.end(); ++it) {
    uint32_t k = it->key;
    visited.insert(k);
    c.del(k);                           // the entry under the cursor
    if (c.del(k ^ 1)) deletedAhead.insert(k ^ 1);  // a neighbour, possibly ahead
    c.set(1000000 + k, 1);              // growth during the walk
  }
  for (uint32_t k = 0; k < 500; ++k) {
    bool deletedBeforeReached = deletedAhead.count(k) && !visited.count(k);
    EXPECT_EQ(visited.count(k), deletedBeforeReached ? 0u : 1u) << k;
  }
  for (uint32_t k : visited) EXPECT_LE(visited.count(k), 1u);
}

TEST(Collection, DeletedEntryReleasesItsValueAtOnceEvenUnderAnIterator) {
  Collection<String, std::shared_ptr<int>> c;
  auto value = std::make_shared<int>(1);
  c.set("k", value);
  auto it = c.begin();
  c.del("k");
  EXPECT_EQ(value.use_count(), 1);  // not held until the iterator moves on
  EXPECT_EQ(c.size(), 0u);
  EXPECT_EQ(c.find("k"), nullptr);
  c.set("k", std::make_shared<int>(2));  // a new entry for the same key while the old node is pinned
  EXPECT_EQ(*c.get("k"), 2);
  ++it;  // the new entry landed after the dead node, ahead of the cursor: it is visited
  ASSERT_NE(it, c.end());
  EXPECT_EQ(*it->value, 2);
  ++it;
  EXPECT_EQ(it, c.end());
}

TEST(Collection, ValueWhoseDestructionChangesTheCollection) {
  struct Reentrant {
    Collection<int, std::shared_ptr<Reentrant>> * owner = nullptr;
    int victim = 0;
    ~Reentrant() {
      if (owner) owner->del(victim);
    }
  };
  Collection<int, std::shared_ptr<Reentrant>> c;
  auto make = [](Collection<int, std::shared_ptr<Reentrant>> * owner, int victim) {
    auto r = std::make_shared<Reentrant>();
    r->owner = owner;
    r->victim = victim;
    return r;
  };
  c.set(2, make(nullptr, 0));
  c.set(1, make(&c, 2));
  c.del(1);  // the value's destructor deletes key 2 after key 1 is gone
  EXPECT_TRUE(c.empty());
  c.set(3, make(&c, 4));
  c.set(4, make(nullptr, 0));
  c.set(3, nullptr);  // overwriting runs the old value's destructor too
  EXPECT_EQ(c.size(), 1u);
  EXPECT_FALSE(c.contains(4));
}

}  // namespace
