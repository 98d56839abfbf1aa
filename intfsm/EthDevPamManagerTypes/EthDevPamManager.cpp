#include "intfsm/EthDevPamManagerTypes/EthDevPamManager.h"

#include <linux/if_packet.h>
#include <unistd.h>

#include <string>

#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"

namespace Interface {

namespace {
using M = EthDevPamManager;
// Keyed entries made from their key alone (pam, ethDevPamEvent) take any value in set. rxRingSettings is
// the list [on, blockSize, blockCount, frameSize].
Vorn::AttributeTableOf<M> const attributes("Interface::EthDevPamManager", [](auto & t) {
  t.inherits("Interface::EthDevPamManagerBase")
      .scalar("deviceIntfStatusDir", &M::deviceIntfStatusDir)
      .scalar("netNs", &M::netNs, &M::netNsIs)
      .scalar("allMulticast", &M::allMulticast, &M::allMulticastIs)
      .scalar("sockRcvBuf", &M::sockRcvBuf, &M::sockRcvBufIs)
      .scalar("sockPrio", &M::sockPrio, &M::sockPrioIs)
      .scalar("broadcast", &M::broadcast, &M::broadcastIs)
      .scalar("pktReuse", &M::pktReuse, &M::pktReuseIs)
      .scalar("createVornFileDescOnEnabled", &M::createVornFileDescOnEnabled, &M::createVornFileDescOnEnabledIs)
      .scalar("separateDot1QHdr", &M::separateDot1QHdr, &M::separateDot1QHdrIs)
      .scalar("enableBulkPamRead", &M::enableBulkPamRead, &M::enableBulkPamReadIs)
      .scalar("headDropPolicy", &M::headDropPolicy, &M::headDropPolicyIs)
      .scalar("perIntfSocket", &M::perIntfSocket, &M::perIntfSocketIs)
      .scalar("perIntfRlimit", &M::perIntfRlimit, &M::perIntfRlimitIs)
      .scalar("socketReadLimit", &M::socketReadLimit, &M::socketReadLimitIs)
      .instantiating("edpBundle", &M::edpBundle, &M::edpBundleIs)
      .instantiating("ethDevPamBundleActivitySm", &M::ethDevPamBundleActivitySm, &M::ethDevPamBundleActivitySmIs,
                     &M::ethDevPamBundleActivitySmDel)
      .collection("pam", &M::pamIter, [](M & m, Ovel::IntfId const & id, Vorn::Value const &) { m.pamIs(id); },
                  &M::pamDel)
      .collectionBy(
          "savedPacket", &M::savedPacket, &M::savedPackets,
          [](M const & m) {
            std::vector<uint16_t> keys(m.savedPackets());
            for (size_t i = 0; i < keys.size(); ++i) keys[i] = uint16_t(i);
            return keys;
          },
          &M::savedPacketIs, nullptr)
      .scalar("defer", &M::defer, &M::deferIs)
      .collection("ethDevPamEvent", &M::ethDevPamEventIter,
                  [](M & m, Ovel::IntfId const & id, Vorn::Value const &) { m.ethDevPamEventIs(id); },
                  &M::ethDevPamEventDel)
      .scalar("ethDevPamEventBookmark", &M::ethDevPamEventBookmark, &M::ethDevPamEventBookmarkIs)
      .scalar("ethDevPamClock", &M::ethDevPamClock)
      .scalar("initialized", &M::initialized)
      .scalar(
          "rxRingSettings",
          [](M const & m) {
            RxRingSettings const & r = m.rxRingSettings();
            return Vorn::Value::List{r.on, r.blockSize, r.blockCount, r.frameSize};
          },
          [](M & m, Vorn::Value::List const & v) {
            if (v.size() != 4) {
              throw Vorn::ValueTypeException("rxRingSettings is [on, blockSize, blockCount, frameSize], got " +
                                             Vorn::Value(v).str());
            }
            RxRingSettings r;
            r.on = v[0].boolean();
            r.blockSize = Vorn::fromValue<uint32_t>(v[1]);
            r.blockCount = Vorn::fromValue<uint32_t>(v[2]);
            r.frameSize = Vorn::fromValue<uint32_t>(v[3]);
            m.rxRingSettingsIs(r);
          });
});
Intfsm::TypeRegistration registration("Interface::EthDevPamManager", nullptr, attributes);

std::string const managerText = "EthDevPamManager::";
}  // namespace

class EthDevPamManager::VornDeviceIntfStatusDir : public Vorn::Reactor<EthDevPamManager, DeviceIntfStatusDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatusAndDeviceName(Ovel::IntfId const & intfId) override {
    forward(&EthDevPamManager::handleIntf, intfId);
  }
};

