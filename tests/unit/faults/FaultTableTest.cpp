// Every system call on the set-up, receive, ring, netlink and namespace paths fails in turn, with each
// errno the kernel really gives it. Each row says what a user sees; the test checks it: the result,
// the exact level-0 traces, no descriptor or mapping left behind, nothing half-built published, and the
// same operation working once the fault is gone. docs/failures.md is these rows printed (the test
// fails when they differ; the target failures-md writes it again).
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/kernel/KernelNetNsManager.h"
#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakePlatform.h"
#include "tests/support/FakeRtnetlink.h"
#include "tests/support/ScopedLoop.h"
#include "tests/support/TempDir.h"
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
  int sd = -1;  // the socket a row's text names as {sd}
  IntfsmTest::TempDir tmp;  // {tmp} in a row's text
};

// One operation a user asks for. run() does it once and says what came of it: "ok", "fails, errno N",
// or what a read left ("not read", with the error counter when it moved). state() is everything the
// operation publishes; a failure must leave it as it was. undo() takes back a success.
struct Subject {
  virtual ~Subject() = default;
  virtual std::string run() = 0;
  virtual std::string state() = 0;
  virtual void undo() {}
};

std::string failsWith(int error) { return "fails, errno " + std::to_string(error); }

template <class F>
std::string raising(F && f) {
  try {
    f();
  } catch (Vorn::ErrnoException const & e) {
    return failsWith(e.errorNumber());
  }
  return "ok";
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

// ---- the operations ----------------------------------------------------------------------------------

// A socket in the namespace "blue", through socketAt's own body. Closing leaves EBADF in errno, so a
// failed step must keep its own.
struct SocketInNamespace : Subject {
  explicit SocketInNamespace(World & w) : w(w) {
    w.fake.behaviour().socketAt = [](int d, int t, int p, char const * ns) {
      return Ovel::socketAtThrough(Platform::calls(), d, t, p, ns);
    };
    w.fake.behaviour().close = [inner = w.fake.behaviour().close](int fd) {
      int const r = inner(fd);
      errno = EBADF;
      return r;
    };
    w.fake.namespaceIs("blue");
  }
  std::string run() override {
    errno = 0;
    int const sd = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, "blue");
    if (sd < 0) return failsWith(errno);
    Platform::calls().close(sd);
    return "ok";
  }
  std::string state() override { return ""; }
  World & w;
};

// A Pam with a socket of its own, every option on, its ifindex looked up by name.
struct PamOwnSocket : Subject {
  explicit PamOwnSocket(World & w) : w(w) {
    w.fake.realSocketsIs(true);
    w.fake.behaviour().ioctl = [](int, unsigned long request, void * argument) {
      static_cast<ifreq *>(argument)->ifr_ifindex = 7;
      return request == SIOCGIFINDEX ? 0 : (errno = ENOTTY, -1);
    };
    pam->perIntfSocketIs(true);
    pam->separateDot1QHdrIs(true);
    pam->sockPrioIs(5);
    pam->sockRcvBufIs(1 << 20);
    pam->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});
    pam->broadcastIs(true);
    pam->allMulticastIs(true);
  }
  std::string run() override {
    std::string const result = raising([&] { pam->enabledIs(true); });
    w.sd = pam->sd();
    return result;
  }
  std::string state() override {
    return "enabled " + std::to_string(pam->enabled()) + " sd " + std::to_string(pam->sd()) + " ifIndex " +
           std::to_string(pam->ifIndex()) + " watches " + std::to_string(w.loop.watches());
  }
  void undo() override { pam->enabledIs(false); }
  World & w;
  Ptr<Ovel::EthDevPam> pam = new Ovel::EthDevPam("et1");
};

// A frame waiting on a Pam's own socket, read when the loop sees it readable.
struct PamReceive : Subject {
  PamReceive(World & w, bool bulk) : w(w) {
    w.fake.realSocketsIs(true);
    pam->ifIndexIs(7);
    pam->perIntfSocketIs(true);
    pam->pktReuseIs(bulk);
    pam->enableBulkPamReadIs(bulk);
    pam->enabledIs(true);
    w.sd = pam->sd();
    reader = new Reader(pam);
    sockaddr_storage from{};
    reinterpret_cast<sockaddr_ll &>(from) = sockaddr_ll{AF_PACKET, 0, 7, 0, PACKET_HOST, 0, {}};
    w.fake.queueDatagram(pam->sd(), std::string(60, 'f'), &from);
  }
  std::string run() override {
    uint32_t const errors = pam->rxErrors();
    int const before = reader->frames;
    w.loop.runOnce(0);
    if (reader->frames > before) return "ok";
    return pam->rxErrors() > errors ? "not read, rxErrors +1" : "not read";
  }
  std::string state() override { return "frames " + std::to_string(reader->frames); }
  World & w;
  Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle("et1");
  Ptr<Reader> reader;
};

