// What every packet-access manager has: the directory of interfaces an agent wants packet access on
// (read only), the collection where the manager publishes the Pams it makes, and the settings that
// any kind of Pam takes. A change of an interface's wish (intfDesired) calls handleIntf, which a
// manager overrides; the base's does nothing. EthDevPamManager is the manager to use:
//
//   auto manager = Interface::ethDevPamManagerFactory(desired, pams, deviceIntfStatusDir);
//   manager->ethProtocolIs(0x88b5);   // host order; 0 = every protocol
//   manager->maxRxPktDataIs(9216);
//
// Attributes, in declaration order, with their defaults: desiredIntfDir, pamCollection (from the
// constructor), enabled false, ethProtocol 0, listenAddr 00:00:00:00:00:00, filterProgram empty,
// maxRxPktData 1518. Each mutator compares, stores and notifies onX(). maxRxPktData below 14 (an
// Ethernet header: less would deliver every frame empty) or above 262144 (the largest packet buffer)
// raises Vorn::RangeException "EthDevPamManagerBase::maxRxPktData < 14 or > 262144 not allowed" and
// keeps the old value; a manager may refuse more (maxRxPktDataCheck). enabledIs and filterProgramIs
// are virtual: a manager reacts to them.
//
// Threading: everything runs on the loop's one thread and nothing is locked. The nested reactor on
// desiredIntfDir holds a reference to that directory (a bound notifiee keeps its notifier alive).
#pragma once

#include <cstdint>

#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"
#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"
#include "intfsm/foundation/ovel/EthAddr.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/SockFilterProgram.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class EthDevPamManagerBase : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamManagerBase> {
   public:
    virtual void onEnabled() {}
    virtual void onEthProtocol() {}
    virtual void onListenAddr() {}
    virtual void onFilterProgram() {}
    virtual void onMaxRxPktData() {}
  };

  static constexpr uint32_t defaultMaxRxPktData = 1518;
  static constexpr uint32_t minMaxRxPktData = 14;

  char const * vornTypeName() const override { return "Interface::EthDevPamManagerBase"; }

  Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir() const { return desiredIntfDir_; }
  Vorn::Ptr<EthDevPamCollection> const & pamCollection() const { return pamCollection_; }

  bool enabled() const { return enabled_; }
  virtual void enabledIs(bool enabled) { set(enabled_, enabled, &NotifieeConst::onEnabled); }
  uint16_t ethProtocol() const { return ethProtocol_; }
  void ethProtocolIs(uint16_t protocol) { set(ethProtocol_, protocol, &NotifieeConst::onEthProtocol); }
  Ovel::EthAddr const & listenAddr() const { return listenAddr_; }
  void listenAddrIs(Ovel::EthAddr const & addr) { set(listenAddr_, addr, &NotifieeConst::onListenAddr); }
  Ovel::SockFilterProgram const & filterProgram() const { return filterProgram_; }
  virtual void filterProgramIs(Ovel::SockFilterProgram const & program) {
    set(filterProgram_, program, &NotifieeConst::onFilterProgram);
  }
  uint32_t maxRxPktData() const { return maxRxPktData_; }
  void maxRxPktDataIs(uint32_t bytes);

  // The wish for `intfId` (or its device) changed.
  virtual void handleIntf(Ovel::IntfId const & /*intfId*/) {}

  void vornDoZombieReactors(bool zombie);

 protected:
  EthDevPamManagerBase(Vorn::Name const & name, Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                       Vorn::Ptr<EthDevPamCollection> const & pamCollection);
  ~EthDevPamManagerBase() override;

  // For a manager that reacts between storing and notifying: true when the value changed.
  bool enabledStore(bool enabled);
  bool filterProgramStore(Ovel::SockFilterProgram const & program);
  void enabledNotify() const { notify(&NotifieeConst::onEnabled); }
  void filterProgramNotify() const { notify(&NotifieeConst::onFilterProgram); }
  // Raises Vorn::RangeException when `bytes` cannot work with the manager's other settings.
  virtual void maxRxPktDataCheck(uint32_t /*bytes*/) const {}

 private:
  class VornDesiredIntfDir;

  Vorn::Ptr<PamDesiredIntfDir const> desiredIntfDir_;
  Vorn::Ptr<EthDevPamCollection> pamCollection_;
  bool enabled_ = false;
  uint16_t ethProtocol_ = 0;
  Ovel::EthAddr listenAddr_;
  Ovel::SockFilterProgram filterProgram_;
  uint32_t maxRxPktData_ = defaultMaxRxPktData;
  Vorn::Ptr<VornDesiredIntfDir> desiredIntfDirReactor_;
};

}  // namespace Interface
