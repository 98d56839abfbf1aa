// Entities: the named, reference-counted, notifying objects that the library's state machines,
// directories and roots are made of.
//
// An entity has a name within its parent and a parent (not owned: the parent owns its children
// through attributes, and a child whose parent dies sees a null parent).
#pragma once

#include <vector>

#include "intfsm/foundation/vorn/Notifier.h"
#include "intfsm/foundation/vorn/String.h"

namespace Vorn {

class Entity : public Notifier {
 public:
  Name const & name() const { return name_; }
  Ptr<Entity> parent() const { return Ptr<Entity>(parent_); }
  void parentIs(Ptr<Entity> const & parent);

  // The fully qualified type name of the registry ("KernelOperState::Root"); empty for plain entities.
  virtual char const * vornTypeName() const { return ""; }

 protected:
  explicit Entity(Name const & name) : name_(name) {}
  ~Entity() override;

 private:
  // Takes `child` out of children_, in any order: the list only serves to tell the children of a death.
  void childDel(Entity * child);

  Name name_;
  Entity * parent_ = nullptr;
  size_t childIndex_ = 0;  // where this entity sits in its parent's children_
  std::vector<Entity *> children_;
};

}  // namespace Vorn
