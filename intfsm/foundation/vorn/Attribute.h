// Generic attribute access: every attribute and callable operation of an entity type, by name or by
// number, read, set and deleted through one value type (Vorn::Value), so that an agent's command line
// or a script drives any entity without knowing its C++ type.
//
// Each entity type declares its table once, next to the type, from its own typed readers and mutators;
// the generic path only converts values and calls them, so it raises exactly their errors (the same
// range texts, the same "null _..." text) and notifies exactly as they do. The table's names, in order,
// are the type's attribute names in the type registry.
//
//   // in Root.cpp, beside the type:
//   Vorn::AttributeTableOf<Root> const rootAttributes("KernelOperState::Root", [](auto & t) {
//     t.instantiating("kosm", &Root::kosm, &Root::kosmIs, &Root::kosmDel);
//     t.scalar("operStateConvergence", &Root::operStateConvergence, &Root::operStateConvergenceIs);
//   });
//
//   // an agent or a script:
//   Vorn::Attributes a(root);                       // the table of root's type
//   a.set("operStateConvergence", true);            // == root->operStateConvergenceIs(true)
//   a.call("kosm", {});                             // == root->kosmIs(); yields the new manager
//   Vorn::Value m = a.get("kosm");
//   Vorn::Attributes d(someDir);
//   d.count("intfStatus"); d.contains("intfStatus", "Ethernet1"); d.keys("intfStatus");
//   d.get("intfStatus", "Ethernet1"); d.del("intfStatus", "Ethernet1");
//
// Kinds of attribute:
//   scalar         get / set / del (del where the type has xDel)
//   collection     get(key) / set(key, value) / del(key) / count / contains(key) / keys
//                  (for a collection keyed by its values, set's key may be none; when given it must be
//                  the value's own key)
//   instantiating  get / call(args) = xIs(args...), which yields the object / del = xDel(); set(v) is
//                  call with v as the one argument, or v's elements when xIs takes several
//   callable       call(args), which yields the operation's result (none for void)
// An operation that the attribute does not have, an unknown name or number, and a wrong number of
// arguments raise NoSuchAttributeException; a value of the wrong kind or range raises
// ValueTypeException; whatever the typed member raises passes through unchanged.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <typeinfo>
#include <type_traits>
#include <utility>
#include <vector>

#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Notifier.h"
#include "intfsm/foundation/vorn/Value.h"

namespace Vorn {

// An attribute, or an operation on it, that the type does not have.
class NoSuchAttributeException : public Exception {
 public:
  using Exception::Exception;
};

enum class AttributeKind : uint8_t { scalar, collection, instantiating, callable };
char const * attributeKindName(AttributeKind k);

struct AttributeInfo {
  String name;
  AttributeKind kind = AttributeKind::scalar;
  uint32_t number = 0;
  std::string valueType;  // C++ type of the value (scalar, collection entry, instantiated object, result)
  std::string keyType;    // collections only
  std::vector<std::string> argumentTypes;  // instantiating and callable
  bool settable = false;
  bool deletable = false;
};

class AttributeTable {
 public:
  AttributeTable(AttributeTable const &) = delete;
  AttributeTable & operator=(AttributeTable const &) = delete;
  virtual ~AttributeTable();

  // The table of a registered type name; null when none.
  static AttributeTable const * of(std::string_view typeName);
  // The table of an object's type: an entity's by its vornTypeName() (so a class derived from a
  // registered entity type has its base's table), any other notifier's by its exact C++ type.
  static AttributeTable const * of(Notifier const & n);

  char const * typeName() const { return typeName_; }
  // Every attribute: the type's own, then those it inherits from the table of a base type (numbered on).
  uint32_t size() const;
  std::vector<String> names() const;
  // The type's own attributes: its names in the type registry.
  uint32_t ownSize() const { return uint32_t(entries_.size()); }
  std::vector<String> ownNames() const;
  // The table this one inherits from; null when none.
  AttributeTable const * base() const;
  // Raises NoSuchAttributeException for a number past the end / an unknown name.
  AttributeInfo const & info(uint32_t number) const;
  uint32_t number(std::string_view name) const;
  std::optional<uint32_t> find(std::string_view name) const;

