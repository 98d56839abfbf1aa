// The one value type of generic attribute access: what an agent or a script reads from and hands to
// any attribute of any entity without knowing its C++ type.
//
//   Vorn::Value v = Vorn::toValue(uint16_t(0x88cc));      // integer 35020
//   auto proto = Vorn::fromValue<uint16_t>(v);             // back; a value that does not fit raises
//   Vorn::Value id("Ethernet1");                           // text: converts to Ovel::IntfId and the like
//   Vorn::Value dir(Vorn::Ptr<Vorn::PtrInterface>(entity)); // an object reference
//
// Kinds: none (null, absent), boolean, integer (signed or unsigned 64-bit), real, text, object (a
// counted reference to any Vorn::PtrInterface) and list. Value types convert to the kind that says the
// most about them: a type built from a Vorn::String and printable (IntfId, NamespaceName, EthAddr)
// goes as its text; an enumeration as its number; a vector as a list. A type that fits none of these
// specialises Vorn::ValueTraits next to itself.
//
// An object value does not carry constness: the generic path drives what the agent handed it, and the
// typed mutator it ends in decides what it accepts. A value that does not convert raises
// Vorn::ValueTypeException (a RangeException) naming what was expected and what came.
#pragma once

#include <concepts>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Ptr.h"
#include "intfsm/foundation/vorn/String.h"

namespace Vorn {

// A value of the wrong kind or out of the target type's range; nothing was changed.
class ValueTypeException : public RangeException {
 public:
  using RangeException::RangeException;
};

class Value {
 public:
  enum class Kind : uint8_t { none, boolean, integer, unsignedInteger, real, text, object, list };
  using List = std::vector<Value>;

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  template <std::signed_integral I>
    requires(!std::same_as<I, bool> && !std::same_as<I, char>)
  Value(I i) : v_(int64_t(i)) {}
  template <std::unsigned_integral I>
    requires(!std::same_as<I, bool>)
  Value(I i) : v_(uint64_t(i)) {}
  Value(double d) : v_(d) {}
  Value(String s) : v_(std::move(s)) {}
  Value(char const * s) : v_(String(s)) {}
  Value(std::string const & s) : v_(String(s)) {}
  Value(Ptr<PtrInterface> p) {
    if (p) v_ = std::move(p);
  }
  template <class U>
  Value(Ptr<U> const & p) : Value(Ptr<PtrInterface>(const_cast<std::remove_const_t<U> *>(p.ptr()))) {}
  Value(List l) : v_(std::move(l)) {}

  Kind kind() const { return Kind(v_.index()); }
  bool isNone() const { return kind() == Kind::none; }
  // Each raises ValueTypeException when the value is of another kind (integer() and unsignedInteger()
  // accept either integer kind that fits).
  bool boolean() const;
  int64_t integer() const;
  uint64_t unsignedInteger() const;
  double real() const;  // integers too
  String const & text() const;
  Ptr<PtrInterface> const & object() const;  // none yields a null reference
  List const & list() const;

  // "none", "true", "42", "\"et1\"" (texts quoted), "<KernelOperState::Root kos>", "[1, 2]".
  std::string str() const;
  static char const * kindName(Kind k);

  bool operator==(Value const & o) const;

