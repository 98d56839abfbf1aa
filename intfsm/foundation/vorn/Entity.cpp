#include "intfsm/foundation/vorn/Entity.h"

#include <algorithm>

namespace Vorn {

Entity::~Entity() {
  for (Entity * child : children_) child->parent_ = nullptr;
  if (parent_) std::erase(parent_->children_, this);
}

void Entity::parentIs(Ptr<Entity> const & parent) {
  if (parent_ == parent.ptr()) return;
  if (parent_) std::erase(parent_->children_, this);
  parent_ = parent.ptr();
  if (parent_) parent_->children_.push_back(this);
}

}  // namespace Vorn
