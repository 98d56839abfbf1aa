#include "intfsm/foundation/vorn/TypeRegistry.h"

#include "intfsm/foundation/vorn/Assert.h"

namespace Vorn {

TypeRegistry::TypeRegistry(std::initializer_list<char const *> names) {
  types_.reserve(names.size());
  for (char const * name : names) types_.push_back(TypeRecord(name));
}

TypeRecord const * TypeRegistry::type(String const & name) const {
  for (TypeRecord const & t : types_) {
    if (t.name_ == name) return &t;
  }
  return nullptr;
}

void TypeRegistry::typeIs(String const & name, TypeRecord::Factory factory, AttributeTable const & table) {
  TypeRecord * record = const_cast<TypeRecord *>(type(name));
  VORN_ASSERT(record != nullptr);
  record->factory_ = factory;
  record->table_ = &table;
  record->attributes_ = table.ownNames();
}

Ptr<Entity> TypeRegistry::newEntity(String const & typeName, Name const & name) const {
  TypeRecord const * record = type(typeName);
  return record && record->factory_ ? record->factory_(name) : Ptr<Entity>();
}

Ptr<Entity> TypeRegistry::newEntityForDir(String const & typeName, Name const & name, Ptr<Entity> const & dir) const {
  Ptr<Entity> entity = newEntity(typeName, name);
  if (entity) entity->parentIs(dir);
  return entity;
}

}  // namespace Vorn