 private:
  [[noreturn]] void wrongKind(char const * expected) const;
  std::variant<std::monostate, bool, int64_t, uint64_t, double, String, Ptr<PtrInterface>, List> v_;
};

std::ostream & operator<<(std::ostream & os, Value const & v);

// The readable name of a C++ type ("Ovel::IntfId", "unsigned short").
std::string typeNameOf(std::type_info const & t);
template <class T>
std::string typeName() {
  return typeNameOf(typeid(T));
}
// The registry name of an entity ("KernelOperState::Root"), else its C++ type name.
std::string objectTypeName(PtrInterface const & p);

// Conversion between a typed value and a Value; the primary template covers the kinds above.
template <class T, class = void>
struct ValueTraits;

template <class T>
Value toValue(T const & v) {
  return ValueTraits<std::remove_cvref_t<T>>::to(v);
}
template <class T>
std::remove_cvref_t<T> fromValue(Value const & v) {
  return ValueTraits<std::remove_cvref_t<T>>::from(v);
}

template <>
struct ValueTraits<bool> {
  static Value to(bool b) { return Value(b); }
  static bool from(Value const & v) { return v.boolean(); }
};

template <class T>
struct ValueTraits<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> {
  static Value to(T i) { return Value(i); }
  static T from(Value const & v) {
    if constexpr (std::is_signed_v<T>) {
      int64_t i = v.integer();
      if (i < int64_t(std::numeric_limits<T>::min()) || i > int64_t(std::numeric_limits<T>::max())) outOfRange(v);
      return T(i);
    } else {
      uint64_t i = v.unsignedInteger();
      if (i > uint64_t(std::numeric_limits<T>::max())) outOfRange(v);
      return T(i);
    }
  }
  [[noreturn]] static void outOfRange(Value const & v) {
    throw ValueTypeException(v.str() + " is out of the range of " + typeName<T>());
  }
};

template <class T>
struct ValueTraits<T, std::enable_if_t<std::is_enum_v<T>>> {
  using U = std::underlying_type_t<T>;
  static Value to(T e) { return Value(U(e)); }
  static T from(Value const & v) { return T(ValueTraits<U>::from(v)); }
};

template <class T>
struct ValueTraits<T, std::enable_if_t<std::is_floating_point_v<T>>> {
  static Value to(T d) { return Value(double(d)); }
  static T from(Value const & v) { return T(v.real()); }
};

template <>
struct ValueTraits<String> {
  static Value to(String const & s) { return Value(s); }
  static String from(Value const & v) { return v.text(); }
};
template <>
struct ValueTraits<Name> {
  static Value to(Name const & s) { return Value(String(s)); }
  static Name from(Value const & v) { return Name(v.text()); }
};
template <>
struct ValueTraits<std::string> {
  static Value to(std::string const & s) { return Value(s); }
  static std::string from(Value const & v) { return v.text().stdString(); }
};

template <class U>
struct ValueTraits<Ptr<U>> {
  using Plain = std::remove_const_t<U>;
  static Value to(Ptr<U> const & p) { return Value(Ptr<PtrInterface>(const_cast<Plain *>(p.ptr()))); }
  static Ptr<U> from(Value const & v) {
    Ptr<PtrInterface> const & o = v.object();
    if (!o) return Ptr<U>();
    auto * t = dynamic_cast<Plain *>(o.ptr());
    if (!t) throw ValueTypeException(typeName<Plain>() + " expected, got " + objectTypeName(*o));
    return Ptr<U>(t);
  }
};

// A raw back pointer to a counted object reads as a counted reference.
template <class U>
struct ValueTraits<U *, std::enable_if_t<std::is_base_of_v<PtrInterface, U>>> {
  using Plain = std::remove_const_t<U>;
  static Value to(U * p) { return Value(Ptr<PtrInterface>(const_cast<Plain *>(p))); }
  static U * from(Value const & v) { return ValueTraits<Ptr<U>>::from(v).ptr(); }
};

// A value type built from its text and printed as that text: IntfId, NamespaceName, EthAddr.
template <class T>
struct ValueTraits<T, std::enable_if_t<!std::is_arithmetic_v<T> && !std::is_enum_v<T> &&
                                       std::is_constructible_v<T, String const &> &&
                                       !std::is_convertible_v<String const &, T>>> {
  static Value to(T const & t) {
    std::ostringstream os;
    os << t;
    return Value(os.str());
  }
  static T from(Value const & v) { return T(v.text()); }
};

template <class T>
struct ValueTraits<std::vector<T>> {
  static Value to(std::vector<T> const & l) {
    Value::List out;
    out.reserve(l.size());
    for (auto const & e : l) out.push_back(toValue(e));
    return Value(std::move(out));
  }
  static std::vector<T> from(Value const & v) {
    std::vector<T> out;
    for (Value const & e : v.list()) out.push_back(fromValue<T>(e));
    return out;
  }
};

template <>
struct ValueTraits<Value> {
  static Value to(Value const & v) { return v; }
  static Value from(Value const & v) { return v; }
};

}  // namespace Vorn
