// The registry of the library's entity types: each type's fully qualified name, in a fixed order,
// the names of its attributes, and the factory through which an agent creates it by name.
//
//   auto root = Vorn::typeRegistry().type("KernelOperState::Root")->factory()("kos");
//
// The names are known from the start; a module attaches its factory and attribute names when the
// library is loaded (TypeRegistration objects at namespace scope).
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

class TypeRecord {
 public:
  using Factory = Ptr<Entity> (*)(Name const & name);

  String const & name() const { return name_; }
  Factory factory() const { return factory_; }
  std::vector<String> const & attributes() const { return attributes_; }

 private:
  friend class TypeRegistry;
  explicit TypeRecord(String name) : name_(std::move(name)) {}
  String name_;
  Factory factory_ = nullptr;
  std::vector<String> attributes_;
};

class TypeRegistry {
 public:
  // Every registered type, in registry order.
  std::vector<TypeRecord> const & types() const { return types_; }
  // The record of a fully qualified name, or null.
  TypeRecord const * type(String const & name) const;
  // Creates an entity of a registered type through its factory; null when it has none.
  Ptr<Entity> newEntity(String const & typeName, Name const & name) const;

  // Attaches a factory and the attribute names to a known type; an unknown name is a program error.
  void typeIs(String const & name, TypeRecord::Factory factory, std::initializer_list<char const *> attributes);

 private:
  friend TypeRegistry & typeRegistry();
  TypeRegistry();
  std::vector<TypeRecord> types_;
};

TypeRegistry & typeRegistry();

// Creates an entity of `typeName` named `name` with `dir` as its parent.
Ptr<Entity> newEntityForDir(String const & typeName, Name const & name, Ptr<Entity> const & dir);

// Registers a type when the library is loaded.
struct TypeRegistration {
  TypeRegistration(char const * name, TypeRecord::Factory factory, std::initializer_list<char const *> attributes) {
    typeRegistry().typeIs(name, factory, attributes);
  }
};

}  // namespace Vorn
