#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <linux/ethtool.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "intfsm/EthDevPamManagerTypes/internal/Cleanup.h"
#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {

Intfsm::TypeRegistration registration(
    "Interface::EthDevPamBundle", nullptr,
    {"netNs",          "allMulticast",      "sockRcvBuf",       "sockPrio",          "perIntfSockRcvBuf",
     "allocRcvBuf",    "broadcast",         "pktReuse",         "savedPkt",          "nonBlocking",
     "separateDot1QHdr", "sharedSockBufMax", "noPamDropCount",  "pamNotReadyDropCount", "perIntfSocket",
     "perIntfRlimit",  "enabled",           "currActiveSd",     "sd",                "fileDesc",
     "sdRef",          "sdTap",             "fileDescTap",      "sdTapRef",          "enableBulkPamRead",
     "bulkReadQuota",  "mmsgInitialized",   "savedBulkPkt",     "maxProcessedPkts",  "schedPktDelivery",
     "rxRing",         "rxRingBlockSize",   "rxRingBlockCount", "rxRingFrameSize"});

constexpr char swiVersionPath[] = "/etc/swi-version";
constexpr char fabricPath[] = "/sys/class/net/fabric";
constexpr char rlimitStatsPath[] = "/proc/net/packet_rlimit_stats";
constexpr char rlimitOptPath[] = "/proc/sys/net/core/packet_rlimit_opt";
constexpr int defaultRlimitOpt = 19;
constexpr char rlimitOptInvalid[] = "/proc/sys/net/core/packet_rlimit_opt has invalid content";

// The socket is created for protocol 0x0029 (in network order): nothing is queued on it before the
// bind names the protocol that is wanted.
constexpr int creationProtocol = 0x2900;

// Room for the PACKET_AUXDATA message.
constexpr size_t controlBytes = 40;
static_assert(CMSG_SPACE(sizeof(tpacket_auxdata)) <= controlBytes);
struct alignas(cmsghdr) ControlArea {
  unsigned char bytes[controlBytes];
};

// The message headers of the bulk read, one per slot with its own address and control areas. One
// set serves the process (one loop thread), made once; `preparedBy` is the bundle whose slots they
// point into.
struct BulkHeaders {
  mmsghdr headers[EthDevPamBundle::maxBulkReadQuota];
  iovec iov[EthDevPamBundle::maxBulkReadQuota];
  sockaddr_ll from[EthDevPamBundle::maxBulkReadQuota];
  ControlArea control[EthDevPamBundle::maxBulkReadQuota];
  EthDevPamBundle const * preparedBy;
};
BulkHeaders bulkHeaders;

// Where a TPACKET_V2 slot's address follows its header.
constexpr size_t ringAddressAt = TPACKET_ALIGN(sizeof(tpacket2_hdr));
// The kernel puts a frame's link header at TPACKET_ALIGN(TPACKET2_HDRLEN + 16) less the header's
// length: a slot this long past that point holds the whole frame.
constexpr uint32_t ringFrameAt = TPACKET_ALIGN(TPACKET2_HDRLEN + 16);

int intOption(int sock, int level, int option, int value) {
  return Platform::calls().setsockopt(sock, level, option, &value, sizeof value);
}

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
  doSocketCloseQuietly();
  if (bulkHeaders.preparedBy == this) bulkHeaders.preparedBy = nullptr;
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

void EthDevPamBundle::enabledIs(bool v) {
  if (v == enabled_) return;
  enabled_ = v;
  handleEnabled();
  notify(&NotifieeConst::onEnabled);
}

Vorn::Ptr<Vorn::FileDescriptor> EthDevPamBundle::fileDescNew(Vorn::Name const & name) {
  fileDesc_ = Vorn::fileDescriptorFactory(name);
  notify(&NotifieeConst::onFileDesc);
  return fileDesc_;
}

void EthDevPamBundle::fileDescDel() {
  if (!fileDesc_) return;
  fileDesc_ = nullptr;
  notify(&NotifieeConst::onFileDesc);
}

Vorn::Ptr<Vorn::FileDescriptor> EthDevPamBundle::fileDescTapNew(Vorn::Name const & name) {
  fileDescTap_ = Vorn::fileDescriptorFactory(name);
  notify(&NotifieeConst::onFileDescTap);
  return fileDescTap_;
}

void EthDevPamBundle::fileDescTapDel() {
  if (!fileDescTap_) return;
  fileDescTap_ = nullptr;
  notify(&NotifieeConst::onFileDescTap);
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
  if (sd_ == -1) doSocketCreateProto(q, false);
  if (q == ethPFabric && isSoftwareDevice(sd_, deviceName)) {
    if (sdTap_ == -1) doSocketCreateProto(ethPAll, true);
    sdTapRefIs(sdTapRef_ + 1);
    return sdTap_;
  }
  sdRefIs(sdRef_ + 1);
  return sd_;
}

void EthDevPamBundle::doUnrefSd(int sock) {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doUnrefSd( " << sock << " )");
  if (sock == sd_) {
    sdRefIs(sdRef_ - 1);
    VORN_ASSERT(sdRef() >= 0);
    return;
  }
  VORN_ASSERT(sdTap() == sock);
  sdTapRefIs(sdTapRef_ - 1);
  VORN_ASSERT(sdTapRef() >= 0);
}