class EthDevPamManager::VornEthDevPamClock : public Vorn::Reactor<EthDevPamManager, Vorn::Clock> {
 public:
  using Reactor::Reactor;
  void onTimeMin() override { forward(&EthDevPamManager::handleEthDevPamClock); }
};

Vorn::Ptr<EthDevPamManager> ethDevPamManagerFactory(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                                    Vorn::Ptr<EthDevPamCollection> const & pamCollection,
                                                    Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir) {
  char const * const missing = !desiredIntfDir ? "desiredIntfDir" : !pamCollection ? "pamCollection"
                               : !deviceIntfStatusDir                ? "deviceIntfStatusDir"
                                                                     : nullptr;
  if (missing) throw Vorn::RangeException(Vorn::nullParameterText(missing, "Interface::EthDevPamManager"));
  return new EthDevPamManager(desiredIntfDir, pamCollection, deviceIntfStatusDir);
}

bool deviceExists(EthDevPamManager const & manager, Ovel::IntfId const & intfId) {
  return manager.desiredIntfDir()->intfDesired(intfId) &&
         !manager.deviceIntfStatusDir()->intfStatusAndDeviceName(intfId).deviceName.empty();
}

EthDevPamManager::EthDevPamManager(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                   Vorn::Ptr<EthDevPamCollection> const & pamCollection,
                                   Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir)
    : EthDevPamManagerBase(Vorn::Name(), desiredIntfDir, pamCollection),
      deviceIntfStatusDir_(deviceIntfStatusDir),
      deviceIntfStatusDirReactor_(Vorn::reactorNew<VornDeviceIntfStatusDir>(this, deviceIntfStatusDir)),
      // Unbound until handleInitialized; a time asked for before then waits for the binding.
      ethDevPamClockReactor_(Vorn::reactorNew<VornEthDevPamClock>(this, nullptr)) {}

EthDevPamManager::~EthDevPamManager() {
  vornDoZombieReactors(true);
  if (initialized_ && enabled()) doDisable();
  ethDevPamClockReactor_->timeMinIs(Vorn::Clock::never);
  deviceIntfStatusDirReactor_ = nullptr;
  ethDevPamClockReactor_ = nullptr;
}

void EthDevPamManager::vornDoZombieReactors(bool zombie) {
  EthDevPamManagerBase::vornDoZombieReactors(zombie);
  if (deviceIntfStatusDirReactor_) deviceIntfStatusDirReactor_->vornZombieIs(zombie);
  if (ethDevPamClockReactor_) ethDevPamClockReactor_->vornZombieIs(zombie);
}

// ---- attributes ------------------------------------------------------------------------------------

void EthDevPamManager::sockPrioIs(uint32_t v) {
  if (v > maxSockPrio) throw Vorn::RangeException("EthDevPamManager::sockPrio < 0 or > 15 not allowed");
  set(sockPrio_, v, &NotifieeConst::onSockPrio);
}

void EthDevPamManager::socketReadLimitIs(int32_t v) {
  if (v < 1 || v > maxSocketReadLimit) {
    throw Vorn::RangeException("EthDevPamManager::socketReadLimit < 1 or > 1024 not allowed");
  }
  set(socketReadLimit_, v, &NotifieeConst::onSocketReadLimit);
}

uint32_t RxRingSettings::frameSizeFor(uint32_t maxRxPktData) const {
  // As the bundle sizes a slot: the frame's link header lands at TPACKET_ALIGN(TPACKET2_HDRLEN + 16).
  return frameSize ? frameSize : TPACKET_ALIGN(TPACKET_ALIGN(TPACKET2_HDRLEN + 16) + maxRxPktData);
}

