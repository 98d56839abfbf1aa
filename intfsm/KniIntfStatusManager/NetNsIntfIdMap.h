// The interfaces known to be in one network namespace, kept by the namespace-aware device-name reactor
// so that interfaces waiting for their namespace's index are indexed once it exists.
//
//   auto ids = Interface::netNsIntfIdMapFactory("blue");
//   ids->intfIs(Ovel::IntfId("Ethernet1"), true);   // onIntf(Ethernet1)
//   for (auto const & e : ids->intfIter()) use(e.key);
#pragma once

#include <cstdint>

#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class NetNsIntfIdMap : public Vorn::Entity {
 public:
  using IntfMap = Vorn::Collection<Ovel::IntfId, bool>;

  class NotifieeConst : public Vorn::Notifiee<NetNsIntfIdMap> {
   public:
    virtual void onIntf(Ovel::IntfId const &) {}
  };

  char const * vornTypeName() const override { return "Interface::NetNsIntfIdMap"; }

  // False when absent.
  bool intf(Ovel::IntfId const & id) const { return intf_.get(id); }
  uint32_t intfs() const { return intf_.size(); }
  IntfMap const & intfIter() const { return intf_; }
  void intfIs(Ovel::IntfId const & id, bool value) { setEntry(intf_, id, value, &NotifieeConst::onIntf); }
  void intfDel(Ovel::IntfId const & id) { delEntry(intf_, id, &NotifieeConst::onIntf); }
  void intfDelAll() { delAllEntries(intf_, &NotifieeConst::onIntf); }

 protected:
  ~NetNsIntfIdMap() override = default;

 private:
  friend Vorn::Ptr<NetNsIntfIdMap> netNsIntfIdMapFactory(Vorn::Name const & nsName);
  explicit NetNsIntfIdMap(Vorn::Name const & nsName) : Entity(nsName) {}

  IntfMap intf_;
};

Vorn::Ptr<NetNsIntfIdMap> netNsIntfIdMapFactory(Vorn::Name const & nsName);

}  // namespace Interface
