// intfsm_soak: the library driven as an agent drives it, for minutes, while the kernel churns under it
// and frames flood in; at the end every frame is accounted for and nothing has leaked.
//
//   intfsm_soak [--seconds N] [--mode bulk|single|ring] [--warmup N]      (root; default 120 s, bulk)
//
// The lab: namespace A (the packet side's), namespace B, and a peer namespace. Eight veth ports
// va0..va7 (Ethernet1..8), their peers vb0..vb7 in the peer namespace, where a child process (plain
// raw sockets and sendmmsg, nothing of the library) sends 60-byte frames into every port as fast as
// it can, at the lowest CPU priority so that the box stays usable. Meanwhile, on the loop's thread:
//   Ethernet1  steady; its reader is deliberately slow (one frame every 4 ms)
//   Ethernet2  flaps (administratively down and up)
//   Ethernet3  renamed away and back
//   Ethernet4  deleted and re-created
//   Ethernet5  moves between namespaces A and B (its namespace setting follows)
//   Ethernet6/7 swap device names
//   Ethernet8  lives in B, which is deleted and re-created with it (every other time at once)
// and operational status changes stream in for random ports every 10 ms, and the socket filter is
// replaced back and forth. The library: the oper-state root with convergence over every namespace,
// the namespace interface-status root feeding a device directory for A, and a packet-access manager
// (one shared socket) with every port desired. The lab lives in a /run/netns of the soak's own (a
// private mount namespace): its namespaces are the only ones the oper-state root sees.
//
// At the end (flood stopped, everything read): the frames the kernel counted as queued to our socket
// (PACKET_STATISTICS tp_packets - tp_drops) must equal those received plus those in the library's drop
// counters; every device's kernel operstate must be the one its last status asks for; the device
// directory must be the kernel's devices of A; descriptors and resident memory must not have grown
// between the end of the warm-up and the end. Exit 0 when all hold, 1 otherwise. A watchdog ends a
// run that overruns (setup, run and checks) with SIGTERM, which also removes the lab.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/KernelOperState/Root.h"
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"
#include "intfsm/foundation/brisklog/Brisklog.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Clock.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"
#include "tests/support/Descriptors.h"
#include "tests/support/NetNs.h"

