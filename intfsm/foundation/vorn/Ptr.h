// Intrusive reference counting for every entity, reactor and shared value of the library.
//
// An object derives from Vorn::PtrInterface and is held through Vorn::Ptr<T> (or Ptr<T const>):
//
//   Vorn::Ptr<Foo> foo = new Foo(...);   // count 1
//   Vorn::Ptr<Foo const> view = foo;     // count 2
//   foo = nullptr;                       // count 1; the object dies with the last reference
//
// The count lives in one 32-bit word together with two flags that do not count: bit 29 is a
// reactor's notification-active flag and bit 31 is set while the object is marked for deletion.
// The count itself is the word masked with 0x5fffffff. With threadSafePointers on, the word is
// changed with atomic operations; otherwise with plain ones (the library runs on one thread).
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Vorn {

// Process-wide switch: atomic reference counting. Set it before objects are shared across threads.
extern bool threadSafePointers;
// Allocation tracking: see PtrInterface::liveObjects. One counter in the library, also for objects
// made by code outside it (a module built with hidden symbols would otherwise count in a copy).
extern std::atomic<int64_t> livePtrInterfaces;

class PtrInterface {
 public:
  static constexpr uint32_t countMask = 0x5fffffffu;
  static constexpr uint32_t notificationActiveBit = 1u << 29;
  static constexpr uint32_t markedForDeletionBit = 1u << 31;

  PtrInterface(PtrInterface const &) = delete;
  PtrInterface & operator=(PtrInterface const &) = delete;

  uint32_t references() const { return load() & countMask; }

  // Allocation tracking: reference-counted objects made and not destroyed yet, in the whole process.
  // Leak checks (the Python module's among them) compare it before and after many rounds.
  static int64_t liveObjects() noexcept { return livePtrInterfaces.load(std::memory_order_relaxed); }

  bool vornMarkedForDeletion() const { return load() & markedForDeletionBit; }
  void vornMarkedForDeletionIs(bool marked) { flagIs(markedForDeletionBit, marked); }

  void newRef() const {
    if (threadSafePointers) {
      std::atomic_ref<uint32_t>(word_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++word_;
    }
  }
  void deleteRef() const {
    uint32_t before;
    if (threadSafePointers) {
      before = std::atomic_ref<uint32_t>(word_).fetch_sub(1, std::memory_order_acq_rel);
    } else {
      before = word_--;
    }
    if ((before & countMask) == 1) onZeroReferences();
  }

 protected:
  PtrInterface() noexcept { livePtrInterfaces.fetch_add(1, std::memory_order_relaxed); }
  virtual ~PtrInterface() { livePtrInterfaces.fetch_sub(1, std::memory_order_relaxed); }

  // Called when the last reference goes away.
  virtual void onZeroReferences() const { delete this; }

  bool flag(uint32_t bit) const { return load() & bit; }
  uint32_t flagBits() const { return load() & ~countMask; }
  void flagIs(uint32_t bit, bool on) const {
    if (threadSafePointers) {
      std::atomic_ref<uint32_t> ref(word_);
      if (on) ref.fetch_or(bit, std::memory_order_relaxed);
      else ref.fetch_and(~bit, std::memory_order_relaxed);
    } else if (on) {
      word_ |= bit;
    } else {
      word_ &= ~bit;
    }
  }

 private:
  // A relaxed atomic load is a plain load on the machines we run on: no need to branch on the switch.
  uint32_t load() const { return std::atomic_ref<uint32_t>(word_).load(std::memory_order_relaxed); }
  mutable uint32_t word_ = 0;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T * p) noexcept : p_(p) { if (p_) p_->newRef(); }
  Ptr(Ptr const & o) noexcept : p_(o.p_) { if (p_) p_->newRef(); }
  Ptr(Ptr && o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U *, T *>>>
  Ptr(Ptr<U> const & o) noexcept : p_(o.ptr()) { if (p_) p_->newRef(); }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U *, T *>>>
  Ptr(Ptr<U> && o) noexcept : p_(o.release()) {}
  ~Ptr() { if (p_) p_->deleteRef(); }

  Ptr & operator=(Ptr const & o) noexcept { reset(o.p_); return *this; }
  Ptr & operator=(Ptr && o) noexcept {
    if (this != &o) {
      T * old = std::exchange(p_, std::exchange(o.p_, nullptr));
      if (old) old->deleteRef();
    }
    return *this;
  }
  Ptr & operator=(T * p) noexcept { reset(p); return *this; }
  Ptr & operator=(std::nullptr_t) noexcept { reset(nullptr); return *this; }

  T * ptr() const noexcept { return p_; }
  T * operator->() const noexcept { return p_; }
  T & operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  // Gives up the reference without dropping it.
  T * release() noexcept { return std::exchange(p_, nullptr); }

  template <class U>
  bool operator==(Ptr<U> const & o) const noexcept { return p_ == o.ptr(); }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  template <class U>
  bool operator==(U * o) const noexcept { return p_ == o; }

 private:
  void reset(T * p) noexcept {
    if (p) p->newRef();
    T * old = std::exchange(p_, p);
    if (old) old->deleteRef();  // after the swap: the old object's destructor may reach this Ptr
  }
  T * p_ = nullptr;
};

// Checked downcast of a reference; null when the object is not a U.
template <class U, class T>
Ptr<U> ptr_cast(Ptr<T> const & p) {
  return Ptr<U>(dynamic_cast<U *>(p.ptr()));
}

}  // namespace Vorn

template <class T>
struct std::hash<Vorn::Ptr<T>> {
  size_t operator()(Vorn::Ptr<T> const & p) const noexcept { return std::hash<T *>()(p.ptr()); }
};