// ---- opening, sizing, closing ----------------------------------------------------------------------

void EthDevPamBundle::doSocketSetupFailed(int sock, char const * trace, int error) {
  doSocketSetupFailedQuietly(sock);
  EDPM_TRACE(0, trace << error);
  throw Vorn::ErrnoException(error, "");
}

void EthDevPamBundle::doSocketSetupFailedQuietly(int sock) {
  if (sock == sd_ || sock == sdTap_) {
    doSocketForget(sock);
  } else {
    Platform::calls().close(sock);
  }
}

void EthDevPamBundle::doSocketForget(int sock) {
  if (sock < 0 || (sock != sd_ && sock != sdTap_)) return;
  if (RxRing * ring = ringOf(sock)) doRxRingRelease(*ring);
  if (sock == sd_) {
    fdSm_ = nullptr;
    if (fileDesc_) fileDesc_->descriptorIs(-1);
    fileDescDel();
    sdIs(-1);
    sdRefIs(0);
  } else {
    fdSmTap_ = nullptr;
    if (fileDescTap_) fileDescTap_->descriptorIs(-1);
    fileDescTapDel();
    sdTapIs(-1);
    sdTapRefIs(0);
  }
  Platform::calls().close(sock);
}

void EthDevPamBundle::doSocketCreateProto(uint16_t ethProto, bool forSdTap) {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doSocketCreateProto( " << ethProto << ", " << forSdTap << " )");
  int const fd = Ovel::socketAt(AF_PACKET, SOCK_RAW, creationProtocol, netNs_.charPtr());
  if (fd < 0) {
    int const error = errno;
    EDPM_TRACE(0, "EthDevPamBundle::enabled failed to create socket, errno: " << error);
    throw Vorn::ErrnoException(error, "");
  }
  if (separateDot1QHdr_ && intOption(fd, SOL_PACKET, PACKET_AUXDATA, 1) < 0) {
    doSocketSetupFailed(fd, "EthDevPamBundle::enabled failed to set PACKET_AUXDATA, errno: ", errno);
  }
  if (sockPrio_ && intOption(fd, SOL_SOCKET, SO_PRIORITY, static_cast<int>(sockPrio_)) < 0) {
    doSocketSetupFailed(fd, "EthDevPamBundle::enabled failed to set PRIORITY, errno: ", errno);
  }
  if (rxRing_) doRxRingSetUp(fd, rings_[forSdTap ? 1 : 0]);

  // From here the socket is the bundle's; a failure puts the buffer sizes back as they were.
  uint32_t const rcvBufBefore = sockRcvBuf_, perIntfBefore = perIntfSockRcvBuf_, allocBefore = allocRcvBuf_;
  auto restore = [&] {
    sockRcvBufIs(rcvBufBefore);
    perIntfSockRcvBufIs(perIntfBefore);
    allocRcvBufIs(allocBefore);
  };
  if (forSdTap) {
    sdTapIs(fd);
  } else {
    sdIs(fd);
  }
  try {
    doSetRcvBuf(fd);
    if (!filterProgram().empty()) attachOrDetachFilter(fd, forSdTap, filterProgram().filter(), filterProgram().len());
  } catch (...) {
    doSocketForget(fd);  // still ours unless the step that failed closed it already
    restore();
    throw;
  }
  EDPM_TRACE(5, "EthDevPamBundle::ethProtocol is " << htons(ethProto));

  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ethProto);
  address.sll_ifindex = 0;  // every device of the namespace
  address.sll_hatype = ARPHRD_ETHER;
  address.sll_pkttype = 0;
  address.sll_halen = ETH_ALEN;
  static_assert(sizeof address == 20);
  if (Platform::calls().bind(fd, reinterpret_cast<sockaddr const *>(&address), sizeof address) < 0) {
    int const error = errno;
    restore();
    doSocketSetupFailed(fd, "EthDevPamBundle::doSocketCreateProto failed to bind, errno: ", error);
  }
  if (broadcast_ && intOption(fd, SOL_SOCKET, SO_BROADCAST, 1) < 0) {
    int const error = errno;
    restore();
    doSocketSetupFailed(fd, "EthDevPamBundle::doSocketCreateProto failed to set broadcast flag, errno: ", error);
  }

  Vorn::Ptr<Vorn::FileDescriptor> const watch = forSdTap ? fileDescTapNew("edpmTap") : fileDescNew("edpm");
  try {
    watch->nonBlockingIs(nonBlocking_);
    watch->descriptorIs(fd);
  } catch (Vorn::ErrnoException const & e) {
    restore();
    doSocketSetupFailed(fd, "EthDevPamBundle::doSocketCreateProto failed to watch the socket, errno: ",
                        e.errorNumber());
  }
  (forSdTap ? fdSmTap_ : fdSm_) = new EthDevPamBundleFdSm(watch, this);
}