// The first interface of a bundle opens its shared socket, with a receive ring and every option on.
struct BundleSocket : Subject {
  explicit BundleSocket(World & w) : w(w) {
    w.fake.realSocketsIs(true);  // watched on the loop
    bundle->ethProtocolIs(0x88b5);
    bundle->separateDot1QHdrIs(true);
    bundle->sockPrioIs(3);
    bundle->broadcastIs(true);
    bundle->rxRingIs(true);
    bundle->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffff}});
    w.fake.fileIs("/proc/net/packet_rlimit_stats");
  }
  std::string run() override {
    std::string const result = raising([&] { bundle->doGetSd("et1"); });
    auto const opened = w.fake.calls(Kind::socketAt);
    w.sd = opened.empty() ? -1 : int(opened.back().result);
    return result;
  }
  std::string state() override {
    std::ostringstream os;
    os << "sd " << bundle->sd() << " refs " << bundle->sdRef() << " rcvbuf " << bundle->sockRcvBuf() << "/"
       << bundle->perIntfSockRcvBuf() << "/" << bundle->allocRcvBuf() << " watched " << bool(bundle->fileDesc())
       << " ring " << bundle->rxRingMapped(bundle->sd());
    return os.str();
  }
  void undo() override { bundle->doUnrefSd(bundle->sd()); }
  World & w;
  Ptr<Interface::PamDesiredIntfDir> desired = Interface::pamDesiredIntfDirFactory("desired");
  Ptr<Interface::DeviceIntfStatusDir> devices = Interface::deviceIntfStatusDirFactory("devices");
  Ptr<Interface::EthDevPamCollection> pams = Interface::ethDevPamCollectionFactory("pams");
  Ptr<Interface::EthDevPamBundle> bundle = new Interface::EthDevPamBundle(desired, devices, pams);
};

// The last interface of a bundle with a receive ring leaves: the ring is unmapped, the socket closed.
struct BundleClose : BundleSocket {
  explicit BundleClose(World & w) : BundleSocket(w) { sd = bundle->doGetSd("et1"); }
  std::string run() override {
    if (bundle->sd() < 0) sd = bundle->doGetSd("et1");
    w.sd = sd;
    bundle->doUnrefSd(sd);
    return bundle->sd() < 0 ? "ok" : "still open";
  }
  std::string state() override { return "sd " + std::to_string(bundle->sd()); }
  void undo() override {}
  int sd = -1;
};

// A frame on a bundle's shared socket, found its Pam by ifindex.
struct BundleReceive : BundleSocket {
  BundleReceive(World & w, bool bulk) : BundleSocket(w) {
    w.sd = w.fake.behaviour().socketAt(0, 0, 0, nullptr);
    devices->intfStatusByIfIndexIs(7, {nullptr, "cpu", 7});
    pam->ifIndexIs(7);
    pam->sdIs(w.sd);
    pam->enabledIs(true);
    pams->intfPamIs(Ovel::IntfId("Cpu"), pam);
    reader = new Reader(pam);
    bundle->pktReuseIs(bulk);
    bundle->enableBulkPamReadIs(bulk);
    bundle->enabledIs(true);
    bundle->currActiveSdIs(w.sd);
    sockaddr_storage from{};
    reinterpret_cast<sockaddr_ll &>(from).sll_ifindex = 7;
    w.fake.queueDatagram(w.sd, std::string(60, 'f'), &from);
  }
  ~BundleReceive() override { Platform::calls().close(w.sd); }  // the manager's socket, not the bundle's
  std::string run() override {
    uint32_t const errors = bundle->rxErrors();
    int const before = reader->frames;
    bundle->doGetRxPkt();
    if (reader->frames > before) return "ok";
    return bundle->rxErrors() > errors ? "not read, rxErrors +1" : "not read";
  }
  std::string state() override { return "frames " + std::to_string(reader->frames); }
  void undo() override {}
  Ptr<Ovel::EthDevPamInBundle> pam = new Ovel::EthDevPamInBundle("cpu");
  Ptr<Reader> reader;
};

// The kernel information of the namespace "blue": subscribed, dumped, watched.
struct KernelInfo : Subject {
  explicit KernelInfo(World & w) : w(w) {
    kernel.linkIs(1, IFF_UP | IFF_LOOPBACK | IFF_RUNNING, "lo");
    kernel.linkIs(3, IFF_UP, "va0");
  }
  ~KernelInfo() override { status = nullptr; }
  std::string run() override {
    std::string const result = raising([&] { status->enabledIs(true); });
    w.sd = status->descriptor();
    return result;
  }
  std::string state() override {
    std::ostringstream os;
    os << "enabled " << status->enabled() << " open " << (status->descriptor() >= 0) << " synced " << status->synced()
       << " devices " << status->root()->interfaceByIfIndexs() << " watches " << w.loop.watches();
    return os.str();
  }
  void undo() override { status->enabledIs(false); }
  World & w;
  IntfsmTest::FakeRtnetlink kernel{w.fake};
  Ptr<KernelNetInfo::Status> status =
      KernelNetInfo::Status::statusNew("kni", Ovel::NamespaceName(Vorn::String("blue")), nullptr, w.loop);
};

