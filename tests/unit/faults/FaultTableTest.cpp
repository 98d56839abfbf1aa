// Every system call on the set-up, receive, ring, netlink and namespace paths fails in turn, with each
// errno the kernel really gives it. Each row says what a user sees; the test checks it: the result,
// the exact level-0 traces, no descriptor or mapping left behind, nothing half-built published, and the
// same operation working once the fault is gone. docs/failures.md is these rows printed (the test
// fails when they differ; the target failures-md writes it again).
#include <linux/if.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/kernel/KernelNetNsManager.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/FakeRtnetlink.h"
#include "tests/support/ScopedLoop.h"
#include "tests/support/TempDir.h"
#include "tests/support/ThrownText.h"
#include "tests/support/TraceCapture.h"

namespace {

using IntfsmTest::FakePlatform;
using Kind = FakePlatform::Kind;
using Vorn::Ptr;

// The kernel of one row, with every module's level-0 traces captured and a private loop.
struct World {
  IntfsmTest::ScopedTestTime time;
  Vorn::ActivityManager loop;
  IntfsmTest::ScopedLoop scopedLoop{loop};
  FakePlatform fake;
  IntfsmTest::TraceCapture trace{
      {"Ovel", 1}, {"EthDevPamManagerTypes", 1}, {"KernelNetInfo", 1}, {"KernelNetNsInfo", 1}, {"Interface", 1}};
  int sd = -1;              // {sd} in a row's text
  IntfsmTest::TempDir tmp;  // {tmp} in a row's text
};

// One operation a user asks for. run() does it once and says what came of it: "ok", "fails, errno N",
// or what a read left ("not read", with the error counter when it moved). state() is everything the
// operation publishes; a failure must leave it as it was. undo() takes back a success.
struct Subject {
  std::function<std::string()> run, state = [] { return std::string(); };
  std::function<void()> undo = [] {};
};

std::string failsWith(int error) { return "fails, errno " + std::to_string(error); }

// The values, spaced: what a state() shows.
template <class... A>
std::string text(A const &... values) {
  std::ostringstream os;
  ((os << values << ' '), ...);
  return os.str();
}

// What a read left: the frame delivered, or not, with the error counter moved or not.
std::string readResult(bool delivered, bool counted) {
  return delivered ? "ok" : counted ? "not read, rxErrors +1" : "not read";
}

template <class F>
std::string raising(F && f) {
  long const error = IntfsmTest::thrownErrno(f);
  return error ? failsWith(int(error)) : "ok";
}

// Takes every frame a Pam has as it is told of them.
struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Ptr<Ovel::Pam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override {
    while (pam->rxPkt()) ++frames;
  }
  Ovel::Pam * pam;  // outlives the reader
  int frames = 0;
};

Ovel::SockFilterProgram const acceptAll{{BPF_RET | BPF_K, 0, 0, 0xffff}};

// ---- the operations ----------------------------------------------------------------------------------

// A socket in the namespace "blue", through socketAt's own body. Closing leaves EBADF in errno, so a
// failed step must keep its own.
Subject socketInNamespace(World & w) {
  w.fake.behaviour().socketAt = [](int d, int t, int p, char const * ns) {
    return Ovel::socketAtThrough(Platform::calls(), d, t, p, ns);
  };
  w.fake.behaviour().close = [inner = w.fake.behaviour().close](int fd) {
    int const result = inner(fd);
    errno = EBADF;
    return result;
  };
  w.fake.namespaceIs("blue");
  return {[] {
    errno = 0;
    int const sd = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, "blue");
    return sd < 0 ? failsWith(errno) : (Platform::calls().close(sd), "ok");
  }};
}

// The directory of named namespaces watched (one of the test's own, {tmp}/netns, as /run/netns).
Subject namespaceWatch(World & w) {
  std::string const dir = w.tmp.path() + "/netns";
  EXPECT_EQ(::mkdir(dir.c_str(), 0755), 0);
  auto root = KernelNetNsInfo::Root::rootNew("netNs");
  auto manager = KernelNetNsInfo::ManagerIs(root, Vorn::String(dir), w.loop);
  return {[manager] { return raising([&] { manager->hasNotificationActiveIs(true); }); },
          [&w, manager, root] {
            return text(manager->hasNotificationActive(), manager->directoryWatched(), w.loop.watches(), root->netNsByNames());
          },
          [manager] { manager->hasNotificationActiveIs(false); }};
}

