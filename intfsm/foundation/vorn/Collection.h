// The keyed collection behind every collection attribute.
//
// A hash map whose entries sit on one list sorted by the bit-reversed hash of their key; a bucket is a
// run of that list (the top bits of the reversed hash). Growing the table splits runs without moving
// entries, so the iteration order never changes while the map grows, and a walk is stable:
//
//   for (auto const & e : dir.intfStatusIter()) {   // e.key, e.value
//     dir.intfStatusDel(otherId);                   // fine: no invalidated iterator
//   }
//
// During a walk, entries may be added and deleted, also the one under the cursor. Every entry that
// exists when the walk starts and is still there when the walk reaches it is visited exactly once;
// an entry added during the walk is visited when it lands ahead of the cursor. A deleted entry
// releases its value at once; its node stays until no iterator points at it.
//
// Memory: a node that leaves the list is kept as a spare for the next insert, up to as many spares
// as the table has buckets (about the most entries the collection has held), so a collection that
// grows and shrinks in a steady state allocates nothing; the spares go with the collection.
//
// The collection itself notifies nobody: the owning entity's mutators call it and notify with the key.
#pragma once


#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <utility>
#include <vector>

namespace Vorn {

template <class K, class V, class Hash = std::hash<K>>
class Collection {
 public:
  struct Entry {
    K const key;
    V value;
  };