// An oper-state request for et1 over a netlink socket, the kernel answering it at once.
struct OperStateRequest : Subject {
  explicit OperStateRequest(World & w) : w(w) {
    w.fake.behaviour().setNetlinkOperState = &Interface::sendNetlinkOperState;
    w.sd = Platform::calls().socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
    w.fake.behaviour().sendto = [this, inner = w.fake.behaviour().sendto](int fd, void const * data, size_t length,
                                                                         int flags, sockaddr const * to, socklen_t n) {
      struct {
        nlmsghdr header;
        nlmsgerr error;
      } ack{{sizeof ack, NLMSG_ERROR, 0, static_cast<nlmsghdr const *>(data)->nlmsg_seq, 0}, {}};
      this->w.fake.queueDatagram(fd, std::string(reinterpret_cast<char const *>(&ack), sizeof ack));
      return inner(fd, data, length, flags, to, n);
    };
  }
  ~OperStateRequest() override { Platform::calls().close(w.sd); }
  std::string run() override {
    errno = 0;
    bool const sent = Interface::doSetNetlinkOperState(w.sd, "et1", 111, IF_OPER_UP);
    int const error = errno;
    while (w.fake.queuedDatagrams(w.sd)) {  // an answer left unread is the next request's to drain
      msghdr m{};
      Platform::calls().recvmsg(w.sd, &m, MSG_DONTWAIT);
    }
    return sent ? "ok" : failsWith(error);
  }
  std::string state() override { return ""; }
  World & w;
};

// The directory of named namespaces watched (one of the test's own, {tmp}/netns, as /run/netns).
struct NamespaceWatch : Subject {
  explicit NamespaceWatch(World & w) : w(w) { EXPECT_EQ(::mkdir(dir.c_str(), 0755), 0); }
  ~NamespaceWatch() override { manager = nullptr; }
  std::string run() override { return raising([&] { manager->hasNotificationActiveIs(true); }); }
  std::string state() override {
    std::ostringstream os;
    os << "active " << manager->hasNotificationActive() << " watched " << manager->directoryWatched() << " watches "
       << w.loop.watches() << " namespaces " << root->netNsByNames();
    return os.str();
  }
  void undo() override { manager->hasNotificationActiveIs(false); }
  World & w;
  std::string const dir = w.tmp.path() + "/netns";
  Ptr<KernelNetNsInfo::Root> root = KernelNetNsInfo::Root::rootNew("netNs");
  Ptr<KernelNetNsInfo::Manager> manager = KernelNetNsInfo::ManagerIs(root, Vorn::String(dir), w.loop);
};

// ---- the table ---------------------------------------------------------------------------------------

enum class Op { socketAt, netNsWatch, pamEnable, pamRead, pamReadBulk, bundleOpen, bundleClose, bundleRead, bundleReadBulk, kernelInfo, operState };

struct OpInfo {
  char const * path;
  char const * name;
  std::function<std::unique_ptr<Subject>(World &)> make;
};

OpInfo const & info(Op op) {
  static OpInfo const infos[] = {
      {"namespace", "socketAt in namespace blue", [](World & w) { return std::make_unique<SocketInNamespace>(w); }},
      {"namespace", "watch the namespace directory", [](World & w) { return std::make_unique<NamespaceWatch>(w); }},
      {"socket set-up", "enable a Pam's own socket", [](World & w) { return std::make_unique<PamOwnSocket>(w); }},
      {"receive", "read a Pam's own socket", [](World & w) { return std::make_unique<PamReceive>(w, false); }},
      {"receive", "read a Pam's own socket in bulk", [](World & w) { return std::make_unique<PamReceive>(w, true); }},
      {"socket set-up, ring", "open a bundle socket (ring on)", [](World & w) { return std::make_unique<BundleSocket>(w); }},
      {"ring", "close a bundle socket (ring on)", [](World & w) { return std::make_unique<BundleClose>(w); }},
      {"receive", "read a bundle socket", [](World & w) { return std::make_unique<BundleReceive>(w, false); }},
      {"receive", "read a bundle socket in bulk", [](World & w) { return std::make_unique<BundleReceive>(w, true); }},
      {"netlink", "enable the kernel information of blue", [](World & w) { return std::make_unique<KernelInfo>(w); }},
      {"netlink", "set et1's oper-state", [](World & w) { return std::make_unique<OperStateRequest>(w); }},
  };
  return infos[static_cast<size_t>(op)];
}

// The call that fails: of `kind`, for setsockopt and getsockopt only `option` of `level`, for open only
// `path`; once.
struct Fault {
  Kind kind;
  int error;
  int level = 0;
  int option = 0;
  char const * path = nullptr;
};

struct Row {
  Op op;
  Fault fault;
  char const * result;  // what run() says
  char const * trace;   // the level-0 traces, " | " between them; {sd} is the socket
  char const * sees;    // what the user sees, in a line
};

char const * const blueNs = "/run/netns/blue";
char const * const ownNs = "/proc/thread-self/ns/net";
int const rlimitIntfSize = 19;

