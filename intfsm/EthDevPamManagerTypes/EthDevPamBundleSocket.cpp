// The bundle's sockets: opening, options, receive-buffer sizing, filters and the one close path.
#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "intfsm/EthDevPamManagerTypes/internal/BundleDetail.h"
#include "intfsm/EthDevPamManagerTypes/internal/Cleanup.h"
#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {

constexpr char rlimitStatsPath[] = "/proc/net/packet_rlimit_stats";
constexpr char rlimitOptPath[] = "/proc/sys/net/core/packet_rlimit_opt";
constexpr int defaultRlimitOpt = 19;
constexpr char rlimitOptInvalid[] = "/proc/sys/net/core/packet_rlimit_opt has invalid content";

// The socket is created for protocol 0x0029 (in network order): nothing is queued on it before the
// bind names the protocol that is wanted.
constexpr int creationProtocol = 0x2900;

[[noreturn]] void stepFailed(char const * trace, int error) {
  EDPM_TRACE(0, trace << error);
  throw Vorn::ErrnoException(error, "");
}

}  // namespace

// ---- the two socket slots ----------------------------------------------------------------------------

// What each slot notifies, and the name of its watch.
struct EthDevPamBundle::SlotNames {
  void (NotifieeConst::*sd)();
  void (NotifieeConst::*ref)();
  void (NotifieeConst::*watch)();
  char const * watchName;
};

EthDevPamBundle::SlotNames const EthDevPamBundle::slotNames[2] = {
    {&NotifieeConst::onSd, &NotifieeConst::onSdRef, &NotifieeConst::onFileDesc, "edpm"},
    {&NotifieeConst::onSdTap, &NotifieeConst::onSdTapRef, &NotifieeConst::onFileDescTap, "edpmTap"},
};

void EthDevPamBundle::slotSdIs(Slot slot, int v) { set(sockets_[slot].sd, v, slotNames[slot].sd); }

void EthDevPamBundle::slotRefIs(Slot slot, int v) { set(sockets_[slot].ref, v, slotNames[slot].ref); }

Vorn::Ptr<Vorn::FileDescriptor> EthDevPamBundle::slotWatchNew(Slot slot, Vorn::Name const & name) {
  sockets_[slot].watch = Vorn::fileDescriptorFactory(name);
  notify(slotNames[slot].watch);
  return sockets_[slot].watch;
}

void EthDevPamBundle::slotWatchDel(Slot slot) {
  if (!sockets_[slot].watch) return;
  sockets_[slot].watch = nullptr;
  notify(slotNames[slot].watch);
}

EthDevPamBundle::Socket * EthDevPamBundle::socketOf(int sock) {
  if (sock < 0) return nullptr;
  for (Socket & s : sockets_) {
    if (s.sd == sock) return &s;
  }
  return nullptr;
}

EthDevPamBundle::Slot EthDevPamBundle::slotOf(Socket const & s) const { return &s == &sockets_[common] ? common : tap; }

void EthDevPamBundle::doSocketDrop(Slot slot, bool notifying) {
  Socket & s = sockets_[slot];
  if (s.sd < 0) return;
  int const fd = s.sd;
  s.fdSm = nullptr;
  s.moderated = false;  // the timer finds nothing of it to read; it stops when no socket is left on it
  if (s.watch) s.watch->descriptorIs(-1);  // out of the loop's epoll set before the number can be reused
  kernelStatisticsRead(fd);               // the socket's counters go with it otherwise
  doRxRingRelease(s.ring);
  Vorn::descriptorClosed(fd);
  Platform::calls().close(fd);
  if (notifying) {
    slotSdIs(slot, -1);
    slotRefIs(slot, 0);
    slotWatchDel(slot);
  } else {
    s.sd = -1;
    s.ref = 0;
    s.watch = nullptr;
  }
}

void EthDevPamBundle::doSocketForget(int sock) {
  if (Socket * s = socketOf(sock)) doSocketDrop(slotOf(*s), true);
}

void EthDevPamBundle::doSocketDropOrClose(int sock) {
  if (Socket * s = socketOf(sock)) {
    doSocketDrop(slotOf(*s), true);
  } else {
    Vorn::descriptorClosed(sock);
    Platform::calls().close(sock);
  }
}

void EthDevPamBundle::doSocketSetupFailed(int sock, char const * trace, int error) {
  doSocketDropOrClose(sock);
  stepFailed(trace, error);
}

std::string EthDevPamBundle::descriptorScope() const {
  // Appended piece by piece: GCC 12 at -O3 reads `" " + string` as an overlapping copy (-Wrestrict).
  std::string scope = "bundle";
  if (!name().empty()) {
    scope += ' ';
    scope += name().stdString();
  }
  scope += " in namespace ";
  scope += netNs_.empty() ? Ovel::DEFAULT_NS : netNs_.charPtr();
  return scope;
}