// A Pam with a socket of its own, every option on, its ifindex looked up by name.
Ptr<Ovel::EthDevPam> ownSocketPam(World & w) {
  w.fake.realSocketsIs(true);  // watched on the loop
  w.fake.behaviour().ioctl = [](int, unsigned long request, void * argument) {
    static_cast<ifreq *>(argument)->ifr_ifindex = 7;
    return request == SIOCGIFINDEX ? 0 : (errno = ENOTTY, -1);
  };
  Ptr<Ovel::EthDevPam> pam = new Ovel::EthDevPam("et1");
  pam->perIntfSocketIs(true);
  pam->separateDot1QHdrIs(true);
  pam->sockPrioIs(5);
  pam->sockRcvBufIs(1 << 20);
  pam->filterProgramIs(acceptAll);
  pam->broadcastIs(true);
  pam->allMulticastIs(true);
  return pam;
}

// Enabling it.
Subject pamEnable(World & w) {
  Ptr<Ovel::EthDevPam> pam = ownSocketPam(w);
  return {[&w, pam] {
            std::string const result = raising([&] { pam->enabledIs(true); });
            w.sd = pam->sd();
            return result;
          },
          [&w, pam] { return text(pam->enabled(), pam->sd(), pam->ifIndex(), w.loop.watches()); },
          [pam] { pam->enabledIs(false); }};
}

// Another filter for its open socket: the one in force stays when the kernel refuses it.
Subject pamFilter(World & w) {
  Ptr<Ovel::EthDevPam> pam = ownSocketPam(w);
  pam->enabledIs(true);
  Ovel::SockFilterProgram const dropAll{{BPF_RET | BPF_K, 0, 0, 0}};
  return {[pam, dropAll] { return raising([&] { pam->filterProgramIs(dropAll); }); },
          [pam] { return text(pam->filterProgram().len(), pam->filterProgram().filter()[0].k); },
          [pam] { pam->filterProgramIs(acceptAll); }};
}

// A frame waiting on a Pam's own socket, read when the loop sees it readable.
Subject pamReceive(World & w, bool bulk) {
  w.fake.realSocketsIs(true);
  Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle("et1");
  pam->ifIndexIs(7);
  pam->perIntfSocketIs(true);
  pam->pktReuseIs(bulk);
  pam->enableBulkPamReadIs(bulk);
  pam->enabledIs(true);
  w.sd = pam->sd();
  Ptr<Reader> reader = new Reader(pam);
  sockaddr_storage from{};
  reinterpret_cast<sockaddr_ll &>(from) = sockaddr_ll{AF_PACKET, 0, 7, 0, PACKET_HOST, 0, {}};
  w.fake.queueDatagram(pam->sd(), std::string(60, 'f'), &from);
  return {[&w, pam, reader] {
            uint32_t const errors = pam->rxErrors();
            int const frames = reader->frames;
            w.loop.runOnce(0);
            return readResult(reader->frames > frames, pam->rxErrors() > errors);
          },
          [reader] { return text(reader->frames); }};
}

// A bundle of interfaces sharing sockets, with a receive ring and every option on.
struct Bundle {
  explicit Bundle(World & w) {
    w.fake.realSocketsIs(true);  // watched on the loop
    w.fake.fileIs("/proc/net/packet_rlimit_stats");
    bundle->ethProtocolIs(0x88b5);
    bundle->separateDot1QHdrIs(true);
    bundle->sockPrioIs(3);
    bundle->broadcastIs(true);
    bundle->rxRingIs(true);
    bundle->filterProgramIs(acceptAll);
  }
  Ptr<Interface::DeviceIntfStatusDir> devices = Interface::deviceIntfStatusDirFactory("devices");
  Ptr<Interface::EthDevPamCollection> pams = Interface::ethDevPamCollectionFactory("pams");
  Ptr<Interface::EthDevPamBundle> bundle =
      new Interface::EthDevPamBundle(Interface::pamDesiredIntfDirFactory("desired"), devices, pams);
};

// The first interface of the bundle opens its shared socket.
Subject bundleOpen(World & w) {
  auto b = std::make_shared<Bundle>(w);
  return {[&w, b] {
            std::string const result = raising([&] { b->bundle->doGetSd("et1"); });
            auto const opened = w.fake.calls(Kind::socketAt);
            w.sd = opened.empty() ? -1 : int(opened.back().result);
            return result;
          },
          [b] {
            auto const & x = *b->bundle;
            return text(x.sd(), x.sdRef(), x.sockRcvBuf(), x.perIntfSockRcvBuf(), x.allocRcvBuf(), bool(x.fileDesc()),
                        x.rxRingMapped(x.sd()));
          },
          [b] { b->bundle->doUnrefSd(b->bundle->sd()); }};
}