void EthDevPamBundle::doSetRcvBuf(int sock) {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doSetRcvBuf( " << sock << " )");
  if (perIntfSocket_) return;
  int n;
  if (sock == sd_) {
    n = sdRef_;
  } else {
    VORN_ASSERT(sock == sdTap());
    n = sdTapRef_;
  }
  if (n == 0) n = 1;
  uint32_t const count = static_cast<uint32_t>(n);
  uint32_t per = perIntfSockRcvBuf_;
  bool limited = perIntfRlimit_;
  if (per == 0) per = sockRcvBuf_ ? sockRcvBuf_ / count : doFindRcvBuf(sock);

  if (!limited) {
    sockRcvBufIs(per);
    if (sockRcvBuf_ == 0) return;
    if (intOption(sock, SOL_SOCKET, SO_RCVBUFFORCE, static_cast<int>(sockRcvBuf_)) < 0) {
      doSocketSetupFailed(sock, "EthDevPamBundle::failed to set rcvbuf size, errno: ", errno);
    }
    return;
  }

  uint32_t total = count * per;
  if (total > sharedSockBufMax_) {
    total = sharedSockBufMax_;
    per = sharedSockBufMax_ / count;
  }
  if (total == sockRcvBuf_) {
    EDPM_TRACE(5, "Bundle: same totalSockBuf: " << total << " perIntf: " << per << " sockRcvBuf " << sockRcvBuf_);
    return;
  }
  if (intOption(sock, SOL_SOCKET, SO_RCVBUFFORCE, static_cast<int>(total)) < 0) {
    doSocketSetupFailed(sock, "EthDevPamBundle::failed to set rcvbuf size, errno: ", errno);
  }
  EDPM_TRACE(5, "doSetRcvBuf Setting sockRcvBuf" << total);
  sockRcvBufIs(total);
  configureRlimitIntfSize(sock, per);
  EDPM_TRACE(5, "doSetRcvBuf Setting perIntfSockRcvBuf" << per);
  perIntfSockRcvBufIs(per);
  EDPM_TRACE(5, "EthDevPamBundle::set RLIMIT_INTF_SIZE to :" << per << " numIntfs: " << n);
  doFindRcvBuf(sock);
}

void EthDevPamBundle::configureRlimitIntfSize(int sock, uint32_t perIntf) {
  Platform::Calls & os = Platform::calls();
  struct stat st;
  if (os.stat(rlimitStatsPath, &st) < 0) {
    int const error = errno;
    EDPM_TRACE(5, "configureRlimitIntfSize: did not find file " << rlimitStatsPath << ", errno: " << error);
    return;
  }
  EDPM_TRACE(5, "configureRlimitIntfSize: found file " << rlimitStatsPath);
  int option = defaultRlimitOpt;
  if (FILE * file = os.fopen(rlimitOptPath, "r")) {
    EDPM_TRACE(5, "configureRlimitIntfSize: found file " << rlimitOptPath);
    int value = 0;
    int const read = std::fscanf(file, "%d", &value);
    std::fclose(file);
    if (read != 1 || value < 1) {
      doSocketSetupFailedQuietly(sock);
      EDPM_TRACE(0, rlimitOptInvalid);
      throw Vorn::Exception(rlimitOptInvalid);
    }
    EDPM_TRACE(5, "configureRlimitIntfSize: using PACKET_RLIMIT_INTF_SIZE=" << value);
    option = value;
  } else {
    EDPM_TRACE(5, "configureRlimitIntfSize: could not open file " << rlimitOptPath
                                                                  << ", using PACKET_RLIMIT_INTF_SIZE=" << defaultRlimitOpt);
  }
  if (intOption(sock, SOL_PACKET, option, static_cast<int>(perIntf)) < 0) {
    int const error = errno;
    EDPM_TRACE(0, "configureRlimitIntfSize: failed to set RLIMIT_INTF_SIZE: " << perIntf << ", errno: " << error);
    doSocketSetupFailedQuietly(sock);
    throw Vorn::ErrnoException(error, "");
  }
}

uint32_t EthDevPamBundle::doFindRcvBuf(int sock) {
  int value = 0;
  socklen_t length = sizeof value;
  if (Platform::calls().getsockopt(sock, SOL_SOCKET, SO_RCVBUF, &value, &length) < 0) {
    int const error = errno;
    EDPM_TRACE(0, "EthDevPamBundle::failed to get rcvbuf size, errno: " << error);
    value = 0;
  }
  allocRcvBufIs(static_cast<uint32_t>(value));
  EDPM_TRACE(3, "Requested sockRcvBuf size:" << sockRcvBuf_ << " Recvbuf: " << allocRcvBuf_
                                             << " perIntfSockRcvBuf: " << perIntfSockRcvBuf_);
  return allocRcvBuf_;
}

void EthDevPamBundle::doSocketClose() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doSocketClose()");
  // The tap socket outlives the common one only when a failed step closed the common one (see
  // doSocketForget); it is closed here all the same.
  if (sd_ == -1 && sdTap_ == -1) return;
  Platform::Calls & os = Platform::calls();
  if (sd_ != -1) {
    EDPM_TRACE(1, "Closing filedesc " << sd_ << " for bundle-socket ");
    // Out of the loop's epoll set before the number can be reused.
    if (fileDesc_) fileDesc_->descriptorIs(-1);
    doRxRingRelease(rings_[0]);
    os.close(sd_);
    sdIs(-1);
    sdRefIs(0);
    fileDescDel();
    fdSm_ = nullptr;
  }
  if (sdTap_ != -1) {
    EDPM_TRACE(1, "Closing filedesc " << sdTap_ << " for bundle-socket ");
    if (fileDescTap_) fileDescTap_->descriptorIs(-1);
    doRxRingRelease(rings_[1]);
    os.close(sdTap_);
    sdTapIs(-1);
    sdTapRefIs(0);
    fileDescTapDel();
    fdSmTap_ = nullptr;
  }
  sockRcvBufIs(0);
  perIntfSockRcvBufIs(0);
}

