// Turns a wish for raw Ethernet frames on an interface into a working Pam: for every interface that is
// desired (PamDesiredIntfDir) and whose record in the device interface-status directory names a kernel
// device, it makes an Ovel::EthDevPamInBundle, configures it from its settings, gives it the shared
// socket of its bundle (or lets it open its own with perIntfSocket), enables it and publishes it in the
// Pam collection. When the wish goes, or the device, the Pam is disabled and withdrawn.
//
//   auto manager = Interface::ethDevPamManagerFactory(desired, pams, deviceIntfStatusDir);
//   manager->ethProtocolIs(0x88b5);
//   manager->pktReuseIs(true);
//   manager->handleInitialized();                       // binds the clock; enabling is legal from now on
//   manager->enabledIs(true);                           // bundle, activity, then a Pam per desired device
//   desired->intfDesiredIs(Ovel::IntfId("Ethernet1"), true);   // pams->intfPam(Ethernet1) appears
//   manager->filterProgramIs(program);                  // re-attached to the open sockets
//   manager->enabledIs(false);                          // every Pam: disabled, sd -1, withdrawn
//
// Settings (defaults): netNs empty (the default namespace), allMulticast false, sockRcvBuf 0 (per
// interface; 0 = the kernel's), sockPrio 0 (0..15; more raises Vorn::RangeException "EthDevPamManager::
// sockPrio < 0 or > 15 not allowed"), broadcast false, pktReuse false, createVornFileDescOnEnabled
// true, separateDot1QHdr false, enableBulkPamRead false, headDropPolicy false, perIntfSocket false,
// perIntfRlimit true, socketReadLimit 15 (1..1024, as a Pam takes it; else Vorn::RangeException
// "EthDevPamManager::socketReadLimit < 1 or > 1024 not allowed"), defer false, and the bundle's ring mode:
// rxRing false, rxRingBlockSize, rxRingBlockCount and rxRingFrameSize as EthDevPamBundle's defaults
// (64 KiB, 64, 0 = from maxRxPktData), passed to the bundle as they are. Settings are read when
// a Pam is made and, for the bundle, when the manager is enabled: changing one while enabled reaches
// the Pams made from then on (the bundle's at the next enabling), except filterProgram, which reaches
// the open sockets at once.
//
// Rules worth knowing:
// - handleInitialized must come before enabling: enabling before it is a program error (assertion
//   "! enabled()"); disabling before it does nothing.
// - With defer, a Pam is made on a later pass of the loop, one interface per clock firing, resuming
//   where the last firing stopped (fair over many interfaces); withdrawal is always immediate.
// - With pktReuse, socketReadLimit packets are made once when enabling and lent (savedPacket 0..n-1) to
//   every new Pam; without it the bundle's bulk reading is switched off (bulk reads reuse packets).
// - A Pam whose device came back under the same interface with another ifindex is replaced ("Deleting
//   stale pam for", then "Creating pam for"); its shared descriptor is given back first.
// - A Pam that cannot be enabled (a system call refused while its socket is opened, joined or sized)
//   is traced ("Unable to enable pam for device ..."), nothing is published, nothing stays counted on
//   the bundle's socket, and the interface is tried again on its next notification.
// - The bundle closes a shared socket whose sizing or filter the kernel refuses (an empty filter
//   program is always refused: clearing the filter lands here). The Pams on it would keep a closed
//   descriptor number, so they are all withdrawn at once (sd -1 first), the bundle's other socket is
//   closed too, and each is made again on a later clock firing, one per firing, on a new socket that
//   has the current program (none, for an empty one). Nothing is raised to whoever set the program.
// - A Pam with its own socket that refuses a new program keeps its previous one (traced).
// - The bundle's own program follows filterProgram while enabled, so a socket it opens later (the
//   first one, a tap socket, a replacement) gets the current program.
// - Disabling withdraws only this manager's Pams, and releases the saved packets and pending deferred
//   work. Destroying an enabled manager withdraws its Pams as disabling does.
//
// Threading: everything runs on the loop's one thread and nothing is locked. The nested reactors hold
// references to what they watch (a bound notifiee keeps its notifier alive): the desired-interface
// and device directories, and the clock. The destructor zombies them before anything else goes.
#pragma once