// The last interface of the bundle leaves: the ring is unmapped, the socket closed.
Subject bundleClose(World & w) {
  auto b = std::make_shared<Bundle>(w);
  return {[&w, b] {
            w.sd = b->bundle->doGetSd("et1");
            b->bundle->doUnrefSd(w.sd);
            return b->bundle->sd() < 0 ? "ok" : "still open";
          },
          [b] { return text(b->bundle->sd()); }};
}

// A program tried on a scratch socket of the bundle's namespace before it is taken.
Subject bundleFilterTry(World & w) {
  auto b = std::make_shared<Bundle>(w);
  return {[b] { return raising([&] { b->bundle->filterProgramTry(acceptAll); }); }};
}

// A frame on the bundle's shared socket, taken to its Pam by ifindex.
Subject bundleReceive(World & w, bool bulk) {
  auto b = std::make_shared<Bundle>(w);
  w.sd = w.fake.behaviour().socketAt(0, 0, 0, nullptr);  // the manager's socket: closed by the test
  b->devices->intfStatusByIfIndexIs(7, {nullptr, "cpu", 7});
  Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle("cpu");
  pam->ifIndexIs(7);
  pam->sdIs(w.sd);
  pam->enabledIs(true);
  b->pams->intfPamIs(Ovel::IntfId("Cpu"), pam);
  Ptr<Reader> reader = new Reader(pam);
  b->bundle->pktReuseIs(bulk);
  b->bundle->enableBulkPamReadIs(bulk);
  b->bundle->enabledIs(true);
  b->bundle->currActiveSdIs(w.sd);
  sockaddr_storage from{};
  reinterpret_cast<sockaddr_ll &>(from).sll_ifindex = 7;
  w.fake.queueDatagram(w.sd, std::string(60, 'f'), &from);
  auto const closer = std::shared_ptr<void>(nullptr, [sd = w.sd](void *) { Platform::calls().close(sd); });
  return {[b, reader, closer] {
            uint32_t const errors = b->bundle->rxErrors();
            int const frames = reader->frames;
            b->bundle->doGetRxPkt();
            return readResult(reader->frames > frames, b->bundle->rxErrors() > errors);
          },
          [reader] { return text(reader->frames); }};
}

// The kernel information of the namespace "blue", as a kernel answering its requests has it.
struct KernelInfo {
  explicit KernelInfo(World & w) : kernel(w.fake) {
    kernel.linkIs(1, IFF_UP | IFF_LOOPBACK | IFF_RUNNING, "lo");
    kernel.linkIs(3, IFF_UP, "va0");
  }
  ~KernelInfo() { status = nullptr; }
  std::string state(World const & w) const {
    return text(status->enabled(), status->descriptor() >= 0, status->synced(), status->root()->interfaceByIfIndexs(),
                w.loop.watches(), status->rcvBufBytes());
  }
  IntfsmTest::FakeRtnetlink kernel;
  Ptr<KernelNetInfo::Status> status =
      KernelNetInfo::Status::statusNew("kni", Ovel::NamespaceName(Vorn::String("blue")), nullptr, Vorn::activityManager());
};

// Enabling it: subscribed, dumped, watched.
Subject kernelInfoEnable(World & w) {
  auto k = std::make_shared<KernelInfo>(w);
  return {[&w, k] {
            std::string const result = raising([&] { k->status->enabledIs(true); });
            w.sd = k->status->descriptor();
            return result;
          },
          [&w, k] { return k->state(w); }, [k] { k->status->enabledIs(false); }};
}

// Its receive buffer grown while it is open.
Subject kernelInfoRcvBuf(World & w) {
  auto k = std::make_shared<KernelInfo>(w);
  k->status->enabledIs(true);
  uint32_t const before = k->status->rcvBufBytes();
  return {[k] { return raising([&] { k->status->rcvBufBytesIs(16 << 20); }); }, [&w, k] { return k->state(w); },
          [k, before] { k->status->rcvBufBytesIs(before); }};
}

// An oper-state request for et1 over a netlink socket, the kernel answering it at once.
Subject operState(World & w) {
  w.fake.behaviour().setNetlinkOperState = &Interface::sendNetlinkOperState;
  w.sd = Platform::calls().socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
  w.fake.behaviour().sendto = [&w, inner = w.fake.behaviour().sendto](int fd, void const * data, size_t length,
                                                                      int flags, sockaddr const * to, socklen_t n) {
    struct {
      nlmsghdr header;
      nlmsgerr error;
    } ack{{sizeof ack, NLMSG_ERROR, 0, static_cast<nlmsghdr const *>(data)->nlmsg_seq, 0}, {}};
    w.fake.queueDatagram(fd, std::string(reinterpret_cast<char const *>(&ack), sizeof ack));
    return inner(fd, data, length, flags, to, n);
  };
  auto const closer = std::shared_ptr<void>(nullptr, [sd = w.sd](void *) { Platform::calls().close(sd); });
  return {[&w, closer] {
    errno = 0;
    bool const sent = Interface::doSetNetlinkOperState(w.sd, "et1", 111, IF_OPER_UP);
    int const error = errno;
    for (msghdr m{}; w.fake.queuedDatagrams(w.sd);) Platform::calls().recvmsg(w.sd, &m, MSG_DONTWAIT);  // unread answers
    return sent ? "ok" : failsWith(error);
  }};
}

