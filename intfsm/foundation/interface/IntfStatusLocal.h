// The part of an interface's status that is local to this host: the network namespace its kernel device
// lives in. An empty netNsName means the default namespace (Ovel::NamespaceName::orDefault maps it).
//
//   auto local = Interface::intfStatusLocalFactory(Ovel::IntfId("Ethernet1"));
//   local->netNsNameIs(Ovel::NamespaceName("blue"));   // onNetNsName() when it changes
//
// The entity's name is the interface id's text.
#pragma once

#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Ptr.h"

namespace Interface {

class IntfStatusLocal : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<IntfStatusLocal> {
   public:
    virtual void onNetNsName() {}
  };

  explicit IntfStatusLocal(Ovel::IntfId const & intfId);

  char const * vornTypeName() const override { return "Interface::IntfStatusLocal"; }

  Ovel::IntfId const & intfId() const { return intfId_; }

  Ovel::NamespaceName const & netNsName() const { return netNsName_; }
  void netNsNameIs(Ovel::NamespaceName const & v) { set(netNsName_, v, &NotifieeConst::onNetNsName); }

 protected:
  ~IntfStatusLocal() override = default;

 private:
  Ovel::IntfId const intfId_;
  Ovel::NamespaceName netNsName_;
};

Vorn::Ptr<IntfStatusLocal> intfStatusLocalFactory(Ovel::IntfId const & intfId);

}  // namespace Interface