 private:
  struct Node : Entry {
    template <class KK, class VV>
    Node(KK && k, VV && v, uint64_t r) : Entry{std::forward<KK>(k), std::forward<VV>(v)}, rev(r) {}
    Node * prev = nullptr;
    Node * next = nullptr;
    uint64_t rev;
    uint32_t pins = 0;
    bool dead = false;
  };
  static_assert(alignof(Node) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
  // A node's memory while it waits on the spare list.
  struct Spare {
    Spare * next;
  };

 public:
  class Iterator {
   public:
    using difference_type = std::ptrdiff_t;
    using value_type = Entry;

    Iterator() = default;
    Iterator(Iterator const & o) : c_(o.c_), n_(o.n_) { pin(); }
    Iterator & operator=(Iterator const & o) {
      if (this != &o) {
        Node * old = n_;
        Collection const * oldC = c_;
        c_ = o.c_;
        n_ = o.n_;
        pin();
        if (old) oldC->unpin(old);
      }
      return *this;
    }
    ~Iterator() {
      if (n_) c_->unpin(n_);
    }

    Entry const & operator*() const { return *n_; }
    Entry const * operator->() const { return n_; }
    Iterator & operator++() {
      Node * old = n_;
      n_ = Collection::liveFrom(old->next);
      pin();
      c_->unpin(old);
      return *this;
    }
    bool operator==(Iterator const & o) const { return n_ == o.n_; }

   private:
    friend class Collection;
    Iterator(Collection const * c, Node * n) : c_(c), n_(n) { pin(); }
    void pin() {
      if (n_) ++n_->pins;
    }
    Collection const * c_ = nullptr;
    Node * n_ = nullptr;
  };

  Collection() = default;
  Collection(Collection const &) = delete;
  Collection & operator=(Collection const &) = delete;
  ~Collection() {
    for (Node * n = head_; n;) {
      Node * next = n->next;
      n->~Node();
      ::operator delete(static_cast<void *>(n));
      n = next;
    }
    while (Spare * s = spare_) {
      spare_ = s->next;
      ::operator delete(static_cast<void *>(s));
    }
  }

  uint32_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Nodes kept for the next inserts (diagnostics).
  size_t spareNodes() const { return spares_; }
  // Grows with every change that set and del make: a reader that remembers what it found for a key
  // can tell, by one compare, that it is still so.
  uint64_t version() const { return version_; }

  Iterator begin() const { return Iterator(this, liveFrom(head_)); }
  Iterator end() const { return Iterator(); }
  // A walk that starts at `key`'s entry (end() when absent): resuming a walk where an earlier one
  // stopped costs one lookup.
  Iterator iteratorAt(K const & key) const { return Iterator(this, lookup(key, hashOf(key))); }

  // The value for `key`, or null when absent.
  V const * find(K const & key) const {
    Node * n = lookup(key, hashOf(key));
    return n ? &n->value : nullptr;
  }
  V * find(K const & key) {
    Node * n = lookup(key, hashOf(key));
    return n ? &n->value : nullptr;
  }
  bool contains(K const & key) const { return find(key) != nullptr; }
  // The value for `key`, or the zero value when absent.
  V get(K const & key) const {
    V const * v = find(key);
    return v ? *v : V();
  }

  // Inserts or overwrites; false when `key` already held an equal value (nothing changes then).
  bool set(K const & key, V const & value) {
    uint64_t rev = hashOf(key);
    if (Node * n = lookup(key, rev)) {
      if (n->value == value) return false;
      ++version_;
      [[maybe_unused]] V old = std::exchange(n->value, value);  // the old value may die now and reach back into us
      return true;
    }
    insert(nodeNew(key, value, rev));
    ++version_;
    return true;
  }

  // Removes `key`; false when it was absent.
  bool del(K const & key) {
    Node * n = lookup(key, hashOf(key));
    if (!n) return false;
    [[maybe_unused]] V old = std::move(n->value);
    n->value = V();
    n->dead = true;
    --size_;
    ++version_;
    if (n->pins == 0) unlink(n);
    return true;  // `old` dies here, after the map is consistent again
  }

  // The key of some live entry, for emptying the map one notified key at a time.
  K const * anyKey() const {
    Node * n = liveFrom(head_);
    return n ? &n->key : nullptr;
  }

 private:
  static uint64_t hashOf(K const & key) { return reverse(static_cast<uint64_t>(Hash()(key))); }
  static uint64_t reverse(uint64_t x) {
    x = ((x >> 1) & 0x5555555555555555ULL) | ((x & 0x5555555555555555ULL) << 1);
    x = ((x >> 2) & 0x3333333333333333ULL) | ((x & 0x3333333333333333ULL) << 2);
    x = ((x >> 4) & 0x0F0F0F0F0F0F0F0FULL) | ((x & 0x0F0F0F0F0F0F0F0FULL) << 4);
    return __builtin_bswap64(x);
  }
  static Node * liveFrom(Node * n) {
    while (n && n->dead) n = n->next;
    return n;
  }
  size_t bucketOf(uint64_t rev) const { return bits_ ? static_cast<size_t>(rev >> (64 - bits_)) : 0; }

  Node * lookup(K const & key, uint64_t rev) const {
    if (buckets_.empty()) return nullptr;
    size_t b = bucketOf(rev);
    for (Node * n = buckets_[b]; n && n->rev <= rev; n = n->next) {
      if (n->rev == rev && !n->dead && n->key == key) return n;
    }
    return nullptr;
  }

  void insert(Node * node) {
    if (size_ + 1 > buckets_.size()) grow();
    size_t b = bucketOf(node->rev);
    // Successor: the first node of a higher reversed hash (ties keep insertion order).
    Node * succ = buckets_[b];
    if (succ) {
      while (succ && succ->rev <= node->rev) succ = succ->next;
    } else {
      succ = successorOfEmptyBucket(b, node->rev);
    }
    Node * pred = succ ? succ->prev : tail_;
    node->prev = pred;
    node->next = succ;
    (pred ? pred->next : head_) = node;
    (succ ? succ->prev : tail_) = node;
    if (!buckets_[b] || buckets_[b] == succ) buckets_[b] = node;
    ++size_;
  }

  // The successor of a node for the empty bucket `b`, found from the nearest non-empty bucket on either
  // side. Looking both ways matters: keys that arrive in walk order (one collection copied into
  // another) each land beyond the last one, where a search that only looks ahead would cross every
  // empty bucket to the end of the table, every time.
  Node * successorOfEmptyBucket(size_t b, uint64_t rev) const {
    for (size_t d = 1; d <= b || b + d < buckets_.size(); ++d) {
      if (b + d < buckets_.size() && buckets_[b + d]) return buckets_[b + d];
      if (d <= b && buckets_[b - d]) {
        Node * n = buckets_[b - d];  // its run ends before the buckets up to b, all empty
        while (n && n->rev <= rev) n = n->next;
        return n;
      }
    }
    return nullptr;
  }

  void unlink(Node * n) {
    size_t b = bucketOf(n->rev);
    if (buckets_[b] == n) buckets_[b] = (n->next && bucketOf(n->next->rev) == b) ? n->next : nullptr;
    (n->prev ? n->prev->next : head_) = n->next;
    (n->next ? n->next->prev : tail_) = n->prev;
    nodeDelete(n);
  }

  Node * nodeNew(K const & key, V const & value, uint64_t rev) {
    void * memory = spare_;
    if (memory) {
      spare_ = spare_->next;
      --spares_;
    } else {
      memory = ::operator new(sizeof(Node));
    }
    try {
      return new (memory) Node(key, value, rev);
    } catch (...) {
      spareIs(memory);
      throw;
    }
  }
  void nodeDelete(Node * n) {
    n->~Node();
    spareIs(n);
  }
  void spareIs(void * memory) {
    if (spares_ < buckets_.size()) {
      spare_ = new (memory) Spare{spare_};
      ++spares_;
    } else {
      ::operator delete(memory);
    }
  }

  void unpin(Node * n) const {
    if (--n->pins == 0 && n->dead) const_cast<Collection *>(this)->unlink(n);
  }

  void grow() {
    bits_ = buckets_.empty() ? 3 : bits_ + 1;
    buckets_.assign(size_t(1) << bits_, nullptr);
    for (Node * n = head_; n; n = n->next) {
      Node *& first = buckets_[bucketOf(n->rev)];
      if (!first) first = n;
    }
  }

  Node * head_ = nullptr;
  Node * tail_ = nullptr;
  std::vector<Node *> buckets_;
  unsigned bits_ = 0;
  uint32_t size_ = 0;
  Spare * spare_ = nullptr;
  size_t spares_ = 0;
  uint64_t version_ = 0;
};

}  // namespace Vorn