namespace {

constexpr int portCount = 8;
// The kernel's IF_OPER_UP and IF_OPER_DORMANT (<linux/if.h> cannot sit beside <net/if.h>).
constexpr int operUp = 6, operDormant = 5;
constexpr uint16_t floodType = 0x88b5;  // local experimental: the namespaces' stacks ignore it
constexpr unsigned frameBytes = 60;
// Resident memory may grow this much after the warm-up (allocator and pool noise); descriptors not at all.
constexpr long rssToleranceKiB = 4096;
constexpr int fdTolerance = 0;
#if defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

std::atomic<char const *> phase{"setup"};

void say(char const * format, ...) __attribute__((format(printf, 1, 2)));
void say(char const * format, ...) {
  va_list args;
  va_start(args, format);
  std::fputs("soak: ", stdout);
  std::vprintf(format, args);
  std::fputc('\n', stdout);
  std::fflush(stdout);
  va_end(args);
}

long rssKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

// ---- the flood: a child process of its own, independent of the library ----------------------------

struct FloodCounts {
  std::atomic<uint64_t> sent[portCount];
  std::atomic<uint64_t> refused[portCount];
  std::atomic<int> stop;
};

[[noreturn]] void floodRun(std::string const & peerNs, FloodCounts * counts) {
  int const nsFd = open(("/run/netns/" + peerNs).c_str(), O_RDONLY | O_CLOEXEC);
  if (nsFd < 0 || setns(nsFd, CLONE_NEWNET) != 0) _exit(3);
  close(nsFd);
  int const fd = socket(AF_PACKET, SOCK_RAW, 0);  // protocol 0: receives nothing
  if (fd < 0) _exit(4);
  constexpr int batch = 32;
  std::array<uint8_t, frameBytes> frames[portCount][batch];
  sockaddr_ll to[portCount]{};
  iovec iov[portCount][batch];
  mmsghdr msgs[portCount][batch]{};
  int ifIndex[portCount]{};
  for (int p = 0; p < portCount; ++p) {
    to[p].sll_family = AF_PACKET;
    to[p].sll_halen = ETH_ALEN;
    for (int i = 0; i < batch; ++i) {
      auto & f = frames[p][i];
      f.fill(0);
      uint8_t const dst[6] = {0x02, 0, 0, 0, 0, 0x01}, src[6] = {0x02, 0, 0, 0, 1, uint8_t(p)};
      std::memcpy(f.data(), dst, 6);
      std::memcpy(f.data() + 6, src, 6);
      f[12] = floodType >> 8;
      f[13] = floodType & 0xff;
      f[14] = uint8_t(i);  // the filter that is swapped in keeps the even ones
      f[15] = uint8_t(p);
      iov[p][i] = {f.data(), f.size()};
      msgs[p][i].msg_hdr.msg_iov = &iov[p][i];
      msgs[p][i].msg_hdr.msg_iovlen = 1;
      msgs[p][i].msg_hdr.msg_name = &to[p];
      msgs[p][i].msg_hdr.msg_namelen = sizeof to[p];
    }
  }
  for (uint64_t round = 0; !counts->stop.load(std::memory_order_relaxed); ++round) {
    for (int p = 0; p < portCount; ++p) {
      if (!ifIndex[p]) {
        // Devices come and go: look the peer up again now and then.
        if (round % 64) continue;
        ifIndex[p] = int(if_nametoindex(("vb" + std::to_string(p)).c_str()));
        if (!ifIndex[p]) continue;
        to[p].sll_ifindex = ifIndex[p];
      }
      int const n = sendmmsg(fd, msgs[p], batch, 0);
      if (n > 0) {
        counts->sent[p].fetch_add(uint64_t(n), std::memory_order_relaxed);
      } else if (errno == ENXIO || errno == ENODEV) {
        ifIndex[p] = 0;
        counts->refused[p].fetch_add(1, std::memory_order_relaxed);
      } else {
        counts->refused[p].fetch_add(1, std::memory_order_relaxed);
      }
    }
    // A port whose peer is down refuses at once: no port may turn the loop into a spin.
    if (round % 16 == 0) sched_yield();
  }
  _exit(0);
}

// ---- the watchdog ------------------------------------------------------------------------------------

class Watchdog {
 public:
  explicit Watchdog(double seconds) : thread_([this, seconds] { watch(seconds); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

 private:
  void watch(double seconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (wake_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return done_; })) return;
    std::fprintf(stderr, "soak: FAIL: watchdog: still running after %.0f s (in %s); stopping\n", seconds, phase.load());
    std::fflush(stderr);
    // The lab's signal handler removes the namespaces, then the signal ends the process (and with it
    // the flood, which dies with its parent).
    raise(SIGTERM);
    std::this_thread::sleep_for(std::chrono::seconds(10));
    _exit(2);
  }
  std::mutex mutex_;
  std::condition_variable wake_;
  bool done_ = false;
  std::thread thread_;
};

// ---- the soak ----------------------------------------------------------------------------------------

enum class Mode { bulk, single, ring };

struct Options {
  double seconds = 120;
  double warmup = 10;
  Mode mode = Mode::bulk;
};

struct Port {
  Ovel::IntfId id;
  std::string device;  // the device the interface's status names
  std::string ns;      // where that device is (or goes)
  Interface::IntfOperStatus lastSet = Interface::intfOperUnknown;
  Vorn::Ptr<Interface::IntfStatus> status;
  Vorn::Ptr<Interface::IntfStatusLocal> local;
  uint64_t received = 0;
};

class Soak;

// Reads a Pam as an agent's receive loop does: everything it holds, at once; the slow one reads on
// its timer instead.
class Reader : public Vorn::Reactor<Soak, Ovel::Pam> {
 public:
  Reader(Soak * owner, Ovel::IntfId const & id) : Reactor(owner), id_(id) {}
  void onReadableCount() override;
  Ovel::IntfId const & id() const { return id_; }

 private:
  Ovel::IntfId id_;
};

class PamsReactor : public Vorn::Reactor<Soak, Interface::EthDevPamCollection> {
 public:
  using Reactor::Reactor;
  void onIntfPam(Ovel::IntfId const & id) override;
  void onIntfPamvornImmediate() override;
};

class Tick : public Vorn::Reactor<Soak, Vorn::Clock> {
 public:
  Tick(Soak * owner, void (Soak::*handler)(), double every) : Reactor(owner), handler_(handler), every_(every) {}
  void start() { timeMinIs(Vorn::System::currentTime() + every_); }
  void onTimeMin() override {
    timeMinIs(Vorn::System::currentTime() + every_);
    forward(handler_);
  }

 private:
  void (Soak::*handler_)();
  double every_;
};

class Soak {
 public:
  explicit Soak(Options const & options) : options_(options) {}
  ~Soak();
  int run();

  void handleReadable(Ovel::IntfId const & id);
  void handlePams(Ovel::IntfId const & id);
  void handlePams();
  void handleSlowReader();
  void handleOperStream();
  void handleChurn();
  void handleSample();

 private:
  void labUp();
  void floodStart();
  void floodStop();
  void libraryUp();
  void libraryDown();
  void pairNew(int p, std::string const & ns);
  void ipv6Off(std::string const & ns);
  void restore();
  void nsBNew();
  bool settle(std::function<bool()> const & done, double seconds);
  void filterSwap();
  int portOf(Ovel::IntfId const & id) const;
  bool socketEmpty() const;
  bool operStatesMatch(bool report);
  bool deviceDirMatches(bool report);
  // Adds the counts of the Pams that left before `before` to the sums and lets them go.
  void harvest(double before);