  // By number; `e` must be of this table's type (or derived from it), else NoSuchAttributeException.
  Value get(Notifier const & e, uint32_t n) const;
  void set(Notifier & e, uint32_t n, Value const & v) const;
  void del(Notifier & e, uint32_t n) const;
  Value get(Notifier const & e, uint32_t n, Value const & key) const;
  void set(Notifier & e, uint32_t n, Value const & key, Value const & v) const;
  void del(Notifier & e, uint32_t n, Value const & key) const;
  uint32_t count(Notifier const & e, uint32_t n) const;
  bool contains(Notifier const & e, uint32_t n, Value const & key) const;
  std::vector<Value> keys(Notifier const & e, uint32_t n) const;
  Value call(Notifier & e, uint32_t n, Value::List const & args) const;

 protected:
  struct Entry {
    AttributeInfo info;
    std::function<Value(Notifier const &)> get;
    std::function<void(Notifier &, Value const &)> set;
    std::function<void(Notifier &)> del;
    std::function<Value(Notifier const &, Value const &)> getKey;
    std::function<void(Notifier &, Value const &, Value const &)> setKey;
    std::function<void(Notifier &, Value const &)> delKey;
    std::function<uint32_t(Notifier const &)> count;
    std::function<bool(Notifier const &, Value const &)> contains;
    std::function<std::vector<Value>(Notifier const &)> keys;
    std::function<Value(Notifier &, Value::List const &)> call;
  };

  explicit AttributeTable(char const * typeName) : typeName_(typeName) {}
  Entry & entryNew(char const * name, AttributeKind kind);
  // Found by name when first used, so that tables in other files need no initialisation order.
  void baseIs(char const * baseTypeName) { baseTypeName_ = baseTypeName; }
  // Adds the table to the lookups by type name and by C++ type once it is complete.
  void tableIsComplete(std::type_info const & type);
  [[noreturn]] void notOfType(Notifier const & e) const;

 private:
  Entry const & entry(uint32_t n) const;
  [[noreturn]] void lacks(Entry const & en, char const * operation) const;

  char const * typeName_;
  char const * baseTypeName_ = nullptr;
  std::vector<Entry> entries_;
};

namespace attribute_detail {

// What a callable looks like once the object it acts on is set apart: its result and its arguments.
template <class Op>
struct LambdaSignature;
template <class L, class R, class O, class... A>
struct LambdaSignature<R (L::*)(O, A...) const> {
  using Result = R;
  using Args = std::tuple<A...>;
  static constexpr bool member = false;
};
template <class F>
struct Signature : LambdaSignature<decltype(&F::operator())> {};  // a lambda: the first parameter is the object
template <class C, class R, class... A>
struct Signature<R (C::*)(A...)> {
  using Result = R;
  using Args = std::tuple<A...>;
  static constexpr bool member = true;
};
template <class C, class R, class... A>
struct Signature<R (C::*)(A...) const> : Signature<R (C::*)(A...)> {};
template <class C, class R, class... A>
struct Signature<R (C::*)(A...) noexcept> : Signature<R (C::*)(A...)> {};
template <class C, class R, class... A>
struct Signature<R (C::*)(A...) const noexcept> : Signature<R (C::*)(A...)> {};

template <class F>
using Args = typename Signature<F>::Args;
template <class F>
using Result = typename Signature<F>::Result;
template <class F>
constexpr size_t arity = std::tuple_size_v<Args<F>>;
template <class F, size_t I>
using Arg = std::remove_cvref_t<std::tuple_element_t<I, Args<F>>>;

template <class F, class T, class... A>
decltype(auto) invoke(F const & f, T & t, A &&... a) {
  if constexpr (Signature<F>::member) {
    return (t.*f)(std::forward<A>(a)...);
  } else {
    return f(t, std::forward<A>(a)...);
  }
}

template <class F, class T, size_t... I>
Value callWith(F const & f, T & t, Value::List const & args, std::index_sequence<I...>) {
  if constexpr (std::is_void_v<Result<F>>) {
    invoke(f, t, fromValue<Arg<F, I>>(args[I])...);
    return Value();
  } else {
    return toValue(invoke(f, t, fromValue<Arg<F, I>>(args[I])...));
  }
}

template <class F>
std::vector<std::string> argumentTypes() {
  return []<size_t... I>(std::index_sequence<I...>) {
    return std::vector<std::string>{Vorn::typeName<Arg<F, I>>()...};
  }(std::make_index_sequence<arity<F>>());
}

// The value of `key` in a collection (Collection, ReactorCollection, or anything walkable with
// .key / .value), or none.
template <class C, class K>
Value lookup(C const & c, K const & key) {
  if constexpr (requires { c.find(key); }) {
    auto const * v = c.find(key);
    return v ? toValue(*v) : Value();
  } else if constexpr (requires { c.reactor(key); }) {
    return toValue(c.reactor(key));
  } else {
    for (auto const & e : c) {
      if (e.key == key) return toValue(e.value);
    }
    return Value();
  }
}

std::string argumentCountText(char const * type, String const & name, size_t wanted, size_t given);

}  // namespace attribute_detail

// The table of entity type T. Members may be member-function pointers of T (or of a base) or lambdas
// taking T (const) & first; an overloaded member needs a lambda or a cast.
template <class T>
class AttributeTableOf : public AttributeTable {
 public:
  template <class Fill>
  AttributeTableOf(char const * typeName, Fill fill) : AttributeTable(typeName) {
    fill(*this);
    tableIsComplete(typeid(T));
  }

