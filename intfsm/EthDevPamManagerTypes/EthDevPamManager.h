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
//   manager->filterProgramIs(program);                  // tried, then attached to the open sockets
//   manager->enabledIs(false);                          // every Pam: disabled, sd -1, withdrawn
//
// Settings (defaults): netNs empty (the default namespace), allMulticast false, sockRcvBuf 0 (per
// interface; 0 = the kernel's), sockPrio 0 (0..15; more raises Vorn::RangeException "EthDevPamManager::
// sockPrio < 0 or > 15 not allowed"), broadcast false, pktReuse false, createVornFileDescOnEnabled
// true, separateDot1QHdr false, enableBulkPamRead false, headDropPolicy false, perIntfSocket false,
// perIntfRlimit true, socketReadLimit 15 (1..1024, as a Pam takes it; else Vorn::RangeException
// "EthDevPamManager::socketReadLimit < 1 or > 1024 not allowed"), defer false, and rxRingSettings,
// the bundle's ring mode as one value (RxRingSettings below: off, 64 KiB blocks, 64 of them, frame
// size from maxRxPktData), copied to the bundle's four ring settings, and rxModerationSettings, the
// bundle's receive moderation (RxModerationSettings below: off, batch 16, 100 us), copied likewise. A setter raises
// Vorn::RangeException and keeps the value in force when a value cannot work: socketReadLimit and
// maxRxPktData past what a Pam's packets hold (which would abort later on the receive path), and a ring
// geometry the kernel would refuse (which would leave every interface without a socket). Settings are
// read when a Pam is made and, for the bundle, when the manager is enabled: changing one while enabled
// reaches the Pams made from then on (the bundle's at the next enabling), except filterProgram, which
// reaches the open sockets at once.
//
// Rules worth knowing:
// - handleInitialized must come before enabling: enabling before it is a program error (assertion
//   "! enabled()"); disabling before it does nothing.
// - With defer, a Pam is made on a later pass of the loop, one interface per clock firing, resuming
//   where the last firing stopped (fair over many interfaces); withdrawal is always immediate.
// - With pktReuse, socketReadLimit packets are made at each enabling and lent (savedPacket 0..n-1) to
//   every new Pam; without it the bundle's bulk reading is switched off (bulk reads reuse packets).
// - A Pam whose device came back under the same interface with another ifindex is replaced ("Deleting
//   stale pam for", then "Creating pam for").
// - Making a Pam: a Pam that cannot be enabled (the kernel refuses its own socket) is traced ("Unable
//   to enable pam for device ..."), nothing is published, and the interface is tried again on its next
//   notification. A shared socket that cannot be opened (the namespace is missing, ...) or sized raises
//   to whoever changed the directory; everything the call built is taken back first (the count on the
//   shared socket, the Pam, its holder), so the manager is as it was before the call. Enabling carries
//   on with the other interfaces and raises the first failure at the end; deferred work (a clock
//   firing) cannot raise to anyone, so it traces the failure at level 0 and goes on with the next one.
// - Disabling withdraws every Ovel::EthDevPam of the collection (sd -1 first), and any Pam of its own
//   that is not published; the saved packets and the interfaces queued for deferred work stay (the
//   queued ones are dropped by their firing, as any notification while disabled). Destroying an
//   enabled manager disables it.
// - filterProgramIs raises Vorn::ErrnoException with the kernel's errno, and changes nothing, for a
//   program the kernel refuses: while enabled the program is first tried on a scratch socket in netNs
//   (the tap-guarded variant too), so that only a program the kernel takes ever reaches a live socket
//   (attaching a refused one would cost the socket, muting every interface on it). That holds also
//   before the first socket exists. The empty program detaches the filter. While disabled the program
//   is stored as it is; a refused one then fails at enabling, every Pam tracing "Unable to enable pam".
//
// Where this departs from the manager's plain steps, and why:
// - A filter set while enabled but before the first shared socket exists reaches the bundle, which
//   attaches it to each socket it opens (else the traffic would run unfiltered without a word).
// - A stale Pam gives its count on the shared socket back when replaced (else one count leaks per
//   replacement and the buffer sizing counts interfaces that are gone).
// - When the bundle closes a shared socket that the kernel refused to size, the Pams on it are
//   withdrawn (sd -1) and made again one per clock firing on a new socket, instead of keeping a closed
//   descriptor number that the process may hand out again.
// - Range errors for socketReadLimit, maxRxPktData and the ring geometry (above); filter programs
//   tried before they are attached (above); failures of the enabling pass and of deferred work are
//   not raised half-way (above).
//
// - Out of descriptors (EMFILE, ENFILE) for the shared socket, making a Pam raises nothing: the bundle
//   traces the shortage once at level 0 ("cannot open bundle socket for bundle ..."), what the call
//   built is taken back as for any failure, and the interface is tried again every
//   shortageRetryInterval seconds on the loop's clock until its Pam is made (or it is no longer
//   wanted). Raising would reach the event loop when the change came from the kernel (a device
//   appearing) and end the agent for a shortage that passes; without the retry the interface would
//   silently stay without an endpoint. An own socket (perIntfSocket) that cannot be had for the same
//   reason is traced "Unable to enable pam ..." as ever and retried the same way.
//
// Threading: everything runs on the loop's one thread and nothing is locked. The nested reactors hold
// references to what they watch (a bound notifiee keeps its notifier alive): the desired-interface
// and device directories, and the clock. The destructor zombies them before anything else goes.
#pragma once