  Options options_;
  IntfsmTest::NetNsFixture lab_;
  std::string nsA_, nsB_, peerNs_;
  Port ports_[portCount];
  // Lab state the churn keeps.
  bool port1Up_ = true, port2Away_ = false, port3Gone_ = false, port56Swapped_ = false, nsBGone_ = false;
  bool evenOnly_ = false;
  unsigned churnStep_ = 0;
  unsigned nsBDeletions_ = 0;
  uint64_t churnActions_ = 0, operChanges_ = 0, filterSwaps_ = 0;
  std::mt19937 random_{20261126};

  FloodCounts * flood_ = nullptr;
  pid_t floodPid_ = -1;

  Vorn::Ptr<Interface::AllIntfStatusDir> all_;
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals_;
  Vorn::Ptr<KernelOperState::Root> operState_;
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> nsRoot_;
  Vorn::Ptr<KernelNetInfo::Status> kni_;
  Vorn::Ptr<Interface::DeviceIntfStatusDir> devices_;
  Vorn::Ptr<Interface::PamDesiredIntfDir> desired_;
  Vorn::Ptr<Interface::EthDevPamCollection> pams_;
  Vorn::Ptr<Interface::EthDevPamManager> manager_;
  Vorn::Ptr<PamsReactor> pamsReactor_;
  Vorn::ReactorCollection<Ovel::IntfId, Reader> readers_;
  Vorn::Ptr<Tick> slowTick_, operTick_, churnTick_, sampleTick_;

  // The Pams in the collection, and those that left it: a Pam that leaves is kept a second, then what
  // it counted (and what it still held) is added to the sums below and it is let go.
  std::map<Ovel::Pam const *, Vorn::Ptr<Ovel::Pam>> live_;
  std::vector<std::pair<double, Vorn::Ptr<Ovel::Pam>>> departed_;
  uint64_t pamsMade_ = 0, goneQueueDrops_ = 0, goneRxErrors_ = 0, goneWaiting_ = 0;