void EthDevPamBundle::doSocketCloseQuietly() {
  fdSm_ = nullptr;
  fdSmTap_ = nullptr;
  if (fileDesc_) fileDesc_->descriptorIs(-1);
  if (fileDescTap_) fileDescTap_->descriptorIs(-1);
  for (RxRing & ring : rings_) doRxRingRelease(ring);
  if (sd_ >= 0) Platform::calls().close(sd_);
  if (sdTap_ >= 0) Platform::calls().close(sdTap_);
  sd_ = sdTap_ = -1;
}

EthDevPamBundle::RxRing * EthDevPamBundle::ringOf(int sock) {
  if (sock < 0) return nullptr;
  if (sock == sd_) return &rings_[0];
  if (sock == sdTap_) return &rings_[1];
  return nullptr;
}

bool EthDevPamBundle::rxRingMapped(int sock) const {
  RxRing const * ring = const_cast<EthDevPamBundle *>(this)->ringOf(sock);
  return ring && ring->base;
}

void EthDevPamBundle::doRxRingSetUp(int fd, RxRing & ring) {
  Platform::Calls & os = Platform::calls();
  tpacket_req request{};
  request.tp_block_size = rxRingBlockSize_;
  request.tp_block_nr = rxRingBlockCount_;
  request.tp_frame_size = rxRingFrameSize_ ? rxRingFrameSize_ : TPACKET_ALIGN(ringFrameAt + maxRxPktData());
  uint32_t const perBlock = request.tp_frame_size ? request.tp_block_size / request.tp_frame_size : 0;
  request.tp_frame_nr = perBlock * request.tp_block_nr;  // the kernel checks the geometry
  EDPM_TRACE(5, "EthDevPamBundle::rxRing blocks " << request.tp_block_nr << " x " << request.tp_block_size
                                                  << " frames " << request.tp_frame_nr << " x " << request.tp_frame_size);
  if (intOption(fd, SOL_PACKET, PACKET_VERSION, TPACKET_V2) < 0) {
    doSocketSetupFailed(fd, "EthDevPamBundle::enabled failed to set PACKET_VERSION, errno: ", errno);
  }
  if (os.setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &request, sizeof request) < 0) {
    doSocketSetupFailed(fd, "EthDevPamBundle::enabled failed to set PACKET_RX_RING, errno: ", errno);
  }
  size_t const bytes = size_t(request.tp_block_size) * request.tp_block_nr;
  void * base = os.mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) doSocketSetupFailed(fd, "EthDevPamBundle::enabled failed to map the ring, errno: ", errno);
  ring = RxRing{static_cast<unsigned char *>(base), bytes, request.tp_block_size, request.tp_block_nr,
                request.tp_frame_size, perBlock, 0, 0, 0};
}

void EthDevPamBundle::doRxRingRelease(RxRing & ring) {
  if (!ring.base) return;
  Platform::calls().munmap(ring.base, ring.bytes);
  ring = RxRing{};
}

namespace {

// The program that goes on `sock` for `filter`: the caller's as it is, or, with `guarded` and a
// non-empty filter, behind three instructions that drop frames of the fabric pseudo-protocol 0x002A
// (load the protocol, compare with 0x2A, return 0). An empty program detaches whatever is attached
// (ENOENT: nothing was, which is what was asked). 0 when the kernel took it, else its errno.
int filterSet(int sock, bool guarded, Ovel::SockFilter const * filter, int filterLen) {
  Platform::Calls & os = Platform::calls();
  if (filterLen == 0) {
    int unused = 0;
    if (os.setsockopt(sock, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused) == 0) return 0;
    return errno == ENOENT ? 0 : errno;
  }
  sock_fprog program{static_cast<unsigned short>(filterLen), const_cast<Ovel::SockFilter *>(filter)};
  std::unique_ptr<Ovel::SockFilter[]> built;
  if (guarded) {
    built.reset(new (std::nothrow) Ovel::SockFilter[static_cast<size_t>(filterLen) + 3]);
    if (!built) {
      EDPM_TRACE(0, "Failed to allocate filter Program");
      return ENOMEM;
    }
    built[0] = {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PROTOCOL)};
    built[1] = {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, EthDevPamBundle::ethPFabric};
    built[2] = {BPF_RET | BPF_K, 0, 0, 0};
    std::copy(filter, filter + filterLen, built.get() + 3);
    program = sock_fprog{static_cast<unsigned short>(filterLen + 3), built.get()};
  }
  return os.setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) < 0 ? errno : 0;
}

}  // namespace

void attachOrDetachFilter(int sock, bool needQuentaFilter, Ovel::SockFilter const * filter, int filterLen) {
  EDPM_TRACE(5, "attachOrDetachFilter: sock " << sock << " needQuentaFilter: " << needQuentaFilter
                                              << " filterLen: " << filterLen);
  if (int const error = filterSet(sock, needQuentaFilter, filter, filterLen)) {
    EDPM_TRACE(0, "Failed to " << (filterLen ? "attach" : "detach") << " filter, sd: " << sock << " errno: " << error);
    throw Vorn::ErrnoException(error, "");
  }
}