#include <cstdint>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleActivitySm.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamInBundleHolder.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerBase.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/vorn/Activity.h"
#include "intfsm/foundation/vorn/Clock.h"
#include "intfsm/foundation/vorn/Collection.h"

namespace Interface {

class EthDevPamManager : public EthDevPamManagerBase {
 public:
  class NotifieeConst : public Vorn::Notifiee<EthDevPamManager, EthDevPamManagerBase::NotifieeConst> {
   public:
    virtual void onNetNs() {}
    virtual void onAllMulticast() {}
    virtual void onSockRcvBuf() {}
    virtual void onSockPrio() {}
    virtual void onBroadcast() {}
    virtual void onPktReuse() {}
    virtual void onCreateVornFileDescOnEnabled() {}
    virtual void onSeparateDot1QHdr() {}
    virtual void onEnableBulkPamRead() {}
    virtual void onHeadDropPolicy() {}
    virtual void onPerIntfSocket() {}
    virtual void onPerIntfRlimit() {}
    virtual void onSocketReadLimit() {}
    virtual void onEdpBundle() {}
    virtual void onEthDevPamBundleActivitySm() {}
    virtual void onPam(Ovel::IntfId const &) {}
    virtual void onSavedPacket(uint16_t /*index*/) {}
    virtual void onDefer() {}
    virtual void onRxRing() {}
    virtual void onRxRingBlockSize() {}
    virtual void onRxRingBlockCount() {}
    virtual void onRxRingFrameSize() {}
    virtual void onEthDevPamEvent(Ovel::IntfId const &) {}
    virtual void onEthDevPamEventBookmark() {}
    virtual void onInitialized() {}
  };

  using PamMap = Vorn::Collection<Ovel::IntfId, Vorn::Ptr<EthDevPamInBundleHolder>>;
  using EventMap = Vorn::Collection<Ovel::IntfId, bool>;

  static constexpr uint32_t maxSockPrio = 15;
  static constexpr int32_t defaultSocketReadLimit = 15;
  static constexpr int32_t maxSocketReadLimit = 1024;
  static constexpr char activityName[] = "edpBundleActivity";
  static constexpr unsigned activityBudget = 99;

  ~EthDevPamManager() override;
  char const * vornTypeName() const override { return "Interface::EthDevPamManager"; }

  Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir() const { return deviceIntfStatusDir_; }