std::vector<Row> const rows = {
    // socketAt: every step undone, the step's own errno returned.
    {Op::socketAt, {Kind::open, ENOENT, 0, 0, blueNs}, "fails, errno 2", "", "no socket; errno ENOENT: no such namespace"},
    {Op::socketAt, {Kind::open, EACCES, 0, 0, blueNs}, "fails, errno 13", "", "no socket; errno EACCES; nothing opened"},
    {Op::socketAt, {Kind::open, EMFILE, 0, 0, blueNs}, "fails, errno 24", "", "no socket; errno EMFILE"},
    {Op::socketAt, {Kind::open, ENFILE, 0, 0, blueNs}, "fails, errno 23", "", "no socket; errno ENFILE"},
    {Op::socketAt, {Kind::open, ENOMEM, 0, 0, blueNs}, "fails, errno 12", "", "no socket; errno ENOMEM"},
    {Op::socketAt, {Kind::open, EMFILE, 0, 0, ownNs}, "fails, errno 24", "", "no socket; the namespace file is closed again"},
    {Op::socketAt, {Kind::open, ENFILE, 0, 0, ownNs}, "fails, errno 23", "", "no socket; the namespace file is closed again"},
    {Op::socketAt, {Kind::setns, EPERM}, "fails, errno 1", "", "no socket; both namespace files closed, thread not moved"},
    {Op::socketAt, {Kind::setns, EINVAL}, "fails, errno 22", "", "no socket; both namespace files closed"},
    {Op::socketAt, {Kind::setns, ENOMEM}, "fails, errno 12", "", "no socket; both namespace files closed"},
    {Op::socketAt, {Kind::socket, EPERM}, "fails, errno 1", "", "no socket; the thread is back in its namespace"},
    {Op::socketAt, {Kind::socket, EACCES}, "fails, errno 13", "", "no socket; the thread is back in its namespace"},
    {Op::socketAt, {Kind::socket, EMFILE}, "fails, errno 24", "", "no socket; the thread is back, both files closed"},
    {Op::socketAt, {Kind::socket, ENFILE}, "fails, errno 23", "", "no socket; the thread is back, both files closed"},
    {Op::socketAt, {Kind::socket, ENOBUFS}, "fails, errno 105", "", "no socket; the thread is back, both files closed"},
    {Op::socketAt, {Kind::socket, ENOMEM}, "fails, errno 12", "", "no socket; the thread is back, both files closed"},
    // Watching the namespace directory: without inotify nothing is watched; without a watch, traced.
    {Op::netNsWatch, {Kind::inotify_init1, EMFILE}, "fails, errno 24", "KernelNetNsInfo::Manager inotify_init1 failed, errno: 24",
     "not watching; error raised and traced"},
    {Op::netNsWatch, {Kind::inotify_init1, ENFILE}, "fails, errno 23", "KernelNetNsInfo::Manager inotify_init1 failed, errno: 23",
     "not watching; error raised and traced"},
    {Op::netNsWatch, {Kind::inotify_init1, ENOMEM}, "fails, errno 12", "KernelNetNsInfo::Manager inotify_init1 failed, errno: 12",
     "not watching; error raised and traced"},
    {Op::netNsWatch, {Kind::inotify_add_watch, ENOSPC, 0, 0, "{tmp}"}, "ok",
     "KernelNetNsInfo::Manager cannot watch {tmp}, errno: 28; {tmp}/netns is followed only while it exists",
     "watching, but a removed and re-made directory is not seen again (watch limit)"},
    {Op::netNsWatch, {Kind::inotify_add_watch, ENOSPC, 0, 0, "{tmp}/netns"}, "ok",
     "KernelNetNsInfo::Manager cannot watch {tmp}/netns, errno: 28",
     "namespaces found once, changes not followed (watch limit); traced"},
    {Op::netNsWatch, {Kind::inotify_add_watch, EACCES, 0, 0, "{tmp}/netns"}, "ok",
     "KernelNetNsInfo::Manager cannot watch {tmp}/netns, errno: 13", "namespaces found once, changes not followed; traced"},
    {Op::netNsWatch, {Kind::inotify_add_watch, ENOMEM, 0, 0, "{tmp}/netns"}, "ok",
     "KernelNetNsInfo::Manager cannot watch {tmp}/netns, errno: 12", "namespaces found once, changes not followed; traced"},
    // A Pam's own socket: one trace, the same text raised, the socket closed, the ifindex as it was.
    {Op::pamEnable, {Kind::socketAt, EPERM}, "fails, errno 1", "EthDevPam::enabled failed to create socket on et1, errno: 1",
     "not enabled (no CAP_NET_RAW); error raised and traced"},
    {Op::pamEnable, {Kind::socketAt, EMFILE}, "fails, errno 24", "EthDevPam::enabled failed to create socket on et1, errno: 24",
     "not enabled; error raised and traced"},
    {Op::pamEnable, {Kind::socketAt, ENFILE}, "fails, errno 23", "EthDevPam::enabled failed to create socket on et1, errno: 23",
     "not enabled; error raised and traced"},
    {Op::pamEnable, {Kind::socketAt, ENOBUFS}, "fails, errno 105", "EthDevPam::enabled failed to create socket on et1, errno: 105",
     "not enabled; error raised and traced"},
    {Op::pamEnable, {Kind::ioctl, ENODEV}, "fails, errno 19", "EthDevPam::enabled failed to find ifindex on et1, errno: 19",
     "not enabled: no such device; ifindex stays 0"},
    {Op::pamEnable, {Kind::setsockopt, ENOPROTOOPT, SOL_PACKET, PACKET_AUXDATA}, "fails, errno 92",
     "EthDevPam::enabled failed to set PACKET_AUXDATA on et1, errno: 92", "not enabled; socket closed, ifindex put back"},
    {Op::pamEnable, {Kind::setsockopt, EINVAL, SOL_SOCKET, SO_TIMESTAMPNS}, "fails, errno 22",
     "EthDevPam::enabled failed to set TIMESTAMPNS on et1, errno: 22", "not enabled; socket closed"},
    {Op::pamEnable, {Kind::setsockopt, EPERM, SOL_SOCKET, SO_PRIORITY}, "fails, errno 1",
     "EthDevPam::enabled failed to set PRIORITY on et1, errno: 1", "not enabled; socket closed"},
    {Op::pamEnable, {Kind::setsockopt, EPERM, SOL_SOCKET, SO_RCVBUFFORCE}, "fails, errno 1",
     "EthDevPam::enabled failed to set rcvbuf size on et1, errno: 1", "not enabled (no CAP_NET_ADMIN); socket closed"},
    {Op::pamEnable, {Kind::setsockopt, ENOMEM, SOL_SOCKET, SO_ATTACH_FILTER}, "fails, errno 12",
     "EthDevPam::enabled failed to attach filter on et1, errno: 12", "not enabled; no frame got past a missing filter"},
    {Op::pamEnable, {Kind::setsockopt, EINVAL, SOL_SOCKET, SO_ATTACH_FILTER}, "fails, errno 22",
     "EthDevPam::enabled failed to attach filter on et1, errno: 22", "not enabled: the kernel refuses the program"},
    {Op::pamEnable, {Kind::bind, ENODEV}, "fails, errno 19", "EthDevPam::enabled failed to bind on et1, errno: 19",
     "not enabled: the device went away; ifindex put back"},
    {Op::pamEnable, {Kind::bind, ENETDOWN}, "fails, errno 100", "EthDevPam::enabled failed to bind on et1, errno: 100",
     "not enabled; socket closed"},
    {Op::pamEnable, {Kind::setsockopt, EINVAL, SOL_SOCKET, SO_BROADCAST}, "fails, errno 22",
     "EthDevPam::enabled failed to set broadcast flag on et1, errno: 22", "not enabled; bound socket closed"},
    {Op::pamEnable, {Kind::setsockopt, ENOBUFS, SOL_PACKET, PACKET_ADD_MEMBERSHIP}, "fails, errno 105",
     "EthDevPam::enabled failed to set allMulticast on et1, errno: 105", "not enabled; bound socket closed"},
    {Op::pamEnable, {Kind::setsockopt, ENODEV, SOL_PACKET, PACKET_ADD_MEMBERSHIP}, "fails, errno 19",
     "EthDevPam::enabled failed to set allMulticast on et1, errno: 19", "not enabled; bound socket closed"},
    // Reading a Pam's own socket: the frame stays queued and is read on the next pass.
    {Op::pamRead, {Kind::recvmsg, ENOMEM}, "not read, rxErrors +1",
     "EthDevPam et1: recvmsg failed on sd {sd} with errno 12 (Cannot allocate memory)", "rxErrors counts it; traced"},
    {Op::pamRead, {Kind::recvmsg, ENETDOWN}, "not read, rxErrors +1",
     "EthDevPam et1: recvmsg failed on sd {sd} with errno 100 (Network is down)", "rxErrors counts it; traced"},
    {Op::pamRead, {Kind::recvmsg, EINTR}, "not read", "", "nothing; the frame comes on the next pass"},
    {Op::pamRead, {Kind::recvmsg, EAGAIN}, "not read", "", "nothing; the frame comes on the next pass"},
    {Op::pamReadBulk, {Kind::recvmmsg, ENOBUFS}, "not read, rxErrors +1",
     "EthDevPam et1: recvmmsg failed on sd {sd} with errno 105 (No buffer space available)", "rxErrors counts it; traced"},
    {Op::pamReadBulk, {Kind::recvmmsg, EINTR}, "not read", "", "nothing; the frames come on the next pass"},
    // A bundle's shared socket: traced, errno raised, socket closed and ring unmapped, sizes as before.
    {Op::bundleOpen, {Kind::socketAt, EMFILE}, "fails, errno 24", "EthDevPamBundle::enabled failed to create socket, errno: 24",
     "no socket for the interface; traced"},
    {Op::bundleOpen, {Kind::socketAt, ENFILE}, "fails, errno 23", "EthDevPamBundle::enabled failed to create socket, errno: 23",
     "no socket for the interface; traced"},
    {Op::bundleOpen, {Kind::socketAt, EPERM}, "fails, errno 1", "EthDevPamBundle::enabled failed to create socket, errno: 1",
     "no socket (no CAP_NET_RAW); traced"},
    {Op::bundleOpen, {Kind::setsockopt, ENOPROTOOPT, SOL_PACKET, PACKET_AUXDATA}, "fails, errno 92",
     "EthDevPamBundle::enabled failed to set PACKET_AUXDATA, errno: 92", "no socket; traced"},
    {Op::bundleOpen, {Kind::setsockopt, EINVAL, SOL_SOCKET, SO_TIMESTAMPNS}, "fails, errno 22",
     "EthDevPamBundle::enabled failed to set TIMESTAMPNS, errno: 22", "no socket; traced"},
    {Op::bundleOpen, {Kind::setsockopt, EPERM, SOL_SOCKET, SO_PRIORITY}, "fails, errno 1",
     "EthDevPamBundle::enabled failed to set PRIORITY, errno: 1", "no socket; traced"},
    {Op::bundleOpen, {Kind::setsockopt, EINVAL, SOL_PACKET, PACKET_VERSION}, "fails, errno 22",
     "EthDevPamBundle::enabled failed to set PACKET_VERSION, errno: 22", "no socket: the kernel has no TPACKET_V2"},
    {Op::bundleOpen, {Kind::setsockopt, ENOMEM, SOL_PACKET, PACKET_RX_RING}, "fails, errno 12",
     "EthDevPamBundle::enabled failed to set PACKET_RX_RING (rxRingBlockSize 65536, rxRingBlockCount 64, rxRingFrameSize "
     "1600), errno: 12",
     "no socket: the kernel cannot lend the ring; its geometry named"},
    {Op::bundleOpen, {Kind::setsockopt, EINVAL, SOL_PACKET, PACKET_RX_RING}, "fails, errno 22",
     "EthDevPamBundle::enabled failed to set PACKET_RX_RING (rxRingBlockSize 65536, rxRingBlockCount 64, rxRingFrameSize "
     "1600), errno: 22",
     "no socket: a geometry the kernel refuses, named"},
    {Op::bundleOpen, {Kind::setsockopt, EBUSY, SOL_PACKET, PACKET_RX_RING}, "fails, errno 16",
     "EthDevPamBundle::enabled failed to set PACKET_RX_RING (rxRingBlockSize 65536, rxRingBlockCount 64, rxRingFrameSize "
     "1600), errno: 16",
     "no socket; traced"},
    {Op::bundleOpen, {Kind::mmap, ENOMEM}, "fails, errno 12", "EthDevPamBundle::enabled failed to map the ring, errno: 12",
     "no socket; traced"},
    {Op::bundleOpen, {Kind::mmap, EAGAIN}, "fails, errno 11", "EthDevPamBundle::enabled failed to map the ring, errno: 11",
     "no socket: locked memory limit; traced"},
    {Op::bundleOpen, {Kind::mmap, EPERM}, "fails, errno 1", "EthDevPamBundle::enabled failed to map the ring, errno: 1",
     "no socket; traced"},
    {Op::bundleOpen, {Kind::setsockopt, EPERM, SOL_SOCKET, SO_RCVBUFFORCE}, "fails, errno 1",
     "EthDevPamBundle::failed to set rcvbuf size, errno: 1", "no socket (no CAP_NET_ADMIN); ring unmapped, sizes as before"},
    {Op::bundleOpen, {Kind::setsockopt, ENOBUFS, SOL_SOCKET, SO_RCVBUFFORCE}, "fails, errno 105",
     "EthDevPamBundle::failed to set rcvbuf size, errno: 105", "no socket; ring unmapped, sizes as before"},
    {Op::bundleOpen, {Kind::setsockopt, ENOMEM, SOL_PACKET, rlimitIntfSize}, "fails, errno 12",
     "configureRlimitIntfSize: failed to set RLIMIT_INTF_SIZE: 212992, errno: 12", "no socket; sizes as before"},
    {Op::bundleOpen, {Kind::getsockopt, EINVAL, SOL_SOCKET, SO_RCVBUF}, "ok", "EthDevPamBundle::failed to get rcvbuf size, errno: 22",
     "opened; the buffer granted reads 0; traced"},
    {Op::bundleOpen, {Kind::setsockopt, ENOMEM, SOL_SOCKET, SO_ATTACH_FILTER}, "fails, errno 12",
     "Failed to attach filter, sd: {sd} errno: 12", "no socket; no frame got past a missing filter"},
    {Op::bundleOpen, {Kind::bind, ENODEV}, "fails, errno 19", "EthDevPamBundle::doSocketCreateProto failed to bind, errno: 19",
     "no socket; traced"},
    {Op::bundleOpen, {Kind::setsockopt, EINVAL, SOL_SOCKET, SO_BROADCAST}, "fails, errno 22",
     "EthDevPamBundle::doSocketCreateProto failed to set broadcast flag, errno: 22", "no socket; bound socket closed"},
    {Op::bundleClose, {Kind::munmap, EINVAL}, "ok", "EthDevPamBundle::failed to unmap the ring, errno: 22",
     "socket closed; the kernel's refusal traced"},
    // Reading a bundle socket.
    {Op::bundleRead, {Kind::recvmsg, ENOMEM}, "not read, rxErrors +1",
     "recvmsg failed for common sd {sd} with errno 12 (Cannot allocate memory)", "rxErrors counts it; traced"},
    {Op::bundleRead, {Kind::recvmsg, EINTR}, "not read", "", "nothing; the frame comes on the next read"},
    {Op::bundleRead, {Kind::recvmsg, EAGAIN}, "not read", "", "nothing: no frame yet"},
    {Op::bundleReadBulk, {Kind::recvmmsg, ENOBUFS}, "not read, rxErrors +1",
     "recvmmsg failed for common sd {sd} with errno 105 (No buffer space available)", "rxErrors counts it; traced"},
    {Op::bundleReadBulk, {Kind::recvmmsg, EINTR}, "not read", "", "nothing; the frames come on the next read"},
    // The kernel information of a namespace: traced, raised, closed; the devices as they were.
    {Op::kernelInfo, {Kind::socketAt, ENOENT}, "fails, errno 2",
     "KernelNetInfo::Status socket failed in namespace blue, errno: 2", "not enabled: no such namespace"},
    {Op::kernelInfo, {Kind::socketAt, EMFILE}, "fails, errno 24",
     "KernelNetInfo::Status socket failed in namespace blue, errno: 24", "not enabled; traced"},
    {Op::kernelInfo, {Kind::socketAt, ENFILE}, "fails, errno 23",
     "KernelNetInfo::Status socket failed in namespace blue, errno: 23", "not enabled; traced"},
    {Op::kernelInfo, {Kind::setsockopt, EPERM, SOL_SOCKET, SO_RCVBUFFORCE}, "ok", "",
     "enabled; without CAP_NET_ADMIN the buffer is as large as the system allows"},
    {Op::kernelInfo, {Kind::setsockopt, ENOMEM, SOL_SOCKET, SO_RCVBUFFORCE}, "fails, errno 12",
     "KernelNetInfo::Status setsockopt SO_RCVBUF failed in namespace blue, errno: 12", "not enabled; socket closed"},
    {Op::kernelInfo, {Kind::bind, ENOMEM}, "fails, errno 12", "KernelNetInfo::Status bind failed in namespace blue, errno: 12",
     "not enabled; socket closed"},
    {Op::kernelInfo, {Kind::setsockopt, ENOMEM, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP}, "fails, errno 12",
     "KernelNetInfo::Status setsockopt NETLINK_ADD_MEMBERSHIP failed in namespace blue, errno: 12",
     "not enabled; socket closed"},
    {Op::kernelInfo, {Kind::sendto, ENOBUFS}, "fails, errno 105",
     "KernelNetInfo::Status sendto failed in namespace blue, errno: 105", "not enabled; socket closed, not watched"},
    {Op::kernelInfo, {Kind::sendto, ENOMEM}, "fails, errno 12",
     "KernelNetInfo::Status sendto failed in namespace blue, errno: 12", "not enabled; socket closed, not watched"},
    {Op::kernelInfo, {Kind::poll, EINTR}, "ok", "", "enabled; the wait for the first dump goes on"},
    {Op::kernelInfo, {Kind::recvmsg, EINTR}, "ok", "", "enabled; the read goes on"},
    {Op::kernelInfo, {Kind::recvmsg, ENOBUFS}, "ok", "KernelNetInfo::Status lost events in namespace blue (ENOBUFS); dumping again",
     "enabled; events lost, a re-dump is due"},
    // An oper-state request: only a failed send is a failure; the answer is read without waiting.
    {Op::operState, {Kind::sendto, ENOBUFS}, "fails, errno 105", "", "false with errno: the socket is broken"},
    {Op::operState, {Kind::sendto, EPERM}, "fails, errno 1", "", "false with errno EPERM (no CAP_NET_ADMIN)"},
    {Op::operState, {Kind::sendto, EINTR}, "ok", "", "sent again; true"},
    {Op::operState, {Kind::recvmsg, EINTR}, "ok", "", "true; the answer is read"},
    {Op::operState, {Kind::recvmsg, ENOBUFS}, "ok", "", "true; the answer is looked for past the overrun"},
    {Op::operState, {Kind::recvmsg, EAGAIN}, "ok", "", "true; no answer yet (level 1), drained by the next request"},
    {Op::operState, {Kind::recvmsg, ENOMEM}, "ok", "IFLA_OPERSTATE 6 for device et1: answer not read: Cannot allocate memory",
     "true; the unread answer traced"},
};