  // Samples.
  int fdStart_ = 0, fdEnd_ = 0, fdMax_ = 0;
  long rssStart_ = 0, rssEnd_ = 0, rssMax_ = 0;
  bool sampling_ = false;
  unsigned samples_ = 0;
};

void Reader::onReadableCount() { forward(&Soak::handleReadable, id_); }
void PamsReactor::onIntfPam(Ovel::IntfId const & id) { forward(&Soak::handlePams, id); }
void PamsReactor::onIntfPamvornImmediate() { forward(&Soak::handlePams); }

Soak::~Soak() {
  floodStop();
  libraryDown();
  if (flood_) munmap(flood_, sizeof *flood_);
}

int Soak::portOf(Ovel::IntfId const & id) const {
  for (int p = 0; p < portCount; ++p) {
    if (ports_[p].id == id) return p;
  }
  return -1;
}

void Soak::ipv6Off(std::string const & ns) {
  // No address, no IPv6: the devices send nothing of their own, so every frame on the socket came in.
  auto const r = lab_.runIn(ns, "sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1");
  if (r.status != 0) throw std::runtime_error("cannot turn IPv6 off in " + ns + ": " + r.output);
}

void Soak::pairNew(int p, std::string const & ns) {
  std::string const a = "va" + std::to_string(p), b = "vb" + std::to_string(p);
  lab_.vethPairNew(ns, a, b, peerNs_);
  lab_.linkUp(ns, a);
  lab_.linkUp(peerNs_, b);
}

void Soak::labUp() {
  nsA_ = lab_.namespaceNew();
  nsB_ = lab_.namespaceNew();
  peerNs_ = lab_.namespaceNew();
  for (auto const & ns : {nsA_, nsB_, peerNs_}) ipv6Off(ns);
  for (int p = 0; p < portCount; ++p) {
    Port & port = ports_[p];
    port.id = Ovel::IntfId("Ethernet" + std::to_string(p + 1));
    port.device = "va" + std::to_string(p);
    port.ns = p == 7 ? nsB_ : nsA_;
    pairNew(p, port.ns);
  }
  say("lab: namespaces %s (packet side), %s, %s (peers); 8 veth ports", nsA_.c_str(), nsB_.c_str(), peerNs_.c_str());
}

void Soak::floodStart() {
  void * shared = mmap(nullptr, sizeof(FloodCounts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) throw std::runtime_error(std::string("mmap: ") + std::strerror(errno));
  flood_ = new (shared) FloodCounts{};
  // The child must never run the lab's signal handlers (they would remove the namespaces): signals
  // stay blocked across fork until the child has put them back to their defaults.
  sigset_t all, old;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &old);
  floodPid_ = fork();
  if (floodPid_ == 0) {
    for (int s = 1; s < NSIG; ++s) signal(s, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The library's sockets are not the flood's: held here, they would keep a deleted namespace alive.
    close_range(3, ~0u, 0);
    sigprocmask(SIG_SETMASK, &old, nullptr);
    setpriority(PRIO_PROCESS, 0, 19);  // top rate, but only on what the box has left over
    floodRun(peerNs_, flood_);
  }
  int const error = errno;
  sigprocmask(SIG_SETMASK, &old, nullptr);
  if (floodPid_ < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(error));
}

void Soak::floodStop() {
  if (floodPid_ <= 0) return;
  flood_->stop = 1;
  for (int i = 0; i < 200; ++i) {
    if (waitpid(floodPid_, nullptr, WNOHANG) == floodPid_) {
      floodPid_ = -1;
      return;
    }
    usleep(10000);
  }
  kill(floodPid_, SIGKILL);
  waitpid(floodPid_, nullptr, 0);
  floodPid_ = -1;
}

void Soak::libraryUp() {
  all_ = Interface::allIntfStatusDirFactory("allIntfStatus");
  locals_ = Interface::allIntfStatusLocalDirFactory("allIntfStatusLocal");

  operState_ = KernelOperState::rootFactory("kernelOperState");
  operState_->operStateConvergenceIs(true);
  operState_->kosmIs();
  operState_->intfStatusDirIs("intfStatus");
  operState_->intfStatusLocalDirIs("intfStatusLocal");
  operState_->netNsCollectionIs("netNs");
  operState_->netNsManagerIs(operState_->netNsCollection());
  operState_->intfStatusOperStatusSmIs(operState_->intfStatusDir(), operState_->intfStatusLocalDir(),
                                       operState_->kosm(), operState_->netNsCollection());

  for (Port & p : ports_) {
    p.status = Interface::intfStatusFactory(p.id);
    p.status->deviceNameIs(Vorn::String(p.device));
    p.status->operStatusIs(Interface::intfOperUnknown);
    p.local = Interface::intfStatusLocalFactory(p.id);
    p.local->netNsNameIs(Ovel::NamespaceName(p.ns));
    all_->intfStatusIs(p.status);
    locals_->intfStatusLocalIs(p.local);
    operState_->intfStatusLocalDir()->intfStatusLocalIs(p.local);
    operState_->intfStatusDir()->intfStatusIs(p.status);
  }

  // The namespace interface-status root: the kernel's devices of A joined with the interfaces.
  nsRoot_ = Interface::netNsIntfStatusManagerRootFactory(all_, locals_, true);
  kni_ = KernelNetInfo::Status::statusNew(nsA_, Ovel::NamespaceName(nsA_));
  kni_->enabledIs(true);
  devices_ = Interface::deviceIntfStatusDirFactory("devices");
  nsRoot_->intfStatusManagerIs(devices_, kni_, Ovel::NamespaceName(nsA_));

  desired_ = Interface::pamDesiredIntfDirFactory("desired");
  pams_ = Interface::ethDevPamCollectionFactory("pams");
  manager_ = Interface::ethDevPamManagerFactory(desired_, pams_, devices_);
  manager_->netNsIs(Ovel::NamespaceName(nsA_));
  manager_->ethProtocolIs(ETH_P_ALL);
  manager_->pktReuseIs(options_.mode != Mode::single);
  manager_->enableBulkPamReadIs(options_.mode != Mode::single);
  if (options_.mode == Mode::ring) {
    Interface::RxRingSettings ring;
    ring.on = true;
    manager_->rxRingSettingsIs(ring);
  }
  manager_->handleInitialized();
  manager_->enabledIs(true);
  pamsReactor_ = Vorn::reactorNew<PamsReactor>(this, Vorn::Ptr<Interface::EthDevPamCollection const>(pams_));
  for (Port const & p : ports_) desired_->intfDesiredIs(p.id, true);

  slowTick_ = new Tick(this, &Soak::handleSlowReader, 0.004);
  operTick_ = new Tick(this, &Soak::handleOperStream, 0.010);
  churnTick_ = new Tick(this, &Soak::handleChurn, 0.100);
  sampleTick_ = new Tick(this, &Soak::handleSample, 1.0);
  for (auto const & t : {slowTick_, operTick_, churnTick_, sampleTick_}) t->notifierIs(Vorn::activityManager().clock());
  slowTick_->start();
  sampleTick_->start();
}

void Soak::libraryDown() {
  for (auto * t : {&slowTick_, &operTick_, &churnTick_, &sampleTick_}) {
    if (*t) (*t)->timeMinIs(Vorn::Clock::never);
    *t = nullptr;
  }
  if (pamsReactor_) pamsReactor_->vornZombieIs(true);
  readers_.zombieIs(true);
  readers_.delAll();
  pamsReactor_ = nullptr;
  live_.clear();
  departed_.clear();
  if (manager_) manager_->enabledIs(false);
  manager_ = nullptr;
  pams_ = nullptr;
  desired_ = nullptr;
  nsRoot_ = nullptr;
  devices_ = nullptr;
  kni_ = nullptr;
  operState_ = nullptr;
  for (Port & p : ports_) p.status = nullptr, p.local = nullptr;
  locals_ = nullptr;
  all_ = nullptr;
}

// ---- the loop's handlers -------------------------------------------------------------------------------

void Soak::handlePams(Ovel::IntfId const & id) {
  Vorn::Ptr<Ovel::Pam> const pam = pams_->intfPam(id);
  readers_.reconcileKey(this, id, pam);
  if (pam && live_.emplace(pam.ptr(), pam).second) ++pamsMade_;
  // Those no longer in the collection under any id have left.
  std::set<Ovel::Pam const *> present;
  for (auto const & e : pams_->intfPamIter()) present.insert(e.value.ptr());
  for (auto it = live_.begin(); it != live_.end();) {
    if (present.count(it->first)) {
      ++it;
    } else {
      departed_.emplace_back(Vorn::System::currentTime(), it->second);
      it = live_.erase(it);
    }
  }
}

void Soak::harvest(double before) {
  for (auto it = departed_.begin(); it != departed_.end();) {
    if (it->first > before) {
      ++it;
      continue;
    }
    Ovel::Pam const & pam = *it->second;
    goneQueueDrops_ += pam.queueDropCount();
    goneRxErrors_ += pam.rxErrors();
    goneWaiting_ += pam.rxPkts();
    it = departed_.erase(it);
  }
}

void Soak::handlePams() {
  for (auto const & e : pams_->intfPamIter()) handlePams(e.key);
}

void Soak::handleReadable(Ovel::IntfId const & id) {
  int const p = portOf(id);
  if (p < 0 || p == 0) return;  // Ethernet1's reader is the slow one: it reads on its timer only
  Vorn::Ptr<Ovel::Pam> const pam = pams_->intfPam(id);
  if (!pam) return;
  while (Vorn::Ptr<Ovel::Pkt> pkt = pam->rxPkt()) ++ports_[p].received;
}

void Soak::handleSlowReader() {
  Vorn::Ptr<Ovel::Pam> const pam = pams_->intfPam(ports_[0].id);
  if (!pam) return;
  if (pam->rxPkt()) ++ports_[0].received;
}

void Soak::handleOperStream() {
  static Interface::IntfOperStatus const choices[] = {Interface::intfOperUp, Interface::intfOperDown,
                                                      Interface::intfOperDormant, Interface::intfOperUp};
  Port & p = ports_[random_() % portCount];
  p.lastSet = choices[random_() % 4];
  p.status->operStatusIs(p.lastSet);
  ++operChanges_;
}

void Soak::filterSwap() {
  evenOnly_ = !evenOnly_;
  if (evenOnly_) {
    // Frames whose byte 14 is odd stay in the kernel (they are never queued, so never counted).
    manager_->filterProgramIs(Ovel::SockFilterProgram{{BPF_LD | BPF_B | BPF_ABS, 0, 0, 14},
                                                      {BPF_JMP | BPF_JSET | BPF_K, 0, 1, 1},
                                                      {BPF_RET | BPF_K, 0, 0, 0},
                                                      {BPF_RET | BPF_K, 0, 0, 0xffffffff}});
  } else {
    manager_->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffffffff}});
  }
  ++filterSwaps_;
}