void EthDevPamBundle::filterProgramTry(Ovel::SockFilterProgram const & program) const {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::filterProgramTry( " << program << " ) const");
  if (program.empty()) return;  // detaching cannot be refused
  // Protocol 0 and no bind: the scratch socket is on no device's receive path.
  int const scratch = Ovel::socketAt(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0, netNs_.charPtr());
  if (scratch < 0) {
    int const error = errno;
    EDPM_TRACE(0, "EthDevPamBundle::filterProgramTry failed to create socket, errno: " << error);
    throw Vorn::ErrnoException(error, "");
  }
  auto const closeScratch = Cleanup([scratch] { Platform::calls().close(scratch); });
  for (bool guarded : {false, true}) {
    if (int const error = filterSet(scratch, guarded, program.filter(), program.len())) {
      EDPM_TRACE(0, "EthDevPamBundle::filterProgram refused by the kernel" << (guarded ? " (tap socket)" : "")
                                                                           << ", errno: " << error);
      throw Vorn::ErrnoException(error, "");
    }
  }
}

// ---- enabling --------------------------------------------------------------------------------------

void EthDevPamBundle::handleEnabled() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::handleEnabled()");
  EDPM_TRACE(5, "Bundle:Enabled became " << enabled_);
  route_ = Route{};  // actPamCollection changes
  if (!enabled_) {
    actPamCollection_ = nullptr;
    doSocketClose();
    return;
  }
  if (!perIntfSocket_ && (enableBulkPamRead_ || rxRing_)) {
    actPamCollection_ = ethDevPamCollectionFactory("actPamCollection");
  }
}

// ---- receive path ----------------------------------------------------------------------------------

void EthDevPamBundle::doGetRxPkt() {
  EDPM_TRACE(8, "virtual void Interface::EthDevPamBundle::doGetRxPkt()");
  if (!enabled_) return;
  Vorn::Ptr<EthDevPamBundle> keep(references() ? this : nullptr);  // a reader may drop the last reference
  if (rxRingMapped(currActiveSd_)) {
    EDPM_TRACE(9, "Ring get pkts on EdpBundle's FileDescriptor: " << currActiveSd_);
    doGetRxPktIntRing();
  } else if (enableBulkPamRead_) {
    EDPM_TRACE(9, "Bulk get pkts on EdpBundle's FileDescriptor: " << currActiveSd_);
    doGetRxPktIntBulk();
  } else {
    EDPM_TRACE(9, "Non-bulk get pkts on EdpBundle's FileDescriptor: " << currActiveSd_);
    // Frame by frame, each delivered as it is read, up to bulkReadQuota per readable event: a pass
    // of the loop per frame would cost more than the read itself. A reader may close the socket.
    int const sock = currActiveSd_;
    bool const shared = sock == sd_ || sock == sdTap_;
    uint32_t const quota = std::max<uint32_t>(bulkReadQuota_, 1);
    for (uint32_t n = 0; n < quota && doGetRxPktInt(); ++n) {
      if (!enabled_ || (shared && sock != sd_ && sock != sdTap_)) break;
    }
  }
}

bool EthDevPamBundle::doGetRxPktInt() {
  if (!enabled_) return false;
  int const sock = currActiveSd_;
  EDPM_TRACE(9, "Get the pkt on EdpBundle's FileDescriptor: " << sock);
  Vorn::Ptr<Ovel::Pkt> pkt;
  if (pktReuse_) {
    if (!savedPkt_) savedPktIs(Ovel::globalPktManager().newPkt());
    pkt = savedPkt_;
    if (!pkt) {
      EDPM_TRACE(0, "Invalid saved pkt ");
      return false;
    }
    rxPkt();  // the last frame, if nobody took it, goes now: its buffer is read into again
    pkt->sharedDataResetForReuse();  // a fresh buffer when a Pam still holds the last frame
  } else {
    pkt = Ovel::globalPktManager().newPkt();
    if (!pkt) {
      EDPM_TRACE(0, "Invalid pkt ");
      return false;
    }
  }
  uint32_t const maxData = pkt->maxData();
  VORN_ASSERT(maxData >= maxRxPktData());
  pkt->newSharedHeadData(maxRxPktData());

  sockaddr_ll from{};
  ControlArea control;
  iovec iov{pkt->data(), maxRxPktData()};
  msghdr header;
  rxMessageIs(header, &from, sizeof from, iov, control.bytes, sizeof control.bytes);
  ssize_t const length = Platform::calls().recvmsg(sock, &header, MSG_DONTWAIT);
  int const error = errno;
  uint32_t const ifIndex = static_cast<uint32_t>(from.sll_ifindex);
  EDPM_TRACE(9, "recvmsg: " << length << " pkt type: " << unsigned(from.sll_pkttype) << " ifindex: " << ifIndex);
  if (length < 0) {
    EDPM_TRACE(9, "recvmsg errno: " << error);
    if (error == EAGAIN) return false;
    EDPM_TRACE(0, "recvmsg failed for common sd " << sock << " with errno " << error << " (" << std::strerror(error)
                                                  << ")");
    rxErrorsInc(1);
    return false;
  }
  vlanTagFromAuxData(*pkt, header);
  if (from.sll_pkttype == PACKET_OUTGOING) {
    EDPM_TRACE(3, "Ignoring outgoing packet received on common sd" << sock);
    return true;
  }
  pkt->dataLenIs(static_cast<uint32_t>(length));
  pkt->ifIndexIs(ifIndex);
  pkt->pktTypeIs(from.sll_pkttype);
  rxPkt();  // the last frame, if nobody took it: the newest one replaces it uncounted
  rxPktIs(pkt);
  readableCountInc(1);
  EDPM_TRACE(9, "Received pkt from ifindex: " << ifIndex << " count: " << readableCount());
  if (readableCount() % queueProbeInterval == 0) {
    int queued = 0;
    if (Platform::calls().ioctl(sock, SIOCINQ, &queued) < 0) {
      int const probeError = errno;
      EDPM_TRACE(0, "ioctl SIOCINQ errno: " << probeError);
    }
    if (allocRcvBuf_ == 0) doFindRcvBuf(sock);
    EDPM_TRACE(5, "Recvbuf size: " << allocRcvBuf_ << " used:  " << queued);
  }
  return doDeliver(pkt, ifIndex, false) != Delivery::waiting;
}

