// What every translation unit of the Python module shares: Vorn::Ptr as the holder of every
// library object, and conversions of the library's value types to and from Python values.
//
// - Entities, reactors and Pams are held by Vorn::Ptr (an intrusive count), so the same C++ object
//   always comes back as the same Python object while Python holds it, and C++ keeps it alive for as
//   long as it holds a reference of its own.
// - Vorn::Ptr<T const> converts like Vorn::Ptr<T>: Python has no const, and the library's accessors
//   hand out const views of what agents may change through their owners anyway.
// - Vorn::String, Vorn::Name, Ovel::IntfId and Ovel::NamespaceName are Python str both ways; a name
//   that the library refuses raises ValueError with the library's text.
#pragma once

#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>
#include <string_view>
#include <type_traits>

#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Ptr.h"
#include "intfsm/foundation/vorn/String.h"

namespace pybind11::detail {

// Vorn::Ptr<T> is the holder of every library type (an intrusive count: a raw pointer can always
// become a holder again).
template <class T>
struct always_construct_holder<Vorn::Ptr<T>> : always_construct_holder<void, true> {};
template <class T>
class type_caster<Vorn::Ptr<T>, enable_if_t<!std::is_const_v<T>>> : public type_caster_holder<T, Vorn::Ptr<T>> {};

template <class T>
struct holder_helper<Vorn::Ptr<T>> {
  static T * get(Vorn::Ptr<T> const & p) { return p.ptr(); }
};

template <class C>
class type_caster<Vorn::Ptr<C>, enable_if_t<std::is_const_v<C>>> {
  using T = std::remove_const_t<C>;
  using Inner = copyable_holder_caster<T, Vorn::Ptr<T>>;

 public:
  static constexpr auto name = Inner::name;

  bool load(handle src, bool convert) {
    if (src.is_none()) {
      value_ = nullptr;
      return true;
    }
    Inner inner;
    if (!inner.load(src, convert)) return false;
    value_ = static_cast<Vorn::Ptr<T> &>(inner);
    return true;
  }
  static handle cast(Vorn::Ptr<T const> const & src, return_value_policy policy, handle parent) {
    return Inner::cast(Vorn::Ptr<T>(const_cast<T *>(src.ptr())), policy, parent);
  }
  operator Vorn::Ptr<T const> &() { return value_; }
  template <class>
  using cast_op_type = Vorn::Ptr<T const> &;

 private:
  Vorn::Ptr<T const> value_;
};

// Texts of the library from and to Python str.
template <class V>
struct textCaster {
  PYBIND11_TYPE_CASTER(V, const_name("str"));
  bool load(handle src, bool) {
    if (!isinstance<str>(src)) return false;
    Py_ssize_t size = 0;
    char const * text = PyUnicode_AsUTF8AndSize(src.ptr(), &size);
    if (!text) {
      PyErr_Clear();
      return false;
    }
    value = V(std::string_view(text, static_cast<size_t>(size)));
    return true;
  }
  static handle cast(V const & v, return_value_policy, handle) {
    auto const & s = static_cast<Vorn::String const &>(v);
    return PyUnicode_DecodeUTF8(s.charPtr(), static_cast<Py_ssize_t>(s.size()), "surrogateescape");
  }
};
template <>
struct type_caster<Vorn::String> : textCaster<Vorn::String> {};
template <>
struct type_caster<Vorn::Name> : textCaster<Vorn::Name> {};

// Value types built from a text; the constructor's RangeException becomes ValueError.
template <class V>
struct namedValueCaster {
  PYBIND11_TYPE_CASTER(V, const_name("str"));
  bool load(handle src, bool) {
    if (!isinstance<str>(src)) return false;
    value = V(Vorn::String(src.cast<std::string>()));
    return true;
  }
  static handle cast(V const & v, return_value_policy, handle) {
    return PyUnicode_DecodeUTF8(v.charPtr(), static_cast<Py_ssize_t>(v.name().size()), "surrogateescape");
  }
};
template <>
struct type_caster<Ovel::IntfId> : namedValueCaster<Ovel::IntfId> {};
template <>
struct type_caster<Ovel::NamespaceName> : namedValueCaster<Ovel::NamespaceName> {};

}  // namespace pybind11::detail

namespace IntfsmPython {

namespace py = pybind11;

// The parts of the module, each defined in its own translation unit.
void bindFoundation(py::module_ & m);
void bindSubsystems(py::module_ & m);
void bindGeneric(py::module_ & m);

}  // namespace IntfsmPython