void Soak::handleChurn() {
  ++churnActions_;
  switch (churnStep_++ % 7) {
    case 0:
      port1Up_ ? lab_.linkDown(nsA_, "va1") : lab_.linkUp(nsA_, "va1");
      port1Up_ = !port1Up_;
      break;
    case 1:
      // A running device cannot be renamed.
      lab_.linkDown(nsA_, port2Away_ ? "vr2" : "va2");
      lab_.linkRename(nsA_, port2Away_ ? "vr2" : "va2", port2Away_ ? "va2" : "vr2");
      port2Away_ = !port2Away_;
      lab_.linkUp(nsA_, port2Away_ ? "vr2" : "va2");
      break;
    case 2:
      if (port3Gone_) {
        pairNew(3, nsA_);
      } else {
        lab_.linkDel(nsA_, "va3");  // its peer goes with it
      }
      port3Gone_ = !port3Gone_;
      break;
    case 3: {
      Port & p = ports_[4];
      std::string const to = p.ns == nsA_ ? nsB_ : nsA_;
      if (nsBGone_ && to == nsB_) break;
      lab_.linkMove(p.ns, "va4", to);
      lab_.linkUp(to, "va4");
      p.ns = to;
      p.local->netNsNameIs(Ovel::NamespaceName(to));
      break;
    }
    case 4:
      // Three renames, so that Ethernet6 and Ethernet7 trade devices (and ifindexes).
      lab_.linkDown(nsA_, "va5");
      lab_.linkDown(nsA_, "va6");
      lab_.linkRename(nsA_, "va5", "vs5");
      lab_.linkRename(nsA_, "va6", "va5");
      lab_.linkRename(nsA_, "vs5", "va6");
      lab_.linkUp(nsA_, "va5");
      lab_.linkUp(nsA_, "va6");
      port56Swapped_ = !port56Swapped_;
      break;
    case 5:
      if (nsBGone_) {
        nsBNew();
      } else if (ports_[4].ns == nsA_) {
        lab_.namespaceDel(nsB_);  // Ethernet8's device and its peer go with it
        nsBGone_ = true;
        // Every other time it is made again at once, before the loop has seen it go.
        if (++nsBDeletions_ % 2 == 0) nsBNew();
      }
      break;
    case 6:
      filterSwap();
      break;
  }
}

