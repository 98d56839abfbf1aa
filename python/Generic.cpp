// Generic attribute access from Python, on every type that declares an attribute table: the names the
// type registry lists, with the notifications and errors of the typed mutators.
//
//   root = intfsm.KernelOperState.rootFactory("kos")
//   root.operStateConvergence = True          # scalar: set / read / del
//   root.kosmIs()                             # instantiating: xIs(args...) creates, x reads, xDel() deletes
//   d = root.intfStatusDirIs("s")
//   d.intfStatus[...]                         # collection: a mapping by key (len, in, iter, items, del)
//   d.intfStatusIs(status)                    # xIs / xDel as in C++, for every kind
//   mgr.addIntfPam("Ethernet1")               # callable: called with its arguments
//
// Reads and calls: typed bindings of the same names (properties, methods) come first, and generic
// access serves every name of the table that has none. Sets of a name in the table always go through
// the table. Both reach the same typed members. Names outside the table raise AttributeError, except on Python
// subclasses, whose own attributes live in their __dict__ as usual.
#include <string>
#include <string_view>

#include "Bindings.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/vorn/Attribute.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Value.h"

namespace IntfsmPython {

namespace {

py::object toPython(Vorn::Value const & v) {
  using K = Vorn::Value::Kind;
  switch (v.kind()) {
    case K::none: return py::none();
    case K::boolean: return py::bool_(v.boolean());
    case K::integer: return py::int_(v.integer());
    case K::unsignedInteger: return py::int_(v.unsignedInteger());
    case K::real: return py::float_(v.real());
    case K::text: return py::cast(v.text());
    case K::object: {
      Vorn::PtrInterface * p = v.object().ptr();
      if (auto * n = dynamic_cast<Vorn::Notifier *>(p)) return py::cast(Vorn::Ptr<Vorn::Notifier>(n));
      if (auto * pkt = dynamic_cast<Ovel::Pkt *>(p)) return py::cast(Vorn::Ptr<Ovel::Pkt>(pkt));
      throw Vorn::ValueTypeException(Vorn::objectTypeName(*p) + " has no Python type");
    }
    case K::list: {
      py::list out;
      for (auto const & e : v.list()) out.append(toPython(e));
      return out;
    }
  }
  return py::none();
}

Vorn::Value fromPython(py::handle h) {
  if (h.is_none()) return Vorn::Value();
  if (py::isinstance<py::bool_>(h)) return Vorn::Value(h.cast<bool>());
  if (py::isinstance<py::int_>(h)) {
    int overflow = 0;
    long long const i = PyLong_AsLongLongAndOverflow(h.ptr(), &overflow);
    if (!overflow) return Vorn::Value(int64_t(i));
    if (overflow > 0) return Vorn::Value(h.cast<uint64_t>());
    throw Vorn::ValueTypeException(py::str(h).cast<std::string>() + " is out of the range of long");
  }
  if (py::isinstance<py::float_>(h)) return Vorn::Value(h.cast<double>());
  if (py::isinstance<py::str>(h)) return Vorn::Value(Vorn::String(h.cast<std::string>()));
  if (py::isinstance<Vorn::Notifier>(h)) return Vorn::Value(h.cast<Vorn::Ptr<Vorn::Notifier>>());
  if (py::isinstance<Ovel::Pkt>(h)) return Vorn::Value(h.cast<Vorn::Ptr<Ovel::Pkt>>());
  if (py::isinstance<py::list>(h) || py::isinstance<py::tuple>(h)) {
    Vorn::Value::List list;
    for (py::handle e : py::reinterpret_borrow<py::sequence>(h)) list.push_back(fromPython(e));
    return Vorn::Value(std::move(list));
  }
  if (py::hasattr(h, "__index__")) return fromPython(py::int_(py::reinterpret_borrow<py::object>(h)));  // enums
  throw Vorn::ValueTypeException(std::string("a ") + py::str(h.get_type().attr("__name__")).cast<std::string>() +
                                 " is not a value of the library");
}

Vorn::Value::List argumentsOf(py::args const & args) {
  Vorn::Value::List out;
  for (py::handle a : args) out.push_back(fromPython(a));
  return out;
}

// The registry's name of a notifier's type: its table's, else an entity's own.
char const * registeredTypeName(Vorn::Notifier const & n) {
  if (auto const * t = Vorn::AttributeTable::of(n)) return t->typeName();
  if (auto const * e = dynamic_cast<Vorn::Entity const *>(&n)) return e->vornTypeName();
  return "";
}

// A collection attribute of one entity, as a Python mapping by key.
class CollectionView {
 public:
  CollectionView(Vorn::Ptr<Vorn::Notifier> entity, Vorn::AttributeTable const * table, uint32_t number)
      : entity_(std::move(entity)), table_(table), number_(number) {}