void RxRingSettings::check(uint32_t maxRxPktData) const {
  auto refuse = [](std::string const & limit) { throw Vorn::RangeException(managerText + limit + " not allowed"); };
  uint32_t const page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
  if (blockSize < page || (blockSize & (blockSize - 1))) {
    refuse("rxRingBlockSize < " + std::to_string(page) + " or not a power of two");
  }
  if (blockCount < 1) refuse("rxRingBlockCount < 1");
  if (blockSize > UINT32_MAX / blockCount) refuse("rxRingBlockSize * rxRingBlockCount > " + std::to_string(UINT32_MAX));
  if (frameSize && (frameSize < minFrameSize || frameSize % TPACKET_ALIGNMENT)) {
    refuse("rxRingFrameSize < " + std::to_string(minFrameSize) + " or not a multiple of " +
           std::to_string(TPACKET_ALIGNMENT));
  }
  if (frameSize > blockSize) refuse("rxRingFrameSize > rxRingBlockSize");
  if (on && frameSizeFor(maxRxPktData) > blockSize) {
    refuse("rxRingFrameSize of maxRxPktData " + std::to_string(maxRxPktData) + " > rxRingBlockSize");
  }
}

void EthDevPamManager::rxRingSettingsIs(RxRingSettings const & v) {
  v.check(maxRxPktData());
  set(rxRingSettings_, v, &NotifieeConst::onRxRingSettings);
}

void EthDevPamManager::maxRxPktDataCheck(uint32_t bytes) const { rxRingSettings_.check(bytes); }

void EthDevPamManager::enabledIs(bool enabled) {
  if (!enabledStore(enabled)) return;
  try {
    handleEnabled();
  } catch (...) {
    enabledNotify();  // enabled all the same: only some interfaces failed
    throw;
  }
  enabledNotify();
}

void EthDevPamManager::filterProgramIs(Ovel::SockFilterProgram const & program) {
  if (program == filterProgram()) return;
  if (initialized_ && enabled()) edpBundle_->filterProgramTry(program);  // a refusal raises: nothing changed
  Ovel::SockFilterProgram const old = filterProgram();
  filterProgramStore(program);
  try {
    handleFilterProgram();  // puts the old program back where it fails
  } catch (...) {
    filterProgramStore(old);
    throw;
  }
  filterProgramNotify();
}

Vorn::Ptr<EthDevPamBundle> EthDevPamManager::edpBundleIs(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                                         Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                                         Vorn::Ptr<EthDevPamCollection> const & pamCollection) {
  if (edpBundle_ && edpBundle_->desiredIntfDir() == desiredIntfDir &&
      edpBundle_->deviceIntfStatusDir() == deviceIntfStatusDir && edpBundle_->pamCollection() == pamCollection) {
    return edpBundle_;
  }
  edpBundle_ = new EthDevPamBundle(desiredIntfDir, deviceIntfStatusDir, pamCollection);
  notify(&NotifieeConst::onEdpBundle);
  return edpBundle_;
}

Vorn::Ptr<EthDevPamBundleActivitySm> EthDevPamManager::ethDevPamBundleActivitySmIs(
    Vorn::Ptr<Vorn::ActivityConfig> const & config) {
  if (ethDevPamBundleActivitySm_ && ethDevPamBundleActivitySm_->vornFwkActivity() == config) {
    return ethDevPamBundleActivitySm_;
  }
  ethDevPamBundleActivitySm_ = new EthDevPamBundleActivitySm(config, this);
  notify(&NotifieeConst::onEthDevPamBundleActivitySm);
  return ethDevPamBundleActivitySm_;
}

void EthDevPamManager::ethDevPamBundleActivitySmDel() {
  if (!ethDevPamBundleActivitySm_) return;
  ethDevPamBundleActivitySm_ = nullptr;
  notify(&NotifieeConst::onEthDevPamBundleActivitySm);
}

Vorn::Ptr<EthDevPamInBundleHolder> EthDevPamManager::pamIs(Ovel::IntfId const & intfId) {
  if (Vorn::Ptr<EthDevPamInBundleHolder> holder = pam_.get(intfId)) return holder;
  Vorn::Ptr<EthDevPamInBundleHolder> const holder = ethDevPamInBundleHolderFactory(intfId);
  holder->parentIs(this);
  setEntry(pam_, intfId, holder, &NotifieeConst::onPam);
  return holder;
}