// ---- the table ---------------------------------------------------------------------------------------

struct Operation {
  char const * path;
  char const * name;
  std::function<Subject(World &)> make;
};

Operation const socketAt{"namespace", "socketAt in namespace blue", socketInNamespace};
Operation const netNsWatch{"namespace", "watch the namespace directory", namespaceWatch};
Operation const pamOpen{"socket set-up", "enable a Pam's own socket", pamEnable};
Operation const pamNewFilter{"socket set-up", "replace the filter of a Pam's open socket", pamFilter};
Operation const pamRead{"receive", "read a Pam's own socket", [](World & w) { return pamReceive(w, false); }};
Operation const pamReadBulk{"receive", "read a Pam's own socket in bulk", [](World & w) { return pamReceive(w, true); }};
Operation const bundleSocket{"socket set-up, ring", "open a bundle socket (ring on)", bundleOpen};
Operation const bundleFilter{"socket set-up", "try a filter for a bundle", bundleFilterTry};
Operation const bundleRelease{"ring", "close a bundle socket (ring on)", bundleClose};
Operation const bundleRead{"receive", "read a bundle socket", [](World & w) { return bundleReceive(w, false); }};
Operation const bundleReadBulk{"receive", "read a bundle socket in bulk", [](World & w) { return bundleReceive(w, true); }};
Operation const kniEnable{"netlink", "enable the kernel information of blue", kernelInfoEnable};
Operation const kniRcvBuf{"netlink", "grow the kernel information's receive buffer", kernelInfoRcvBuf};
Operation const operStateSet{"netlink", "set et1's oper-state", operState};

// The call that fails: of `kind`; for setsockopt and getsockopt only `option` of `level` (named `what`),
// for open and inotify_add_watch only the path `what`.
struct Call {
  Kind kind;
  char const * what = nullptr;
  int level = 0, option = 0;
};
#define OPTION(kind, level, option) Call{Kind::kind, #option, level, option}
int const PACKET_RLIMIT_INTF_SIZE = 19;  // the per-interface limit of kernels that have one

// Rows that differ only in the errno. `result` "fails" is "fails, errno N"; in `trace` {errno} and
// {strerror} are the row's errno as a number and as text, " | " separates traces.
struct Rows {
  Operation const * op;
  Call call;
  std::vector<int> errors;
  char const * result;
  char const * trace;
  char const * sees;
};

