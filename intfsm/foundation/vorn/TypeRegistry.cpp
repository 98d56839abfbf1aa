#include "intfsm/foundation/vorn/TypeRegistry.h"

#include "intfsm/foundation/vorn/Assert.h"

namespace Vorn {

namespace {
char const * const typeNames[] = {
    "Interface::NetNsIntfStatusIndexDir",
    "Interface::IntfStatusIndexDir",
    "Interface::AllIntfDeviceNameReactor",
    "Interface::KniIntfStatusManager",
    "Interface::NetNsKernelIntfStatusDir",
    "Interface::KniAllIntfDeviceNameReactor",
    "Interface::NetNsIntfIdMap",
    "Interface::NetNsIntfStatusManagerRoot",
    "Interface::EthDevPamBundleFdSm",
    "Interface::EthDevPamManagerBase",
    "Interface::EthDevPamCollection",
    "Interface::PamDesiredIntfDir",
    "Interface::EthDevPamInBundleHolder",
    "Interface::EthDevPamBundleActivitySm",
    "Interface::EthDevPamHolder",
    "Interface::EthDevPamBundle",
    "Interface::EthDevPamManager",
    "Interface::EthBridgeIntfFilter",
    "Interface::BaseSimpleEthDevPamManager",
    "Interface::SimpleEthDevPamManager",
    "Interface::SimpleTxRxPktManager",
    "KernelOperState::KernelOperStateManager",
    "KernelOperState::IntfStatusDir",
    "KernelOperState::IntfStatusLocalDir",
    "KernelOperState::IntfStatusOperStatusSm",
    "KernelOperState::Root",
};
}  // namespace

TypeRegistry::TypeRegistry() {
  types_.reserve(std::size(typeNames));
  for (char const * name : typeNames) types_.push_back(TypeRecord(name));
}

TypeRegistry & typeRegistry() {
  static TypeRegistry registry;
  return registry;
}

TypeRecord const * TypeRegistry::type(String const & name) const {
  for (TypeRecord const & t : types_) {
    if (t.name_ == name) return &t;
  }
  return nullptr;
}

void TypeRegistry::typeIs(String const & name, TypeRecord::Factory factory,
                          std::initializer_list<char const *> attributes) {
  TypeRecord * record = const_cast<TypeRecord *>(type(name));
  VORN_ASSERT(record != nullptr);
  record->factory_ = factory;
  record->attributes_.assign(attributes.begin(), attributes.end());
}

Ptr<Entity> TypeRegistry::newEntity(String const & typeName, Name const & name) const {
  TypeRecord const * record = type(typeName);
  return record && record->factory_ ? record->factory_(name) : Ptr<Entity>();
}

Ptr<Entity> newEntityForDir(String const & typeName, Name const & name, Ptr<Entity> const & dir) {
  Ptr<Entity> entity = typeRegistry().newEntity(typeName, name);
  if (entity) entity->parentIs(dir);
  return entity;
}

}  // namespace Vorn