void EthDevPamBundle::doSocketClose() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doSocketClose()");
  if (sockets_[common].sd == -1 && sockets_[tap].sd == -1) return;
  doSocketsClose();
  sockRcvBufIs(0);
  perIntfSockRcvBufIs(0);
}

void EthDevPamBundle::doSocketsClose() {
  // The tap socket outlives the common one only when a failed step closed the common one; it is closed
  // here all the same.
  for (Slot slot : {common, tap}) {
    if (sockets_[slot].sd == -1) continue;
    EDPM_TRACE(1, "Closing filedesc " << sockets_[slot].sd << " for bundle-socket ");
    doSocketDrop(slot, true);
  }
}

void EthDevPamBundle::kernelStatisticsRead(int sock) {
  tpacket_stats stats{};
  socklen_t length = sizeof stats;
  if (Platform::calls().getsockopt(sock, SOL_PACKET, PACKET_STATISTICS, &stats, &length) == 0) {
    // The kernel starts again from 0 after each read.
    kernelPackets_ += stats.tp_packets;
    kernelDrops_ += stats.tp_drops;
  }
}

uint64_t EthDevPamBundle::kernelDrops() {
  for (Socket const & s : sockets_) {
    if (s.sd >= 0) kernelStatisticsRead(s.sd);
  }
  return kernelDrops_;
}

uint64_t EthDevPamBundle::kernelPackets() {
  kernelDrops();
  return kernelPackets_;
}

// ---- opening -----------------------------------------------------------------------------------------

void EthDevPamBundle::doSocketOptionsSet(int fd, OptionStep step) const {
  struct Row {
    OptionStep when;
    int level, option;
    std::optional<int> value;  // none: the setting asks for nothing
    char const * failure;
  };
  Row const rows[] = {
      {OptionStep::first, SOL_PACKET, PACKET_AUXDATA, separateDot1QHdr_ ? std::optional<int>(1) : std::nullopt,
       "EthDevPamBundle::enabled failed to set PACKET_AUXDATA, errno: "},
      {OptionStep::first, SOL_SOCKET, SO_TIMESTAMPNS, 1, "EthDevPamBundle::enabled failed to set TIMESTAMPNS, errno: "},
      {OptionStep::first, SOL_SOCKET, SO_PRIORITY, sockPrio_ ? std::optional<int>(int(sockPrio_)) : std::nullopt,
       "EthDevPamBundle::enabled failed to set PRIORITY, errno: "},
      {OptionStep::first, SOL_PACKET, PACKET_VERSION, rxRing_ ? std::optional<int>(TPACKET_V2) : std::nullopt,
       "EthDevPamBundle::enabled failed to set PACKET_VERSION, errno: "},
      {OptionStep::afterBind, SOL_SOCKET, SO_BROADCAST, broadcast_ ? std::optional<int>(1) : std::nullopt,
       "EthDevPamBundle::doSocketCreateProto failed to set broadcast flag, errno: "},
  };
  for (Row const & row : rows) {
    if (row.when == step && row.value && bundleIntOption(fd, row.level, row.option, *row.value) < 0) {
      stepFailed(row.failure, errno);
    }
  }
}

void EthDevPamBundle::doSocketCreateProto(uint16_t ethProto, bool forSdTap) {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doSocketCreateProto( " << ethProto << ", " << forSdTap << " )");
  Slot const slot = forSdTap ? tap : common;
  int const fd = Ovel::socketAt(AF_PACKET, SOCK_RAW, creationProtocol, netNs_.charPtr());
  char const * const purpose = forSdTap ? tapSocketPurpose : socketPurpose;
  std::string const scope = descriptorScope();
  if (fd < 0 && Vorn::isDescriptorShortage(errno)) {
    int const error = errno;
    std::string const text = Vorn::descriptorShortageIs(purpose, scope, error);
    if (!text.empty()) EDPM_TRACE(0, text);
    throw Vorn::ErrnoException(error, Vorn::descriptorShortageText(purpose, scope, error));
  }
  if (fd < 0) stepFailed("EthDevPamBundle::enabled failed to create socket, errno: ", errno);
  Vorn::descriptorOpened(fd, purpose, scope);

  // Every early exit closes the new socket (a step that failed may have closed it already) and puts
  // the buffer sizes back as they were.
  bool stored = false;
  uint32_t const rcvBufBefore = sockRcvBuf_, perIntfBefore = perIntfSockRcvBuf_, allocBefore = allocRcvBuf_;
  Cleanup undo([&] {
    if (sockets_[slot].sd == fd) {
      doSocketDrop(slot, true);
    } else if (!stored) {
      doRxRingRelease(sockets_[slot].ring);
      Vorn::descriptorClosed(fd);
      Platform::calls().close(fd);
    }
    if (stored) {
      sockRcvBufIs(rcvBufBefore);
      perIntfSockRcvBufIs(perIntfBefore);
      allocRcvBufIs(allocBefore);
    }
  });

  doSocketOptionsSet(fd, OptionStep::first);
  if (rxRing_) doRxRingSetUp(fd, sockets_[slot].ring);
  slotSdIs(slot, fd);
  stored = true;
  doSetRcvBuf(fd);
  if (!filterProgram().empty()) attachOrDetachFilter(fd, forSdTap, filterProgram().filter(), filterProgram().len());
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
    stepFailed("EthDevPamBundle::doSocketCreateProto failed to bind, errno: ", errno);
  }
  doSocketOptionsSet(fd, OptionStep::afterBind);

  Vorn::Ptr<Vorn::FileDescriptor> const watch = slotWatchNew(slot, slotNames[slot].watchName);
  try {
    watch->nonBlockingIs(nonBlocking_);
    watch->descriptorIs(fd);
  } catch (Vorn::ErrnoException const & e) {
    stepFailed("EthDevPamBundle::doSocketCreateProto failed to watch the socket, errno: ", e.errorNumber());
  }
  sockets_[slot].fdSm = new EthDevPamBundleFdSm(watch, this);
  undo.release();
}