std::vector<Rows> const table = {
    {&socketAt, {Kind::open, "/run/netns/blue"}, {ENOENT, EACCES, EMFILE, ENFILE, ENOMEM}, "fails", "",
     "no socket, its errno returned; nothing left open"},
    {&socketAt, {Kind::open, "/proc/thread-self/ns/net"}, {EMFILE, ENFILE}, "fails", "",
     "no socket, its errno returned; the namespace file closed again"},
    {&socketAt, {Kind::setns}, {EPERM, EINVAL, ENOMEM}, "fails", "",
     "no socket, its errno returned; the thread not moved, both files closed"},
    {&socketAt, {Kind::socket}, {EPERM, EACCES, EMFILE, ENFILE, ENOBUFS, ENOMEM}, "fails", "",
     "no socket, its errno returned; the thread back in its namespace, both files closed"},
    {&netNsWatch, {Kind::inotify_init1}, {ENOMEM}, "fails",
     "KernelNetNsInfo::Manager inotify_init1 failed, errno: {errno}", "not following namespaces; raised and traced"},
    {&netNsWatch, {Kind::inotify_init1}, {EMFILE, ENFILE}, "ok",
     "cannot open namespace inotify descriptor for directory {tmp}/netns, errno: {errno} (out of descriptors)",
     "following on, nothing raised: traced once, tried again every second until it opens"},
    {&netNsWatch, {Kind::inotify_add_watch, "{tmp}"}, {ENOSPC}, "ok",
     "KernelNetNsInfo::Manager cannot watch {tmp}, errno: {errno}; {tmp}/netns is followed only while it exists",
     "namespaces followed; the directory's removal and re-creation are not"},
    {&netNsWatch, {Kind::inotify_add_watch, "{tmp}/netns"}, {ENOSPC, EACCES, ENOMEM}, "ok",
     "KernelNetNsInfo::Manager cannot watch {tmp}/netns, errno: {errno}",
     "namespaces found once; the watch tried again every second, the directory scanned again once it holds; traced once"},
    {&pamOpen, {Kind::socketAt}, {EPERM, ENOBUFS}, "fails",
     "EthDevPam::enabled failed to create socket on et1, errno: {errno}", "not enabled; raised and traced"},
    {&pamOpen, {Kind::socketAt}, {EMFILE, ENFILE}, "fails",
     "cannot open Pam socket for Pam et1 in namespace default, errno: {errno} (out of descriptors)",
     "not enabled; raised, traced once while the shortage lasts"},
    {&pamOpen, {Kind::ioctl}, {ENODEV}, "fails", "EthDevPam::enabled failed to find ifindex on et1, errno: {errno}",
     "not enabled: no such device; ifindex stays 0"},
    {&pamOpen, OPTION(setsockopt, SOL_PACKET, PACKET_AUXDATA), {ENOPROTOOPT, ENOMEM}, "fails",
     "EthDevPam::enabled failed to set PACKET_AUXDATA on et1, errno: {errno}",
     "not enabled, raised and traced; socket closed, ifindex put back"},
    {&pamOpen, OPTION(setsockopt, SOL_SOCKET, SO_TIMESTAMPNS), {EINVAL}, "fails",
     "EthDevPam::enabled failed to set TIMESTAMPNS on et1, errno: {errno}", "not enabled; socket closed"},
    {&pamOpen, OPTION(setsockopt, SOL_SOCKET, SO_PRIORITY), {EPERM}, "fails",
     "EthDevPam::enabled failed to set PRIORITY on et1, errno: {errno}", "not enabled; socket closed"},
    {&pamOpen, OPTION(setsockopt, SOL_SOCKET, SO_RCVBUFFORCE), {EPERM, ENOBUFS}, "fails",
     "EthDevPam::enabled failed to set rcvbuf size on et1, errno: {errno}",
     "not enabled (EPERM: no CAP_NET_ADMIN); socket closed"},
    {&pamOpen, OPTION(setsockopt, SOL_SOCKET, SO_ATTACH_FILTER), {ENOMEM, EINVAL}, "fails",
     "EthDevPam::enabled failed to attach filter on et1, errno: {errno}",
     "not enabled: no frame gets past a filter that is not there"},
    {&pamOpen, {Kind::bind}, {ENODEV, ENETDOWN}, "fails", "EthDevPam::enabled failed to bind on et1, errno: {errno}",
     "not enabled; socket closed, ifindex put back"},
    {&pamOpen, OPTION(setsockopt, SOL_SOCKET, SO_BROADCAST), {EINVAL}, "fails",
     "EthDevPam::enabled failed to set broadcast flag on et1, errno: {errno}", "not enabled; bound socket closed"},
    {&pamOpen, OPTION(setsockopt, SOL_PACKET, PACKET_ADD_MEMBERSHIP), {ENOBUFS, ENODEV}, "fails",
     "EthDevPam::enabled failed to set allMulticast on et1, errno: {errno}", "not enabled; bound socket closed"},
    {&pamNewFilter, OPTION(setsockopt, SOL_SOCKET, SO_ATTACH_FILTER), {EINVAL, ENOMEM}, "fails",
     "EthDevPam::filterProgram failed to attach filter on et1, errno: {errno}",
     "raised and traced; the filter in force stays"},
    {&pamRead, {Kind::recvmsg}, {ENOMEM, ENETDOWN}, "not read, rxErrors +1",
     "EthDevPam et1: recvmsg failed on sd {sd} with errno {errno} ({strerror})",
     "rxErrors counts it, traced; the frame is read on the next pass"},
    {&pamRead, {Kind::recvmsg}, {EINTR, EAGAIN}, "not read", "", "nothing; the frame is read on the next pass"},
    {&pamReadBulk, {Kind::recvmmsg}, {ENOBUFS}, "not read, rxErrors +1",
     "EthDevPam et1: recvmmsg failed on sd {sd} with errno {errno} ({strerror})",
     "rxErrors counts it, traced; the frames are read on the next pass"},
    {&pamReadBulk, {Kind::recvmmsg}, {EINTR}, "not read", "", "nothing; the frames are read on the next pass"},
    {&bundleSocket, {Kind::socketAt}, {EPERM}, "fails",
     "EthDevPamBundle::enabled failed to create socket, errno: {errno}", "no socket for the interface; traced"},
    {&bundleSocket, {Kind::socketAt}, {EMFILE, ENFILE}, "fails",
     "cannot open bundle socket for bundle in namespace default, errno: {errno} (out of descriptors)",
     "no socket for the interface; traced once while the shortage lasts"},
    {&bundleSocket, OPTION(setsockopt, SOL_PACKET, PACKET_AUXDATA), {ENOPROTOOPT}, "fails",
     "EthDevPamBundle::enabled failed to set PACKET_AUXDATA, errno: {errno}", "no socket; traced"},
    {&bundleSocket, OPTION(setsockopt, SOL_SOCKET, SO_TIMESTAMPNS), {EINVAL}, "fails",
     "EthDevPamBundle::enabled failed to set TIMESTAMPNS, errno: {errno}", "no socket; traced"},
    {&bundleSocket, OPTION(setsockopt, SOL_SOCKET, SO_PRIORITY), {EPERM}, "fails",
     "EthDevPamBundle::enabled failed to set PRIORITY, errno: {errno}", "no socket; traced"},
    {&bundleSocket, OPTION(setsockopt, SOL_PACKET, PACKET_VERSION), {EINVAL}, "fails",
     "EthDevPamBundle::enabled failed to set PACKET_VERSION, errno: {errno}", "no socket: no TPACKET_V2 here"},
    {&bundleSocket, OPTION(setsockopt, SOL_PACKET, PACKET_RX_RING), {ENOMEM, EINVAL, EBUSY}, "fails",
     "EthDevPamBundle::enabled failed to set PACKET_RX_RING (rxRingBlockSize 65536, rxRingBlockCount 64, "
     "rxRingFrameSize 1600), errno: {errno}",
     "no socket; the ring's geometry named"},
    {&bundleSocket, {Kind::mmap}, {ENOMEM, EAGAIN, EPERM}, "fails",
     "EthDevPamBundle::enabled failed to map the ring, errno: {errno}", "no socket (EAGAIN: locked memory limit)"},
    {&bundleSocket, OPTION(setsockopt, SOL_SOCKET, SO_RCVBUFFORCE), {EPERM, ENOBUFS}, "fails",
     "EthDevPamBundle::failed to set rcvbuf size, errno: {errno}", "no socket; ring unmapped, sizes as before"},
    {&bundleSocket, OPTION(setsockopt, SOL_PACKET, PACKET_RLIMIT_INTF_SIZE), {ENOMEM}, "fails",
     "configureRlimitIntfSize: failed to set RLIMIT_INTF_SIZE: 212992, errno: {errno}", "no socket; sizes as before"},
    {&bundleSocket, OPTION(getsockopt, SOL_SOCKET, SO_RCVBUF), {EINVAL}, "ok",
     "EthDevPamBundle::failed to get rcvbuf size, errno: {errno}", "opened; the buffer granted reads 0; traced"},
    {&bundleSocket, OPTION(setsockopt, SOL_SOCKET, SO_ATTACH_FILTER), {ENOMEM, EINVAL}, "fails",
     "Failed to attach filter, sd: {sd} errno: {errno}", "no socket: no frame gets past a filter that is not there"},
    {&bundleSocket, {Kind::bind}, {ENODEV, ENETDOWN}, "fails",
     "EthDevPamBundle::doSocketCreateProto failed to bind, errno: {errno}", "no socket; traced"},
    {&bundleSocket, OPTION(setsockopt, SOL_SOCKET, SO_BROADCAST), {EINVAL}, "fails",
     "EthDevPamBundle::doSocketCreateProto failed to set broadcast flag, errno: {errno}", "no socket; bound socket closed"},
    {&bundleFilter, {Kind::socketAt}, {EMFILE, ENFILE}, "fails",
     "cannot open bundle scratch socket for bundle in namespace default, errno: {errno} (out of descriptors)",
     "the filter is not taken; raised and traced"},
    {&bundleFilter, OPTION(setsockopt, SOL_SOCKET, SO_ATTACH_FILTER), {EINVAL, ENOMEM}, "fails",
     "EthDevPamBundle::filterProgram refused by the kernel, errno: {errno}",
     "the filter is not taken; the scratch socket closed"},
    {&bundleRelease, {Kind::munmap}, {EINVAL}, "ok", "EthDevPamBundle::failed to unmap the ring, errno: {errno}",
     "socket closed; the refusal traced"},
    {&bundleRead, {Kind::recvmsg}, {ENOMEM, ENETDOWN, EINTR}, "not read, rxErrors +1",
     "recvmsg failed for common sd {sd} with errno {errno} ({strerror})",
     "rxErrors counts it (EINTR too), traced; the frame is read on the next event"},
    {&bundleRead, {Kind::recvmsg}, {EAGAIN}, "not read", "", "nothing; the frame is read on the next event"},
    {&bundleReadBulk, {Kind::recvmmsg}, {ENOBUFS, EINTR}, "not read, rxErrors +1",
     "recvmmsg failed for common sd {sd} with errno {errno} ({strerror})",
     "rxErrors counts it (EINTR too), traced; the frames are read on the next event"},
    {&kniEnable, {Kind::socketAt}, {ENOENT}, "fails",
     "KernelNetInfo::Status socket failed in namespace blue, errno: {errno}",
     "not enabled: no such namespace; raised and traced"},
    {&kniEnable, {Kind::socketAt}, {EMFILE, ENFILE}, "ok",
     "cannot open KernelNetInfo::Status netlink socket for status kni in namespace blue, errno: {errno} (out of "
     "descriptors)",
     "enabled, nothing raised, not yet synced: traced once, the socket tried again every second"},
    {&kniEnable, OPTION(setsockopt, SOL_SOCKET, SO_RCVBUFFORCE), {EPERM}, "ok", "",
     "enabled; without CAP_NET_ADMIN the buffer is as large as the system allows"},
    {&kniEnable, OPTION(setsockopt, SOL_SOCKET, SO_RCVBUFFORCE), {ENOMEM}, "fails",
     "KernelNetInfo::Status setsockopt SO_RCVBUF failed in namespace blue, errno: {errno}", "not enabled; socket closed"},
    {&kniEnable, {Kind::bind}, {ENOMEM}, "fails", "KernelNetInfo::Status bind failed in namespace blue, errno: {errno}",
     "not enabled; socket closed"},
    {&kniEnable, OPTION(setsockopt, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP), {ENOMEM}, "fails",
     "KernelNetInfo::Status setsockopt NETLINK_ADD_MEMBERSHIP failed in namespace blue, errno: {errno}",
     "not enabled; socket closed"},
    {&kniEnable, {Kind::sendto}, {ENOBUFS, ENOMEM}, "fails",
     "KernelNetInfo::Status sendto failed in namespace blue, errno: {errno}", "not enabled; socket closed, not watched"},
    {&kniEnable, {Kind::poll}, {EINTR}, "ok", "", "enabled; the wait for the first dump goes on"},
    {&kniEnable, {Kind::recvmsg}, {EINTR}, "ok", "", "enabled; the read goes on"},
    {&kniEnable, {Kind::recvmsg}, {ENOBUFS}, "ok",
     "KernelNetInfo::Status lost events in namespace blue (ENOBUFS); dumping again", "enabled; a re-dump is due"},
    {&kniRcvBuf, OPTION(setsockopt, SOL_SOCKET, SO_RCVBUFFORCE), {EPERM}, "ok", "",
     "grown as far as the system allows (no CAP_NET_ADMIN)"},
    {&kniRcvBuf, OPTION(setsockopt, SOL_SOCKET, SO_RCVBUFFORCE), {ENOMEM}, "fails",
     "KernelNetInfo::Status setsockopt SO_RCVBUF failed in namespace blue, errno: {errno}",
     "raised and traced; the size in force stays"},
    {&operStateSet, {Kind::sendto}, {ENOBUFS, EPERM}, "fails", "", "false with the errno: the socket is broken"},
    {&operStateSet, {Kind::sendto}, {EINTR}, "ok", "", "sent again; true"},
    {&operStateSet, {Kind::recvmsg}, {EINTR, ENOBUFS}, "ok", "", "true; the answer is looked for past it"},
    {&operStateSet, {Kind::recvmsg}, {EAGAIN}, "ok", "", "true; no answer yet (level 1), dropped by the next request"},
    {&operStateSet, {Kind::recvmsg}, {ENOMEM}, "ok", "IFLA_OPERSTATE 6 for device et1: answer not read: {strerror}",
     "true; the unread answer traced"},
};