void EthDevPamManager::pamDel(Ovel::IntfId const & intfId) {
  Vorn::Ptr<EthDevPamInBundleHolder> const holder = pam_.get(intfId);
  if (!holder) return;
  holder->pamDel();
  delEntry(pam_, intfId, &NotifieeConst::onPam);
}

void EthDevPamManager::pamDelAll() {
  while (Ovel::IntfId const * key = pam_.anyKey()) pamDel(Ovel::IntfId(*key));
}

void EthDevPamManager::savedPacketIs(uint16_t index, Vorn::Ptr<Ovel::Pkt> const & pkt) {
  if (index >= savedPacket_.size()) {
    if (!pkt) return;
    savedPacket_.resize(index + 1u);
  }
  if (savedPacket_[index] == pkt) return;
  savedPacket_[index] = pkt;
  notify(&NotifieeConst::onSavedPacket, index);
}

void EthDevPamManager::savedPacketDelAll() {
  while (!savedPacket_.empty()) {
    uint16_t const index = static_cast<uint16_t>(savedPacket_.size() - 1);
    bool const held = savedPacket_.back() != nullptr;
    savedPacket_.pop_back();
    if (held) notify(&NotifieeConst::onSavedPacket, index);
  }
}

void EthDevPamManager::ethDevPamEventIs(Ovel::IntfId const & intfId) {
  setEntry(ethDevPamEvent_, intfId, true, &NotifieeConst::onEthDevPamEvent);
}

void EthDevPamManager::ethDevPamEventDel(Ovel::IntfId const & intfId) {
  delEntry(ethDevPamEvent_, intfId, &NotifieeConst::onEthDevPamEvent);
}

void EthDevPamManager::ethDevPamEventDelAll() { delAllEntries(ethDevPamEvent_, &NotifieeConst::onEthDevPamEvent); }

Vorn::Ptr<Vorn::Clock const> EthDevPamManager::ethDevPamClock() const { return ethDevPamClockReactor_->notifier(); }

// ---- per interface ---------------------------------------------------------------------------------

void EthDevPamManager::handleIntf(Ovel::IntfId const & intfId) {
  if (defer_ && deviceExists(*this, intfId)) {
    EDPM_TRACE(5, "virtual void Interface::EthDevPamManager::handleIntf(Ovel::IntfId)" << " defer " << intfId);
    ethDevPamEventIs(intfId);
    doDeferredRun();
    return;
  }
  doProcessIntf(intfId);
}

void EthDevPamManager::doDeferredRun() const { ethDevPamClockReactor_->timeMinIs(Vorn::System::currentTime()); }

void EthDevPamManager::doPamWithdraw(Ovel::IntfId const & intfId, Ovel::EthDevPam & pam, bool giveBack,
                                     Holder holder) {
  Vorn::Ptr<Ovel::EthDevPam> const keep(&pam);  // the entries below may hold the last references
  int const sd = pam.sd();
  if (giveBack && !pam.perIntfSocket() && sd >= 0 && edpBundle_ && (sd == edpBundle_->sd() || sd == edpBundle_->sdTap())) {
    edpBundle_->doUnrefSd(sd);
  }
  pam.enabledIs(false);
  pam.sdIs(-1);
  if (pamCollection()->intfPam(intfId).ptr() == &pam) pamCollection()->intfPamDel(intfId);
  if (holder == Holder::drop) {
    pamDel(intfId);
  } else if (Vorn::Ptr<EthDevPamInBundleHolder> const h = pam_.get(intfId)) {
    h->pamDel();
  }
}

