// The keyed collection: map behaviour, and walks that survive changes made while they run.
#include "intfsm/foundation/vorn/Collection.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <vector>

#include "intfsm/foundation/vorn/String.h"

using Vorn::Collection;

namespace {

template <class C>
std::vector<uint32_t> keysInOrder(C const & c) {
  std::vector<uint32_t> keys;
  for (auto const & e : c) keys.push_back(e.key);
  return keys;
}

// Set and del report real changes only; a model map checks contents and lookups under random changes,
// and entries that were there first keep their order while the table grows many times over.
TEST(Collection, AgreesWithAReferenceMapAndGrowingNeverReorders) {
  Collection<uint32_t, int> c;
  EXPECT_EQ(std::tuple(c.find(1), c.get(1)), std::tuple(nullptr, 0));  // zero value when absent
  for (uint32_t k = 0; k < 10; ++k) c.set(k * 7919 + 100000, 1);
  std::vector<uint32_t> first;
  for (auto const & e : c) first.push_back(e.key);
  std::map<uint32_t, int> ref;
  for (auto const & e : c) ref[e.key] = e.value;
  uint32_t seed = 12345;
  auto next = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int i = 0; i < 20000; ++i) {
    uint32_t const key = (next() >> 8) % 3000;
    if (next() % 3 == 0) {
      ASSERT_EQ(c.del(key), ref.erase(key) == 1);
    } else {
      int const v = static_cast<int>(next() % 5);
      bool const changed = ref.count(key) == 0 || ref[key] != v;
      ref[key] = v;
      ASSERT_EQ(c.set(key, v), changed);
    }
  }
  std::map<uint32_t, int> walked;
  std::vector<uint32_t> firstAfter;
  for (auto const & e : c) {
    walked.emplace(e.key, e.value);
    if (e.key >= 100000) firstAfter.push_back(e.key);
  }
  EXPECT_EQ(std::tuple(walked, c.size(), firstAfter), std::tuple(ref, ref.size(), first));
  for (auto const & [k, v] : ref) ASSERT_EQ(c.get(k), v);
}

// Keys inserted in another collection's walk order (each beyond the last) and in the reverse order.
TEST(Collection, CopiesInWalkOrderOrReverseKeepOrderAndLookups) {
  Collection<uint32_t, int> source;
  for (uint32_t k = 0; k < 3000; ++k) source.set(k * 2654435761u, 1);
  std::vector<uint32_t> const order = keysInOrder(source);
  Collection<uint32_t, int> forward, backward;
  for (uint32_t k : order) forward.set(k, 1);
  for (auto k = order.rbegin(); k != order.rend(); ++k) backward.set(*k, 1);
  EXPECT_EQ(std::tuple(keysInOrder(forward), keysInOrder(backward)), std::tuple(order, order));
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
    uint32_t const k = it->key;
    visited.insert(k);
    c.del(k);                                      // the entry under the cursor
    if (c.del(k ^ 1)) deletedAhead.insert(k ^ 1);  // a neighbour, possibly ahead
    c.set(1000000 + k, 1);                         // growth during the walk
  }
  for (uint32_t k = 0; k < 500; ++k) {
    bool const deletedBeforeReached = deletedAhead.count(k) && !visited.count(k);
    EXPECT_EQ(visited.count(k), deletedBeforeReached ? 0u : 1u) << k;
  }
}

TEST(Collection, DeletedEntryReleasesItsValueAtOnceEvenUnderAnIterator) {
  Collection<Vorn::String, std::shared_ptr<int>> c;
  auto value = std::make_shared<int>(1);
  c.set("k", value);
  auto it = c.begin();
  c.del("k");
  EXPECT_EQ(std::tuple(value.use_count(), c.find("k")), std::tuple(1, nullptr));  // not held until the iterator moves on
  c.set("k", std::make_shared<int>(2));  // a new entry for the same key while the old node is pinned
  ++it;                                  // it landed after the dead node, ahead of the cursor: visited
  ASSERT_NE(it, c.end());
  EXPECT_EQ(*it->value, 2);
  EXPECT_EQ(++it, c.end());
}

// A value's destructor may change the collection, whether the value goes by del or by overwriting.
TEST(Collection, ValueWhoseDestructionChangesTheCollection) {
  struct Reentrant {
    Collection<int, std::shared_ptr<Reentrant>> * owner = nullptr;
    int victim = 0;
    ~Reentrant() {
      if (owner) owner->del(victim);
    }
  };
  using Values = Collection<int, std::shared_ptr<Reentrant>>;
  Values c;
  auto make = [](Values * owner, int victim) {
    auto r = std::make_shared<Reentrant>();
    r->owner = owner, r->victim = victim;
    return r;
  };
  c.set(2, make(nullptr, 0));
  c.set(1, make(&c, 2));
  c.del(1);
  EXPECT_TRUE(c.empty());
  c.set(3, make(&c, 4));
  c.set(4, make(nullptr, 0));
  c.set(3, nullptr);
  EXPECT_EQ(std::tuple(c.size(), c.contains(4)), std::tuple(1u, false));
}

}  // namespace