bool EthDevPamBundle::doRoute(uint32_t ifIndex, bool bulk) {
  static Vorn::String const cpuIntfName("Cpu");
  Route & route = route_;
  route = Route{};
  Ovel::IntfId const * intfId = nullptr;
  Ovel::IntfId converted;
  if (auto const * entry = deviceIntfStatusDir_ ? deviceIntfStatusDir_->intfStatusByIfIndexIter().find(ifIndex)
                                                : nullptr) {
    EDPM_TRACE(9, "Found IntfStatusAndDeviceName " << *entry);
    if (entry->intfStatus) {
      intfId = &entry->intfStatus->intfId();
    } else {
      Vorn::String const & name = entry->deviceName == "cpu" ? cpuIntfName : entry->deviceName;
      if (auto id = Ovel::IntfId::fromName(name)) {
        converted = *id;
        intfId = &converted;
      } else {
        EDPM_TRACE(0, "Unable to convert device name " << name << " to intfId.");
      }
    }
  }
  if (!intfId) {
    noPamDropCountInc(1);
    EDPM_TRACE(6, "No intfstatus entry for ifindex: " << ifIndex);
    return false;
  }
  route.intfId = *intfId;
  auto const * found = pamCollection_ ? pamCollection_->intfPamIter().find(*intfId) : nullptr;
  Ovel::Pam * const pam = found ? found->ptr() : nullptr;
  route.pam = bulk ? dynamic_cast<Ovel::EthDevPamInBundle *>(pam) : dynamic_cast<Ovel::EthDevPam *>(pam);
  if (route.pam && !ethDevPamManagerTypesTrace.enabled(9)) {  // a hit would skip the traces above
    route.known = true;
    route.ifIndex = ifIndex;
    route.bulk = bulk;
    route.devices = deviceIntfStatusDir_ ? deviceIntfStatusDir_->intfStatusByIfIndexIter().version() : 0;
    route.pams = pamCollection_->intfPamIter().version();
  }
  return true;
}

EthDevPamBundle::Delivery EthDevPamBundle::doDeliver(Vorn::Ptr<Ovel::Pkt> const & frame, uint32_t ifIndex, bool bulk) {
  Route & route = route_;
  // The last frame's way is this one's while neither directory changed since (most frames follow the
  // one before): no lookup, no cast.
  bool const known = route.known && route.ifIndex == ifIndex && route.bulk == bulk &&
                     route.pams == pamCollection_->intfPamIter().version() &&
                     route.devices == (deviceIntfStatusDir_ ? deviceIntfStatusDir_->intfStatusByIfIndexIter().version() : 0);
  if (!known && !doRoute(ifIndex, bulk)) return Delivery::noIntf;
  Ovel::EthDevPam * const edp = route.pam;
  if (!edp || !edp->usable()) {
    pamNotReadyDropCountInc(1);
    EDPM_TRACE(6, "Pam not ready for intfId: " << route.intfId);
    return Delivery::notReady;
  }
  EDPM_TRACE(9, "Pam found for ifindex: " << ifIndex);
  if (!edp->enabled()) {
    pamNotReadyDropCountInc(1);
    return Delivery::notReady;
  }
  if (!bulk) {
    Vorn::Ptr<Ovel::Pam> const keep(edp);  // its reader may withdraw it
    if (edp->rxPktIs(frame)) edp->readableCountInc(1);  // its reader runs now, unless it is deferred
    return edp->rxPkts() == 0 ? Delivery::delivered : Delivery::waiting;
  }
  EDPM_TRACE(9, "Storing packet to EthDevPamInBundle");
  Vorn::Ptr<Ovel::Pam> const keep(edp);  // a handler of the queue's counters may withdraw the Pam
  static_cast<Ovel::EthDevPamInBundle *>(edp)->writeNewRxPkt(frame);
  if (!actPamCollection_) {
    actPamCollection_ = ethDevPamCollectionFactory("actPamCollection");
    route.inAct = false;
  }
  // Once per Pam and read: the collection's version tells whether it is still there since the last frame.
  if (!route.inAct || route.actVersion != actPamCollection_->intfPamIter().version()) {
    Ovel::IntfId const intf = route.intfId;  // a handler may change the route
    actPamCollection_->intfPamIs(intf, keep);
    route.inAct = true;
    route.actVersion = actPamCollection_->intfPamIter().version();
  }
  return Delivery::delivered;
}

