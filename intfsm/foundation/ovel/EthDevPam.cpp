#include "intfsm/foundation/ovel/EthDevPam.h"

#include "intfsm/foundation/ovel/RxBatch.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/ovel/internal/Trace.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Ovel {

namespace {

constexpr uint32_t vlanTagBytes = 4;
constexpr uint32_t macAddrBytes = 12;  // destination and source


bool quietReadError(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

// Turns readiness of the own socket into reads and writability into writableCount. The reader may
// disable the Pam, which retires this reactor: forward() keeps it alive until the reader returns.
class EthDevPam::VornFileDesc : public Vorn::Reactor<EthDevPam, Vorn::FileDescriptor> {
 public:
  using Reactor::Reactor;
  void onReadableCount() override { forward(&EthDevPam::doGetRxPkt); }
  void onWritableCount() override { forward(&EthDevPam::handleWritable); }
};

// The message headers of one bulk read, made once and kept while the read limit stays the same (also
// across a close, so that a reader closing the socket in the middle of a batch leaves them in place).
struct EthDevPam::BulkSlots {
  explicit BulkSlots(size_t n) : batch(n), pkts(n) {}
  RxBatch batch;
  std::vector<Vorn::Ptr<Pkt>> pkts;
};

EthDevPam::EthDevPam(Vorn::Name const & deviceName) : EthDevPamBase(deviceName) {}

EthDevPam::~EthDevPam() {
  if (ownSocket_) doCloseSocket(false);
}

void EthDevPam::sockPrioIs(uint32_t prio) {
  if (prio > maxSockPrio) throw Vorn::RangeException("EthDevPam::sockPrio < 0 or > 15 not allowed");
  set(sockPrio_, prio, &NotifieeConst::onSockPrio);
}

void EthDevPam::perIntfSocketIs(bool on) {
  if (on == perIntfSocket_) return;
  if (enabled_) throw Vorn::RangeException("EthDevPam::perIntfSocket cannot change while enabled");
  set(perIntfSocket_, on, &NotifieeConst::onPerIntfSocket);
}

void EthDevPam::socketReadLimitIs(int32_t limit) {
  if (limit < 1 || limit > maxSocketReadLimit) {
    throw Vorn::RangeException("EthDevPam::socketReadLimit < 1 or > 1024 not allowed");
  }
  set(socketReadLimit_, limit, &NotifieeConst::onSocketReadLimit);
}

void EthDevPam::sdIs(int sd) {
  if (sd < -1) throw Vorn::RangeException("EthDevPam::sd < -1 not allowed");
  if (ownSocket_ && sd != sd_) {
    throw Vorn::RangeException("EthDevPam::sd cannot change while the Pam's own socket is open");
  }
  set(sd_, sd, &NotifieeConst::onSd);
}

void EthDevPam::enabledIs(bool on) {
  if (on == enabled_) return;
  if (on) {
    if (perIntfSocket_) doOpenSocket();
    set(enabled_, true, &NotifieeConst::onEnabled);
    return;
  }
  if (uint32_t const dropped = rxPktsDelAll()) queueDropCountInc(dropped);
  if (ownSocket_) doCloseSocket(true);
  set(enabled_, false, &NotifieeConst::onEnabled);
}

namespace {

// Attaches `program` to `sd`, or detaches the current one when `program` is empty; errno on failure.
int filterAttach(int sd, SockFilterProgram const & program) {
  int result;
  if (program.empty()) {
    int unused = 0;
    result = Platform::calls().setsockopt(sd, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused);
  } else {
    sock_fprog const fprog = program.fprog();
    result = Platform::calls().setsockopt(sd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog);
  }
  return result < 0 ? errno : 0;
}

int intOption(int sd, int level, int option, int value) {
  return Platform::calls().setsockopt(sd, level, option, &value, sizeof value) < 0 ? errno : 0;
}

}  // namespace

void EthDevPam::doOpenSocket() {
  Platform::Calls & os = Platform::calls();
  uint32_t const ifIndexBefore = ifIndex_;
  int fd = -1;
  // Closes what was opened, puts ifIndex back and raises; `error` is taken before anything runs.
  auto fail = [&](char const * step, int error) {
    std::string const text = std::string("EthDevPam::enabled failed to ") + step + " on " + name().stdString() +
                             ", errno: " + std::to_string(error);
    OVEL_TRACE(0, text);
    if (fd >= 0) os.close(fd);
    if (ifIndex_ != ifIndexBefore) ifIndexIs(ifIndexBefore);
    throw Vorn::ErrnoException(error, text);
  };

  // Protocol 0: nothing is queued on the socket before the bind below names the protocol.
  fd = socketAt(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, 0, netNs_.charPtr());
  std::string const scope =
      "Pam " + name().stdString() + " in namespace " + (netNs_.empty() ? DEFAULT_NS : netNs_.charPtr());
  if (fd < 0 && Vorn::isDescriptorShortage(errno)) {
    int const error = errno;
    std::string const text = Vorn::descriptorShortageText(socketPurpose, scope, error);
    if (!Vorn::descriptorShortageIs(socketPurpose, scope, error).empty()) OVEL_TRACE(0, text);
    if (ifIndex_ != ifIndexBefore) ifIndexIs(ifIndexBefore);
    throw Vorn::ErrnoException(error, text);
  }
  if (fd < 0) fail("create socket", errno);

  if (ifIndex_ == 0) {
    ifreq request{};
    if (name().size() >= sizeof request.ifr_name) fail("find ifindex", ENODEV);
    std::memcpy(request.ifr_name, name().charPtr(), name().size());
    if (os.ioctl(fd, SIOCGIFINDEX, &request) < 0) fail("find ifindex", errno);
    ifIndexIs(static_cast<uint32_t>(request.ifr_ifindex));
  }
  int error;
  if (separateDot1QHdr_ && (error = intOption(fd, SOL_PACKET, PACKET_AUXDATA, 1))) fail("set PACKET_AUXDATA", error);
  if ((error = intOption(fd, SOL_SOCKET, SO_TIMESTAMPNS, 1))) fail("set TIMESTAMPNS", error);
  if (sockPrio_ && (error = intOption(fd, SOL_SOCKET, SO_PRIORITY, static_cast<int>(sockPrio_)))) {
    fail("set PRIORITY", error);
  }
  if (sockRcvBuf_ && (error = intOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, static_cast<int>(sockRcvBuf_)))) {
    fail("set rcvbuf size", error);
  }
  if (!filterProgram().empty() && (error = filterAttach(fd, filterProgram()))) fail("attach filter", error);

  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ethProtocol() ? ethProtocol() : ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(ifIndex_);
  if (os.bind(fd, reinterpret_cast<sockaddr const *>(&address), sizeof address) < 0) fail("bind", errno);

  if (broadcast_ && (error = intOption(fd, SOL_SOCKET, SO_BROADCAST, 1))) fail("set broadcast flag", error);
  if (allMulticast_) {
    packet_mreq membership{};
    membership.mr_ifindex = static_cast<int>(ifIndex_);
    membership.mr_type = PACKET_MR_ALLMULTI;
    if (os.setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &membership, sizeof membership) < 0) {
      fail("set allMulticast", errno);
    }
  }

