// The status of one interface as the switch software holds it: its kernel device, operational status,
// forwarding model, MTUs and activity. The agent that owns the interface writes it; the library's
// state machines watch it through IntfStatus::NotifieeConst.
//
//   Vorn::Ptr<Interface::IntfStatus> s = Interface::intfStatusFactory(Ovel::IntfId("Ethernet1"));
//   s->deviceNameIs("et1");
//   s->operStatusIs(Interface::intfOperUp);   // onOperStatus() to every watcher; setting it again: nothing
//
// Every attribute has a reader x(), a mutator xIs(v) that stores and notifies onX() only when the value
// changes, and counters also xInc(n). Defaults, for a status nobody has reported on yet:
//   deviceName          ""                      no kernel device
//   operStatus          intfOperNotPresent      not up until the hardware says so
//   forwardingModel     forwardingModelUnknown
//   active              false
//   activeStatusChanges 0                       how often `active` changed; kept by the writer
//   intfConfig          ""                      name of the interface's configuration entity, "" for none
//   maxMtu, mtu         0                       not reported
//   operStatusChange    0                       how often operStatus changed; kept by the writer
// The two change counters are plain attributes: operStatusIs and activeIs do not touch them, so a
// writer that replays state does not inflate them.
//
// The entity's name is the interface id's text.
#pragma once

#include <cstdint>

#include "intfsm/foundation/interface/ForwardingModel.h"
#include "intfsm/foundation/interface/IntfOperStatus.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Ptr.h"
#include "intfsm/foundation/vorn/String.h"

namespace Interface {

class IntfStatus : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<IntfStatus> {
   public:
    virtual void onActive() {}
    virtual void onActiveStatusChanges() {}
    virtual void onDeviceName() {}
    virtual void onForwardingModel() {}
    virtual void onIntfConfig() {}
    virtual void onMaxMtu() {}
    virtual void onMtu() {}
    virtual void onOperStatus() {}
    virtual void onOperStatusChange() {}
  };

  explicit IntfStatus(Ovel::IntfId const & intfId);

  char const * vornTypeName() const override { return "Interface::IntfStatus"; }

  Ovel::IntfId const & intfId() const { return intfId_; }

  Vorn::String const & deviceName() const { return deviceName_; }
  void deviceNameIs(Vorn::String const & v) { set(deviceName_, v, &NotifieeConst::onDeviceName); }

  IntfOperStatus operStatus() const { return operStatus_; }
  void operStatusIs(IntfOperStatus v) { set(operStatus_, v, &NotifieeConst::onOperStatus); }

  ForwardingModel forwardingModel() const { return forwardingModel_; }
  void forwardingModelIs(ForwardingModel v) { set(forwardingModel_, v, &NotifieeConst::onForwardingModel); }

  bool active() const { return active_; }
  void activeIs(bool v) { set(active_, v, &NotifieeConst::onActive); }

  uint32_t activeStatusChanges() const { return activeStatusChanges_; }
  void activeStatusChangesIs(uint32_t v) { set(activeStatusChanges_, v, &NotifieeConst::onActiveStatusChanges); }
  void activeStatusChangesInc(uint32_t n = 1) { activeStatusChangesIs(activeStatusChanges_ + n); }

  Vorn::String const & intfConfig() const { return intfConfig_; }
  void intfConfigIs(Vorn::String const & v) { set(intfConfig_, v, &NotifieeConst::onIntfConfig); }

  uint32_t maxMtu() const { return maxMtu_; }
  void maxMtuIs(uint32_t v) { set(maxMtu_, v, &NotifieeConst::onMaxMtu); }

  uint32_t mtu() const { return mtu_; }
  void mtuIs(uint32_t v) { set(mtu_, v, &NotifieeConst::onMtu); }

  uint64_t operStatusChange() const { return operStatusChange_; }
  void operStatusChangeIs(uint64_t v) { set(operStatusChange_, v, &NotifieeConst::onOperStatusChange); }
  void operStatusChangeInc(uint64_t n = 1) { operStatusChangeIs(operStatusChange_ + n); }

 protected:
  ~IntfStatus() override = default;  // reference counted: never on the stack

 private:
  Ovel::IntfId const intfId_;
  Vorn::String deviceName_;
  IntfOperStatus operStatus_ = intfOperNotPresent;
  ForwardingModel forwardingModel_ = forwardingModelUnknown;
  bool active_ = false;
  uint32_t activeStatusChanges_ = 0;
  Vorn::String intfConfig_;
  uint32_t maxMtu_ = 0;
  uint32_t mtu_ = 0;
  uint64_t operStatusChange_ = 0;
};

Vorn::Ptr<IntfStatus> intfStatusFactory(Ovel::IntfId const & intfId);

}  // namespace Interface