void EthDevPamBundle::doBulkSlotsPrepare(bool headers) {
  uint32_t const quota = bulkReadQuota_;
  uint32_t const size = maxRxPktData();
  if (!mmsgInitialized_) {
    for (uint32_t i = 0; i < quota; ++i) {
      savedBulkPktIs(static_cast<uint16_t>(i), Ovel::globalPktManager().newPkt());
      VORN_ASSERT(savedBulkPkt( i ));
    }
    mmsgInitializedIs(true);
  }
  bool const all = bulkPreparedQuota_ != quota || bulkPreparedSize_ != size;
  uint32_t const packets = all ? quota : bulkSlotsDirty_;
  // The headers point into the packets: all of them again when another bundle or a ring read moved them.
  uint32_t const count = headers && (all || bulkHeaders.preparedBy != this) ? quota : packets;
  for (uint32_t i = 0; i < count; ++i) {
    uint16_t const slot = static_cast<uint16_t>(i);
    if (i < packets) {
      if (!bulkPkt_[i]) {  // a quota raised after the first read, or a slot deleted from outside
        savedBulkPktIs(slot, Ovel::globalPktManager().newPkt());
        VORN_ASSERT(savedBulkPkt( i ));
      }
      Ovel::Pkt & pkt = *bulkPkt_[i];
      pkt.sharedDataResetForReuse();  // a fresh buffer when a Pam still holds the frame read into it
      uint32_t const maxData = pkt.maxData();
      VORN_ASSERT(maxData >= maxRxPktData());
      if (!pkt.hasHeadData() || maxData < size) pkt.newSharedHeadData(size);  // else the reset left it ready
    }
    if (headers) {
      bulkHeaders.iov[i] = iovec{bulkPkt_[i]->data(), size};
      rxMessageIs(bulkHeaders.headers[i].msg_hdr, &bulkHeaders.from[i], sizeof(sockaddr_ll), bulkHeaders.iov[i],
                  bulkHeaders.control[i].bytes, controlBytes);
      bulkHeaders.headers[i].msg_len = 0;
    }
    if (i < packets) savedPacketRxIs(slot, false);
  }
  if (headers) {
    bulkHeaders.preparedBy = this;
  } else if (packets && bulkHeaders.preparedBy == this) {
    bulkHeaders.preparedBy = nullptr;
  }
  bulkPreparedQuota_ = quota;
  bulkPreparedSize_ = size;
  bulkSlotsDirty_ = 0;
}

void EthDevPamBundle::doGetRxPktIntBulk() {
  VORN_ASSERT(bulkReadQuota() <= 128);
  VORN_ASSERT(pktReuse());
  int const sock = currActiveSd_;
  EDPM_TRACE(9, "Bulk get pkts on EdpBundle's FileDescriptor: " << sock);
  doBulkSlotsPrepare(true);
  int const received = Platform::calls().recvmmsg(sock, bulkHeaders.headers, bulkReadQuota_, MSG_DONTWAIT, nullptr);
  int const error = errno;
  EDPM_TRACE(9, "recvmmsg:  " << received << " pkts received ");
  if (received < 0) {
    EDPM_TRACE(9, "recvmmsg errno: " << error);
    if (error == EAGAIN) return;
    EDPM_TRACE(0, "recvmmsg failed for common sd " << sock << " with errno " << error << " (" << std::strerror(error)
                                                   << ")");
    rxErrorsInc(1);
    return;
  }
  uint32_t const count = static_cast<uint32_t>(received);
  bulkSlotsDirty_ = count;
  for (uint32_t i = 0; i < count; ++i) {
    sockaddr_ll const & from = bulkHeaders.from[i];
    Ovel::Pkt & pkt = *bulkPkt_[i];
    pkt.ifIndexIs(static_cast<uint32_t>(from.sll_ifindex));
    pkt.pktTypeIs(from.sll_pkttype);
    if (from.sll_pkttype == PACKET_OUTGOING) continue;
    vlanTagFromAuxData(pkt, bulkHeaders.headers[i].msg_hdr);
    pkt.dataLenIs(bulkHeaders.headers[i].msg_len);
  }
  doBulkSlotsDeliver(sock, count);
}

