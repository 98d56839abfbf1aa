// The bundle's attributes, the protocol its sockets are opened with, interfaces joining and leaving,
// and its reaction to `enabled`. Socket set-up and sizing are in EthDevPamBundleSocket.cpp, the
// receive paths in EthDevPamBundleReceive.cpp, the ring in EthDevPamBundleRing.cpp.
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"

#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {

using B = EthDevPamBundle;
Vorn::AttributeTableOf<B> const attributes("Interface::EthDevPamBundle", [](auto & t) {
  t.scalar("netNs", &B::netNs, &B::netNsIs)
      .scalar("allMulticast", &B::allMulticast, &B::allMulticastIs)
      .scalar("sockRcvBuf", &B::sockRcvBuf, &B::sockRcvBufIs)
      .scalar("sockPrio", &B::sockPrio, &B::sockPrioIs)
      .scalar("perIntfSockRcvBuf", &B::perIntfSockRcvBuf, &B::perIntfSockRcvBufIs)
      .scalar("allocRcvBuf", &B::allocRcvBuf, &B::allocRcvBufIs)
      .scalar("broadcast", &B::broadcast, &B::broadcastIs)
      .scalar("pktReuse", &B::pktReuse, &B::pktReuseIs)
      .scalar("savedPkt", &B::savedPkt, &B::savedPktIs)
      .scalar("nonBlocking", &B::nonBlocking, &B::nonBlockingIs)
      .scalar("separateDot1QHdr", &B::separateDot1QHdr, &B::separateDot1QHdrIs)
      .scalar("sharedSockBufMax", &B::sharedSockBufMax, &B::sharedSockBufMaxIs)
      .scalar("noPamDropCount", &B::noPamDropCount, &B::noPamDropCountIs)
      .scalar("pamNotReadyDropCount", &B::pamNotReadyDropCount, &B::pamNotReadyDropCountIs)
      .scalar("perIntfSocket", &B::perIntfSocket, &B::perIntfSocketIs)
      .scalar("perIntfRlimit", &B::perIntfRlimit, &B::perIntfRlimitIs)
      .scalar("enabled", &B::enabled, &B::enabledIs)
      .scalar("currActiveSd", &B::currActiveSd, &B::currActiveSdIs)
      .scalar("sd", &B::sd, &B::sdIs)
      .instantiating("fileDesc", &B::fileDesc, &B::fileDescNew, &B::fileDescDel)
      .scalar("sdRef", &B::sdRef, &B::sdRefIs)
      .scalar("sdTap", &B::sdTap, &B::sdTapIs)
      .instantiating("fileDescTap", &B::fileDescTap, &B::fileDescTapNew, &B::fileDescTapDel)
      .scalar("sdTapRef", &B::sdTapRef, &B::sdTapRefIs)
      .scalar("enableBulkPamRead", &B::enableBulkPamRead, &B::enableBulkPamReadIs)
      .scalar("bulkReadQuota", &B::bulkReadQuota, &B::bulkReadQuotaIs)
      .scalar("mmsgInitialized", &B::mmsgInitialized, &B::mmsgInitializedIs)
      .collection("savedBulkPkt", &B::savedBulkPktIter, &B::savedBulkPktIs, &B::savedBulkPktDel)
      .scalar("maxProcessedPkts", &B::maxProcessedPkts, &B::maxProcessedPktsIs)
      .scalar("schedPktDelivery", &B::schedPktDelivery, &B::schedPktDeliveryIs)
      .scalar("rxRing", &B::rxRing, &B::rxRingIs)
      .scalar("rxRingBlockSize", &B::rxRingBlockSize, &B::rxRingBlockSizeIs)
      .scalar("rxRingBlockCount", &B::rxRingBlockCount, &B::rxRingBlockCountIs)
      .scalar("rxRingFrameSize", &B::rxRingFrameSize, &B::rxRingFrameSizeIs);
});
Intfsm::TypeRegistration registration("Interface::EthDevPamBundle", nullptr, attributes);

constexpr char swiVersionPath[] = "/etc/swi-version";
constexpr char fabricPath[] = "/sys/class/net/fabric";

