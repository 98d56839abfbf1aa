// The library's entity types, in their fixed registry order: each module attaches its factory and
// attribute names when the library is loaded, and an agent or a script creates entities by type name.
//
//   auto root = Intfsm::typeRegistry().newEntity("KernelOperState::Root", "kos");
//
//   // in a module's .cpp, at namespace scope:
//   Vorn::AttributeTableOf<Root> const rootAttributes("KernelOperState::Root", [](auto & t) { ... });
//   Intfsm::TypeRegistration registration("KernelOperState::Root", &rootFactory, rootAttributes);
#pragma once

#include "intfsm/foundation/vorn/TypeRegistry.h"

namespace Intfsm {

// Created on first use, so registrations from any translation unit's static initialisation find it.
Vorn::TypeRegistry & typeRegistry();

struct TypeRegistration {
  TypeRegistration(char const * name, Vorn::TypeRecord::Factory factory, Vorn::AttributeTable const & table) {
    typeRegistry().typeIs(name, factory, table);
  }
};

}  // namespace Intfsm