// ---- receive-buffer sizing ---------------------------------------------------------------------------

void EthDevPamBundle::doSetRcvBuf(int sock) {
  EDPM_TRACE(8, "void Interface::EthDevPamBundle::doSetRcvBuf( " << sock << " )");
  if (perIntfSocket_) return;
  int n;
  if (sock == sd()) {
    n = sdRef();
  } else {
    VORN_ASSERT(sock == sdTap());
    n = sdTapRef();
  }
  if (n == 0) n = 1;
  uint32_t const count = static_cast<uint32_t>(n);
  uint32_t per = perIntfSockRcvBuf_;
  bool limited = perIntfRlimit_;
  if (per == 0) per = sockRcvBuf_ ? sockRcvBuf_ / count : doFindRcvBuf(sock);

  if (!limited) {
    sockRcvBufIs(per);
    if (sockRcvBuf_ == 0) return;
    if (bundleIntOption(sock, SOL_SOCKET, SO_RCVBUFFORCE, static_cast<int>(sockRcvBuf_)) < 0) {
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
  if (bundleIntOption(sock, SOL_SOCKET, SO_RCVBUFFORCE, static_cast<int>(total)) < 0) {
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
      doSocketDropOrClose(sock);
      EDPM_TRACE(0, rlimitOptInvalid);
      throw Vorn::Exception(rlimitOptInvalid);
    }
    EDPM_TRACE(5, "configureRlimitIntfSize: using PACKET_RLIMIT_INTF_SIZE=" << value);
    option = value;
  } else {
    EDPM_TRACE(5, "configureRlimitIntfSize: could not open file " << rlimitOptPath
                                                                  << ", using PACKET_RLIMIT_INTF_SIZE=" << defaultRlimitOpt);
  }
  if (bundleIntOption(sock, SOL_PACKET, option, static_cast<int>(perIntf)) < 0) {
    int const error = errno;
    EDPM_TRACE(0, "configureRlimitIntfSize: failed to set RLIMIT_INTF_SIZE: " << perIntf << ", errno: " << error);
    doSocketDropOrClose(sock);
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

// ---- filters ----------------------------------------------------------------------------------------

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
    if (Vorn::isDescriptorShortage(error)) {
      // Raised to whoever set the filter, who sees it at once: traced every time.
      std::string const text = Vorn::descriptorShortageText(scratchSocketPurpose, descriptorScope(), error);
      EDPM_TRACE(0, text);
      throw Vorn::ErrnoException(error, text);
    }
    EDPM_TRACE(0, "EthDevPamBundle::filterProgramTry failed to create socket, errno: " << error);
    throw Vorn::ErrnoException(error, "");
  }
  Vorn::descriptorOpened(scratch, scratchSocketPurpose, descriptorScope());
  auto const closeScratch = Cleanup([scratch] {
    Vorn::descriptorClosed(scratch);
    Platform::calls().close(scratch);
  });
  for (bool guarded : {false, true}) {
    if (int const error = filterSet(scratch, guarded, program.filter(), program.len())) {
      EDPM_TRACE(0, "EthDevPamBundle::filterProgram refused by the kernel" << (guarded ? " (tap socket)" : "")
                                                                           << ", errno: " << error);
      throw Vorn::ErrnoException(error, "");
    }
  }
}

}  // namespace Interface
