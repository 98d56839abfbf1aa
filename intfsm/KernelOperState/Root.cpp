#include "intfsm/KernelOperState/Root.h"

#include "intfsm/LibraryTypes.h"

namespace KernelOperState {

namespace {
Vorn::AttributeTableOf<Root> const rootAttributes("KernelOperState::Root", [](auto & t) {
  t.instantiating("kosm", &Root::kosm, &Root::kosmIs, &Root::kosmDel)
      .instantiating("intfStatusDir", &Root::intfStatusDir, &Root::intfStatusDirIs, &Root::intfStatusDirDel)
      .instantiating("intfStatusLocalDir", &Root::intfStatusLocalDir, &Root::intfStatusLocalDirIs,
                     &Root::intfStatusLocalDirDel)
      .instantiating("netNsCollection", &Root::netNsCollection, &Root::netNsCollectionIs, &Root::netNsCollectionDel)
      .instantiating("netNsManager", &Root::netNsManager, &Root::netNsManagerIs, &Root::netNsManagerDel)
      .instantiating("intfStatusOperStatusSm", &Root::intfStatusOperStatusSm, &Root::intfStatusOperStatusSmIs,
                     &Root::intfStatusOperStatusSmDel)
      .scalar("operStateConvergence", &Root::operStateConvergence, &Root::operStateConvergenceIs);
});
Intfsm::TypeRegistration registration(
    "KernelOperState::Root", [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> { return rootFactory(n); },
    rootAttributes);

// Keeps the child named `name` if the attribute holds one; otherwise makes one with `make`.
template <class T, class Make>
Vorn::Ptr<T> namedChild(Vorn::Ptr<T> & slot, Vorn::Name const & name, Root * parent, Make make, bool & changed) {
  changed = false;
  if (slot && slot->name() == name) {
    slot->parentIs(Vorn::Ptr<Vorn::Entity>(parent));
    return slot;
  }
  Vorn::Ptr<T> child = make(name);
  child->parentIs(Vorn::Ptr<Vorn::Entity>(parent));
  slot = child;
  changed = true;
  return child;
}
}  // namespace

Vorn::Ptr<Root> rootFactory(Vorn::Name const & name) { return new Root(name); }

Root::~Root() {
  // Released in this order; each object lives on while some other reference holds it.
  kosm_ = nullptr;
  intfStatusDir_ = nullptr;
  intfStatusLocalDir_ = nullptr;
  netNsCollection_ = nullptr;
  netNsManager_ = nullptr;
  intfStatusOperStatusSm_ = nullptr;
}

Vorn::Ptr<KernelOperStateManager> Root::kosmIs() {
  if (!kosm_) {
    kosm_ = new KernelOperStateManager;
    kosm_->operStateConvergenceIs(operStateConvergence_);
    notify(&NotifieeConst::onKosm);
  }
  return kosm_;
}

void Root::kosmDel() {
  if (!kosm_) return;
  kosm_ = nullptr;
  notify(&NotifieeConst::onKosm);
}

Vorn::Ptr<IntfStatusDir> Root::intfStatusDirIs(Vorn::Name const & name) {
  bool changed;
  auto child = namedChild(intfStatusDir_, name, this, IntfStatusDir::intfStatusDirNew, changed);
  if (changed) notify(&NotifieeConst::onIntfStatusDir);
  return child;
}

void Root::intfStatusDirDel() {
  if (!intfStatusDir_) return;
  intfStatusDir_ = nullptr;
  notify(&NotifieeConst::onIntfStatusDir);
}

Vorn::Ptr<IntfStatusLocalDir> Root::intfStatusLocalDirIs(Vorn::Name const & name) {
  bool changed;
  auto child = namedChild(intfStatusLocalDir_, name, this, IntfStatusLocalDir::intfStatusLocalDirNew, changed);
  if (changed) notify(&NotifieeConst::onIntfStatusLocalDir);
  return child;
}

void Root::intfStatusLocalDirDel() {
  if (!intfStatusLocalDir_) return;
  intfStatusLocalDir_ = nullptr;
  notify(&NotifieeConst::onIntfStatusLocalDir);
}

Vorn::Ptr<KernelNetNsInfo::Root> Root::netNsCollectionIs(Vorn::Name const & name) {
  bool changed;
  auto child = namedChild(netNsCollection_, name, this, KernelNetNsInfo::Root::rootNew, changed);
  if (changed) notify(&NotifieeConst::onNetNsCollection);
  return child;
}

void Root::netNsCollectionDel() {
  if (!netNsCollection_) return;
  netNsCollection_ = nullptr;
  notify(&NotifieeConst::onNetNsCollection);
}

Vorn::Ptr<KernelNetNsInfo::Manager> Root::netNsManagerIs(Vorn::Ptr<KernelNetNsInfo::Root> const & root) {
  Vorn::Ptr<KernelNetNsInfo::Manager> manager = KernelNetNsInfo::ManagerIs(root);
  manager->hasNotificationActiveIs(true);
  netNsManager_ = manager;
  notify(&NotifieeConst::onNetNsManager);
  return manager;
}

void Root::netNsManagerDel() {
  if (!netNsManager_) return;
  netNsManager_ = nullptr;
  notify(&NotifieeConst::onNetNsManager);
}

Vorn::Ptr<IntfStatusOperStatusSm> Root::intfStatusOperStatusSmIs(
    Vorn::Ptr<IntfStatusDir const> const & intfStatusDir, Vorn::Ptr<IntfStatusLocalDir const> const & intfStatusLocalDir,
    Vorn::Ptr<KernelOperStateManager> const & kosm, Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection) {
  auto const & sm = intfStatusOperStatusSm_;
  if (sm && sm->intfStatusDir() == intfStatusDir && sm->intfStatusLocalDir() == intfStatusLocalDir &&
      sm->kosm() == kosm && sm->netNsCollection() == netNsCollection) {
    return sm;
  }
  Vorn::Ptr<IntfStatusOperStatusSm> created =
      IntfStatusOperStatusSmIs(intfStatusDir, intfStatusLocalDir, kosm, netNsCollection);
  created->hasNotificationActiveIs(true);
  intfStatusOperStatusSm_ = created;
  notify(&NotifieeConst::onIntfStatusOperStatusSm);
  return created;
}

void Root::operStateConvergenceIs(bool on) {
  if (on == operStateConvergence_) return;
  operStateConvergence_ = on;
  if (kosm_) kosm_->operStateConvergenceIs(on);
  notify(&NotifieeConst::onOperStateConvergence);
}

void Root::intfStatusOperStatusSmDel() {
  if (!intfStatusOperStatusSm_) return;
  intfStatusOperStatusSm_ = nullptr;
  notify(&NotifieeConst::onIntfStatusOperStatusSm);
}

}  // namespace KernelOperState