struct Row {
  Rows const & rows;
  int error;
};

std::vector<Row> rows() {
  std::vector<Row> out;
  for (Rows const & r : table) {
    for (int error : r.errors) out.push_back({r, error});
  }
  return out;
}

// `text` with each key of `keys` replaced by its value.
std::string replaced(std::string text, std::vector<std::pair<std::string, std::string>> const & keys) {
  for (auto const & [key, value] : keys) {
    for (size_t at; (at = text.find(key)) != std::string::npos;) text.replace(at, key.size(), value);
  }
  return text;
}

// `text` with the row's {errno}, {strerror}, {sd} and {tmp}.
std::string expanded(std::string const & text, int error, World const & w) {
  return replaced(text, {{"{errno}", std::to_string(error)}, {"{strerror}", std::strerror(error)}, {"{sd}", std::to_string(w.sd)},
                         {"{tmp}", w.tmp.path()}});
}

// Whether a recorded call is the one a row fails.
bool matches(FakePlatform::Call const & c, Call const & call, World const & w) {
  if (call.level || call.option) return c.a == call.level && c.b == call.option;
  return !call.what || c.text == expanded(call.what, 0, w);
}

std::string callText(Call const & call) {
  return std::string(IntfsmTest::kindName(call.kind)) + (call.what ? std::string(" ") + call.what : "");
}