// `text` with {sd} and {tmp} replaced by the row's socket and temporary directory.
std::string expanded(std::string text, World const & w) {
  for (auto const & [key, value] : {std::pair<std::string, std::string>{"{sd}", std::to_string(w.sd)}, {"{tmp}", w.tmp.path()}}) {
    for (size_t at; (at = text.find(key)) != std::string::npos;) text.replace(at, key.size(), value);
  }
  return text;
}

// Makes the fault happen: the next matching call fails.
void arm(World & w, Fault const & f) {
  auto once = std::make_shared<bool>(true);
  if (f.kind == Kind::setsockopt) {
    w.fake.behaviour().setsockopt = [f, once, inner = w.fake.behaviour().setsockopt](int fd, int l, int o, void const * v,
                                                                                     socklen_t n) {
      if (l == f.level && o == f.option && *once) return *once = false, errno = f.error, -1;
      return inner(fd, l, o, v, n);
    };
  } else if (f.kind == Kind::getsockopt) {
    w.fake.behaviour().getsockopt = [f, once, inner = w.fake.behaviour().getsockopt](int fd, int l, int o, void * v,
                                                                                     socklen_t * n) {
      if (l == f.level && o == f.option && *once) return *once = false, errno = f.error, -1;
      return inner(fd, l, o, v, n);
    };
  } else if (f.kind == Kind::inotify_add_watch) {
    w.fake.behaviour().inotify_add_watch = [path = expanded(f.path, w), f, once,
                                            inner = w.fake.behaviour().inotify_add_watch](int fd, char const * p, uint32_t m) {
      if (path == p && *once) return *once = false, errno = f.error, -1;
      return inner(fd, p, m);
    };
  } else if (f.kind == Kind::open) {
    w.fake.behaviour().open = [f, once, inner = w.fake.behaviour().open](char const * path, int flags) {
      if (std::strcmp(path, f.path) == 0 && *once) return *once = false, errno = f.error, -1;
      return inner(path, flags);
    };
  } else {
    w.fake.failNext(f.kind, f.error);
  }
}

