// The network namespaces that exist, as a collection that reactors can watch.
//
// `Root` holds each namespace twice: by its number (`netNs`, the inode number of the namespace, stable
// and unique while it exists) and by its name (`netNsByName`; the default namespace is
// Ovel::DEFAULT_NS, the others are the names under /run/netns). `Manager` keeps a Root equal to what
// the kernel has, following /run/netns on the event loop; a Root can also be filled by hand.
//
//   auto root = KernelNetNsInfo::Root::rootNew("netNs");
//   auto manager = KernelNetNsInfo::ManagerIs(root);
//   manager->hasNotificationActiveIs(true);   // scans now, then follows `ip netns add` / `del`
#pragma once

#include <cstdint>

#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace KernelNetNsInfo {

class Root : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Root> {
   public:
    virtual void onNetNs(uint32_t) {}
    virtual void onNetNsvornImmediate() {}
    virtual void onNetNsByName(Ovel::NamespaceName const &) {}
    virtual void onNetNsByNamevornImmediate() {}
  };

  static Vorn::Ptr<Root> rootNew(Vorn::Name const & name) { return new Root(name); }

  // The name of namespace `number`; empty when there is none.
  Ovel::NamespaceName netNs(uint32_t number) const { return netNs_.get(number); }
  bool netNsHas(uint32_t number) const { return netNs_.contains(number); }
  uint32_t netNss() const { return netNs_.size(); }
  Vorn::Collection<uint32_t, Ovel::NamespaceName> const & netNsIter() const { return netNs_; }
  void netNsIs(uint32_t number, Ovel::NamespaceName const & name);
  void netNsDel(uint32_t number);

  // The number of namespace `name`; 0 when there is none.
  uint32_t netNsByName(Ovel::NamespaceName const & name) const { return netNsByName_.get(name); }
  bool netNsByNameHas(Ovel::NamespaceName const & name) const { return netNsByName_.contains(name); }
  uint32_t netNsByNames() const { return netNsByName_.size(); }
  Vorn::Collection<Ovel::NamespaceName, uint32_t> const & netNsByNameIter() const { return netNsByName_; }
  void netNsByNameIs(Ovel::NamespaceName const & name, uint32_t number);
  void netNsByNameDel(Ovel::NamespaceName const & name);
  void netNsByNameNotify(Ovel::NamespaceName const & name) const { notify(&NotifieeConst::onNetNsByName, name); }

  // Both keys at once, kept consistent: a namespace that exists under `name` with `number`.
  // One namespace may be bound under several names (`ip netns attach`, a second bind mount): each
  // name is in netNsByName, and netNs holds one of them, the default namespace's name when it is one.
  void namespaceIs(Ovel::NamespaceName const & name, uint32_t number);
  // Both keys of the namespace called `name`; its number stays while another name still has it.
  void namespaceDel(Ovel::NamespaceName const & name);
  void namespaceDelAll();

 protected:
  explicit Root(Vorn::Name const & name) : Entity(name) {}
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onNetNsvornImmediate);
    notifyOne(n, &NotifieeConst::onNetNsByNamevornImmediate);
  }

 private:
  void renumber(uint32_t number, Ovel::NamespaceName const & leaving);

  Vorn::Collection<uint32_t, Ovel::NamespaceName> netNs_;
  Vorn::Collection<Ovel::NamespaceName, uint32_t> netNsByName_;
};

}  // namespace KernelNetNsInfo

#include "intfsm/foundation/kernel/KernelNetNsManager.h"
