#include "intfsm/foundation/vorn/Value.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <ostream>

#include "intfsm/foundation/vorn/Attribute.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

char const * Value::kindName(Kind k) {
  switch (k) {
    case Kind::none: return "none";
    case Kind::boolean: return "boolean";
    case Kind::integer: return "integer";
    case Kind::unsignedInteger: return "unsigned integer";
    case Kind::real: return "real";
    case Kind::text: return "text";
    case Kind::object: return "object";
    case Kind::list: return "list";
  }
  return "?";
}

void Value::wrongKind(char const * expected) const {
  throw ValueTypeException(std::string(expected) + " expected, got " + kindName(kind()) +
                           (isNone() ? "" : " " + str()));
}

bool Value::boolean() const {
  if (auto const * b = std::get_if<bool>(&v_)) return *b;
  wrongKind("boolean");
}

int64_t Value::integer() const {
  if (auto const * i = std::get_if<int64_t>(&v_)) return *i;
  if (auto const * u = std::get_if<uint64_t>(&v_)) {
    if (*u <= uint64_t(std::numeric_limits<int64_t>::max())) return int64_t(*u);
    throw ValueTypeException(str() + " is out of the range of long");
  }
  wrongKind("integer");
}

uint64_t Value::unsignedInteger() const {
  if (auto const * u = std::get_if<uint64_t>(&v_)) return *u;
  if (auto const * i = std::get_if<int64_t>(&v_)) {
    if (*i >= 0) return uint64_t(*i);
    throw ValueTypeException(str() + " is out of the range of unsigned long");
  }
  wrongKind("unsigned integer");
}

double Value::real() const {
  if (auto const * d = std::get_if<double>(&v_)) return *d;
  if (auto const * i = std::get_if<int64_t>(&v_)) return double(*i);
  if (auto const * u = std::get_if<uint64_t>(&v_)) return double(*u);
  wrongKind("real");
}

String const & Value::text() const {
  if (auto const * s = std::get_if<String>(&v_)) return *s;
  wrongKind("text");
}

Ptr<PtrInterface> const & Value::object() const {
  static Ptr<PtrInterface> const null;
  if (auto const * p = std::get_if<Ptr<PtrInterface>>(&v_)) return *p;
  if (isNone()) return null;
  wrongKind("object");
}

Value::List const & Value::list() const {
  if (auto const * l = std::get_if<List>(&v_)) return *l;
  wrongKind("list");
}

bool Value::operator==(Value const & o) const {
  if (kind() != o.kind()) {
    bool const ints = (kind() == Kind::integer || kind() == Kind::unsignedInteger) &&
                      (o.kind() == Kind::integer || o.kind() == Kind::unsignedInteger);
    if (!ints) return false;
    int64_t const * i = std::get_if<int64_t>(&v_) ? std::get_if<int64_t>(&v_) : std::get_if<int64_t>(&o.v_);
    uint64_t const * u = std::get_if<uint64_t>(&v_) ? std::get_if<uint64_t>(&v_) : std::get_if<uint64_t>(&o.v_);
    return *i >= 0 && uint64_t(*i) == *u;
  }
  return v_ == o.v_;
}

std::string Value::str() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

std::ostream & operator<<(std::ostream & os, Value const & v) {
  switch (v.kind()) {
    case Value::Kind::none: return os << "none";
    case Value::Kind::boolean: return os << (v.boolean() ? "true" : "false");
    case Value::Kind::integer: return os << v.integer();
    case Value::Kind::unsignedInteger: return os << v.unsignedInteger();
    case Value::Kind::real: return os << v.real();
    case Value::Kind::text: return os << '"' << v.text() << '"';
    case Value::Kind::object: {
      PtrInterface const & p = *v.object();
      os << '<' << objectTypeName(p);
      auto const * e = dynamic_cast<Entity const *>(&p);
      if (e && !e->name().empty()) os << ' ' << e->name();
      return os << '>';
    }
    case Value::Kind::list: {
      os << '[';
      char const * sep = "";
      for (Value const & e : v.list()) {
        os << sep << e;
        sep = ", ";
      }
      return os << ']';
    }
  }
  return os;
}

std::string typeNameOf(std::type_info const & t) {
  int status = 0;
  std::unique_ptr<char, void (*)(void *)> name(abi::__cxa_demangle(t.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(t.name());
}

std::string objectTypeName(PtrInterface const & p) {
  if (auto const * e = dynamic_cast<Entity const *>(&p)) {
    if (*e->vornTypeName()) return e->vornTypeName();
  } else if (auto const * n = dynamic_cast<Notifier const *>(&p)) {
    if (AttributeTable const * t = AttributeTable::of(*n)) return t->typeName();
  }
  return typeNameOf(typeid(p));
}

}  // namespace Vorn