bool hit(World const & w, Fault const & f) {
  for (auto const & c : w.fake.calls(f.kind)) {
    if (c.error == f.error && ((f.kind != Kind::setsockopt && f.kind != Kind::getsockopt) || (c.a == f.level && c.b == f.option))) return true;
  }
  return false;
}

std::string levelZero(World const & w) {
  std::string out;
  for (auto const & line : w.trace.lines()) {
    if (line.level == 0) out += (out.empty() ? "" : " | ") + line.text;
  }
  return out;
}


// The failing call as the table names it.
std::string callText(Row const & r) {
  Fault const & f = r.fault;
  std::string name = IntfsmTest::kindName(f.kind);
  if (f.path) return name + " " + f.path;
  if (f.kind != Kind::setsockopt && f.kind != Kind::getsockopt) return name;
  struct Option {
    int level, option;
    char const * text;
  };
  static Option const names[] = {
      {SOL_PACKET, PACKET_AUXDATA, "PACKET_AUXDATA"}, {SOL_SOCKET, SO_TIMESTAMPNS, "SO_TIMESTAMPNS"},
      {SOL_SOCKET, SO_PRIORITY, "SO_PRIORITY"},       {SOL_SOCKET, SO_RCVBUFFORCE, "SO_RCVBUFFORCE"},
      {SOL_SOCKET, SO_ATTACH_FILTER, "SO_ATTACH_FILTER"}, {SOL_SOCKET, SO_BROADCAST, "SO_BROADCAST"},
      {SOL_PACKET, PACKET_ADD_MEMBERSHIP, "PACKET_ADD_MEMBERSHIP"}, {SOL_PACKET, PACKET_VERSION, "PACKET_VERSION"},
      {SOL_PACKET, PACKET_RX_RING, "PACKET_RX_RING"}, {SOL_PACKET, rlimitIntfSize, "PACKET_RLIMIT_INTF_SIZE"},
      {SOL_SOCKET, SO_RCVBUF, "SO_RCVBUF"}, {SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, "NETLINK_ADD_MEMBERSHIP"},
  };
  for (Option const & o : names) {
    if (o.level == f.level && o.option == f.option) return name + " " + o.text;
  }
  return name + " " + std::to_string(f.option);
}

