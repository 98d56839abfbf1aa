// Python callbacks on notifications: `w = entity.watch(callback)` binds a reactor to the entity that
// calls callback("attr") for a scalar attribute's change and callback("attr", key) for one key of a
// collection, synchronously, inside the mutator (or the loop's pass) that made the change.
//
// The Watch object that Python holds owns the reactor; dropping it (or w.close()) unbinds. The Watch
// takes part in Python's garbage collection through its callback, so a callback that refers back to
// its Watch, to the watched object's Python wrapper or to a Python subclass holding the Watch forms a
// cycle that the collector frees, reactor and all.
//
// Each watchable type lists its callbacks once, with WATCHER below, in the translation unit that
// binds the type; `entity.watch` picks the most derived type listed for the entity.
#pragma once

#include <functional>
#include <vector>

#include "Bindings.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Notifier.h"

// Hidden, like pybind11's own symbols: these classes hold Python objects.
#pragma GCC visibility push(hidden)

namespace IntfsmPython {

using EntityClass = py::class_<Vorn::Entity, Vorn::Notifier, Vorn::Ptr<Vorn::Entity>>;

class WatchHandle {
 public:
  WatchHandle() = default;
  WatchHandle(WatchHandle const &) = delete;
  WatchHandle & operator=(WatchHandle const &) = delete;
  ~WatchHandle() { close(); }

  // Unbinds and drops the reactor and the callback; a second close does nothing.
  void close();
  bool open() const { return static_cast<bool>(notifiee_); }

  template <class... Key>
  void fire(char const * attribute, Key const &... key) {
    if (!callback) return;
    py::gil_scoped_acquire locked;
    py::object keep = callback;  // the callback may close this watch
    keep(attribute, key...);
  }

  py::object callback;

 private:
  friend void bindWatch(py::module_ & m, EntityClass & entity);
  Vorn::Ptr<Vorn::BaseNotifiee> notifiee_;
  void (*unbind_)(Vorn::BaseNotifiee &) = nullptr;
};

// Base of the per-type reactors: the back pointer to the handle that owns it.
template <class T>
class Watcher : public T::NotifieeConst {
 public:
  explicit Watcher(WatchHandle * handle) : handle_(handle) {}
  void handleIs(WatchHandle * handle) { handle_ = handle; }

 protected:
  template <class... Key>
  void fire(char const * attribute, Key const &... key) {
    if (handle_) handle_->fire(attribute, key...);
  }

 private:
  WatchHandle * handle_;
};

// The types that can be watched, most recently registered first.
struct WatchKind {
  std::function<bool(Vorn::Entity const &)> matches;
  std::function<Vorn::Ptr<Vorn::BaseNotifiee>(Vorn::Ptr<Vorn::Entity> const &, WatchHandle *)> make;
  void (*unbind)(Vorn::BaseNotifiee &);
};
void watchKindIs(WatchKind kind);

template <class T, class W>
void watchable() {
  watchKindIs(WatchKind{
      [](Vorn::Entity const & e) { return dynamic_cast<T const *>(&e) != nullptr; },
      [](Vorn::Ptr<Vorn::Entity> const & e, WatchHandle * handle) -> Vorn::Ptr<Vorn::BaseNotifiee> {
        Vorn::Ptr<W> w = new W(handle);
        w->notifierIs(Vorn::Ptr<T const>(dynamic_cast<T const *>(e.ptr())));
        return w;
      },
      [](Vorn::BaseNotifiee & n) {
        auto & w = static_cast<W &>(n);
        w.handleIs(nullptr);
        w.notifierIs(nullptr);
      }});
}

void bindWatch(py::module_ & m, EntityClass & entity);

}  // namespace IntfsmPython

#pragma GCC visibility pop

// One line per callback of the watched type's NotifieeConst.
#define INTFSM_ON(attribute, Callback) \
  void on##Callback() override { fire(#attribute); }
#define INTFSM_ON_KEY(attribute, Callback, Key) \
  void on##Callback(Key const & key) override { fire(#attribute, key); }
#define INTFSM_ON_KEY_VALUE(attribute, Callback, Key) \
  void on##Callback(Key key) override { fire(#attribute, key); }
