#include "intfsm/SimpleTxRxPktManager/BaseSimpleEthDevPamManager.h"

#include "intfsm/LibraryTypes.h"
#include "intfsm/SimpleTxRxPktManager/internal/BaseSimpleAttributes.h"

namespace Interface {

namespace {
Vorn::AttributeTableOf<BaseSimpleEthDevPamManager> const attributes(
    "Interface::BaseSimpleEthDevPamManager", [](auto & t) { baseSimpleAttributes(t); });
Intfsm::TypeRegistration registration("Interface::BaseSimpleEthDevPamManager", nullptr, attributes);

// Keeps `slot` when it holds a child of that name; otherwise makes one with `make`, parented to `owner`.
template <class T, class Make>
bool namedChildIs(Vorn::Ptr<T> & slot, Vorn::Name const & name, Vorn::Entity * owner, Make make) {
  if (slot && slot->name() == name) return false;
  Vorn::Ptr<T> child = make(name);
  child->parentIs(Vorn::Ptr<Vorn::Entity>(owner));
  slot = child;
  return true;
}
}  // namespace

BaseSimpleEthDevPamManager::BaseSimpleEthDevPamManager(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                                                       Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir)
    : Entity(Vorn::Name()),
      allIntfStatusDir_(allIntfStatusDir),
      allIntfStatusLocalDir_(allIntfStatusLocalDir),
      // No parent yet: a reference to an object under construction would be its last when dropped.
      deviceIntfStatusDir_(deviceIntfStatusDirFactory(Vorn::Name())),
      desiredIntfDir_(pamDesiredIntfDirFactory(Vorn::Name())),
      pamCollection_(ethDevPamCollectionFactory(Vorn::Name())) {
  ethDevPamManagerIs(desiredIntfDir_, pamCollection_, deviceIntfStatusDir_);
}

void BaseSimpleEthDevPamManager::doAdoptDirectories() {
  Vorn::Ptr<Vorn::Entity> const self(this);
  for (Vorn::Entity * dir : {static_cast<Vorn::Entity *>(deviceIntfStatusDir_.ptr()),
                             static_cast<Vorn::Entity *>(desiredIntfDir_.ptr()),
                             static_cast<Vorn::Entity *>(pamCollection_.ptr())}) {
    if (dir) dir->parentIs(self);
  }
}

BaseSimpleEthDevPamManager::~BaseSimpleEthDevPamManager() {
  // The manager first: its destruction disables its Pams while the directories still stand.
  ethDevPamManager_ = nullptr;
  pamCollection_ = nullptr;
  desiredIntfDir_ = nullptr;
  deviceIntfStatusDir_ = nullptr;
}

Vorn::Ptr<DeviceIntfStatusDir> BaseSimpleEthDevPamManager::deviceIntfStatusDirIs(Vorn::Name const & name) {
  if (namedChildIs(deviceIntfStatusDir_, name, this, deviceIntfStatusDirFactory)) {
    notify(&NotifieeConst::onDeviceIntfStatusDir);
  }
  return deviceIntfStatusDir_;
}

void BaseSimpleEthDevPamManager::deviceIntfStatusDirDel() {
  if (!deviceIntfStatusDir_) return;
  deviceIntfStatusDir_ = nullptr;
  notify(&NotifieeConst::onDeviceIntfStatusDir);
}

Vorn::Ptr<PamDesiredIntfDir> BaseSimpleEthDevPamManager::desiredIntfDirIs(Vorn::Name const & name) {
  if (namedChildIs(desiredIntfDir_, name, this, pamDesiredIntfDirFactory)) notify(&NotifieeConst::onDesiredIntfDir);
  return desiredIntfDir_;
}

void BaseSimpleEthDevPamManager::desiredIntfDirDel() {
  if (!desiredIntfDir_) return;
  desiredIntfDir_ = nullptr;
  notify(&NotifieeConst::onDesiredIntfDir);
}

Vorn::Ptr<EthDevPamCollection> BaseSimpleEthDevPamManager::pamCollectionIs(Vorn::Name const & name) {
  if (namedChildIs(pamCollection_, name, this, ethDevPamCollectionFactory)) notify(&NotifieeConst::onPamCollection);
  return pamCollection_;
}

void BaseSimpleEthDevPamManager::pamCollectionDel() {
  if (!pamCollection_) return;
  pamCollection_ = nullptr;
  notify(&NotifieeConst::onPamCollection);
}

Vorn::Ptr<EthDevPamManager> BaseSimpleEthDevPamManager::ethDevPamManagerIs(
    Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir, Vorn::Ptr<EthDevPamCollection> const & pamCollection,
    Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir) {
  auto const & m = ethDevPamManager_;
  if (m && m->desiredIntfDir() == desiredIntfDir && m->pamCollection() == pamCollection &&
      m->deviceIntfStatusDir() == deviceIntfStatusDir) {
    return m;
  }
  ethDevPamManager_ = nullptr;  // the old one withdraws its Pams before the new one starts
  ethDevPamManager_ = ethDevPamManagerFactory(desiredIntfDir, pamCollection, deviceIntfStatusDir);
  notify(&NotifieeConst::onEthDevPamManager);
  return ethDevPamManager_;
}

void BaseSimpleEthDevPamManager::ethDevPamManagerDel() {
  if (!ethDevPamManager_) return;
  ethDevPamManager_ = nullptr;
  notify(&NotifieeConst::onEthDevPamManager);
}

}  // namespace Interface