  py::object get(py::handle key) const {
    if (!table_->contains(*entity_, number_, fromPython(key))) throw py::key_error(py::repr(key));
    return toPython(table_->get(*entity_, number_, fromPython(key)));
  }
  void set(py::handle key, py::handle value) { table_->set(*entity_, number_, fromPython(key), fromPython(value)); }
  void del(py::handle key) {
    Vorn::Value const k = fromPython(key);
    if (!table_->contains(*entity_, number_, k)) throw py::key_error(py::repr(key));
    table_->del(*entity_, number_, k);
  }
  uint32_t size() const { return table_->count(*entity_, number_); }
  bool contains(py::handle key) const { return table_->contains(*entity_, number_, fromPython(key)); }
  py::list keys() const {
    py::list out;
    for (auto const & k : table_->keys(*entity_, number_)) out.append(toPython(k));
    return out;
  }
  py::list items() const {
    py::list out;
    for (auto const & k : table_->keys(*entity_, number_)) {
      out.append(py::make_tuple(toPython(k), toPython(table_->get(*entity_, number_, k))));
    }
    return out;
  }
  std::string repr() const {
    return std::string("<") + registeredTypeName(*entity_) + "." + table_->info(number_).name.charPtr() + ": " +
           std::to_string(size()) + " entries>";
  }