void EthDevPamManager::doPamConfigure(Ovel::EthDevPamInBundle & pam, IntfStatusAndDeviceName const & record) const {
  EthDevPamBundle const & bundle = *edpBundle_;
  pam.ifIndexIs(record.ifIndex);
  pam.netNsIs(netNs_);
  pam.ethProtocolIs(ethProtocol());
  pam.listenAddrIs(listenAddr());
  pam.allMulticastIs(allMulticast_);
  pam.broadcastIs(broadcast_);
  pam.filterProgramIs(filterProgram());
  pam.sockRcvBufIs(bundle.perIntfSockRcvBuf());
  pam.sockPrioIs(sockPrio_);
  pam.maxRxPktDataIs(maxRxPktData());
  pam.pktReuseIs(pktReuse_);
  pam.enableBulkPamReadIs(bundle.enableBulkPamRead());
  pam.perIntfSocketIs(bundle.perIntfSocket());
  pam.createVornFileDescOnEnabledIs(createVornFileDescOnEnabled_);
  pam.headDropPolicyIs(headDropPolicy_);
  if (pktReuse_) {
    for (int32_t i = 0; i < socketReadLimit_; ++i) {
      uint16_t const index = static_cast<uint16_t>(i);
      if (Vorn::Ptr<Ovel::Pkt> const saved = savedPacket(index)) pam.savedPacketIs(index, saved);
    }
  }
  pam.socketReadLimitIs(socketReadLimit_);
}

void EthDevPamManager::doProcessIntf(Ovel::IntfId const & intfId) {
  if (!enabled()) {
    EDPM_TRACE(5, "Not enabled so ignoring notification for " << intfId);
    return;
  }
  EthDevPamBundle & bundle = *edpBundle_;
  if (!deviceExists(*this, intfId)) {
    if (Vorn::Ptr<Ovel::Pam> const published = pamCollection()->intfPam(intfId)) {
      EDPM_TRACE(5, "Deleting pam for " << intfId);
      if (auto * pam = dynamic_cast<Ovel::EthDevPam *>(published.ptr())) doPamWithdraw(intfId, *pam, true);
    }
    pamCollection()->intfPamDel(intfId);
    pamDel(intfId);
    return;
  }

  IntfStatusAndDeviceName const record = deviceIntfStatusDir_->intfStatusAndDeviceName(intfId);
  Vorn::Ptr<EthDevPamInBundleHolder> const holder = pamIs(intfId);
  if (Vorn::Ptr<Ovel::EthDevPamInBundle> const old = holder->pam()) {
    if (old->ifIndex() == record.ifIndex) {
      EDPM_TRACE(5, "Pam for " << intfId << " already exists");
      VORN_ASSERT(pamCollection()->intfPam( intfId ));
      return;
    }
    EDPM_TRACE(5, "Deleting stale pam for " << intfId);
    doPamWithdraw(intfId, *old, true, Holder::keep);  // its count on the shared socket goes with it
  }

  EDPM_TRACE(5, "Creating pam for " << intfId << " / " << record.deviceName << " ifIndex " << record.ifIndex);
  Vorn::Ptr<Ovel::EthDevPamInBundle> const pam = holder->pamIs(record.deviceName);
  doPamConfigure(*pam, record);
  // A failure from here on takes back what this call built (the count, the Pam, its holder) before it
  // is traced (enabling) or raised (the shared socket).
  enum class Step { socket, enable, size } step = Step::socket;
  auto undo = [&] {
    int const sd = pam->perIntfSocket() ? -1 : pam->sd();
    doPamWithdraw(intfId, *pam, true);
    if (step == Step::size && sd >= 0 && sd != bundle.sd() && sd != bundle.sdTap()) doSharedSocketLost();
  };
  try {
    if (!bundle.perIntfSocket()) pam->sdIs(bundle.doGetSd(record.deviceName));
    step = Step::enable;
    pam->separateDot1QHdrIs(separateDot1QHdr_);
    pam->enabledIs(true);
    step = Step::size;
    if (!pam->perIntfSocket()) bundle.doSetRcvBuf(pam->sd());
  } catch (Vorn::ErrnoException const & failure) {
    undo();
    if (step != Step::enable) throw;
    EDPM_TRACE(0, "Unable to enable pam for device " << record.deviceName << " for intf " << intfId << " errno "
                                                     << failure.errorNumber());
    return;
  } catch (...) {
    undo();
    throw;
  }
  pamCollection()->intfPamIs(intfId, pam);
}