std::string markdown() {
  std::ostringstream os;
  os << "# What a user sees when a system call fails\n\n"
        "Generated from the rows of tests/unit/faults/FaultTableTest.cpp (`cmake --build build --target failures-md`);\n"
        "the test fails when this file and the rows differ. Each row fails one call once; afterwards nothing is\n"
        "left open or mapped, nothing half-built is published, and the same operation succeeds again.\n"
        "Traces are at level 0; `{sd}` stands for the socket's descriptor, `{tmp}` for the directory above the\n"
        "watched namespace directory (`{tmp}/netns` stands for /run/netns).\n\n"
        "| Path | Operation | Failing call | errno | Result | Trace | What the user sees |\n"
        "|---|---|---|---|---|---|---|\n";
  for (Row const & row : rows()) {
    Rows const & r = row.rows;
    std::string const trace =
        replaced(r.trace, {{"{errno}", std::to_string(row.error)}, {"{strerror}", std::strerror(row.error)}, {" | ", " / "}});
    std::string const result = std::string(r.result) == "fails" ? failsWith(row.error) : r.result;
    os << "| " << r.op->path << " | " << r.op->name << " | `" << callText(r.call) << "` | " << strerrorname_np(row.error)
       << " | " << result << " | " << (trace.empty() ? "" : "`" + trace + "`") << " | " << r.sees << " |\n";
  }
  return os.str();
}