 private:
  Vorn::Ptr<Vorn::Notifier> entity_;
  Vorn::AttributeTable const * table_;
  uint32_t number_;
};

Vorn::AttributeTable const * tableOf(Vorn::Notifier const & e) { return Vorn::AttributeTable::of(e); }

// "xIs" / "xDel" of an attribute x of the table; the attribute's number and which of the two.
struct Mutator {
  uint32_t number;
  bool isDel;
};
std::optional<Mutator> mutatorOf(Vorn::AttributeTable const & table, std::string_view name) {
  for (auto [suffix, isDel] : {std::pair<std::string_view, bool>{"Is", false}, {"Del", true}}) {
    if (name.size() > suffix.size() && name.ends_with(suffix)) {
      if (auto n = table.find(name.substr(0, name.size() - suffix.size()))) return Mutator{*n, isDel};
    }
  }
  return std::nullopt;
}

// The entity behind a Python object; null while a Python subclass's __init__ has not made it yet.
Vorn::Ptr<Vorn::Notifier> entityOf(py::handle self) {
  try {
    return Vorn::Ptr<Vorn::Notifier>(self.cast<Vorn::Notifier *>());
  } catch (py::cast_error const &) {
    return nullptr;
  }
}

std::string typeNameOf(py::handle self, Vorn::Notifier const * e) {
  if (e && *registeredTypeName(*e)) return registeredTypeName(*e);
  return py::str(self.get_type().attr("__name__"));
}

py::object genericGet(py::handle self, std::string const & name) {
  Vorn::Ptr<Vorn::Notifier> e = entityOf(self);
  Vorn::AttributeTable const * table = e ? tableOf(*e) : nullptr;
  if (table) {
    if (auto n = table->find(name)) {
      switch (table->info(*n).kind) {
        case Vorn::AttributeKind::collection: return py::cast(CollectionView(e, table, *n));
        case Vorn::AttributeKind::callable:
          return py::cpp_function([e, table, n = *n](py::args const & args) {
            return toPython(table->call(*e, n, argumentsOf(args)));
          });
        default: return toPython(table->get(*e, *n));
      }
    }
    if (auto m = mutatorOf(*table, name)) {
      auto const kind = table->info(m->number).kind;
      return py::cpp_function([e, table, m = *m, kind](py::args const & args) -> py::object {
        if (m.isDel) {
          if (kind == Vorn::AttributeKind::collection) {
            if (args.size() != 1) throw py::type_error("takes the key");
            table->del(*e, m.number, fromPython(args[0]));
          } else {
            table->del(*e, m.number);
          }
          return py::none();
        }
        switch (kind) {
          case Vorn::AttributeKind::collection:
            if (args.size() == 1) table->set(*e, m.number, Vorn::Value(), fromPython(args[0]));
            else if (args.size() == 2) table->set(*e, m.number, fromPython(args[0]), fromPython(args[1]));
            else throw py::type_error("takes (key, value), or the value alone when it carries its key");
            return py::none();
          case Vorn::AttributeKind::scalar:
            if (args.size() != 1) throw py::type_error("takes the value");
            table->set(*e, m.number, fromPython(args[0]));
            return py::none();
          default: return toPython(table->call(*e, m.number, argumentsOf(args)));
        }
      });
    }
  }
  throw py::attribute_error("'" + typeNameOf(self, e.ptr()) + "' object has no attribute '" + name + "'");
}

// A Python subclass (a receiver written in Python) keeps its own attributes in its __dict__.
bool isPythonSubclass(py::handle self) {
  auto * type = reinterpret_cast<PyTypeObject *>(self.get_type().ptr());
  py::detail::type_info const * info = py::detail::get_type_info(type);
  return !info || info->type != type;
}

// A descriptor (typed property) of that name on the Python type: it takes the set.
bool hasDescriptor(py::handle self, std::string const & name) {
  PyObject * d = _PyType_Lookup(reinterpret_cast<PyTypeObject *>(self.get_type().ptr()), py::str(name).ptr());
  return d && Py_TYPE(d)->tp_descr_set;
}

void genericSet(py::handle self, std::string const & name, py::handle value) {
  Vorn::Ptr<Vorn::Notifier> e = entityOf(self);
  Vorn::AttributeTable const * table = e ? tableOf(*e) : nullptr;
  if (table) {  // the table first: a typed property of the same name calls the same mutator
    if (auto n = table->find(name)) {
      if (table->info(*n).kind == Vorn::AttributeKind::collection) {
        throw py::type_error(name + " is a collection: set its entries (" + name + "[key] = value, " + name +
                             "Is(...))");
      }
      table->set(*e, *n, fromPython(value));
      return;
    }
  }
  if (hasDescriptor(self, name) || isPythonSubclass(self)) {
    if (PyObject_GenericSetAttr(self.ptr(), py::str(name).ptr(), value.ptr()) != 0) throw py::error_already_set();
    return;
  }
  throw py::attribute_error("'" + typeNameOf(self, e.ptr()) + "' object has no attribute '" + name + "'");
}

void genericDel(py::handle self, std::string const & name) {
  Vorn::Ptr<Vorn::Notifier> e = entityOf(self);
  Vorn::AttributeTable const * table = e ? tableOf(*e) : nullptr;
  if (table) {
    if (auto n = table->find(name)) {
      table->del(*e, *n);
      return;
    }
  }
  if (PyObject_GenericSetAttr(self.ptr(), py::str(name).ptr(), nullptr) != 0) throw py::error_already_set();
}

}  // namespace

void bindGeneric(py::module_ & m) {
  py::class_<CollectionView>(m, "AttributeCollection")
      .def("__getitem__", &CollectionView::get)
      .def("__setitem__", &CollectionView::set)
      .def("__delitem__", &CollectionView::del)
      .def("__len__", &CollectionView::size)
      .def("__contains__", &CollectionView::contains)
      .def("__iter__", [](CollectionView const & c) { return py::iter(c.keys()); })
      .def("keys", &CollectionView::keys)
      .def("items", &CollectionView::items)
      .def("get",
           [](CollectionView const & c, py::handle key, py::object dflt) {
             return c.contains(key) ? c.get(key) : dflt;
           },
           py::arg("key"), py::arg("default") = py::none())
      .def("__repr__", &CollectionView::repr);

  auto entity = py::reinterpret_borrow<py::object>(m.attr("Notifier"));  // entities and the other notifiers
  entity.attr("__getattr__") = py::cpp_function(&genericGet, py::is_method(entity), py::arg("name"));
  entity.attr("__setattr__") = py::cpp_function(&genericSet, py::is_method(entity), py::arg("name"), py::arg("value"));
  entity.attr("__delattr__") = py::cpp_function(&genericDel, py::is_method(entity), py::arg("name"));
  entity.attr("vornAttributes") = py::cpp_function(
      [](Vorn::Notifier const & e) {
        std::vector<std::string> out;
        if (auto const * t = tableOf(e)) {
          for (auto const & n : t->names()) out.emplace_back(n.charPtr());
        }
        return out;
      },
      py::is_method(entity), "The attribute names of the type, in the registry's order (empty: no table).");
  m.def(
      "typeNames",
      [] {
        std::vector<std::string> out;
        for (auto const & t : Intfsm::typeRegistry().types()) out.emplace_back(t.name().charPtr());
        return out;
      },
      "The registered types, in the registry's order.");
  m.def(
      "registryAttributes",
      [](std::string const & typeName) {
        Vorn::TypeRecord const * t = Intfsm::typeRegistry().type(Vorn::String(typeName));
        if (!t) throw Vorn::RangeException(typeName + " is not a registered type");
        std::vector<std::string> out;
        for (auto const & n : t->attributes()) out.emplace_back(n.charPtr());
        return out;
      },
      py::arg("typeName"), "The attribute names the registry lists for the type.");
  m.def(
      "newEntity",
      [](std::string const & typeName, Vorn::Name const & name) {
        Vorn::Ptr<Vorn::Notifier> e = Intfsm::typeRegistry().newEntity(Vorn::String(typeName), name);
        if (!e) throw Vorn::RangeException(typeName + " has no factory by name");
        return e;
      },
      py::arg("typeName"), py::arg("name"), "An entity of a registered type, made by its factory.");
  m.def("attributeNames", [](std::string const & typeName) {
    std::vector<std::string> out;
    if (auto const * t = Vorn::AttributeTable::of(typeName)) {
      for (auto const & n : t->names()) out.emplace_back(n.charPtr());
    }
    return out;
  });
}

}  // namespace IntfsmPython