uint32_t EthDevPamBundle::doRxRingTake(RxRing & ring) {
  uint32_t const quota = bulkReadQuota_;
  uint32_t const size = maxRxPktData();
  uint32_t taken = 0;
  while (taken < quota) {
    auto * slot = reinterpret_cast<tpacket2_hdr *>(ring.base + ring.offset);
    uint32_t const status = __atomic_load_n(&slot->tp_status, __ATOMIC_ACQUIRE);
    if (!(status & TP_STATUS_USER)) break;
    auto const & from = *reinterpret_cast<sockaddr_ll const *>(reinterpret_cast<unsigned char *>(slot) + ringAddressAt);
    Ovel::Pkt & pkt = *bulkPkt_[taken];
    pkt.ifIndexIs(static_cast<uint32_t>(from.sll_ifindex));
    pkt.pktTypeIs(from.sll_pkttype);
    if (from.sll_pkttype != PACKET_OUTGOING) {
      uint32_t const length = std::min(slot->tp_snaplen, size);
      std::memcpy(pkt.data(), reinterpret_cast<unsigned char *>(slot) + slot->tp_mac, length);
      pkt.dataLenIs(length);
      if (separateDot1QHdr_ && (status & TP_STATUS_VLAN_VALID)) {
        pkt.newSeparateVlanTag(slot->tp_vlan_tci,
                               (status & TP_STATUS_VLAN_TPID_VALID) ? slot->tp_vlan_tpid : Ovel::Pkt::defaultVlanTpid);
      }
    }
    __atomic_store_n(&slot->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);  // the kernel may refill it now
    ++taken;
    ring.offset += ring.frameSize;
    if (++ring.inBlock == ring.perBlock) {
      ring.inBlock = 0;
      if (++ring.block == ring.blocks) ring.block = 0;
      ring.offset = size_t(ring.block) * ring.blockSize;
    }
  }
  return taken;
}

void EthDevPamBundle::doGetRxPktIntRing() {
  VORN_ASSERT(bulkReadQuota() <= 128);
  int const sock = currActiveSd_;
  RxRing * ring = ringOf(sock);
  doBulkSlotsPrepare(false);
  // Every frame is out of the ring before anything is delivered: a reader may close the socket.
  uint32_t const count = doRxRingTake(*ring);
  EDPM_TRACE(9, "ring:  " << count << " pkts received ");
  bulkSlotsDirty_ = count;
  doBulkSlotsDeliver(sock, count);
}

void EthDevPamBundle::doBulkSlotsDeliver(int sock, uint32_t count) {
  uint64_t processed = 0;
  for (uint32_t i = 0; i < count; ++i) {
    uint16_t const slot = static_cast<uint16_t>(i);
    Vorn::Ptr<Ovel::Pkt> const & pkt = bulkPkt_[i];
    if (pkt->pktType() == PACKET_OUTGOING) {
      EDPM_TRACE(3, "Ignoring outgoing packet received on single socket " << pkt->ifIndex());
      continue;
    }
    savedPacketRxIs(slot, true);
    if (doDeliver(pkt, pkt->ifIndex(), true) == Delivery::delivered) {
      ++processed;
    } else {
      savedPacketRxIs(slot, false);  // its buffer is free for the next read
    }
  }
  if (processed > maxProcessedPkts_) maxProcessedPktsIs(processed);
  EDPM_TRACE(9, "Processed " << processed << " packets from commmon socket " << sock);
  if (actPamCollection_ && !actPamCollection_->empty()) doPamNotifications();
}

void EthDevPamBundle::doPamNotifications() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doPamNotifications()");
  Vorn::Ptr<EthDevPamCollection> const active = actPamCollection_;  // a reader may disable the bundle
  if (!active) return;
  Vorn::Ptr<EthDevPamBundle> keep(references() ? this : nullptr);
  // Readers that took nothing; the vector's room is kept between calls (a reader calling back in
  // starts with an empty one).
  std::vector<std::pair<Ovel::IntfId, Vorn::Ptr<Ovel::EthDevPamInBundle>>> saved = std::move(savedPams_);
  while (!active->empty()) {
    for (auto const & entry : active->intfPamIter()) {
      Ovel::IntfId const intf = entry.key;  // the entry goes away below
      Vorn::Ptr<Ovel::EthDevPamInBundle> const pam = Vorn::ptr_cast<Ovel::EthDevPamInBundle>(entry.value);
      VORN_ASSERT(pam);
      EDPM_TRACE(9, "invoking reader on pam " << pam->name() << " interface " << intf << "Pam :" << pam->name()
                                              << " Pkt Count: " << pam->curRxPkts());
      uint8_t const before = pam->curRxPkts();
      pam->readableCountInc(1);
      uint8_t const after = pam->curRxPkts();
      bool const noProgress = before != 0 && after == before;
      if (after != 0 && !noProgress) continue;  // it took some: call it again in the next pass
      active->intfPamDel(intf);
      if (noProgress) {
        EDPM_TRACE(1, "Intf " << intf << "/Pam " << pam->name() << " is not consuming packet" << " Pkt count: "
                              << before);
        saved.emplace_back(intf, pam);
      }
    }
  }
  if (saved.empty()) {
    savedPams_ = std::move(saved);
    return;
  }
  EDPM_TRACE(5, "Saving " << saved.size() << "  pams for delayed processing.");
  for (auto const & [intf, pam] : saved) active->intfPamIs(intf, pam);
  EDPM_TRACE(5, "Saved " << saved.size() << "  pams for delayed  processing.");
  for (auto const & [intf, pam] : saved) {
    EDPM_TRACE(5, "Saved Intf/Pams for notification in next iteration" << " Intf: " << intf << " Pam: " << pam->name()
                                                                       << " packet count " << pam->curRxPkts());
  }
  saved.clear();
  savedPams_ = std::move(saved);
  EDPM_TRACE(5, "Rescheduling activity for delayed processing");
  schedPktDeliveryInc(1);
}

void EthDevPamBundle::handleScheduledPktDelivery() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::handleScheduledPktDelivery()");
  doPamNotifications();
}

}  // namespace Interface
