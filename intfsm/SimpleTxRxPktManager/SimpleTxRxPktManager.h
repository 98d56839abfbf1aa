// A ready-made receive loop: watches the Pam collection that a packet-access manager fills, reads one
// frame from a Pam each time that Pam becomes readable, counts it (numRcvd) and hands it to the
// virtual handleRx. Agents derive from it for the handling; interfaces come and go by id with
// addIntfPam / delIntfPam in the desired-interface directory.
//
//   class Receiver : public Interface::SimpleTxRxPktManager {
//    public:
//     using SimpleTxRxPktManager::SimpleTxRxPktManager;
//     void handleRx(Vorn::Ptr<Ovel::Pam> const & pam, Ovel::IntfId const & id,
//                   Vorn::Ptr<Ovel::Pkt> const & pkt) override { ... }
//   };
//   Vorn::Ptr<Receiver> r = new Receiver(deviceIntfStatusDir, pamCollection);
//   r->desiredIntfDirIs(desiredIntfDir);    // the directory the manager filling pamCollection reads
//   r->addIntfPam(Ovel::IntfId("Ethernet1"));
//
// Or with a packet-access manager of its own:
//
//   auto r = Interface::simpleTxRxPktManagerFactory(deviceIntfStatusDir, nullptr);
//   r->desiredIntfDirIs("desired");
//   r->initializedTxRxIs(true);             // makes the collection "edpc" and ethDevPamManager over it
//   r->ethDevPamManager()->enabledIs(true);
//
// The collection watched is the one given at construction until initializedTxRx makes "edpc", the
// collection its own manager fills, and watches that instead.
//
// applyFilter takes a socket filter in the text form of parseFilter and is meant for tests only: it
// stops the process unless the environment variable ETHDEVPAMMANAGER_TESTING is set. A text that
// does not parse, or a program that ethDevPamManager refuses (more than 65535 instructions, or one the
// kernel refuses: traced at level 0 with the errno), returns false and leaves the current filter in
// place, here (bpfFilter, bpfFilterLen) and on every socket. So the program goes to the manager first
// and is kept here only once the manager took it. Agents give the manager a program with
// ethDevPamManager()->filterProgramIs instead.
//
// Threading: everything runs on the agent's one loop thread and nothing is locked. The per-Pam
// reactors hold the Pams they watch.
//
// This header is also the module's umbrella: it ends by including the module's other public headers.
#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <memory>

#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManager.h"
#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/ovel/Pam.h"
#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