void EthDevPamManager::doSharedSocketLost() {
  EDPM_TRACE(1, "Shared socket closed after a failure: its pams are made again");
  std::vector<std::pair<Ovel::IntfId, Vorn::Ptr<Ovel::EthDevPamInBundle>>> lost;
  for (auto const & e : pam_) {
    if (e.value->pam() && !e.value->pam()->perIntfSocket()) lost.emplace_back(e.key, e.value->pam());
  }
  for (auto const & [intfId, pam] : lost) {
    EDPM_TRACE(5, "Deleting pam for " << intfId << " / " << pam->name());
    doPamWithdraw(intfId, *pam, false);  // its number is closed, and may be handed out again
    ethDevPamEventIs(intfId);
  }
  edpBundle_->doSocketClose();  // the other one too: the counts start again from nothing
  if (!ethDevPamEvent_.empty()) doDeferredRun();
}

void EthDevPamManager::handleEthDevPamClock() {
  EDPM_TRACE(8, "void Interface::EthDevPamManager::handleEthDevPamClock()");
  EventMap::Iterator it = ethDevPamEvent_.iteratorAt(ethDevPamEventBookmark_);
  if (it == ethDevPamEvent_.end()) {
    ethDevPamEventBookmarkIs(Ovel::IntfId());
    it = ethDevPamEvent_.begin();
    if (it == ethDevPamEvent_.end()) return;
  }
  Ovel::IntfId const intfId = it->key;
  ethDevPamEventDel(intfId);
  try {
    doProcessIntf(intfId);
  } catch (Vorn::Exception const & failure) {
    EDPM_TRACE(0, "Unable to make pam for " << intfId << ": " << failure.what());
  }
  ++it;
  if (it != ethDevPamEvent_.end()) ethDevPamEventBookmarkIs(it->key);
  if (!ethDevPamEvent_.empty()) doDeferredRun();  // the next one on the next pass
}

// ---- enabling --------------------------------------------------------------------------------------

void EthDevPamManager::handleEnabled() {
  if (!initialized_) {
    VORN_ASSERT(! enabled());
    return;
  }
  EDPM_TRACE(5, "Enabled became " << enabled());
  double const start = Vorn::System::currentTime();
  std::exception_ptr failure;
  if (enabled()) {
    failure = doEnable();
  } else {
    doDisable();
  }
  EDPM_TRACE(5, "time taken to enable/disable: " << Vorn::System::currentTime() - start);
  if (failure) std::rethrow_exception(failure);
}

void EthDevPamManager::doBundleConfigure(EthDevPamBundle & bundle) const {
  bundle.netNsIs(netNs_);
  bundle.allMulticastIs(allMulticast_);
  bundle.broadcastIs(broadcast_);
  bundle.pktReuseIs(pktReuse_);
  bundle.perIntfSockRcvBufIs(sockRcvBuf_);
  bundle.sockPrioIs(sockPrio_);
  bundle.ethProtocolIs(ethProtocol());
  bundle.listenAddrIs(listenAddr());
  bundle.filterProgramIs(filterProgram());
  bundle.maxRxPktDataIs(maxRxPktData());
  bundle.perIntfSocketIs(perIntfSocket_);
  bundle.perIntfRlimitIs(perIntfRlimit_);
  bundle.rxRingIs(rxRingSettings_.on);
  bundle.rxRingBlockSizeIs(rxRingSettings_.blockSize);
  bundle.rxRingBlockCountIs(rxRingSettings_.blockCount);
  bundle.rxRingFrameSizeIs(rxRingSettings_.frameSize);
}

