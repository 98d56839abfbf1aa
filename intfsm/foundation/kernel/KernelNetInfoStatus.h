// Keeps a KernelNetInfo::Root equal to the network devices of one namespace, over rtnetlink, on the
// event loop.
//
//   auto status = KernelNetInfo::Status::statusNew("kni", Ovel::NamespaceName("blue"));
//   status->enabledIs(true);           // the Root now holds blue's devices
//   ... Vorn::activityManager().run(); // and follows them: add, delete, rename, up/down, running, operstate
//   status->root()->interfaceByDeviceName("va0").ifIndex();
//
// How it stays right:
// - Subscribe, then snapshot. Enabling opens a NETLINK_ROUTE socket inside the namespace
//   (Ovel::socketAt; DEFAULT_NS is the calling thread's namespace), gives it a generous receive
//   buffer (rcvBufBytes, SO_RCVBUFFORCE, or SO_RCVBUF when not permitted), binds it, joins
//   RTNLGRP_LINK, and only then asks for a dump (RTM_GETLINK, NLM_F_DUMP). enabledIs(true) reads that
//   first dump before it returns (for at most initialDumpSeconds; the rest then arrives on the loop).
// - A dump is not a snapshot: rtnetlink builds each chunk of it and queues the chunk afterwards, so an
//   event can arrive before a chunk that was built before the event. Dump records are therefore
//   collected, and events read while a dump is in flight are held. When the dump ends the Root is
//   reconciled with the collection (devices that vanished go first, then changed ones are updated and
//   new ones added), and only then are the held events applied, in arrival order. Every change after
//   a held event is either a later held event or a loss seen during the dump (which re-dumps), so no
//   dump record is left standing over a newer state; watchers may see a device pass through the dumped
//   state on the way. A dump whose messages carry NLM_F_DUMP_INTR (the device list changed under it)
//   only adds and updates, is followed by the held events likewise, and is repeated. A refused dump
//   request releases the held events at once. Outside dumps, events are applied as they are read.
// - Events: RTM_NEWLINK adds, updates (flags, IFLA_OPERSTATE) or renames; RTM_DELLINK deletes. A
//   device that leaves for another namespace (RTM_DELLINK, or RTM_NEWLINK carrying IFLA_NEW_NETNSID) is
//   a deletion here.
//   Messages of other families (AF_BRIDGE port messages share the group) are ignored.
// - Lost events: when recvmsg fails with ENOBUFS (the receive buffer overran), a message was
//   truncated, or a datagram holds bytes that are not a whole message (a length shorter than a header
//   or past the bytes read: the messages before them are applied, the rest is lost), the Root may have drifted; `synced` turns false and a re-dump is asked for. It starts
//   only once the socket has been read empty: the kernel reports a loss ahead of the messages it had
//   queued before it, and those, older than the re-dump and perhaps followed by the lost event, are
//   applied at once rather than held. A loss seen while a dump is in flight asks for one more dump
//   after it. Re-dumps are rate-limited on the loop's clock: one starts no sooner than redumpInterval
//   seconds (0.1 by default) after the previous dump started; losses in between are covered by that
//   one dump. The monitor never gives up or exits.
// - Each readable event reads until EAGAIN.
//
// Following the namespace (`netNsCollection`, null by default: a status without one serves the
// namespace it entered first for as long as it is enabled, and its socket keeps that namespace alive
// after `ip netns del`). Given the collection of the namespaces that exist (a KernelNetNsInfo::Root
// kept by a KernelNetNsInfo::Manager), an enabled status is open only while its namespace is in it by
// name (the default namespace always is). When the name goes, or comes back as another namespace
// (another number), what the status holds in the old namespace goes: the socket is closed and the
// Root emptied, each device's removal notified, so that its readers unpublish what they derived from
// it. When a namespace of that name exists again, the status opens anew in it and follows it like a
// new one: subscribe, dump, events. Opening there is work done on the loop: a failure is traced at
// level 0 and the status waits, closed, for the next change of the namespace.
//
//   status->netNsCollectionIs(netNsRoot);   // netNsRoot kept by KernelNetNsInfo::ManagerIs(netNsRoot)
//
// Disabling drops the FileDescriptor, then closes the socket; the Root keeps what it last applied
// (events held for an unfinished dump go with it), and enabling again reconciles it with a fresh
// dump. Failures to set the socket up raise Vorn::ErrnoException ("KernelNetInfo::Status <step> failed
// in namespace <ns>, errno: <n>") with nothing left open. Traces go to the handle "KernelNetInfo".
//
// Out of descriptors: a socket that cannot be had for lack of descriptors (EMFILE, ENFILE) raises
// nothing; it is traced once at level 0 ("cannot open KernelNetInfo::Status netlink socket for status
// <name> in namespace <ns>, errno: 24 (out of descriptors)"), the status stays enabled but closed and
// not synced, and it tries again every shortageRetryInterval seconds on the loop's clock until the
// socket opens (then subscribe and dump as ever). An agent that exits for a passing shortage loses
// everything it holds. The socket is named "KernelNetInfo::Status netlink socket" for "status <name>
// in namespace <ns>" in the registry of descriptors (Vorn/Descriptors.h).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "intfsm/foundation/kernel/KernelNetInfo.h"
#include "intfsm/foundation/kernel/KernelNetNsInfo.h"
#include "intfsm/foundation/ovel/NamespaceName.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Entity.h"