void Soak::handleSample() {
  harvest(Vorn::System::currentTime() - 1);
  if (!sampling_) return;
  int const fds = IntfsmTest::openDescriptorCount();
  long const rss = rssKiB();
  fdMax_ = std::max(fdMax_, fds);
  rssMax_ = std::max(rssMax_, rss);
  if (++samples_ % 10) return;
  uint64_t received = 0;
  for (Port const & p : ports_) received += p.received;
  auto const & bundle = manager_->edpBundle();
  say("%3us: %llu frames received, %llu dropped by the kernel; %d descriptors, VmRSS %ld KiB", samples_,
      (unsigned long long)received, (unsigned long long)(bundle ? bundle->kernelDrops() : 0), fds, rss);
}

// ---- phases --------------------------------------------------------------------------------------------

bool Soak::settle(std::function<bool()> const & done, double seconds) {
  return Vorn::activityManager().runUntil(done, seconds);
}

// Every device back where the checks expect it: present, named as configured, up.
void Soak::restore() {
  if (!port1Up_) lab_.linkUp(nsA_, "va1"), port1Up_ = true;
  if (ports_[4].ns != nsA_ && !nsBGone_) {
    lab_.linkMove(ports_[4].ns, "va4", nsA_);
    lab_.linkUp(nsA_, "va4");
    ports_[4].ns = nsA_;
    ports_[4].local->netNsNameIs(Ovel::NamespaceName(nsA_));
  }
  if (port2Away_) {
    lab_.linkDown(nsA_, "vr2");
    lab_.linkRename(nsA_, "vr2", "va2");
    lab_.linkUp(nsA_, "va2");
    port2Away_ = false;
  }
  if (port3Gone_) pairNew(3, nsA_), port3Gone_ = false;
  if (nsBGone_) nsBNew();
}

void Soak::nsBNew() {
  // The old namespace lives on, with Ethernet8's device in it, while a socket still holds it: its peer
  // is deleted here (taking that device along) so that the pair can be made again.
  if (lab_.link(peerNs_, "vb7")) lab_.linkDel(peerNs_, "vb7");
  lab_.namespaceNew(nsB_);
  ipv6Off(nsB_);
  pairNew(7, nsB_);
  nsBGone_ = false;
}

bool Soak::socketEmpty() const {
  auto const & bundle = manager_->edpBundle();
  if (!bundle || bundle->sd() < 0) return true;
  int bytes = 0;
  // For a packet socket: the length of the next frame waiting, 0 when none.
  return ioctl(bundle->sd(), FIONREAD, &bytes) == 0 && bytes == 0;
}

bool Soak::operStatesMatch(bool report) {
  bool ok = true;
  for (Port const & p : ports_) {
    auto const link = lab_.link(p.ns, p.device);
    int const expected = p.lastSet == Interface::intfOperUp ? operUp : operDormant;
    bool const unknown = p.lastSet == Interface::intfOperUnknown;  // never set: the kernel keeps its own
    if (link && (unknown || link->operState == expected)) continue;
    ok = false;
    if (report) {
      say("FAIL: %s (device %s in %s): kernel operstate %d, the last status set wants %d", p.id.charPtr(),
          p.device.c_str(), p.ns.c_str(), link ? link->operState : -1, expected);
    }
  }
  return ok;
}

bool Soak::deviceDirMatches(bool report) {
  // Expected: every interface whose device is in A, with the kernel's ifindex of that device.
  std::map<std::string, std::pair<std::string, uint32_t>> expected, found;
  for (Port const & p : ports_) {
    if (p.ns != nsA_) continue;
    if (auto const link = lab_.link(nsA_, p.device)) expected[p.id.name().stdString()] = {p.device, uint32_t(link->ifindex)};
  }
  bool ok = true;
  for (auto const & e : devices_->intfStatusAndDeviceNameIter()) {
    found[e.key.name().stdString()] = {e.value.deviceName.stdString(), e.value.ifIndex};
    // The ifindex view names the same interface.
    if (e.value.ifIndex && !(devices_->intfStatusByIfIndex(e.value.ifIndex).intfStatus == e.value.intfStatus)) {
      ok = false;
      if (report) say("FAIL: device directory: ifindex %u does not lead back to %s", e.value.ifIndex, e.key.charPtr());
    }
  }
  if (found != expected) {
    ok = false;
    if (report) {
      auto text = [](auto const & m) {
        std::string s;
        for (auto const & [id, d] : m) s += " " + id + "=" + d.first + "#" + std::to_string(d.second);
        return s.empty() ? std::string(" (none)") : s;
      };
      say("FAIL: device directory:%s", text(found).c_str());
      say("      kernel's devices:%s", text(expected).c_str());
    }
  }
  return ok;
}