// Whether the driver of `deviceName` is a kernel software device ("tun", "veth").
bool isSoftwareDevice(int sock, Vorn::String const & deviceName) {
  ifreq request{};
  ethtool_drvinfo info{};
  info.cmd = ETHTOOL_GDRVINFO;
  std::memcpy(request.ifr_name, deviceName.charPtr(), std::min(deviceName.size(), sizeof request.ifr_name));
  request.ifr_data = reinterpret_cast<char *>(&info);
  if (Platform::calls().ioctl(sock, SIOCETHTOOL, &request) < 0) return false;
  std::string_view const driver(info.driver, strnlen(info.driver, sizeof info.driver));
  return driver == "tun" || driver == "veth";
}

}  // namespace

EthDevPamBundle::EthDevPamBundle(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                 Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                 Vorn::Ptr<EthDevPamCollection> const & pamCollection)
    : EthDevPamBase(Vorn::Name()),
      desiredIntfDir_(desiredIntfDir),
      deviceIntfStatusDir_(deviceIntfStatusDir),
      pamCollection_(pamCollection) {}

EthDevPamBundle::~EthDevPamBundle() {
  doReaderListenersClear();
  for (Slot slot : {common, tap}) doSocketDrop(slot, false);
}

void EthDevPamBundle::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  EthDevPamBase::vornImmediateNotify(notifiee);
  notifyOne(notifiee, &NotifieeConst::onSavedBulkPktvornImmediate);
}

// ---- attributes ------------------------------------------------------------------------------------

void EthDevPamBundle::sockPrioIs(uint32_t v) {
  if (v > maxSockPrio) throw Vorn::RangeException("EthDevPamBundle::sockPrio < 0 or > 15 not allowed");
  set(sockPrio_, v, &NotifieeConst::onSockPrio);
}

void EthDevPamBundle::bulkReadQuotaIs(uint32_t v) {
  if (v < 1 || v > maxBulkReadQuota) {
    throw Vorn::RangeException("EthDevPamBundle::bulkReadQuota < 1 or > 128 not allowed");
  }
  set(bulkReadQuota_, v, &NotifieeConst::onBulkReadQuota);
}

void EthDevPamBundle::rxRingBlockSizeIs(uint32_t v) {
  uint32_t const page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
  if (v < page || v % page != 0) {
    throw Vorn::RangeException("EthDevPamBundle::rxRingBlockSize < " + std::to_string(page) +
                               " or not a multiple of " + std::to_string(page) + " not allowed");
  }
  set(rxRingBlockSize_, v, &NotifieeConst::onRxRingBlockSize);
}

void EthDevPamBundle::rxRingBlockCountIs(uint32_t v) {
  if (v < 1) throw Vorn::RangeException("EthDevPamBundle::rxRingBlockCount < 1 not allowed");
  set(rxRingBlockCount_, v, &NotifieeConst::onRxRingBlockCount);
}

void EthDevPamBundle::rxRingFrameSizeIs(uint32_t v) {
  if (v != 0 && (v < minRxRingFrameSize || v % TPACKET_ALIGNMENT != 0)) {
    throw Vorn::RangeException("EthDevPamBundle::rxRingFrameSize not 0 and < 128 or not a multiple of 16 not allowed");
  }
  set(rxRingFrameSize_, v, &NotifieeConst::onRxRingFrameSize);
}

void EthDevPamBundle::enabledIs(bool v) {
  if (v == enabled_) return;
  enabled_ = v;
  handleEnabled();
  notify(&NotifieeConst::onEnabled);
}

void EthDevPamBundle::savedBulkPktIs(uint16_t slot, Vorn::Ptr<Ovel::Pkt> const & pkt) {
  if (!pkt) {
    savedBulkPktDel(slot);
    return;
  }
  if (!savedBulkPkt_.set(slot, pkt)) return;
  if (slot < maxBulkReadQuota) bulkPkt_[slot] = pkt;
  bulkPreparedQuota_ = UINT32_MAX;  // the headers point at the old packet
  notify(&NotifieeConst::onSavedBulkPkt, slot);
}

void EthDevPamBundle::savedBulkPktDel(uint16_t slot) {
  if (!savedBulkPkt_.contains(slot)) return;
  if (slot < maxBulkReadQuota) bulkPkt_[slot] = nullptr;
  bulkPreparedQuota_ = UINT32_MAX;
  savedBulkPkt_.del(slot);
  notify(&NotifieeConst::onSavedBulkPkt, slot);
}