  Vorn::Ptr<Vorn::FileDescriptor> watch;
  if (createVornFileDescOnEnabled_) {
    watch = Vorn::fileDescriptorFactory(name());
    try {
      watch->descriptorIs(fd);
    } catch (Vorn::ErrnoException const & e) {
      fail("watch the socket", e.errorNumber());
    }
  }

  OVEL_TRACE(5, "EthDevPam " << name() << ": own socket " << fd << " on ifindex " << ifIndex_ << " protocol 0x"
                             << std::hex << ethProtocol());
  ownSocket_ = true;
  Vorn::descriptorOpened(fd, socketPurpose, scope);
  set(sd_, fd, &NotifieeConst::onSd);
  if (watch) {
    fileDesc_ = watch;
    fileDescReactor_ = Vorn::reactorNew<VornFileDesc>(this, watch);
    notify(&NotifieeConst::onFileDesc);
  }
}

void EthDevPam::doCloseSocket(bool notifying) {
  if (fileDescReactor_) {
    Vorn::reactorRetire(*fileDescReactor_);
    fileDescReactor_ = nullptr;
  }
  if (fileDesc_) {
    fileDesc_->descriptorIs(-1);  // out of the loop's epoll set before the descriptor number can be reused
    fileDesc_ = nullptr;
    if (notifying) notify(&NotifieeConst::onFileDesc);
  }
  int const fd = sd_;
  ownSocket_ = false;
  OVEL_TRACE(5, "EthDevPam " << name() << ": closing own socket " << fd);
  Vorn::descriptorClosed(fd);
  if (Platform::calls().close(fd) < 0) {
    OVEL_TRACE(0, "EthDevPam " << name() << ": close of socket " << fd << " failed, errno: " << errno);
  }
  if (notifying) {
    set(sd_, -1, &NotifieeConst::onSd);
  } else {
    sd_ = -1;
  }
}

