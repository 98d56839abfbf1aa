#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

Entity::~Entity() {
  for (Entity * child : children_) child->parent_ = nullptr;
  if (parent_) parent_->childDel(this);
}

void Entity::parentIs(Ptr<Entity> const & parent) {
  if (parent_ == parent.ptr()) return;
  if (parent_) parent_->childDel(this);
  parent_ = parent.ptr();
  if (parent_) {
    childIndex_ = parent_->children_.size();
    parent_->children_.push_back(this);
  }
}

// The last child takes the leaver's place: a parent of thousands of children (a manager's Pams) loses
// one without a walk over the others.
void Entity::childDel(Entity * child) {
  Entity * const last = children_.back();
  children_[child->childIndex_] = last;
  last->childIndex_ = child->childIndex_;
  children_.pop_back();
}

}  // namespace Vorn