#include <cstdint>
#include <exception>
#include <set>
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

// The bundle's ring receive mode and its geometry, one value (see EthDevPamBundle, Ring mode): `on`,
// blocks of `blockSize` bytes (a power of two, at least a page), `blockCount` of them (at least 1, at
// most 4 GiB in all), frame slots of `frameSize` bytes (a multiple of 16, at least 128 so that the slot
// header leaves room for a frame, at most a block; 0 = the smallest slot that holds the header and
// maxRxPktData bytes of frame).
struct RxRingSettings {
  static constexpr uint32_t minFrameSize = 128;

  bool on = false;
  uint32_t blockSize = EthDevPamBundle::defaultRxRingBlockSize;
  uint32_t blockCount = EthDevPamBundle::defaultRxRingBlockCount;
  uint32_t frameSize = 0;

  bool operator==(RxRingSettings const &) const = default;
  // The slot size a socket gets with frames of up to `maxRxPktData` bytes.
  uint32_t frameSizeFor(uint32_t maxRxPktData) const;
  // Raises Vorn::RangeException naming the first limit broken, as "EthDevPamManager::rxRingBlockCount
  // < 1 not allowed". The slot derived from maxRxPktData is checked only while `on`, so that a large
  // maxRxPktData is free without the ring.
  void check(uint32_t maxRxPktData) const;
};

// The bundle's receive moderation as one value (see EthDevPamBundle, Receive moderation): `on`, the
// frames readiness must bring in each of two intervals running to switch a socket to timed reads
// (`batch`, 1..128), and the interval, which is also the timer's period (`intervalUs`, 1..1000000
// microseconds).
struct RxModerationSettings {
  bool on = false;
  uint32_t batch = EthDevPamBundle::defaultRxModerationBatch;
  uint32_t intervalUs = EthDevPamBundle::defaultRxModerationIntervalUs;