  // Attributes of a registered base type that objects of T also have, after T's own.
  AttributeTableOf & inherits(char const * baseTypeName) {
    baseIs(baseTypeName);
    return *this;
  }

  // A scalar: its reader, and optionally its writer xIs(v) and its deleter xDel().
  template <class R, class W = std::nullptr_t, class D = std::nullptr_t>
  AttributeTableOf & scalar(char const * name, R reader, W writer = nullptr, D deleter = nullptr) {
    Entry & en = entryNew(name, AttributeKind::scalar);
    en.info.valueType = Vorn::typeName<std::remove_cvref_t<attribute_detail::Result<R>>>();
    en.get = [this, reader](Notifier const & e) { return toValue(attribute_detail::invoke(reader, self(e))); };
    if constexpr (!std::is_null_pointer_v<W>) {
      static_assert(attribute_detail::arity<W> == 1, "a writer takes the value");
      en.set = [this, writer](Notifier & e, Value const & v) {
        attribute_detail::invoke(writer, self(e), fromValue<attribute_detail::Arg<W, 0>>(v));
      };
    }
    deleterIs(en, deleter);
    return *this;
  }

  // A collection held in a Vorn::Collection or a Vorn::ReactorCollection: `iter` yields it (get, count,
  // contains and keys read it),
  // `writer` is xIs(key, value) or xIs(value) (the key taken from the value: give `keyOf` to check a key
  // passed with it), `deleter` is xDel(key); either may be nullptr.
  template <class I, class W, class D, class KeyOf = std::nullptr_t>
  AttributeTableOf & collection(char const * name, I iter, W writer, D deleter, KeyOf keyOf = nullptr) {
    using C = std::remove_cvref_t<attribute_detail::Result<I>>;
    return collectionOf<decltype(std::declval<C const &>().begin()->key),
                        decltype(std::declval<C const &>().begin()->value)>(
        name,
        [this, iter](Notifier const & e, Value const & k) -> Value {
          using K = std::remove_cvref_t<decltype(std::declval<C const &>().begin()->key)>;
          return attribute_detail::lookup(attribute_detail::invoke(iter, self(e)), fromValue<K>(k));
        },
        [this, iter](Notifier const & e) { return attribute_detail::invoke(iter, self(e)).size(); },
        [this, iter](Notifier const & e) {
          std::vector<Value> out;
          for (auto const & entry : attribute_detail::invoke(iter, self(e))) out.push_back(toValue(entry.key));
          return out;
        },
        writer, deleter, keyOf);
  }