  // ---- settings ----
  Ovel::NamespaceName const & netNs() const { return netNs_; }
  void netNsIs(Ovel::NamespaceName const & v) { set(netNs_, v, &NotifieeConst::onNetNs); }
  bool allMulticast() const { return allMulticast_; }
  void allMulticastIs(bool v) { set(allMulticast_, v, &NotifieeConst::onAllMulticast); }
  uint32_t sockRcvBuf() const { return sockRcvBuf_; }
  void sockRcvBufIs(uint32_t v) { set(sockRcvBuf_, v, &NotifieeConst::onSockRcvBuf); }
  uint32_t sockPrio() const { return sockPrio_; }
  void sockPrioIs(uint32_t v);
  bool broadcast() const { return broadcast_; }
  void broadcastIs(bool v) { set(broadcast_, v, &NotifieeConst::onBroadcast); }
  bool pktReuse() const { return pktReuse_; }
  void pktReuseIs(bool v) { set(pktReuse_, v, &NotifieeConst::onPktReuse); }
  bool createVornFileDescOnEnabled() const { return createVornFileDescOnEnabled_; }
  void createVornFileDescOnEnabledIs(bool v) {
    set(createVornFileDescOnEnabled_, v, &NotifieeConst::onCreateVornFileDescOnEnabled);
  }
  bool separateDot1QHdr() const { return separateDot1QHdr_; }
  void separateDot1QHdrIs(bool v) { set(separateDot1QHdr_, v, &NotifieeConst::onSeparateDot1QHdr); }
  bool enableBulkPamRead() const { return enableBulkPamRead_; }
  void enableBulkPamReadIs(bool v) { set(enableBulkPamRead_, v, &NotifieeConst::onEnableBulkPamRead); }
  bool headDropPolicy() const { return headDropPolicy_; }
  void headDropPolicyIs(bool v) { set(headDropPolicy_, v, &NotifieeConst::onHeadDropPolicy); }
  bool perIntfSocket() const { return perIntfSocket_; }
  void perIntfSocketIs(bool v) { set(perIntfSocket_, v, &NotifieeConst::onPerIntfSocket); }
  bool perIntfRlimit() const { return perIntfRlimit_; }
  void perIntfRlimitIs(bool v) { set(perIntfRlimit_, v, &NotifieeConst::onPerIntfRlimit); }
  int32_t socketReadLimit() const { return socketReadLimit_; }
  void socketReadLimitIs(int32_t v);
  bool defer() const { return defer_; }
  void deferIs(bool v) { set(defer_, v, &NotifieeConst::onDefer); }
  // The bundle's ring receive mode and its geometry (see EthDevPamBundle, Ring mode).
  bool rxRing() const { return rxRing_; }
  void rxRingIs(bool v) { set(rxRing_, v, &NotifieeConst::onRxRing); }
  uint32_t rxRingBlockSize() const { return rxRingBlockSize_; }
  void rxRingBlockSizeIs(uint32_t v) { set(rxRingBlockSize_, v, &NotifieeConst::onRxRingBlockSize); }
  uint32_t rxRingBlockCount() const { return rxRingBlockCount_; }
  void rxRingBlockCountIs(uint32_t v) { set(rxRingBlockCount_, v, &NotifieeConst::onRxRingBlockCount); }
  uint32_t rxRingFrameSize() const { return rxRingFrameSize_; }
  void rxRingFrameSizeIs(uint32_t v) { set(rxRingFrameSize_, v, &NotifieeConst::onRxRingFrameSize); }

  // Stores; a change runs handleEnabled at once, then notifies.
  void enabledIs(bool enabled) override;
  // Stores a program that differs from the current one (SockFilterProgram equality), runs
  // handleFilterProgram, then notifies.
  void filterProgramIs(Ovel::SockFilterProgram const & program) override;

  // ---- what the manager made ----
  Vorn::Ptr<EthDevPamBundle> const & edpBundle() const { return edpBundle_; }
  // The bundle over these directories: the current one when it has them, else a new one.
  Vorn::Ptr<EthDevPamBundle> edpBundleIs(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                         Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                         Vorn::Ptr<EthDevPamCollection> const & pamCollection);
  Vorn::Ptr<EthDevPamBundleActivitySm> const & ethDevPamBundleActivitySm() const { return ethDevPamBundleActivitySm_; }
  Vorn::Ptr<EthDevPamBundleActivitySm> ethDevPamBundleActivitySmIs(Vorn::Ptr<Vorn::ActivityConfig> const & config);
  void ethDevPamBundleActivitySmDel();

  // The holder of `intfId`'s Pam; null when none.
  Vorn::Ptr<EthDevPamInBundleHolder> pam(Ovel::IntfId const & intfId) const { return pam_.get(intfId); }
  PamMap const & pamIter() const { return pam_; }
  uint32_t pams() const { return pam_.size(); }
  // The holder of `intfId`, made when there is none.
  Vorn::Ptr<EthDevPamInBundleHolder> pamIs(Ovel::IntfId const & intfId);
  void pamDel(Ovel::IntfId const & intfId);
  void pamDelAll();

  // The packets lent to new Pams when pktReuse is on; null past the end.
  Vorn::Ptr<Ovel::Pkt> savedPacket(uint16_t index) const {
    return index < savedPacket_.size() ? savedPacket_[index] : Vorn::Ptr<Ovel::Pkt>();
  }
  uint32_t savedPackets() const { return static_cast<uint32_t>(savedPacket_.size()); }
  void savedPacketIs(uint16_t index, Vorn::Ptr<Ovel::Pkt> const & pkt);
  void savedPacketDelAll();