  bool operator==(RxModerationSettings const &) const = default;
  // Raises Vorn::RangeException naming the first limit broken, as "EthDevPamManager::
  // rxModerationBatch < 1 or > 128 not allowed".
  void check() const;
};

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
    virtual void onRxRingSettings() {}
    virtual void onRxModerationSettings() {}
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
  // The bundle's ring receive mode, as one value or one field at a time; each checks the whole value.
  RxRingSettings const & rxRingSettings() const { return rxRingSettings_; }
  void rxRingSettingsIs(RxRingSettings const & v);
  bool rxRing() const { return rxRingSettings_.on; }
  void rxRingIs(bool v) { rxRingSettingsIs(with(&RxRingSettings::on, v)); }
  uint32_t rxRingBlockSize() const { return rxRingSettings_.blockSize; }
  void rxRingBlockSizeIs(uint32_t v) { rxRingSettingsIs(with(&RxRingSettings::blockSize, v)); }
  uint32_t rxRingBlockCount() const { return rxRingSettings_.blockCount; }
  void rxRingBlockCountIs(uint32_t v) { rxRingSettingsIs(with(&RxRingSettings::blockCount, v)); }
  uint32_t rxRingFrameSize() const { return rxRingSettings_.frameSize; }
  void rxRingFrameSizeIs(uint32_t v) { rxRingSettingsIs(with(&RxRingSettings::frameSize, v)); }
  // The bundle's receive moderation (off by default), as one value or one field at a time.
  RxModerationSettings const & rxModerationSettings() const { return rxModerationSettings_; }
  void rxModerationSettingsIs(RxModerationSettings const & v);
  bool rxModeration() const { return rxModerationSettings_.on; }
  void rxModerationIs(bool v) { rxModerationSettingsIs(withModeration(&RxModerationSettings::on, v)); }
  uint32_t rxModerationBatch() const { return rxModerationSettings_.batch; }
  void rxModerationBatchIs(uint32_t v) { rxModerationSettingsIs(withModeration(&RxModerationSettings::batch, v)); }
  uint32_t rxModerationIntervalUs() const { return rxModerationSettings_.intervalUs; }
  void rxModerationIntervalUsIs(uint32_t v) {
    rxModerationSettingsIs(withModeration(&RxModerationSettings::intervalUs, v));
  }

  // Stores; a change runs handleEnabled at once, then notifies.
  void enabledIs(bool enabled) override;
  // A program that differs from the current one (SockFilterProgram equality) is tried (see above),
  // stored, handleFilterProgram runs, then it notifies. A refusal raises Vorn::ErrnoException and
  // leaves everything as it was.
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
  EventMap const & ethDevPamEventIter() const { return ethDevPamEvent_; }
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
  // Interfaces waiting for a descriptor for their socket, and what the retry time runs.
  static constexpr double shortageRetryInterval = 1.0;
  uint32_t shortOfDescriptors() const { return static_cast<uint32_t>(shortOf_.size()); }
  void handleShortageRetry();
  void handleEnabled();
  void handleFilterProgram();
  void handleInitialized();
  void handleDestruction();

  void vornDoZombieReactors(bool zombie);

 private:
  class VornDeviceIntfStatusDir;
  class VornEthDevPamClock;
  class VornShortageClock;
  friend Vorn::Ptr<EthDevPamManager> ethDevPamManagerFactory(Vorn::Ptr<PamDesiredIntfDir const> const &,
                                                             Vorn::Ptr<EthDevPamCollection> const &,
                                                             Vorn::Ptr<DeviceIntfStatusDir const> const &);

  EthDevPamManager(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                   Vorn::Ptr<EthDevPamCollection> const & pamCollection,
                   Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir);

  // Enables the bundle and catches up with the desired interfaces; the first failure, if any.
  std::exception_ptr doEnable();
  void doDisable();
  // The settings a bundle takes when enabled, and those a new Pam takes (ifIndex from `record`).
  void doBundleConfigure(EthDevPamBundle & bundle) const;
  void doPamConfigure(Ovel::EthDevPamInBundle & pam, IntfStatusAndDeviceName const & record) const;
  // Takes `pam` of `intfId` out of service: with `giveBack`, its count on a shared socket of the
  // bundle goes back; it is disabled and its descriptor cleared; then its collection entry goes (when
  // it is `pam`) and, unless `keepHolder`, the holder.
  enum class Holder { drop, keep };
  void doPamWithdraw(Ovel::IntfId const & intfId, Ovel::EthDevPam & pam, bool giveBack, Holder holder = Holder::drop);
  // The bundle closed a shared socket under its Pams: withdraws them and queues them anew.
  void doSharedSocketLost();
  void doDeferredRun() const;
  void shortageRetryIs(Ovel::IntfId const & intfId);
  void maxRxPktDataCheck(uint32_t bytes) const override;
  template <class F>
  RxModerationSettings withModeration(F RxModerationSettings::*field, F v) const {
    RxModerationSettings r = rxModerationSettings_;
    r.*field = v;
    return r;
  }
  template <class F>
  RxRingSettings with(F RxRingSettings::*field, F v) const {
    RxRingSettings r = rxRingSettings_;
    r.*field = v;
    return r;
  }

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
  RxRingSettings rxRingSettings_;
  RxModerationSettings rxModerationSettings_;
  EventMap ethDevPamEvent_;
  Ovel::IntfId ethDevPamEventBookmark_;
  bool initialized_ = false;

  Vorn::Ptr<VornDeviceIntfStatusDir> deviceIntfStatusDirReactor_;
  Vorn::Ptr<VornEthDevPamClock> ethDevPamClockReactor_;
  Vorn::Ptr<VornShortageClock> shortageClockReactor_;
  std::set<Ovel::IntfId> shortOf_;
};

// A null directory or collection raises Vorn::RangeException.
Vorn::Ptr<EthDevPamManager> ethDevPamManagerFactory(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                                    Vorn::Ptr<EthDevPamCollection> const & pamCollection,
                                                    Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir);

// Whether `intfId` should have a Pam: desired (stored value true) and its record in the device
// interface-status directory names a kernel device.
bool deviceExists(EthDevPamManager const & manager, Ovel::IntfId const & intfId);

}  // namespace Interface