  // A collection read through its own functions: get(key) (the value, or null / zero when absent),
  // count(), keys() (a container of keys); contains is get() of a key among keys().
  template <class G, class N, class K, class W, class D, class KeyOf = std::nullptr_t>
  AttributeTableOf & collectionBy(char const * name, G getter, N counter, K keyLister, W writer, D deleter,
                                  KeyOf keyOf = nullptr) {
    using Key = attribute_detail::Arg<G, 0>;
    using Val = std::remove_cvref_t<attribute_detail::Result<G>>;
    return collectionOf<Key, Val>(
        name,
        [this, getter, keyLister](Notifier const & e, Value const & k) -> Value {
          Key key = fromValue<Key>(k);
          for (auto const & present : attribute_detail::invoke(keyLister, self(e))) {
            if (present == key) return toValue(attribute_detail::invoke(getter, self(e), key));
          }
          return Value();
        },
        [this, counter](Notifier const & e) { return uint32_t(attribute_detail::invoke(counter, self(e))); },
        [this, keyLister](Notifier const & e) {
          std::vector<Value> out;
          for (auto const & key : attribute_detail::invoke(keyLister, self(e))) out.push_back(toValue(key));
          return out;
        },
        writer, deleter, keyOf);
  }

  // An attribute that owns what it refers to: the reader, the creator xIs(args...) and the deleter xDel()
  // (nullptr when there is none).
  template <class R, class W, class D = std::nullptr_t>
  AttributeTableOf & instantiating(char const * name, R reader, W creator, D deleter = nullptr) {
    Entry & en = entryNew(name, AttributeKind::instantiating);
    en.info.valueType = Vorn::typeName<std::remove_cvref_t<attribute_detail::Result<R>>>();
    en.info.argumentTypes = attribute_detail::argumentTypes<W>();
    en.get = [this, reader](Notifier const & e) { return toValue(attribute_detail::invoke(reader, self(e))); };
    en.call = [this, reader, creator, name = en.info.name](Notifier & e, Value::List const & args) {
      T & t = self(e);
      checkArguments(name, attribute_detail::arity<W>, args.size());
      attribute_detail::callWith(creator, t, args, std::make_index_sequence<attribute_detail::arity<W>>());
      return toValue(attribute_detail::invoke(reader, t));
    };
    en.set = [call = en.call](Notifier & e, Value const & v) {
      if constexpr (attribute_detail::arity<W> == 1) {
        call(e, Value::List{v});
      } else {
        call(e, v.isNone() ? Value::List{} : v.list());
      }
    };
    deleterIs(en, deleter);
    return *this;
  }

  // An operation: a member of T or a lambda (T &, args...) -> result.
  template <class F>
  AttributeTableOf & callable(char const * name, F f) {
    Entry & en = entryNew(name, AttributeKind::callable);
    en.info.valueType = Vorn::typeName<std::remove_cvref_t<attribute_detail::Result<F>>>();
    en.info.argumentTypes = attribute_detail::argumentTypes<F>();
    en.call = [this, f, name = en.info.name](Notifier & e, Value::List const & args) {
      T & t = self(e);
      checkArguments(name, attribute_detail::arity<F>, args.size());
      return attribute_detail::callWith(f, t, args, std::make_index_sequence<attribute_detail::arity<F>>());
    };
    return *this;
  }

 private:
  T & self(Notifier & e) const {
    T * t = dynamic_cast<T *>(&e);
    if (!t) notOfType(e);
    return *t;
  }
  T const & self(Notifier const & e) const { return self(const_cast<Notifier &>(e)); }

  void checkArguments(String const & name, size_t wanted, size_t given) const {
    if (wanted != given) {
      throw NoSuchAttributeException(attribute_detail::argumentCountText(typeName(), name, wanted, given));
    }
  }

  template <class D>
  void deleterIs(Entry & en, D deleter) {
    if constexpr (!std::is_null_pointer_v<D>) {
      en.info.deletable = true;
      en.del = [this, deleter](Notifier & e) { attribute_detail::invoke(deleter, self(e)); };
    }
  }