class SimpleTxRxPktManager : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<SimpleTxRxPktManager> {
   public:
    virtual void onDesiredIntfDir() {}
    virtual void onPamCollection() {}
    virtual void onPam(Ovel::IntfId const &) {}
    virtual void onEthDevPamManager() {}
    virtual void onNumSent() {}
    virtual void onNumRcvd() {}
    virtual void onNumBadRcvd() {}
    virtual void onBpfFilterLen() {}
    virtual void onBpfFilter() {}
    virtual void onInitializedTxRx() {}
  };

  // Reads one Pam: one frame per change of its readableCount.
  class VornPam : public Vorn::Reactor<SimpleTxRxPktManager, Ovel::Pam> {
   public:
    VornPam(SimpleTxRxPktManager * owner, Ovel::IntfId const & intfId) : Reactor(owner), intfId_(intfId) {}
    Ovel::IntfId const & intfId() const { return intfId_; }
    void onReadableCount() override { run(&VornPam::handleReadableCount); }
    void handleReadableCount();

   private:
    Ovel::IntfId intfId_;
  };

  // Public for derived receivers (`new Receiver(...)`); simpleTxRxPktManagerFactory makes the base.
  SimpleTxRxPktManager(Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                       Vorn::Ptr<EthDevPamCollection> const & pamCollection);

  char const * vornTypeName() const override { return "Interface::SimpleTxRxPktManager"; }

  Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir() const { return deviceIntfStatusDir_; }

  Vorn::Ptr<PamDesiredIntfDir> const & desiredIntfDir() const { return desiredIntfDir_; }
  // A new directory of that name (the same name keeps the current one) ...
  Vorn::Ptr<PamDesiredIntfDir> desiredIntfDirIs(Vorn::Name const & name);
  // ... or the directory that another manager already reads.
  void desiredIntfDirIs(Vorn::Ptr<PamDesiredIntfDir> const & dir);
  void desiredIntfDirDel();

  // The collection whose Pams are read; null when none.
  Vorn::Ptr<EthDevPamCollection const> pamCollection() const;

  Vorn::Ptr<VornPam> pam(Ovel::IntfId const & intfId) const { return pam_.reactor(intfId); }
  uint32_t pams() const { return pam_.size(); }
  auto const & pamIter() const { return pam_; }

  Vorn::Ptr<EthDevPamManager> const & ethDevPamManager() const { return ethDevPamManager_; }

  uint32_t numSent() const { return numSent_; }
  void numSentIs(uint32_t n) { set(numSent_, n, &NotifieeConst::onNumSent); }
  void numSentInc(uint32_t n = 1) { numSentIs(numSent_ + n); }
  uint32_t numRcvd() const { return numRcvd_; }
  void numRcvdIs(uint32_t n) { set(numRcvd_, n, &NotifieeConst::onNumRcvd); }
  void numRcvdInc(uint32_t n = 1) { numRcvdIs(numRcvd_ + n); }
  uint32_t numBadRcvd() const { return numBadRcvd_; }
  void numBadRcvdIs(uint32_t n) { set(numBadRcvd_, n, &NotifieeConst::onNumBadRcvd); }
  void numBadRcvdInc(uint32_t n = 1) { numBadRcvdIs(numBadRcvd_ + n); }

  // The filter last applied: bpfFilterLen instructions at bpfFilter (null when none).
  uint32_t bpfFilterLen() const { return bpfFilterLen_; }
  void bpfFilterLenIs(uint32_t n) { set(bpfFilterLen_, n, &NotifieeConst::onBpfFilterLen); }
  sock_filter const * bpfFilter() const { return bpfFilter_.get(); }
  // Takes the array; the one held before is freed.
  void bpfFilterIs(std::unique_ptr<sock_filter[]> filter);

  bool initializedTxRx() const { return initializedTxRx_; }
  // Its change to true runs handleInitializedTxRx.
  void initializedTxRxIs(bool initialized);

  // Makes the interface desired unless it has an entry already; true. Needs desiredIntfDir.
  bool addIntfPam(Ovel::IntfId const & intfId);
  // Removes the interface's entry, if any; true.
  bool delIntfPam(Ovel::IntfId const & intfId);
  // Test environments only (see above): parses `text` and gives the program to ethDevPamManager;
  // false, keeping the current filter, when the text does not parse or the program is refused.
  bool applyFilter(Vorn::String const & text);

  // The derived class's handling of a frame, read from `pam` of `intfId`; the base only traces.
  virtual void handleRx(Vorn::Ptr<Ovel::Pam> const & pam, Ovel::IntfId const & intfId,
                        Vorn::Ptr<Ovel::Pkt> const & pkt);
  // The interface's Pam came or went (see pam(intfId)); the base only traces.
  virtual void handleOutputPam(Ovel::IntfId const & intfId);
  virtual void handlePamCollectionChange(Ovel::IntfId const & intfId);

  void handlePamCollection(Ovel::IntfId const & intfId);
  void handlePamCollection();
  void handleInitializedTxRx();
  void handleDeletion();

  void vornDoZombieReactors(bool zombie);

 protected:
  ~SimpleTxRxPktManager() override;

 private:
  class VornPamCollection;
  friend Vorn::Ptr<SimpleTxRxPktManager> simpleTxRxPktManagerFactory(Vorn::Ptr<DeviceIntfStatusDir const> const &,
                                                                     Vorn::Ptr<EthDevPamCollection> const &);

  void pamCollectionIs(Vorn::Ptr<EthDevPamCollection> const & collection);

  Vorn::Ptr<DeviceIntfStatusDir const> deviceIntfStatusDir_;
  Vorn::Ptr<PamDesiredIntfDir> desiredIntfDir_;
  Vorn::Ptr<EthDevPamCollection> pamCollection_;
  Vorn::Ptr<VornPamCollection> pamCollectionReactor_;
  Vorn::ReactorCollection<Ovel::IntfId, VornPam> pam_;
  Vorn::Ptr<EthDevPamManager> ethDevPamManager_;
  uint32_t numSent_ = 0;
  uint32_t numRcvd_ = 0;
  uint32_t numBadRcvd_ = 0;
  uint32_t bpfFilterLen_ = 0;
  std::unique_ptr<sock_filter[]> bpfFilter_;
  bool initializedTxRx_ = false;
};

// `pamCollection` may be null (initializedTxRx makes one).
Vorn::Ptr<SimpleTxRxPktManager> simpleTxRxPktManagerFactory(
    Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
    Vorn::Ptr<EthDevPamCollection> const & pamCollection);

}  // namespace Interface

// The module's other public headers.
#include "intfsm/SimpleTxRxPktManager/BaseSimpleEthDevPamManager.h"
#include "intfsm/SimpleTxRxPktManager/ParseFilter.h"
#include "intfsm/SimpleTxRxPktManager/SimpleEthDevPamManager.h"