std::string errnoName(int error) {
  static std::pair<int, char const *> const names[] = {
      {EPERM, "EPERM"},   {ENOENT, "ENOENT"}, {EINTR, "EINTR"},   {EAGAIN, "EAGAIN"},   {ENOMEM, "ENOMEM"},
      {EACCES, "EACCES"}, {EBUSY, "EBUSY"},   {ENODEV, "ENODEV"}, {EINVAL, "EINVAL"},   {ENFILE, "ENFILE"},
      {EMFILE, "EMFILE"}, {ENOSPC, "ENOSPC"}, {ENOPROTOOPT, "ENOPROTOOPT"}, {ENOBUFS, "ENOBUFS"}, {ENETDOWN, "ENETDOWN"},
  };
  for (auto const & [number, name] : names) {
    if (number == error) return name;
  }
  return std::to_string(error);
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
  for (Row const & r : rows) {
    OpInfo const & op = info(r.op);
    std::string trace = r.trace;
    for (size_t at; (at = trace.find('|')) != std::string::npos;) trace.replace(at, 1, "/");
    os << "| " << op.path << " | " << op.name << " | `" << callText(r) << "` | " << errnoName(r.fault.error) << " | "
       << r.result << " | " << (trace.empty() ? "" : "`" + trace + "`") << " | " << r.sees << " |\n";
  }
  return os.str();
}