  template <class Key, class Val, class G, class N, class L, class W, class D, class KeyOf>
  AttributeTableOf & collectionOf(char const * name, G get, N count, L keys, W writer, D deleter, KeyOf keyOf) {
    using K = std::remove_cvref_t<Key>;
    Entry & en = entryNew(name, AttributeKind::collection);
    en.info.keyType = Vorn::typeName<K>();
    en.info.valueType = Vorn::typeName<std::remove_cvref_t<Val>>();
    en.getKey = get;
    en.count = count;
    en.keys = keys;
    en.contains = [get](Notifier const & e, Value const & k) { return !get(e, k).isNone(); };
    if constexpr (!std::is_null_pointer_v<W>) {
      if constexpr (attribute_detail::arity<W> == 2) {
        en.setKey = [this, writer](Notifier & e, Value const & k, Value const & v) {
          attribute_detail::invoke(writer, self(e), fromValue<attribute_detail::Arg<W, 0>>(k),
                                   fromValue<attribute_detail::Arg<W, 1>>(v));
        };
      } else {
        static_assert(attribute_detail::arity<W> == 1, "a writer takes (key, value) or (value)");
        en.setKey = [this, writer, keyOf, name = en.info.name](Notifier & e, Value const & k, Value const & v) {
          auto value = fromValue<attribute_detail::Arg<W, 0>>(v);
          if constexpr (!std::is_null_pointer_v<KeyOf>) {
            if (!k.isNone() && value && !(fromValue<K>(k) == keyOf(value))) {
              throw ValueTypeException(std::string(typeName()) + "::" + name.stdString() + ": key " + k.str() +
                                       " is not the value's own key " + toValue(keyOf(value)).str());
            }
          }
          attribute_detail::invoke(writer, self(e), std::move(value));
        };
      }
    }
    if constexpr (!std::is_null_pointer_v<D>) {
      en.delKey = [this, deleter](Notifier & e, Value const & k) {
        attribute_detail::invoke(deleter, self(e), fromValue<attribute_detail::Arg<D, 0>>(k));
      };
    }
    en.info.settable = bool(en.setKey);
    en.info.deletable = bool(en.delKey);
    return *this;
  }
};

// Generic access to one entity through the table of its type, by name or by number.
class Attributes {
 public:
  // An attribute by its name or its number in the table.
  class Ref {
   public:
    Ref(int number) : number_(uint32_t(number)) {}
    Ref(unsigned number) : number_(number) {}
    Ref(char const * name) : name_(name) {}
    Ref(std::string_view name) : name_(name) {}
    Ref(std::string const & name) : name_(name) {}
    Ref(String const & name) : name_(name.view()) {}
    uint32_t numberIn(AttributeTable const & t) const { return name_.data() ? t.number(name_) : number_; }

   private:
    uint32_t number_ = 0;
    std::string_view name_;
  };

  // Raises NoSuchAttributeException when the entity is null or its type has no table.
  explicit Attributes(Ptr<Notifier> e);

  Ptr<Notifier> const & entity() const { return e_; }
  AttributeTable const & table() const { return *table_; }
  AttributeInfo const & info(Ref a) const { return table_->info(a.numberIn(*table_)); }

  Value get(Ref a) const { return table_->get(*e_, a.numberIn(*table_)); }
  void set(Ref a, Value const & v) const { table_->set(*e_, a.numberIn(*table_), v); }
  void del(Ref a) const { table_->del(*e_, a.numberIn(*table_)); }
  Value get(Ref a, Value const & key) const { return table_->get(*e_, a.numberIn(*table_), key); }
  void set(Ref a, Value const & key, Value const & v) const { table_->set(*e_, a.numberIn(*table_), key, v); }
  void del(Ref a, Value const & key) const { table_->del(*e_, a.numberIn(*table_), key); }
  uint32_t count(Ref a) const { return table_->count(*e_, a.numberIn(*table_)); }
  bool contains(Ref a, Value const & key) const { return table_->contains(*e_, a.numberIn(*table_), key); }
  std::vector<Value> keys(Ref a) const { return table_->keys(*e_, a.numberIn(*table_)); }
  Value call(Ref a, Value::List const & args = {}) const { return table_->call(*e_, a.numberIn(*table_), args); }

 private:
  Ptr<Notifier> e_;
  AttributeTable const * table_;
};

}  // namespace Vorn