struct nlmsghdr;

namespace KernelNetInfo {

class Status : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Status> {
   public:
    virtual void onEnabled() {}
    virtual void onSynced() {}
  };

  static constexpr uint32_t defaultRcvBufBytes = 4u << 20;
  static constexpr double defaultRedumpInterval = 0.1;
  static constexpr double initialDumpSeconds = 2.0;
  static constexpr double shortageRetryInterval = 1.0;
  static constexpr char socketPurpose[] = "KernelNetInfo::Status netlink socket";

  // Serves namespace `netNs`; fills `root`, or a Root of its own (named like the status) when null.
  // Runs on the process's loop, or on `loop` (which must outlive the status).
  static Vorn::Ptr<Status> statusNew(Vorn::Name const & name, Ovel::NamespaceName const & netNs,
                                     Vorn::Ptr<Root> const & root = nullptr);
  static Vorn::Ptr<Status> statusNew(Vorn::Name const & name, Ovel::NamespaceName const & netNs,
                                     Vorn::Ptr<Root> const & root, Vorn::ActivityManager & loop);
  ~Status() override;

  Ovel::NamespaceName const & netNs() const { return netNs_; }
  Vorn::Ptr<Root const> root() const { return root_; }

  // True opens, subscribes and dumps (see above; Vorn::ErrnoException on failure, then still
  // disabled; out of descriptors: enabled, waiting); false closes. Setting the current value does nothing.
  bool enabled() const { return enabled_; }
  void enabledIs(bool enabled);

  // The namespaces that exist, through which the status follows its own (see above); null: not followed.
  Vorn::Ptr<KernelNetNsInfo::Root const> const & netNsCollection() const { return netNsCollection_; }
  void netNsCollectionIs(Vorn::Ptr<KernelNetNsInfo::Root const> const & collection);
  // Whether the namespace exists as far as the status knows: always without a collection.
  bool netNsPresent() const;
  // Times the status opened on the loop in a namespace that appeared (again) under its name.
  uint64_t reopens() const { return reopens_; }

  // True while the Root is known to match the kernel: a complete dump has been applied and no event
  // has been lost since.
  bool synced() const { return synced_; }

  // The receive buffer asked for, in bytes; applied at once when enabled (Vorn::ErrnoException when
  // the kernel refuses, and the value stays), else at the next enable. 0 keeps the kernel's default.
  uint32_t rcvBufBytes() const { return rcvBufBytes_; }
  void rcvBufBytesIs(uint32_t bytes);

  // Least time between the starts of two dumps caused by lost events, in seconds (>= 0).
  double redumpInterval() const { return redumpInterval_; }
  void redumpIntervalIs(double seconds);

