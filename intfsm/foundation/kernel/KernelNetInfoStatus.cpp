#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"

#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <sstream>
#include <string>

#include "intfsm/foundation/kernel/internal/Trace.h"
#include "intfsm/foundation/platform/NetlinkMessages.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"

namespace KernelNetInfo {

namespace {

// Large enough for any message the kernel sends us whole: dumps are built in skbs of at most the
// size of the reader's last buffer, capped at 32 KiB; events are one device each.
constexpr size_t receiveBufferBytes = 64 * 1024;

char const * familyText(int type) { return type == RTM_DELLINK ? "RTM_DELLINK" : "RTM_NEWLINK"; }

}  // namespace

class Status::VornFileDesc : public Vorn::Reactor<Status, Vorn::FileDescriptor> {
 public:
  using Reactor::Reactor;
  void onReadableCount() override { forward(&Status::handleReadable); }
  // A pending socket error alone (ENOBUFS with nothing queued) is reported as an exception; reading
  // collects it, and the loop would otherwise report it on every pass.
  void onExceptionPendingCount() override { forward(&Status::handleReadable); }
};

class Status::VornClock : public Vorn::Reactor<Status, Vorn::Clock> {
 public:
  using Reactor::Reactor;
  void onTimeMin() override { forward(&Status::handleRedumpTime); }
};

class Status::VornNetNsCollection : public Vorn::Reactor<Status, KernelNetNsInfo::Root> {
 public:
  using Reactor::Reactor;
  void onNetNsByName(Ovel::NamespaceName const & name) override {
    if (name == owner()->netNs()) forward(&Status::handleNetNs);
  }
  void onNetNsByNamevornImmediate() override { forward(&Status::handleNetNs); }
};

Vorn::Ptr<Status> Status::statusNew(Vorn::Name const & name, Ovel::NamespaceName const & netNs,
                                    Vorn::Ptr<Root> const & root) {
  return statusNew(name, netNs, root, Vorn::activityManager());
}

Vorn::Ptr<Status> Status::statusNew(Vorn::Name const & name, Ovel::NamespaceName const & netNs,
                                    Vorn::Ptr<Root> const & root, Vorn::ActivityManager & loop) {
  return new Status(name, netNs, root, loop);
}

Status::Status(Vorn::Name const & name, Ovel::NamespaceName const & netNs, Vorn::Ptr<Root> const & root,
               Vorn::ActivityManager & loop)
    : Entity(name),
      netNs_(netNs.empty() ? Ovel::NamespaceName::defaultNamespace() : netNs),
      root_(root ? root : Root::rootNew(name)),
      loop_(loop),
      buffer_(receiveBufferBytes),
      seq_(0) {
  clockReactor_ = Vorn::reactorNew<VornClock>(this, loop_.clock());
}

Status::~Status() {
  if (netNsReactor_) netNsReactor_->vornZombieIs(true);
  close();
  clockReactor_ = nullptr;
}

uint32_t Status::netNsNumber() const {
  return netNsCollection_ && !netNs_.isDefault() ? netNsCollection_->netNsByName(netNs_) : 0;
}

bool Status::netNsPresent() const {
  return !netNsCollection_ || netNs_.isDefault() || netNsCollection_->netNsByNameHas(netNs_);
}

void Status::netNsCollectionIs(Vorn::Ptr<KernelNetNsInfo::Root const> const & collection) {
  if (collection == netNsCollection_) return;
  if (netNsReactor_) {
    netNsReactor_->vornZombieIs(true);
    netNsReactor_ = nullptr;
  }
  netNsCollection_ = collection;
  openNetNsNumber_ = netNsNumber();
  // Binding reconciles at once with what the collection holds.
  if (collection) netNsReactor_ = Vorn::reactorNew<VornNetNsCollection>(this, collection);
}

void Status::handleNetNs() {
  bool const present = netNsPresent();
  uint32_t const number = netNsNumber();
  Vorn::Ptr<Status> keep(references() ? this : nullptr);
  if (sd_ >= 0 && (!present || number != openNetNsNumber_)) {
    KNI_TRACE(5, "namespace " << netNs_ << (present ? " is another namespace now" : " is gone")
                              << ": socket closed, " << root_->interfaceByIfIndexs() << " devices dropped");
    close();
    syncedIs(false);
    root_->interfaceDelAll();
  }
  if (!enabled_ || !present || sd_ >= 0) return;
  KNI_TRACE(5, "namespace " << netNs_ << " exists: opening in it");
  openNetNsNumber_ = number;
  ++reopens_;
  try {
    openAndReadFirstDump();
  } catch (Vorn::ErrnoException const &) {
    // Traced at level 0 by the failing step; the next change of the namespace tries again.
    KNI_TRACE(5, "namespace " << netNs_ << " not followed until it changes again");
  }
}

void Status::enabledIs(bool enabled) {
  if (enabled == enabled_) return;
  KNI_TRACE(8, "enabledIs( " << (enabled ? "true" : "false") << " ) netNs: " << netNs_);
  Vorn::Ptr<Status> keep(references() ? this : nullptr);
  if (!enabled) {
    close();
    enabled_ = false;
    syncedIs(false);
    notify(&NotifieeConst::onEnabled);
    return;
  }

  enabled_ = true;  // a watcher may disable the status while the first dump is read
  if (netNsPresent()) {
    openNetNsNumber_ = netNsNumber();
    try {
      openAndReadFirstDump();
    } catch (...) {
      enabled_ = false;
      throw;
    }
  } else {
    KNI_TRACE(5, "namespace " << netNs_ << " does not exist: opening in it when it does");
  }
  if (enabled_) notify(&NotifieeConst::onEnabled);
}

void Status::openAndReadFirstDump() {
  open();
  // The first dump is read here, so that the Root is current when enabling returns.
  double const deadline = Vorn::System::monotonicTime() + initialDumpSeconds;
  while (dumping_ && sd_ >= 0) {
    double const left = deadline - Vorn::System::monotonicTime();
    if (left <= 0) {
      KNI_TRACE(0, "KernelNetInfo::Status first dump of namespace " << netNs_ << " not complete after "
                                                                     << initialDumpSeconds << " s; finishing on the loop");
      break;
    }
    pollfd p{sd_, POLLIN, 0};
    int const ready = Platform::calls().poll(&p, 1, static_cast<int>(std::ceil(left * 1000)));
    if (ready < 0) {
      if (errno == EINTR) continue;
      KNI_TRACE(0, "KernelNetInfo::Status poll failed in namespace " << netNs_ << ", errno: " << errno
                                                                      << "; finishing the first dump on the loop");
      break;
    }
    if (ready > 0) handleReadable();
  }
}

void Status::open() {
  int const sd = Ovel::socketAt(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE, netNs_.charPtr());
  std::string const scope = "status " + name().stdString() + " in namespace " + netNs_.charPtr();
  if (sd < 0 && Vorn::isDescriptorShortage(errno)) {
    std::string const text = Vorn::descriptorShortageIs(socketPurpose, scope, errno);
    if (!text.empty()) KNI_TRACE(0, text);
    reopenPending_ = true;
    clockReactor_->timeMinIs(Vorn::System::currentTime() + shortageRetryInterval);
    return;
  }
  if (sd < 0) fail("socket", errno);
  sd_ = sd;
  Vorn::descriptorOpened(sd, socketPurpose, scope);
  applyRcvBuf(sd);

  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  if (Platform::calls().bind(sd, reinterpret_cast<sockaddr const *>(&local), sizeof local) < 0) fail("bind", errno);
  // Subscribe before the snapshot: nothing that changes between the two is missed.
  int const group = RTNLGRP_LINK;
  if (Platform::calls().setsockopt(sd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) {
    fail("setsockopt NETLINK_ADD_MEMBERSHIP", errno);
  }

  try {
    fd_ = Vorn::fileDescriptorFactory(name(), loop_);
    fd_->nonBlockingIs(true);
    fd_->descriptorIs(sd);
  } catch (Vorn::ErrnoException const & e) {
    fail("watch", e.errorNumber());
  }
  fdReactor_ = Vorn::reactorNew<VornFileDesc>(this, fd_);

  if (!startDump()) fail("sendto", errno);
}

void Status::applyRcvBuf(int sd) {
  if (rcvBufBytes_ == 0) return;
  int const bytes = rcvBufBytes_ > INT_MAX / 2 ? INT_MAX / 2 : static_cast<int>(rcvBufBytes_);
  // SO_RCVBUFFORCE goes past net.core.rmem_max, given CAP_NET_ADMIN; without it, SO_RCVBUF gets
  // what the system allows.
  if (Platform::calls().setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return;
  if (errno == EPERM && Platform::calls().setsockopt(sd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) == 0) return;
  fail("setsockopt SO_RCVBUF", errno);
}

void Status::fail(char const * step, int error) {
  std::ostringstream text;
  text << "KernelNetInfo::Status " << step << " failed in namespace " << netNs_ << ", errno: " << error;
  KNI_TRACE(0, text.str());
  close();
  throw Vorn::ErrnoException(error, text.str());
}

void Status::close() {
  if (fdReactor_) {
    fdReactor_->notifierIs(nullptr);
    fdReactor_ = nullptr;
  }
  // The loop must stop watching the descriptor before it is closed.
  if (fd_) {
    fd_->descriptorIs(-1);
    fd_ = nullptr;
  }
  if (clockReactor_) clockReactor_->timeMinIs(Vorn::Clock::never);
  reopenPending_ = false;
  if (sd_ >= 0) {
    Vorn::descriptorClosed(sd_);
    Platform::calls().close(sd_);
    sd_ = -1;
  }
  dumping_ = false;
  redumpPending_ = false;
  readSinceLoss_ = true;
  dumpList_.clear();
  dumpListByName_.clear();
  heldEvents_.clear();
}

void Status::rcvBufBytesIs(uint32_t bytes) {
  if (bytes == rcvBufBytes_) return;
  KNI_TRACE(8, "rcvBufBytesIs( " << bytes << " ) netNs: " << netNs_);
  if (sd_ >= 0 && bytes != 0) {
    int const value = bytes > INT_MAX / 2 ? INT_MAX / 2 : static_cast<int>(bytes);
    if (Platform::calls().setsockopt(sd_, SOL_SOCKET, SO_RCVBUFFORCE, &value, sizeof value) < 0 &&
        (errno != EPERM || Platform::calls().setsockopt(sd_, SOL_SOCKET, SO_RCVBUF, &value, sizeof value) < 0)) {
      int const error = errno;
      std::ostringstream text;
      text << "KernelNetInfo::Status setsockopt SO_RCVBUF failed in namespace " << netNs_ << ", errno: " << error;
      KNI_TRACE(0, text.str());
      throw Vorn::ErrnoException(error, text.str());
    }
  }
  rcvBufBytes_ = bytes;
}

void Status::redumpIntervalIs(double seconds) {
  if (!(seconds >= 0)) throw Vorn::RangeException("KernelNetInfo::Status::redumpInterval < 0 not allowed");
  if (seconds == redumpInterval_) return;
  redumpInterval_ = seconds;
  scheduleRedump();
}

bool Status::startDump() {
  alignas(nlmsghdr) char request[MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(ifinfomsg)) + MNL_ATTR_HDRLEN + 8] = {};
  nlmsghdr * nlh = mnl_nlmsg_put_header(request);
  nlh->nlmsg_type = RTM_GETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  if (++seq_ == 0) ++seq_;  // 0 is what events carry
  nlh->nlmsg_seq = seq_;
  auto * ifm = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  // Statistics are most of a link message and we read none of them.
  mnl_attr_put_u32(nlh, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);

  lastDumpStart_ = Vorn::System::currentTime();
  if (Platform::calls().sendto(sd_, nlh, nlh->nlmsg_len, 0, nullptr, 0) < 0) return false;
  dumping_ = true;
  dumpSeq_ = seq_;
  dumpInterrupted_ = false;
  lostDuringDump_ = false;
  redumpPending_ = false;
  dumpList_.clear();
  dumpListByName_.clear();
  KNI_TRACE(5, "dump " << dumpSeq_ << " started in namespace " << netNs_);
  return true;
}

void Status::dumpEnd() {
  dumping_ = false;
  std::vector<Interface> listed;
  listed.reserve(dumpList_.size());
  for (auto const & [ifIndex, i] : dumpList_) listed.push_back(i);
  dumpList_.clear();
  dumpListByName_.clear();

  if (dumpInterrupted_) {
    // Devices may be missing from an interrupted dump: keep what we have, take what it says, repeat.
    ++dumpsInterrupted_;
    KNI_TRACE(0, "KernelNetInfo::Status dump " << dumpSeq_ << " of namespace " << netNs_
                                               << " interrupted by a change; dumping again");
    for (Interface const & i : listed) root_->interfaceIs(i);
    applyHeldEvents();
    redumpPending_ = true;
  } else {
    ++dumps_;
    KNI_TRACE(5, "dump " << dumpSeq_ << " of namespace " << netNs_ << " done: " << listed.size() << " devices");
    reconcile(*root_, listed);
    applyHeldEvents();
    if (lostDuringDump_) redumpPending_ = true;
    if (!redumpPending_) syncedIs(true);
  }
  scheduleRedump();
}

void Status::applyHeldEvents() {
  // Taken first: applying notifies watchers, which may disable the status (it then stops here).
  std::vector<LinkEvent> held;
  held.swap(heldEvents_);
  int const sd = sd_;
  for (LinkEvent const & event : held) {
    if (sd_ != sd) return;
    applyEvent(event);
  }
}

void Status::eventsLost(char const * why) {
  ++overruns_;
  KNI_TRACE(0, "KernelNetInfo::Status lost events in namespace " << netNs_ << " (" << why << "); dumping again");
  syncedIs(false);
  if (dumping_) lostDuringDump_ = true;
  redumpPending_ = true;
  // The kernel reports a loss ahead of the messages it queued before the loss. Those are older than
  // any dump asked for now, and the event that followed them may be the one lost: they are read
  // and applied first, and the re-dump starts once the socket has been read empty.
  readSinceLoss_ = false;
}

void Status::scheduleRedump() {
  if (!redumpPending_ || dumping_ || !readSinceLoss_ || sd_ < 0) return;
  double const now = Vorn::System::currentTime();
  double const due = lastDumpStart_ + redumpInterval_;
  if (now < due) {
    clockReactor_->timeMinIs(due);
    return;
  }
  if (startDump()) {
    ++redumps_;
    return;
  }
  KNI_TRACE(0, "KernelNetInfo::Status sendto failed in namespace " << netNs_ << ", errno: " << errno
                                                                    << "; trying again later");
  clockReactor_->timeMinIs(now + (redumpInterval_ > 0 ? redumpInterval_ : defaultRedumpInterval));
}

void Status::handleRedumpTime() {
  if (!reopenPending_) {
    scheduleRedump();
    return;
  }
  reopenPending_ = false;
  if (!enabled_ || sd_ >= 0 || !netNsPresent()) return;
  Vorn::Ptr<Status> keep(references() ? this : nullptr);
  openNetNsNumber_ = netNsNumber();
  try {
    openAndReadFirstDump();
  } catch (Vorn::ErrnoException const &) {
    // Traced at level 0 by the failing step; the next change of the namespace tries again.
  }
}

void Status::handleReadable() {
  Vorn::Ptr<Status> keep(references() ? this : nullptr);
  int const sd = sd_;
  while (sd >= 0 && sd_ == sd) {
    iovec iov{buffer_.data(), buffer_.size()};
    sockaddr_nl from{};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    ssize_t const length = Platform::calls().recvmsg(sd, &message, 0);
    if (length < 0) {
      int const error = errno;
      if (error == EINTR) continue;
      if (error == EAGAIN || error == EWOULDBLOCK) {
        readSinceLoss_ = true;
        scheduleRedump();
        break;
      }
      if (error == ENOBUFS) {
        eventsLost("ENOBUFS");
        continue;
      }
      ++receiveErrors_;
      KNI_TRACE(0, "KernelNetInfo::Status recvmsg failed in namespace " << netNs_ << ", errno: " << error);
      break;
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) {
      eventsLost("truncated message");
      continue;
    }
    // Only the kernel (port 0) speaks for the kernel.
    if (from.nl_pid != 0) continue;
    Platform::NetlinkMessages messages(buffer_.data(), static_cast<size_t>(length));
    while (nlmsghdr const * nlh = messages.next()) {
      handleMessage(nlh);
      if (sd_ != sd) return;
    }
    // What the unreadable rest said is lost, as if the kernel had dropped it.
    if (messages.malformed()) eventsLost("malformed message");
  }
}

void Status::handleMessage(nlmsghdr const * nlh) {
  bool const ofDump = dumping_ && nlh->nlmsg_seq == dumpSeq_;
  switch (nlh->nlmsg_type) {
    case NLMSG_DONE:
      if (!ofDump) return;
      if ((nlh->nlmsg_flags & NLM_F_DUMP_INTR) != 0) dumpInterrupted_ = true;
      if (mnl_nlmsg_get_payload_len(nlh) >= sizeof(int)) {
        int const result = *static_cast<int const *>(mnl_nlmsg_get_payload(nlh));
        if (result < 0) {
          KNI_TRACE(0, "KernelNetInfo::Status dump " << dumpSeq_ << " of namespace " << netNs_
                                                     << " ended with errno: " << -int64_t{result});
          dumpInterrupted_ = true;
        }
      }
      dumpEnd();
      return;
    case NLMSG_ERROR: {
      if (!ofDump || mnl_nlmsg_get_payload_len(nlh) < sizeof(nlmsgerr)) return;
      auto const * error = static_cast<nlmsgerr const *>(mnl_nlmsg_get_payload(nlh));
      if (error->error == 0) return;
      KNI_TRACE(0, "KernelNetInfo::Status dump request refused in namespace " << netNs_ << ", errno: "
                                                                              << -int64_t{error->error} << "; trying again later");
      dumping_ = false;
      dumpList_.clear();
      dumpListByName_.clear();
      applyHeldEvents();
      redumpPending_ = true;
      scheduleRedump();
      return;
    }
    case RTM_NEWLINK:
    case RTM_DELLINK:
      handleLink(nlh, ofDump && (nlh->nlmsg_flags & NLM_F_MULTI) != 0);
      return;
    default:
      return;
  }
}

void Status::handleLink(nlmsghdr const * nlh, bool fromDump) {
  if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) {
    KNI_TRACE(0, "KernelNetInfo::Status short " << familyText(nlh->nlmsg_type) << " in namespace " << netNs_);
    return;
  }
  auto const * ifi = static_cast<ifinfomsg const *>(mnl_nlmsg_get_payload(nlh));
  // Bridge port messages (AF_BRIDGE) come on the same group and describe port state, not devices.
  if (ifi->ifi_family != AF_UNSPEC || ifi->ifi_index <= 0) return;
  uint32_t const ifIndex = static_cast<uint32_t>(ifi->ifi_index);

  struct Attributes {
    char const * name = nullptr;
    uint16_t nameLength = 0;
    uint8_t operState = 0;
    bool movedAway = false;
  } attributes;
  mnl_attr_parse(
      nlh, sizeof(ifinfomsg),
      [](nlattr const * attribute, void * data) {
        auto * a = static_cast<Attributes *>(data);
        switch (mnl_attr_get_type(attribute)) {
          case IFLA_IFNAME:
            if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0) {
              a->name = mnl_attr_get_str(attribute);
              a->nameLength = static_cast<uint16_t>(strnlen(a->name, mnl_attr_get_payload_len(attribute)));
            }
            break;
          case IFLA_OPERSTATE:
            if (mnl_attr_validate(attribute, MNL_TYPE_U8) >= 0) a->operState = mnl_attr_get_u8(attribute);
            break;
          case IFLA_NEW_NETNSID:
            a->movedAway = true;
            break;
          default:
            break;
        }
        return MNL_CB_OK;
      },
      &attributes);