TEST(FaultTable, EachFailingCallLeavesNothingBehindAndTheOperationWorksAgain) {
  EXPECT_GE(rows().size(), 40u);
  for (Row const & row : rows()) {
    Rows const & r = row.rows;
    SCOPED_TRACE(std::string(r.op->name) + ": " + callText(r.call) + " " + strerrorname_np(row.error));
    int const descriptors = IntfsmTest::openDescriptorCount();
    {
      World w;
      Subject subject = r.op->make(w);
      std::string const before = subject.state();
      std::vector<int> const open = w.fake.openDescriptors();
      size_t const mappings = w.fake.openMappings();
      w.trace.clear();
      w.fake.clearCalls();
      w.fake.failNext(r.call.kind, row.error, 1, [&](FakePlatform::Call const & c) { return matches(c, r.call, w); });

      bool const fails = std::string(r.result) != "ok";
      EXPECT_EQ(subject.run(), std::string(r.result) == "fails" ? failsWith(row.error) : r.result);
      EXPECT_EQ(w.fake.failuresPending(), 0u) << "the call never came";
      std::string traced;
      for (auto const & line : w.trace.lines()) {
        if (line.level == 0) traced += (traced.empty() ? "" : " | ") + line.text;
      }
      EXPECT_EQ(traced, expanded(r.trace, row.error, w));
      if (fails) {
        EXPECT_EQ(subject.state(), before);
        EXPECT_EQ(w.fake.openDescriptors(), open);
        EXPECT_EQ(w.fake.openMappings(), mappings);
      } else {
        subject.undo();
      }
      EXPECT_EQ(subject.run(), "ok") << "the fault gone, it works again";
      subject.undo();
      subject = {};
      EXPECT_EQ(w.fake.openDescriptors(), std::vector<int>()) << "left open when everything is gone";
      // A mapping the kernel refused to give back stays: nothing more can be done with it.
      EXPECT_EQ(w.fake.openMappings(), r.call.kind == Kind::munmap ? 1u : 0u);
    }
    EXPECT_EQ(IntfsmTest::openDescriptorCount(), descriptors);
  }
}

TEST(FaultTable, DocsFailuresMdIsWhatTheRowsPrint) {
  std::string const path = std::string(INTFSM_SOURCE_DIR) + "/docs/failures.md";
  if (std::getenv("INTFSM_WRITE_FAILURES_MD")) std::ofstream(path) << markdown();
  std::stringstream committed;
  committed << std::ifstream(path).rdbuf();
  EXPECT_EQ(committed.str(), markdown()) << "run: cmake --build build --target failures-md";
}

}  // namespace