  // The socket, or -1 while disabled.
  int descriptor() const { return sd_; }
  // Enabled but waiting for a descriptor: the socket is tried again on the clock.
  bool waitingForDescriptor() const { return reopenPending_; }
  bool dumpInProgress() const { return dumping_; }
  bool redumpPending() const { return redumpPending_; }

  // Counters, kept across enable and disable.
  uint64_t events() const { return events_; }                  // link events read
  uint64_t dumps() const { return dumps_; }                    // dumps completed
  uint64_t redumps() const { return redumps_; }                // re-dumps started after a loss or an interruption
  uint64_t overruns() const { return overruns_; }              // losses seen: ENOBUFS, truncated or malformed
  uint64_t dumpsInterrupted() const { return dumpsInterrupted_; }  // dumps that ended with NLM_F_DUMP_INTR
  uint64_t receiveErrors() const { return receiveErrors_; }    // other recvmsg failures

  // Reads and applies whatever the socket holds, until EAGAIN (what the loop calls when readable).
  void handleReadable();

 private:
  class VornFileDesc;
  class VornClock;
  class VornNetNsCollection;

  Status(Vorn::Name const & name, Ovel::NamespaceName const & netNs, Vorn::Ptr<Root> const & root,
         Vorn::ActivityManager & loop);

  void open();
  // open(), then the first dump read before returning (for at most initialDumpSeconds).
  void openAndReadFirstDump();
  void close();
  // The namespace's presence or number changed in the collection: close, drop, reopen as needed.
  void handleNetNs();
  // The collection's number of the namespace; 0 for the default one, or without a collection.
  uint32_t netNsNumber() const;
  [[noreturn]] void fail(char const * step, int error);
  void applyRcvBuf(int sd);
  bool startDump();
  void dumpEnd();
  void eventsLost(char const * why);
  void scheduleRedump();
  void handleRedumpTime();
  void handleMessage(nlmsghdr const * nlh);
  // One RTM_NEWLINK or RTM_DELLINK event: `interface` is the device's new record unless it is gone.
  struct LinkEvent {
    uint32_t ifIndex;
    bool gone;
    bool movedAway;
    Interface interface;
  };
  void handleLink(nlmsghdr const * nlh, bool fromDump);
  void applyEvent(LinkEvent const & event);
  void applyHeldEvents();
  void dumpListIs(Interface const & i);
  void syncedIs(bool synced);

  Ovel::NamespaceName netNs_;
  Vorn::Ptr<Root> root_;
  Vorn::ActivityManager & loop_;
  bool enabled_ = false;
  bool synced_ = false;
  uint32_t rcvBufBytes_ = defaultRcvBufBytes;
  double redumpInterval_ = defaultRedumpInterval;
  int sd_ = -1;
  Vorn::Ptr<Vorn::FileDescriptor> fd_;
  Vorn::Ptr<VornFileDesc> fdReactor_;
  Vorn::Ptr<VornClock> clockReactor_;
  Vorn::Ptr<KernelNetNsInfo::Root const> netNsCollection_;
  Vorn::Ptr<VornNetNsCollection> netNsReactor_;
  uint32_t openNetNsNumber_ = 0;  // the collection's number of the namespace the socket is in
  uint64_t reopens_ = 0;
  std::vector<char> buffer_;

  uint32_t seq_;
  uint32_t dumpSeq_ = 0;
  bool dumping_ = false;
  bool dumpInterrupted_ = false;
  bool lostDuringDump_ = false;
  bool redumpPending_ = false;
  bool reopenPending_ = false;  // out of descriptors at open: tried again on the clock
  bool readSinceLoss_ = true;  // the socket has been read empty since the last loss
  double lastDumpStart_ = 0;
  // What the dump in progress has said so far, and the events read meanwhile, in arrival order.
  std::map<uint32_t, Interface> dumpList_;
  std::unordered_map<std::string, uint32_t> dumpListByName_;
  std::vector<LinkEvent> heldEvents_;

  uint64_t events_ = 0;
  uint64_t dumps_ = 0;
  uint64_t redumps_ = 0;
  uint64_t overruns_ = 0;
  uint64_t dumpsInterrupted_ = 0;
  uint64_t receiveErrors_ = 0;
};

}  // namespace KernelNetInfo
