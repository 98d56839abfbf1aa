// A registry of entity types: each type's fully qualified name, in an order fixed when the registry
// is made, the names of its attributes, and the factory through which an agent creates it by name.
//
//   Vorn::TypeRegistry registry({"Demo::Root", "Demo::Dir"});
//   registry.typeIs("Demo::Root", &rootFactory, rootAttributes);   // a Vorn::AttributeTableOf<Root>
//   Vorn::Ptr<Vorn::Entity> root = registry.newEntity("Demo::Root", "r");
//
// The framework knows no type of its own: the library keeps its list of names, and its registry, at
// library level (intfsm/LibraryTypes.h).
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "intfsm/foundation/vorn/Attribute.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

class TypeRecord {
 public:
  using Factory = Ptr<Entity> (*)(Name const & name);

  String const & name() const { return name_; }
  Factory factory() const { return factory_; }
  // The attribute names: those of the type's attribute table, in its order.
  std::vector<String> const & attributes() const { return attributes_; }
  // The type's generic attribute access; null when the type has none.
  AttributeTable const * table() const { return table_; }

 private:
  friend class TypeRegistry;
  explicit TypeRecord(String name) : name_(std::move(name)) {}
  String name_;
  Factory factory_ = nullptr;
  AttributeTable const * table_ = nullptr;
  std::vector<String> attributes_;
};

class TypeRegistry {
 public:
  // The registry of exactly these type names, in this order.
  TypeRegistry(std::initializer_list<char const *> names);

  // Every type, in registry order.
  std::vector<TypeRecord> const & types() const { return types_; }
  // The record of a fully qualified name, or null.
  TypeRecord const * type(String const & name) const;
  // Creates an entity of a registered type through its factory; null when it has none.
  Ptr<Entity> newEntity(String const & typeName, Name const & name) const;
  // The same, with `dir` as the new entity's parent.
  Ptr<Entity> newEntityForDir(String const & typeName, Name const & name, Ptr<Entity> const & dir) const;

  // Attaches a factory and the attribute table (whose own names become the type's attribute names) to a
  // known type; an unknown name is a program error.
  void typeIs(String const & name, TypeRecord::Factory factory, AttributeTable const & table);

 private:
  std::vector<TypeRecord> types_;
};

}  // namespace Vorn