int Soak::run() {
  phase = "setup";
  labUp();
  libraryUp();
  floodStart();
  operTick_->start();
  churnTick_->start();
  say("flood on; churn, status stream and filter swaps on; mode %s",
      options_.mode == Mode::bulk ? "bulk" : options_.mode == Mode::single ? "single" : "ring");

  // Warm-up, then a quiet moment with the lab in its steady shape for the first sample.
  phase = "warm-up";
  double const start = Vorn::System::currentTime();
  settle([&] { return Vorn::System::currentTime() >= start + options_.warmup; }, options_.warmup + 5);
  auto sample = [&](int & fd, long & rss, char const * what) {
    churnTick_->timeMinIs(Vorn::Clock::never);
    restore();
    settle([&] { return deviceDirMatches(false); }, 10);
    settle([] { return false; }, 0.5);
    fd = IntfsmTest::openDescriptorCount();
    rss = rssKiB();
    say("%s: %d descriptors, VmRSS %ld KiB", what, fd, rss);
  };
  phase = "first sample";
  sample(fdStart_, rssStart_, "after warm-up");
  fdMax_ = fdStart_, rssMax_ = rssStart_;
  sampling_ = true;

  phase = "run";
  churnTick_->start();
  double const runEnd = Vorn::System::currentTime() + options_.seconds;
  settle([&] { return Vorn::System::currentTime() >= runEnd; }, options_.seconds + 5);
  operTick_->timeMinIs(Vorn::Clock::never);
  // The last statuses: DORMANT everywhere but Ethernet1 (UP), as the kernel never makes DORMANT by
  // itself. Then every lab change once more, each undone again, so that every device is flapped,
  // renamed, re-created, moved or re-made with its namespace after its last status: what the kernel
  // shows at the end is what convergence restored, not merely what was sent last.
  phase = "last churn round";
  churnTick_->timeMinIs(Vorn::Clock::never);
  restore();
  for (int p = 0; p < portCount; ++p) {
    ports_[p].lastSet = p == 0 ? Interface::intfOperUp : Interface::intfOperDormant;
    ports_[p].status->operStatusIs(ports_[p].lastSet);
  }
  settle([] { return false; }, 0.2);
  for (unsigned step : {0u, 0u, 1u, 1u, 2u, 2u, 5u, 5u, 3u, 3u, 4u, 4u, 6u, 6u}) {
    churnStep_ = step;
    handleChurn();
    settle([] { return false; }, 0.05);
  }
  phase = "last sample";
  sample(fdEnd_, rssEnd_, "at the end");
  sampling_ = false;

  phase = "drain";
  floodStop();
  // Everything the kernel queued is read, and every reader has taken what waits for it.
  bool const drained = settle(
      [&] {
        if (!socketEmpty()) return false;
        for (auto const & e : pams_->intfPamIter()) {
          if (e.value->rxPkts()) return false;
        }
        return true;
      },
      30);
  settle([] { return false; }, 0.2);

  phase = "checks";
  bool ok = drained && socketEmpty();
  if (!drained) say("FAIL: frames still waiting 30 s after the flood stopped");

  // The accounting.
  auto const & bundle = *manager_->edpBundle();
  uint64_t const kernelPackets = manager_->edpBundle()->kernelPackets();
  uint64_t const kernelDrops = manager_->edpBundle()->kernelDrops();
  harvest(Vorn::Clock::never);
  uint64_t received = 0, queueDrops = goneQueueDrops_, rxErrors = goneRxErrors_, waiting = goneWaiting_;
  for (Port const & p : ports_) received += p.received;
  for (auto const & [_, pam] : live_) {
    queueDrops += pam->queueDropCount();
    rxErrors += pam->rxErrors();
    waiting += pam->rxPkts();
  }
  uint64_t const noPam = bundle.noPamDropCount(), notReady = bundle.pamNotReadyDropCount();
  uint64_t const queued = kernelPackets - kernelDrops;
  uint64_t const accounted = received + queueDrops + rxErrors + waiting + noPam + notReady;
  say("accounting: kernel counted %llu, dropped %llu for want of room: %llu queued to our socket",
      (unsigned long long)kernelPackets, (unsigned long long)kernelDrops, (unsigned long long)queued);
  say("accounting: %llu queued = %llu received + %llu endpoint-queue drops + %llu no-buffer drops + %llu left in "
      "endpoints + %llu of unknown devices + %llu of interfaces without endpoint = %llu: %s",
      (unsigned long long)queued, (unsigned long long)received, (unsigned long long)queueDrops,
      (unsigned long long)rxErrors, (unsigned long long)waiting, (unsigned long long)noPam,
      (unsigned long long)notReady, (unsigned long long)accounted, queued == accounted ? "closes" : "DOES NOT CLOSE");
  if (queued != accounted) ok = false;
  if (received == 0) {
    say("FAIL: no frame was received: the run did not exercise the receive path");
    ok = false;
  } else if (queueDrops == 0) {
    say("note: no endpoint queue overflowed (the flood got too little CPU to outrun the slow reader)");
  }
  uint64_t sent = 0, refused = 0;
  std::string perPort;
  for (int p = 0; p < portCount; ++p) {
    sent += flood_->sent[p];
    refused += flood_->refused[p];
    perPort += " " + ports_[p].id.name().stdString() + "=" + std::to_string(ports_[p].received);
  }
  say("flood: %llu frames sent by the peers (%llu sends refused); received per interface:%s", (unsigned long long)sent,
      (unsigned long long)refused, perPort.c_str());
  say("churn: %llu lab changes, %llu status changes, %llu filter swaps, %llu endpoints made",
      (unsigned long long)churnActions_, (unsigned long long)operChanges_, (unsigned long long)filterSwaps_,
      (unsigned long long)pamsMade_);

  // The kernel's operstates converge on the last statuses; the device directory on the kernel's devices.
  if (!settle([&] { return operStatesMatch(false); }, 15) && !operStatesMatch(true)) ok = false;
  if (!settle([&] { return deviceDirMatches(false); }, 10) && !deviceDirMatches(true)) ok = false;
  say("operstates: %s; device directory: %s", operStatesMatch(false) ? "every device as its last status asks" : "MISMATCH",
      deviceDirMatches(false) ? "the kernel's devices of A" : "MISMATCH");

  // Nothing grows.
  say("descriptors: %d after warm-up, %d at the end (max %d, tolerance +%d); VmRSS: %ld KiB after warm-up, %ld KiB "
      "at the end (max %ld, tolerance +%ld KiB)",
      fdStart_, fdEnd_, fdMax_, fdTolerance, rssStart_, rssEnd_, rssMax_, rssToleranceKiB);
  if (fdEnd_ > fdStart_ + fdTolerance) say("FAIL: descriptors grew"), ok = false;
  if (sanitized) {
    say("resident memory not judged: AddressSanitizer keeps freed memory in quarantine (LeakSanitizer checks at exit)");
  } else if (rssEnd_ > rssStart_ + rssToleranceKiB) {
    say("FAIL: resident memory grew");
    ok = false;
  }
  say("%s", ok ? "PASS" : "FAIL");
  phase = "teardown";
  return ok ? 0 : 1;
}