  LinkEvent event{ifIndex, nlh->nlmsg_type == RTM_DELLINK || attributes.movedAway, attributes.movedAway, {}};
  if (fromDump) {
    if ((nlh->nlmsg_flags & NLM_F_DUMP_INTR) != 0) dumpInterrupted_ = true;
    if (event.gone || attributes.nameLength == 0) return;
  } else {
    ++events_;
    if (!event.gone && attributes.nameLength == 0) {
      KNI_TRACE(0, "KernelNetInfo::Status RTM_NEWLINK without a name for ifIndex " << ifIndex << " in namespace "
                                                                                   << netNs_);
      return;
    }
  }
  if (!event.gone) {
    try {
      event.interface = Interface(ifIndex, ifi->ifi_flags, Vorn::String(attributes.name, attributes.nameLength),
                                  attributes.operState);
    } catch (Vorn::RangeException const & e) {
      KNI_TRACE(0, "KernelNetInfo::Status ignoring ifIndex " << ifIndex << " in namespace " << netNs_ << ": "
                                                             << e.what());
      return;
    }
  }
  if (fromDump) {
    dumpListIs(event.interface);
  } else if (dumping_) {
    // A dump record read later may be older than this event: it waits until the dump is reconciled.
    heldEvents_.push_back(event);
  } else {
    applyEvent(event);
  }
}