std::exception_ptr EthDevPamManager::doEnable() {
  Ovel::PktManager & packets = Ovel::globalPktManager();
  EthDevPamBundle & bundle = *edpBundleIs(desiredIntfDir(), deviceIntfStatusDir_, pamCollection());
  bundle.enableBulkPamReadIs(enableBulkPamRead_);
  if (!pktReuse_) {
    EDPM_TRACE(1, "Turning off enableBulkPamRead as the pkts cannot be reused");
    bundle.enableBulkPamReadIs(false);
  } else {
    for (int32_t i = 0; i < socketReadLimit_; ++i) savedPacketIs(static_cast<uint16_t>(i), packets.newPkt());
  }
  doBundleConfigure(bundle);

  Vorn::Ptr<Vorn::ActivityConfig> const activity = Vorn::activityManager().activityIs(activityName, activityBudget);
  EDPM_TRACE(5, "Adding EthDevPamBundleActivitySm");
  ethDevPamBundleActivitySmIs(activity)->ethDevPamBundleIs(edpBundle_);

  bundle.separateDot1QHdrIs(separateDot1QHdr_);
  bundle.enabledIs(true);
  std::exception_ptr first;  // one interface failing does not keep the others waiting
  for (auto const & e : desiredIntfDir()->intfDesiredIter()) {
    try {
      handleIntf(e.key);
    } catch (...) {
      if (!first) first = std::current_exception();
    }
  }
  return first;
}

void EthDevPamManager::doDisable() {
  for (auto const & e : pamCollection()->intfPamIter()) {  // every one, whoever made it
    auto * pam = dynamic_cast<Ovel::EthDevPam *>(e.value.ptr());
    if (!pam) continue;
    Ovel::IntfId const intfId = e.key;
    EDPM_TRACE(5, "Deleting pam for " << intfId << " / " << pam->name());
    doPamWithdraw(intfId, *pam, false);
  }
  while (Ovel::IntfId const * key = pam_.anyKey()) {  // ours that are not published: off the socket too
    Ovel::IntfId const intfId = *key;
    if (Vorn::Ptr<Ovel::EthDevPamInBundle> const pam = pam_.get(intfId)->pam()) {
      doPamWithdraw(intfId, *pam, false);
    } else {
      pamDel(intfId);
    }
  }
  ethDevPamBundleActivitySmDel();
  if (edpBundle_) edpBundle_->enabledIs(false);
}

// ---- filter ----------------------------------------------------------------------------------------

void EthDevPamManager::handleFilterProgram() {
  if (!initialized_ || !enabled()) {
    EDPM_TRACE(5, "Not " << (initialized_ ? "enabled" : "initialized") << ".Ignore");
    return;
  }
  Ovel::SockFilterProgram const & program = filterProgram();
  EthDevPamBundle & bundle = *edpBundle_;
  Ovel::SockFilterProgram const old = bundle.filterProgram();  // in force until this succeeds
  if (!bundle.perIntfSocket()) {
    if (bundle.sd() == -1) {
      EDPM_TRACE(5, "Socket not yet created as no EthDevPam enabled yet. Ignore");
    } else {
      attachOrDetachFilter(bundle.sd(), false, program.filter(), program.len());
      if (bundle.sdTap() != -1) {
        try {
          attachOrDetachFilter(bundle.sdTap(), true, program.filter(), program.len());
        } catch (...) {
          attachOrDetachFilter(bundle.sd(), false, old.filter(), old.len());
          throw;
        }
      }
    }
    bundle.filterProgramIs(program);  // for the sockets it opens from now on
    for (auto const & e : pam_) {
      if (e.value->pam()) e.value->pam()->filterProgramIs(program);  // no socket of their own: stored only
    }
    return;
  }
  std::vector<Vorn::Ptr<Ovel::EthDevPamInBundle>> done;
  for (auto const & e : pam_) {
    Vorn::Ptr<Ovel::EthDevPamInBundle> const pam = e.value->pam();
    if (!pam) continue;
    EDPM_TRACE(5, "Applying new filter to " << e.key << " pam device");
    try {
      pam->filterProgramIs(program);
    } catch (...) {
      for (auto const & p : done) p->filterProgramIs(old);
      throw;
    }
    done.push_back(pam);
  }
  bundle.filterProgramIs(program);
}

// ---- life cycle ------------------------------------------------------------------------------------

void EthDevPamManager::handleInitialized() {
  EDPM_TRACE(8, "void Interface::EthDevPamManager::handleInitialized()");
  ethDevPamClockReactor_->notifierIs(Vorn::activityManager().clock());
  if (initialized_) return;
  initialized_ = true;
  notify(&NotifieeConst::onInitialized);
}

void EthDevPamManager::handleDestruction() {
  EDPM_TRACE(8, "void Interface::EthDevPamManager::handleDestruction()");
  enabledIs(false);
}

}  // namespace Interface