// Library trace lines stay out of the soak's report.
class Silent : public Brisklog::Sink {
 public:
  void lineIs(Brisklog::Line const &) override {}
};

[[noreturn]] void usage(char const * error) {
  std::fprintf(stderr, "intfsm_soak: %s\nusage: intfsm_soak [--seconds N] [--warmup N] [--mode bulk|single|ring]\n",
               error);
  std::exit(2);
}

}  // namespace

int main(int argc, char ** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (i + 1 >= argc) usage(("missing value after " + arg).c_str());
    std::string const value = argv[++i];
    char * end = nullptr;
    if (arg == "--seconds" || arg == "--warmup") {
      double const v = std::strtod(value.c_str(), &end);
      if (*end || !(v > 0) || v > 86400) usage(("bad number of seconds '" + value + "'").c_str());
      (arg == "--seconds" ? options.seconds : options.warmup) = v;
    } else if (arg == "--mode") {
      if (value == "bulk") options.mode = Mode::bulk;
      else if (value == "single") options.mode = Mode::single;
      else if (value == "ring") options.mode = Mode::ring;
      else usage(("no mode '" + value + "'").c_str());
    } else {
      usage(("unknown argument '" + arg + "'").c_str());
    }
  }
  if (!IntfsmTest::isRoot()) {
    std::fprintf(stderr, "intfsm_soak: %s\n", IntfsmTest::rootSkipMessage);
    return 1;
  }
  // A world of our own: a private /run/netns in a mount namespace of this process (and the commands
  // it runs). The oper-state root follows every named namespace, so without this its descriptors
  // would follow whatever else the host makes and removes; and the lab's namespaces vanish with the
  // process however it ends. Before any thread: unshare refuses a threaded process.
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      (mkdir("/run/netns", 0755) != 0 && errno != EEXIST) ||
      mount("tmpfs", "/run/netns", "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0755") != 0) {
    std::fprintf(stderr, "intfsm_soak: cannot give the lab a /run/netns of its own: %s\n", std::strerror(errno));
    return 1;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Silent silent;
  if (!std::getenv("BRISKLOG")) Brisklog::sinkIs(&silent);
  // Set-up and checks take well under a minute each, even on a busy box.
  Watchdog watchdog(options.warmup + options.seconds + 150);
  int status = 1;
  try {
    Soak soak(options);
    status = soak.run();
  } catch (std::exception const & e) {
    std::printf("soak: FAIL: %s (in %s)\n", e.what(), phase.load());
  }
  Brisklog::sinkIs(nullptr);
  return status;
}