  // Interfaces waiting for deferred processing, and where the next clock firing resumes.
  bool ethDevPamEvent(Ovel::IntfId const & intfId) const { return ethDevPamEvent_.get(intfId); }
  uint32_t ethDevPamEvents() const { return ethDevPamEvent_.size(); }
  void ethDevPamEventIs(Ovel::IntfId const & intfId);
  void ethDevPamEventDel(Ovel::IntfId const & intfId);
  void ethDevPamEventDelAll();
  Ovel::IntfId const & ethDevPamEventBookmark() const { return ethDevPamEventBookmark_; }
  void ethDevPamEventBookmarkIs(Ovel::IntfId const & v) {
    set(ethDevPamEventBookmark_, v, &NotifieeConst::onEthDevPamEventBookmark);
  }

  // The clock the deferred work runs on; null before handleInitialized.
  Vorn::Ptr<Vorn::Clock const> ethDevPamClock() const;

  bool initialized() const { return initialized_; }

  // ---- reactions ----
  void handleIntf(Ovel::IntfId const & intfId) override;
  void doProcessIntf(Ovel::IntfId const & intfId);
  void handleEthDevPamClock();
  void handleEnabled();
  void handleFilterProgram();
  void handleInitialized();
  void handleDestruction();

  void vornDoZombieReactors(bool zombie);

 private:
  class VornDeviceIntfStatusDir;
  class VornEthDevPamClock;
  friend Vorn::Ptr<EthDevPamManager> ethDevPamManagerFactory(Vorn::Ptr<PamDesiredIntfDir const> const &,
                                                             Vorn::Ptr<EthDevPamCollection> const &,
                                                             Vorn::Ptr<DeviceIntfStatusDir const> const &);

  EthDevPamManager(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                   Vorn::Ptr<EthDevPamCollection> const & pamCollection,
                   Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir);

  void doEnable();
  void doDisable();
  // Gives back the shared descriptor of `pam`, disables it and clears its descriptor.
  void doPamRelease(Ovel::EthDevPam & pam);
  // A shared socket of the bundle was closed under its Pams: withdraws them and queues them anew.
  void doSharedSocketLost();
  void doDeferredRun() const;

  Vorn::Ptr<DeviceIntfStatusDir const> deviceIntfStatusDir_;
  Ovel::NamespaceName netNs_;
  bool allMulticast_ = false;
  uint32_t sockRcvBuf_ = 0;
  uint32_t sockPrio_ = 0;
  bool broadcast_ = false;
  bool pktReuse_ = false;
  bool createVornFileDescOnEnabled_ = true;
  bool separateDot1QHdr_ = false;
  bool enableBulkPamRead_ = false;
  bool headDropPolicy_ = false;
  bool perIntfSocket_ = false;
  bool perIntfRlimit_ = true;
  int32_t socketReadLimit_ = defaultSocketReadLimit;
  Vorn::Ptr<EthDevPamBundle> edpBundle_;
  Vorn::Ptr<EthDevPamBundleActivitySm> ethDevPamBundleActivitySm_;
  PamMap pam_;
  std::vector<Vorn::Ptr<Ovel::Pkt>> savedPacket_;
  bool defer_ = false;
  bool rxRing_ = false;
  uint32_t rxRingBlockSize_ = EthDevPamBundle::defaultRxRingBlockSize;
  uint32_t rxRingBlockCount_ = EthDevPamBundle::defaultRxRingBlockCount;
  uint32_t rxRingFrameSize_ = 0;
  EventMap ethDevPamEvent_;
  Ovel::IntfId ethDevPamEventBookmark_;
  bool initialized_ = false;

  Vorn::Ptr<VornDeviceIntfStatusDir> deviceIntfStatusDirReactor_;
  Vorn::Ptr<VornEthDevPamClock> ethDevPamClockReactor_;
};

// A null directory or collection raises Vorn::RangeException.
Vorn::Ptr<EthDevPamManager> ethDevPamManagerFactory(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                                    Vorn::Ptr<EthDevPamCollection> const & pamCollection,
                                                    Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir);

// Whether `intfId` should have a Pam: desired (stored value true) and its record in the device
// interface-status directory names a kernel device.
bool deviceExists(EthDevPamManager const & manager, Ovel::IntfId const & intfId);

}  // namespace Interface