void Status::applyEvent(LinkEvent const & event) {
  if (event.gone) {
    KNI_TRACE(5, "removed " << root_->interfaceByIfIndex(event.ifIndex) << " in namespace " << netNs_
                            << (event.movedAway ? " (moved to another namespace)" : ""));
    root_->interfaceDel(event.ifIndex);
    return;
  }
  KNI_TRACE(5, "link " << event.interface << " in namespace " << netNs_ << " was "
                       << root_->interfaceByIfIndex(event.ifIndex));
  root_->interfaceIs(event.interface);
}

void Status::dumpListIs(Interface const & i) {
  std::string name(i.deviceNameBytes().view());
  // A name now held by another device: that one was renamed or deleted since the dump saw it.
  if (auto holder = dumpListByName_.find(name); holder != dumpListByName_.end() && holder->second != i.ifIndex()) {
    dumpList_.erase(holder->second);
  }
  if (auto old = dumpList_.find(i.ifIndex()); old != dumpList_.end()) {
    dumpListByName_.erase(std::string(old->second.deviceNameBytes().view()));
  }
  dumpList_[i.ifIndex()] = i;
  dumpListByName_[std::move(name)] = i.ifIndex();
}

void Status::syncedIs(bool synced) {
  if (synced == synced_) return;
  synced_ = synced;
  KNI_TRACE(5, "synced " << (synced ? "true" : "false") << " in namespace " << netNs_);
  notify(&NotifieeConst::onSynced);
}

}  // namespace KernelNetInfo