TEST(FaultTable, EachFailingCallLeavesNothingBehindAndTheOperationWorksAgain) {
  EXPECT_GE(rows.size(), 40u);
  for (Row const & row : rows) {
    OpInfo const & op = info(row.op);
    SCOPED_TRACE(std::string(op.name) + ": " + callText(row) + " " + errnoName(row.fault.error));
    int const realBefore = IntfsmTest::openDescriptorCount();
    {
      World w;
      std::unique_ptr<Subject> subject = op.make(w);
      std::string const before = subject->state();
      std::vector<int> const open = w.fake.openDescriptors();
      size_t const mappings = w.fake.openMappings();
      w.trace.clear();
      w.fake.clearCalls();
      arm(w, row.fault);

      EXPECT_EQ(subject->run(), row.result);
      EXPECT_TRUE(hit(w, row.fault)) << "the fault was never reached";
      EXPECT_EQ(levelZero(w), expanded(row.trace, w));
      bool const failed = std::string(row.result) != "ok";
      if (failed) {
        EXPECT_EQ(subject->state(), before);
        EXPECT_EQ(w.fake.openDescriptors(), open);
        EXPECT_EQ(w.fake.openMappings(), mappings);
      } else {
        subject->undo();
      }
      // The fault gone, the same operation succeeds.
      EXPECT_EQ(subject->run(), "ok");
      subject->undo();
      subject = nullptr;
      EXPECT_EQ(w.fake.openDescriptors(), std::vector<int>()) << "left open when everything is gone";
      // A mapping the kernel refused to give back stays: nothing more can be done with it.
      EXPECT_EQ(w.fake.openMappings(), row.fault.kind == Kind::munmap ? 1u : 0u);
    }
    EXPECT_EQ(IntfsmTest::openDescriptorCount(), realBefore);
  }
}

TEST(FaultTable, DocsFailuresMdIsWhatTheRowsPrint) {
  std::string const path = std::string(INTFSM_SOURCE_DIR) + "/docs/failures.md";
  if (std::getenv("INTFSM_WRITE_FAILURES_MD")) std::ofstream(path) << markdown();
  std::ifstream in(path);
  std::stringstream committed;
  committed << in.rdbuf();
  EXPECT_EQ(committed.str(), markdown()) << "run: cmake --build build --target failures-md";
}

}  // namespace