void EthDevPam::filterProgramIs(SockFilterProgram const & program) {
  if (program == filterProgram()) return;
  if (ownSocket_) {
    if (int const error = filterAttach(sd_, program)) {
      std::string const text = "EthDevPam::filterProgram failed to attach filter on " + name().stdString() +
                               ", errno: " + std::to_string(error);
      OVEL_TRACE(0, text);
      throw Vorn::ErrnoException(error, text);
    }
  }
  EthDevPamBase::filterProgramIs(program);
}

void EthDevPam::doGetRxPkt() {
  if (!enabled_ || !ownSocket_) return;
  Vorn::Ptr<EthDevPam> keep(references() ? this : nullptr);  // a reader may drop the last reference
  if (enableBulkReadOnOwnSocket()) {
    doReadBulk();
  } else {
    doReadSingle();
  }
}

Vorn::Ptr<Pkt> EthDevPam::rxBufferFor(int32_t i) {
  Vorn::Ptr<Pkt> pkt;
  if (pktReuse_) {
    uint16_t const slot = static_cast<uint16_t>(i);
    pkt = savedPacket(slot);
    if (pkt) {
      pkt->sharedDataResetForReuse();
    } else if ((pkt = globalPktManager().newPkt())) {
      savedPacketIs(slot, pkt);
    }
  } else {
    pkt = globalPktManager().newPkt();
  }
  if (!pkt) {
    OVEL_TRACE(0, "EthDevPam " << name() << ": no packet to read into, reading stopped");
    rxErrorsInc(1);
    return pkt;
  }
  pkt->newSharedHeadData(maxRxPktData());
  return pkt;
}

namespace {

void readFailed(Pam & pam, char const * call, int sd, int error) {
  if (quietReadError(error)) return;
  OVEL_TRACE(0, "EthDevPam " << pam.name() << ": " << call << " failed on sd " << sd << " with errno " << error << " ("
                             << std::strerror(error) << ")");
  pam.rxErrorsInc(1);
}

}  // namespace

void EthDevPam::doReadSingle() {
  int const fd = sd_;
  for (int32_t i = 0; i < socketReadLimit_; ++i) {
    Vorn::Ptr<Pkt> pkt = rxBufferFor(i);
    if (!pkt) return;
    if (!single_) single_ = std::make_unique<RxBatch>(1);
    single_->slotIs(0, pkt->data(), maxRxPktData());
    msghdr & header = single_->header(0);
    ssize_t const length = Platform::calls().recvmsg(fd, &header, MSG_DONTWAIT);
    if (length < 0) {
      readFailed(*this, "recvmsg", fd, errno);
      return;
    }
    if (!doDeliver(*pkt, header, static_cast<uint32_t>(length))) return;
  }
}