void EthDevPamBundle::savedBulkPktDelAll() {
  while (uint16_t const * slot = savedBulkPkt_.anyKey()) savedBulkPktDel(*slot);
}

// ---- choosing the socket ---------------------------------------------------------------------------

uint16_t EthDevPamBundle::socketProtocolFor(uint16_t p, bool managementPort, bool namespaceDut, bool fabric) {
  uint16_t d = p;
  if (p != ethPArp && p != ethPIp && p != ethPIpv6 && fabric) d = (managementPort || namespaceDut) ? ethPAll : ethPFabric;
  switch (p) {
    case 0x002D: return namespaceDut ? 0x8130 : p;
    case 0x002E: return namespaceDut ? 0x8134 : p;
    case 0x0031: return namespaceDut ? 0x8131 : p;
    case 0x0036: return namespaceDut ? 0x8133 : p;
    case 0x0037:
    case 0x0038: return p;
    case 0x0039: return (namespaceDut || managementPort) ? ethPAll : p;
    case 0x1033:
    case 0x1034:
    case 0x1040:
    case 0x8135:
    case 0x8847:  // MPLS
    case 0x888E:  // EAPOL
    case 0x1002: return p;
    default: return d;
  }
}

bool EthDevPamBundle::isNamespaceDut() {
  static bool const namespaceDut = [] {
    struct stat st;
    if (Platform::calls().lstat(swiVersionPath, &st) < 0) {
      EDPM_TRACE(1, "isNamespaceDut: no /etc/swi-version. on namespace DUT ");
      return true;
    }
    EDPM_TRACE(1, "isNamespaceDut: on hardware ");
    return false;
  }();
  return namespaceDut;
}

int EthDevPamBundle::doGetSd(Vorn::String const & deviceName) {
  EDPM_TRACE(8, "int Interface::EthDevPamBundle::doGetSd( " << deviceName << " )");
  uint16_t const p = ethProtocol();
  bool const namespaceDut = isNamespaceDut();
  bool const managementPort = deviceName.view().starts_with("ma");
  bool fabric = false;
  if (p != ethPArp && p != ethPIp && p != ethPIpv6) {
    struct stat st;
    fabric = Platform::calls().lstat(fabricPath, &st) == 0;
  }
  uint16_t const q = socketProtocolFor(p, managementPort, namespaceDut, fabric);
  if (sd() == -1) doSocketCreateProto(q, false);
  if (q == ethPFabric && isSoftwareDevice(sd(), deviceName)) {
    if (sdTap() == -1) doSocketCreateProto(ethPAll, true);
    sdTapRefIs(sdTapRef() + 1);
    return sdTap();
  }
  sdRefIs(sdRef() + 1);
  return sd();
}

void EthDevPamBundle::doUnrefSd(int sock) {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doUnrefSd( " << sock << " )");
  if (sock == sd()) {
    sdRefIs(sdRef() - 1);
    VORN_ASSERT(sdRef() >= 0);
  } else {
    VORN_ASSERT(sdTap() == sock);
    sdTapRefIs(sdTapRef() - 1);
    VORN_ASSERT(sdTapRef() >= 0);
  }
  if (sdRef() == 0 && sdTapRef() == 0) {
    // The last interface left: a socket kept open would pin its namespace, also one deleted since,
    // and the next interface would share a socket in a namespace no longer reachable by its name.
    doSocketsClose();
    sockRcvBufIs(0);  // the next socket is sized afresh
  }
}


void EthDevPamBundle::handleEnabled() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::handleEnabled()");
  EDPM_TRACE(5, "Bundle:Enabled became " << enabled_);
  route_ = Route{};  // actPamCollection changes
  if (!enabled_) {
    doReaderListenersClear();
    actPamCollection_ = nullptr;
    doSocketClose();
    return;
  }
  if (!perIntfSocket_ && (enableBulkPamRead_ || rxRing_)) {
    actPamCollection_ = ethDevPamCollectionFactory("actPamCollection");
  }
}

}  // namespace Interface