void EthDevPam::doReadBulk() {
  int const fd = sd_;
  size_t const limit = static_cast<size_t>(socketReadLimit_);
  if (!bulk_ || bulk_->batch.size() != limit) bulk_ = std::make_unique<BulkSlots>(limit);
  BulkSlots & slots = *bulk_;
  unsigned count = 0;
  for (; count < limit; ++count) {
    Vorn::Ptr<Pkt> pkt = rxBufferFor(static_cast<int32_t>(count));
    if (!pkt) break;
    slots.batch.slotIs(count, pkt->data(), maxRxPktData());
    slots.pkts[count] = std::move(pkt);
  }
  if (count) {
    int const received = Platform::calls().recvmmsg(fd, slots.batch.headers(), count, MSG_DONTWAIT, nullptr);
    if (received < 0) readFailed(*this, "recvmmsg", fd, errno);
    for (int i = 0; i < received; ++i) {
      size_t const slot = static_cast<size_t>(i);
      if (!doDeliver(*slots.pkts[slot], slots.batch.header(slot), slots.batch.length(slot))) {
        break;
      }
    }
  }
  for (unsigned i = 0; i < count; ++i) slots.pkts[i] = nullptr;  // the slots hold packets only during a read
}

bool EthDevPam::doDeliver(Pkt & pkt, msghdr & header, uint32_t length) {
  auto const & from = *static_cast<sockaddr_ll const *>(header.msg_name);
  if (from.sll_pkttype == PACKET_OUTGOING) return true;  // our own transmissions, seen on the way out
  vlanTagFromAuxData(pkt, header);
  pkt.dataLenIs(std::min(length, maxRxPktData()));
  pkt.ifIndexIs(from.sll_ifindex > 0 ? static_cast<uint32_t>(from.sll_ifindex) : ifIndex_);
  pkt.pktTypeIs(from.sll_pkttype);
  int const fd = sd_;
  rxPktIs(Vorn::Ptr<Pkt>(&pkt));  // a refused frame is counted by the queue; the reader is told all the same
  readableCountInc(1);
  return enabled_ && ownSocket_ && sd_ == fd;
}

void EthDevPam::handleWritable() {
  if (fileDesc_) fileDesc_->writableWantedIs(false);
  writableCountInc(1);
}

int EthDevPam::doSendPkt(Pkt const & pkt) {
  if (sd_ < 0) return ENOTCONN;
  if (ifIndex_ == 0) return ENXIO;
  uint8_t const * frame = pkt.data();
  uint32_t length = pkt.dataLen();
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = static_cast<int>(ifIndex_);
  to.sll_halen = ETH_ALEN;
  std::memcpy(to.sll_addr, frame, ETH_ALEN);
  std::memcpy(&to.sll_protocol, frame + macAddrBytes, sizeof to.sll_protocol);  // already in network order
  if (pkt.hasVlanTag()) {
    // The tag goes back between the addresses and the type; one scratch buffer serves every Pam (one thread).
    static std::vector<uint8_t> tagged(PktManager::maxHeadData + vlanTagBytes);
    uint16_t const tag[2] = {htons(pkt.vlanTpid()), htons(pkt.vlanTci())};
    std::memcpy(tagged.data(), frame, macAddrBytes);
    std::memcpy(tagged.data() + macAddrBytes, tag, sizeof tag);
    std::memcpy(tagged.data() + macAddrBytes + vlanTagBytes, frame + macAddrBytes, length - macAddrBytes);
    to.sll_protocol = tag[0];
    frame = tagged.data();
    length += vlanTagBytes;
  }
  ssize_t const sent =
      Platform::calls().sendto(sd_, frame, length, 0, reinterpret_cast<sockaddr const *>(&to), sizeof to);
  if (sent < 0) {
    int const error = errno;
    if ((error == EAGAIN || error == ENOBUFS) && fileDesc_) fileDesc_->writableWantedIs(true);
    return error;
  }
  return static_cast<uint32_t>(sent) == length ? 0 : EMSGSIZE;
}

}  // namespace Ovel
