// The whole stack at thousands of interfaces: the oper-state root, the namespace status root over four
// namespaces and a packet-access manager per namespace with every interface desired, on veth devices
// of a lab of its own, at several sizes (512, 2048 and 4096 interfaces by default).
//
//   build/bench/scale_bench [--sizes 512,2048,4096] [--reps 3]     # scripts/bench --quick: the same
//   build/bench/scale_bench --sizes 16,64 --reps 1                 # scripts/bench --smoke
//
// Needs root. Each size runs in a child process of its own, so that its resident memory is its own and
// nothing one size left in the allocator flatters the next. The child makes four namespaces
// ("intfsms<k>-<pid>", k = 0..3) with IPv6 disabled (the kernel's address configuration would otherwise
// dominate both device creation and every status change), one veth pair per interface (interface i is
// device si<i> in namespace i % 4, its peer sp<i> beside it), made with `ip -batch`. The namespaces, and
// with them every device, are removed on every way out: normal exit, an error, a terminating signal
// or a crash (the handler unmounts and unlinks the names itself, with calls that are safe in a signal
// handler). Only SIGKILL leaves them behind.
//
// Figures, per size (medians of the repetitions, min-max in the table):
// - startup: from the first initialization (the oper-state state machine made over the filled
//   directories, each namespace's kernel link monitor enabled and its manager made, each packet-access
//   manager initialized and enabled) until every interface is published in its namespace's device
//   directory and has an enabled Pam on that device. The agent's own directories (statuses, local
//   statuses, desired interfaces) are filled before, untimed. Each repetition builds the stack anew.
// - memory: resident bytes per interface, the growth of the process from before the agent's
//   directories to the end of the first startup, divided by the interfaces (the allocator's bytes in
//   use are shown beside it).
// - burst: one operational-status change per interface (all to DORMANT, then all back to UP), until
//   the kernel shows all of them: a monitor socket per namespace counts the link reports whose
//   operstate differs from the device's previous one. The library side sets each IntfStatus; the bare
//   side is a plain loop, written without the library, of RTM_SETLINK requests by name with an
//   acknowledgement read after each, on one socket per namespace, over the same devices in the same
//   order. Rounds alternate which side goes first; both sides pay for the monitors and for the stack's
//   kernel link monitors, which receive the same reports either way. The oper-state convergence is
//   off: it would undo the bare loop's changes. The library's own share is shown apart: the same
//   changes once more with the request replaced by a no-op through the netlink oper-state seam.
// - churn: every interface's device name moves to its veth peer's, then back, until each interface
//   is published under its new device and ifindex and has an enabled Pam there (the stale Pam
//   replaced).
// Times are the thread's CPU time (it holds the kernel's synchronous work as well as ours, and does not
// grow when other programs take the CPU away); the wall clock is shown too. Each ratio 4096 / 512 is of
// the time per size, so a stack that scales linearly reads 8.
//
// The last line is a JSON object: scale_startup_4096_vs_512, scale_burst_4096_vs_512 (the largest size
// over the smallest, whatever the sizes are), scale_burst_vs_bare (changes per second through the library
// / through the bare loop, at the largest size), scale_bytes_per_intf (at the largest size), and the
// absolute figures.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <malloc.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/NetlinkAck.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/KernelOperState/Root.h"
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"
#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/vorn/ActivityManager.h"

namespace {

constexpr int namespaces = 4;

[[noreturn]] void fail(std::string const & what) {
  std::fprintf(stderr, "scale_bench: %s\n", what.c_str());
  std::exit(2);  // the exit handler removes the lab
}

// ---- the lab: four named namespaces, removed on every way out -------------------------------------

char labPaths[namespaces][128];  // /run/netns/<name> while it exists; read by the signal handler
std::string labNames[namespaces];

void labRemove() {
  for (auto & path : labPaths) {
    if (path[0] == '\0') continue;
    umount2(path, MNT_DETACH);
    unlink(path);
    path[0] = '\0';
  }
}

void labRemoveOnSignal(int sig) {
  labRemove();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

// Runs `work` inside namespace `ns` (the calling thread only) and comes back.
template <class Work>
void inNamespace(std::string const & ns, Work work) {
  int const home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  int const there = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
  if (home < 0 || there < 0 || setns(there, CLONE_NEWNET) != 0) fail("cannot enter namespace " + ns);
  work();
  if (setns(home, CLONE_NEWNET) != 0) {
    std::fprintf(stderr, "scale_bench: cannot return to the original namespace\n");
    std::abort();
  }
  close(home);
  close(there);
}

void sysctlIs(std::string const & path, char const * value) {
  std::ofstream out("/proc/sys/net/" + path);
  out << value;
  out.close();
  if (!out) fail("cannot set " + path);
}

std::string deviceName(char side, int i) { return std::string("s") + side + std::to_string(i); }

// Four namespaces with IPv6 off, and the veth pair of every interface in its namespace.
void labIs(int interfaces) {
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS}) std::signal(sig, labRemoveOnSignal);
  std::atexit(labRemove);
  for (int k = 0; k < namespaces; ++k) {
    labNames[k] = "intfsms" + std::to_string(k) + "-" + std::to_string(getpid());
    if (std::system(("ip netns add " + labNames[k]).c_str()) != 0) fail("cannot create namespace " + labNames[k]);
    std::snprintf(labPaths[k], sizeof labPaths[k], "/run/netns/%s", labNames[k].c_str());
    inNamespace(labNames[k], [] {
      sysctlIs("ipv6/conf/all/disable_ipv6", "1");
      sysctlIs("ipv6/conf/default/disable_ipv6", "1");
    });
    std::string const batch = "/tmp/" + labNames[k] + ".batch";
    {
      std::ofstream out(batch);
      for (int i = k; i < interfaces; i += namespaces) {
        out << "link add " << deviceName('i', i) << " type veth peer name " << deviceName('p', i) << "\n"
            << "link set " << deviceName('i', i) << " up\nlink set " << deviceName('p', i) << " up\n";
      }
    }
    int const status = std::system(("ip -n " + labNames[k] + " -batch " + batch).c_str());
    unlink(batch.c_str());
    if (status != 0) fail("cannot create the devices of " + labNames[k]);
  }
}

// ---- clocks, memory, statistics -------------------------------------------------------------------

double clockNow(clockid_t clock) {
  timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Stopwatch {
  double wall0 = clockNow(CLOCK_MONOTONIC), cpu0 = clockNow(CLOCK_THREAD_CPUTIME_ID);
  double wall() const { return clockNow(CLOCK_MONOTONIC) - wall0; }
  double cpu() const { return clockNow(CLOCK_THREAD_CPUTIME_ID) - cpu0; }
};

double residentBytes() {
  std::ifstream in("/proc/self/statm");
  double size = 0, resident = 0;
  in >> size >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double heapBytes() { return static_cast<double>(mallinfo2().uordblks); }

double median(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

std::string spread(std::vector<double> const & v, double scale, char const * format) {
  if (v.empty()) return "-";
  auto text = [&](double x) {
    char b[32];
    std::snprintf(b, sizeof b, format, x * scale);
    return std::string(b);
  };
  return text(median(v)) + " (" + text(*std::min_element(v.begin(), v.end())) + "-" +
         text(*std::max_element(v.begin(), v.end())) + ")";
}

std::string json(double v, char const * format) {
  if (!std::isfinite(v)) return "null";
  char b[32];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

// ---- netlink without the library -------------------------------------------------------------------

int netlinkSocket(std::string const & ns, unsigned groups) {
  int sd = -1;
  inNamespace(ns, [&] { sd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE); });
  if (sd < 0) fail("netlink socket: " + std::string(std::strerror(errno)));
  if (groups) {
    int const buffer = 256 << 20;
    setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
  }
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = groups;
  if (bind(sd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) fail("bind netlink");
  return sd;
}

// The bare side: what a user writes to set a device's operstate, one acknowledged request at a time.
class BareSetter {
 public:
  explicit BareSetter(std::string const & ns) : sd_(netlinkSocket(ns, 0)) {}
  ~BareSetter() { close(sd_); }
  BareSetter(BareSetter const &) = delete;
  BareSetter & operator=(BareSetter const &) = delete;

  void set(std::string const & device, int operState) {
    struct {
      nlmsghdr header;
      ifinfomsg link;
      char attributes[64];
    } request{};
    request.header.nlmsg_type = RTM_SETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request.header.nlmsg_seq = ++seq_;
    request.link.ifi_family = AF_UNSPEC;
    auto * name = reinterpret_cast<rtattr *>(request.attributes);
    name->rta_type = IFLA_IFNAME;
    name->rta_len = static_cast<unsigned short>(RTA_LENGTH(device.size() + 1));
    std::memcpy(RTA_DATA(name), device.c_str(), device.size() + 1);
    auto * state = reinterpret_cast<rtattr *>(request.attributes + RTA_ALIGN(name->rta_len));
    state->rta_type = IFLA_OPERSTATE;
    state->rta_len = RTA_LENGTH(1);
    *static_cast<uint8_t *>(RTA_DATA(state)) = static_cast<uint8_t>(operState);
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_ALIGN(name->rta_len) + RTA_ALIGN(state->rta_len);
    if (send(sd_, &request, request.header.nlmsg_len, 0) < 0) fail("send: " + std::string(std::strerror(errno)));
    std::optional<int> const error = Bench::netlinkAck(sd_, seq_, answer_, sizeof answer_);
    if (!error) fail("recv: " + std::string(std::strerror(errno)));
    if (*error != 0) fail("the kernel refused operstate of " + device + ": " + std::strerror(-*error));
  }

 private:
  int sd_;
  uint32_t seq_ = 0;
  alignas(nlmsghdr) char answer_[8192];
};

// Counts the operational-state changes the kernel applied in the lab's namespaces.
class ChangeMonitor {
 public:
  ChangeMonitor() {
    for (int k = 0; k < namespaces; ++k) {
      sd_[k] = netlinkSocket(labNames[k], RTMGRP_LINK);
      fcntl(sd_[k], F_SETFL, O_NONBLOCK);
    }
  }
  ~ChangeMonitor() {
    for (int sd : sd_) close(sd);
  }
  ChangeMonitor(ChangeMonitor const &) = delete;
  ChangeMonitor & operator=(ChangeMonitor const &) = delete;

  // Reads until `wanted` changes were seen since the last call (false after 30 s without them).
  bool waitFor(uint64_t wanted) {
    uint64_t seen = 0;
    double const end = clockNow(CLOCK_MONOTONIC) + 30;
    for (;;) {
      for (int k = 0; k < namespaces; ++k) seen += read(k);
      if (seen >= wanted) return seen == wanted;
      if (clockNow(CLOCK_MONOTONIC) > end) return false;
      pollfd p[namespaces];
      for (int k = 0; k < namespaces; ++k) p[k] = {sd_[k], POLLIN, 0};
      poll(p, namespaces, 100);
    }
  }
  void drain() {
    for (int k = 0; k < namespaces; ++k) read(k);
  }

 private:
  uint64_t read(int k) {
    uint64_t count = 0;
    for (;;) {
      ssize_t const n = recv(sd_[k], buffer_, sizeof buffer_, 0);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == ENOBUFS) fail("the change monitor overran: its count would be wrong");
        return count;
      }
      int left = static_cast<int>(n);
      for (auto const * h = reinterpret_cast<nlmsghdr const *>(buffer_); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
        if (h->nlmsg_type != RTM_NEWLINK) continue;
        auto const * link = static_cast<ifinfomsg const *>(NLMSG_DATA(h));
        if (link->ifi_family != AF_UNSPEC) continue;
        int state = -1;
        int attributes = static_cast<int>(IFLA_PAYLOAD(h));
        for (auto const * a = IFLA_RTA(link); RTA_OK(a, attributes); a = RTA_NEXT(a, attributes)) {
          if (a->rta_type == IFLA_OPERSTATE) state = *static_cast<uint8_t const *>(RTA_DATA(a));
        }
        if (state < 0) continue;
        // A device not heard of yet is UP: every device is UP when the monitor opens.
        auto it = last_[k].try_emplace(link->ifi_index, IF_OPER_UP).first;
        if (it->second != state) ++count;
        it->second = state;
      }
    }
  }

  int sd_[namespaces];
  std::unordered_map<int, int> last_[namespaces];
  alignas(nlmsghdr) char buffer_[1 << 16];
};

// ---- the stack -------------------------------------------------------------------------------------

Ovel::IntfId intfId(int i) { return Ovel::IntfId("Ethernet" + std::to_string(i + 1)); }

// What the agent holds: statuses, local statuses (the namespace of each) and the desired interfaces.
struct Agent {
  Vorn::Ptr<Interface::AllIntfStatusDir> all = Interface::allIntfStatusDirFactory("allIntfStatus");
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals = Interface::allIntfStatusLocalDirFactory("allIntfStatusLocal");
  std::vector<Vorn::Ptr<Interface::IntfStatus>> statuses;
  Vorn::Ptr<Interface::PamDesiredIntfDir> desired[namespaces];

  explicit Agent(int interfaces) {
    for (int k = 0; k < namespaces; ++k) desired[k] = Interface::pamDesiredIntfDirFactory("desired" + std::to_string(k));
    for (int i = 0; i < interfaces; ++i) {
      auto status = Interface::intfStatusFactory(intfId(i));
      status->deviceNameIs(deviceName('i', i));
      status->operStatusIs(Interface::intfOperUp);
      auto local = Interface::intfStatusLocalFactory(intfId(i));
      local->netNsNameIs(Ovel::NamespaceName(labNames[i % namespaces]));
      all->intfStatusIs(status);
      locals->intfStatusLocalIs(local);
      desired[i % namespaces]->intfDesiredIs(intfId(i), true);
      statuses.push_back(status);
    }
  }
};

// The library, wired as an agent wires it.
struct Stack {
  Vorn::Ptr<KernelOperState::Root> operState;
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> kniRoot;
  Vorn::Ptr<KernelNetInfo::Status> kni[namespaces];
  Vorn::Ptr<Interface::DeviceIntfStatusDir> devices[namespaces];
  Vorn::Ptr<Interface::EthDevPamCollection> pams[namespaces];
  Vorn::Ptr<Interface::EthDevPamManager> managers[namespaces];

  // Everything up to (and without) the initialization.
  explicit Stack(Agent const & agent) {
    operState = KernelOperState::rootFactory("kernelOperState");
    operState->kosmIs();
    operState->intfStatusDirIs("intfStatus");
    operState->intfStatusLocalDirIs("intfStatusLocal");
    auto netNs = operState->netNsCollectionIs("netNs");
    for (int k = 0; k < namespaces; ++k) {
      struct stat st {};
      if (stat(labPaths[k], &st) != 0) fail("namespace " + labNames[k] + " vanished");
      netNs->namespaceIs(Ovel::NamespaceName(labNames[k]), static_cast<uint32_t>(st.st_ino));
    }
    // The agent mirrors its statuses into the oper-state directories.
    for (auto const & e : agent.all->intfStatusIter()) operState->intfStatusDir()->intfStatusIs(e.value);
    for (auto const & e : agent.locals->intfStatusLocalIter()) operState->intfStatusLocalDir()->intfStatusLocalIs(e.value);
    for (int k = 0; k < namespaces; ++k) {
      devices[k] = Interface::deviceIntfStatusDirFactory("devices" + std::to_string(k));
      pams[k] = Interface::ethDevPamCollectionFactory("pams" + std::to_string(k));
    }
  }

  // The timed part: every state machine made over what is there, and initialized.
  void initialize(Agent const & agent) {
    operState->intfStatusOperStatusSmIs(operState->intfStatusDir(), operState->intfStatusLocalDir(), operState->kosm(),
                                        operState->netNsCollection());
    kniRoot = Interface::netNsIntfStatusManagerRootFactory(agent.all, agent.locals, true);
    for (int k = 0; k < namespaces; ++k) {
      Ovel::NamespaceName const ns(labNames[k]);
      kni[k] = KernelNetInfo::Status::statusNew("kni" + std::to_string(k), ns);
      kni[k]->enabledIs(true);
      kniRoot->intfStatusManagerIs(devices[k], kni[k], ns);
      managers[k] = Interface::ethDevPamManagerFactory(agent.desired[k], pams[k], devices[k]);
      managers[k]->netNsIs(ns);
      managers[k]->ethProtocolIs(0x88b5);
      managers[k]->pktReuseIs(true);
      managers[k]->enableBulkPamReadIs(true);
      managers[k]->handleInitialized();
      managers[k]->enabledIs(true);
    }
  }

  ~Stack() {
    for (auto & m : managers) m = nullptr;
    kniRoot = nullptr;
    for (auto & s : kni) s = nullptr;
    operState = nullptr;
  }
};

// Whether interface i is published under device `side` and has an enabled Pam on that device.
bool ready(Stack const & stack, int i, char side) {
  int const k = i % namespaces;
  Ovel::IntfId const id = intfId(i);
  auto const record = stack.devices[k]->intfStatusAndDeviceName(id);
  if (!record || record.ifIndex == 0 || record.deviceName != Vorn::String(deviceName(side, i))) return false;
  auto const pam = Vorn::ptr_cast<Ovel::EthDevPam>(stack.pams[k]->intfPam(id));
  return pam && pam->enabled() && pam->ifIndex() == record.ifIndex;
}

// Runs the loop until every interface is ready on `side` (30 s at most); the index of the first one that
// is not tells where to resume, so each interface is looked at about once.
void runUntilReady(Stack const & stack, int interfaces, char side) {
  double const end = clockNow(CLOCK_MONOTONIC) + 30;
  int i = 0;
  for (;;) {
    while (i < interfaces && ready(stack, i, side)) ++i;
    if (i == interfaces) return;
    if (clockNow(CLOCK_MONOTONIC) > end) {
      fail("interface " + intfId(i).name().stdString() + " not published with an enabled Pam on " +
           deviceName(side, i) + " after 30 s");
    }
    Vorn::activityManager().runOnce(0.01);
  }
}

void drainLoop() {
  for (int pass = 0; pass < 100000 && Vorn::activityManager().runOnce(0);) ++pass;
}

// ---- one size, in a child process ------------------------------------------------------------------

// Writes "key value" lines for the parent.
void runSize(int interfaces, int reps, FILE * out) {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  labIs(interfaces);

  double const resident0 = residentBytes(), heap0 = heapBytes();
  auto agent = std::make_unique<Agent>(interfaces);
  std::unique_ptr<Stack> stack;
  for (int rep = 0; rep < reps; ++rep) {
    stack.reset();
    drainLoop();
    stack = std::make_unique<Stack>(*agent);
    Stopwatch const watch;
    stack->initialize(*agent);
    runUntilReady(*stack, interfaces, 'i');
    double const cpu = watch.cpu(), wall = watch.wall();
    std::fprintf(out, "startup_cpu %.9f\nstartup_wall %.9f\n", cpu, wall);
    if (rep == 0) {
      std::fprintf(out, "resident_per_intf %.1f\nheap_per_intf %.1f\n", (residentBytes() - resident0) / interfaces,
                   (heapBytes() - heap0) / interfaces);
    }
  }

  // Burst: the library and the bare loop, alternating which goes first.
  {
    std::vector<std::unique_ptr<BareSetter>> bare;
    for (int k = 0; k < namespaces; ++k) bare.push_back(std::make_unique<BareSetter>(labNames[k]));
    ChangeMonitor monitor;
    drainLoop();
    monitor.drain();
    auto side = [&](bool library) {
      double cpu = 0, wall = 0;
      for (bool down : {true, false}) {
        Stopwatch const watch;
        for (int i = 0; i < interfaces; ++i) {
          if (library) {
            agent->statuses[i]->operStatusIs(down ? Interface::intfOperDown : Interface::intfOperUp);
          } else {
            bare[i % namespaces]->set(deviceName('i', i), down ? IF_OPER_DORMANT : IF_OPER_UP);
          }
        }
        if (!monitor.waitFor(static_cast<uint64_t>(interfaces))) {
          fail(std::string("the kernel did not show every change of the ") + (library ? "library's" : "bare") + " burst");
        }
        cpu += watch.cpu();
        wall += watch.wall();
        // The stack follows the kernel's reports; untimed, and the same after either side.
        drainLoop();
        monitor.drain();
      }
      char const * name = library ? "burst" : "bare";
      std::fprintf(out, "%s_cpu %.9f\n%s_wall %.9f\n", name, cpu, name, wall);
    };
    // The library's own share: the same changes with the request replaced by a no-op (through the
    // seam tests use), so that nothing reaches the kernel.
    {
      Interface::NetlinkOperStateHook const saved = Interface::netlinkOperStateHook();
      Interface::netlinkOperStateHook() = [](int, char const *, int, int) { return true; };
      Stopwatch const watch;
      for (bool down : {true, false}) {
        for (int i = 0; i < interfaces; ++i) {
          agent->statuses[i]->operStatusIs(down ? Interface::intfOperDown : Interface::intfOperUp);
        }
      }
      std::fprintf(out, "own_cpu %.9f\n", watch.cpu());
      Interface::netlinkOperStateHook() = saved;
    }
    for (int rep = 0; rep < reps; ++rep) {
      side(rep % 2 == 1);
      side(rep % 2 == 0);
    }
  }

  // Device-name churn: to the peer's device and back.
  for (int rep = 0; rep < reps; ++rep) {
    double cpu = 0, wall = 0;
    for (char side : {'p', 'i'}) {
      Stopwatch const watch;
      for (int i = 0; i < interfaces; ++i) agent->statuses[i]->deviceNameIs(deviceName(side, i));
      runUntilReady(*stack, interfaces, side);
      cpu += watch.cpu();
      wall += watch.wall();
    }
    std::fprintf(out, "churn_cpu %.9f\nchurn_wall %.9f\n", cpu, wall);
  }

  stack.reset();
  agent.reset();
  drainLoop();
  labRemove();
}

// ---- the parent ------------------------------------------------------------------------------------

using Figures = std::map<std::string, std::vector<double>>;

// Runs one size in a child; its figures, or an empty map when it failed.
Figures childRun(int interfaces, int reps) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) fail("pipe");
  std::fflush(nullptr);
  pid_t const child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    close(pipeFds[0]);
    FILE * out = fdopen(pipeFds[1], "w");
    runSize(interfaces, reps, out);
    std::fclose(out);
    std::exit(0);
  }
  close(pipeFds[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return {};
  Figures figures;
  std::istringstream in(text);
  std::string key;
  for (double value; in >> key >> value;) figures[key].push_back(value);
  return figures;
}

std::vector<int> sizesOf(std::string const & text) {
  std::vector<int> sizes;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    int const n = std::atoi(item.c_str());
    if (n < namespaces || n > 16384) return {};
    sizes.push_back(n);
  }
  return sizes;
}

}  // namespace

int main(int argc, char ** argv) {
  std::vector<int> sizes{512, 2048, 4096};
  int reps = 3;
  for (int a = 1; a < argc; ++a) {
    std::string const arg = argv[a];
    if (arg == "--sizes" && a + 1 < argc) {
      sizes = sizesOf(argv[++a]);
    } else if (arg == "--reps" && a + 1 < argc) {
      reps = std::atoi(argv[++a]);
    } else {
      sizes.clear();
    }
    if (sizes.empty() || reps < 1 || reps > 100) {
      std::fprintf(stderr, "usage: scale_bench [--sizes N,N,...] [--reps R]   (N: 4 to 16384, R: 1 to 100)\n");
      return 2;
    }
  }
  if (geteuid() != 0) {
    std::fprintf(stderr, "scale_bench needs root (it creates network namespaces)\n");
    return 2;
  }
  std::sort(sizes.begin(), sizes.end());

  std::map<int, Figures> results;
  for (int n : sizes) {
    Figures figures = childRun(n, reps);
    if (figures.empty()) {
      std::fprintf(stderr, "scale_bench: the run at %d interfaces failed\n", n);
      return 1;
    }
    results[n] = std::move(figures);
  }

  std::printf("the stack at scale: oper-state root, namespace status root over %d namespaces, a packet-access manager\n"
              "per namespace with every interface desired; veth devices, IPv6 off; %d repetition(s) per size,\n"
              "median (min-max); times are the thread's CPU time, per interface (wall clock in the last column)\n",
              namespaces, reps);
  auto perIntf = [&](int n, char const * key) {
    std::vector<double> v = results[n][key];
    for (double & x : v) x /= n;
    return v;
  };
  std::printf("%-10s %-22s %-22s %-22s %-22s %-14s %-14s\n", "interfaces", "startup us", "burst us (2 changes)",
              "bare us (2 changes)", "churn us (2 moves)", "resident B", "heap B");
  for (int n : sizes) {
    std::printf("%-10d %-22s %-22s %-22s %-22s %-14s %-14s\n", n, spread(perIntf(n, "startup_cpu"), 1e6, "%.1f").c_str(),
                spread(perIntf(n, "burst_cpu"), 1e6, "%.1f").c_str(), spread(perIntf(n, "bare_cpu"), 1e6, "%.1f").c_str(),
                spread(perIntf(n, "churn_cpu"), 1e6, "%.1f").c_str(), json(median(results[n]["resident_per_intf"]), "%.0f").c_str(),
                json(median(results[n]["heap_per_intf"]), "%.0f").c_str());
  }
  std::printf("the library's own work in the burst (requests not sent), us per interface (2 changes):\n");
  for (int n : sizes) std::printf("%-10d %-22s\n", n, spread(perIntf(n, "own_cpu"), 1e6, "%.2f").c_str());
  std::printf("wall clock, us per interface:\n");
  for (int n : sizes) {
    std::printf("%-10d %-22s %-22s %-22s %-22s\n", n, spread(perIntf(n, "startup_wall"), 1e6, "%.1f").c_str(),
                spread(perIntf(n, "burst_wall"), 1e6, "%.1f").c_str(), spread(perIntf(n, "bare_wall"), 1e6, "%.1f").c_str(),
                spread(perIntf(n, "churn_wall"), 1e6, "%.1f").c_str());
  }

  int const small = sizes.front(), large = sizes.back();
  auto ratio = [&](char const * key) { return median(results[large][key]) / median(results[small][key]); };
  // Library / bare as changes per second: the bare loop's time over the library's, per round.
  std::vector<double> vsBare;
  auto const & burst = results[large]["burst_cpu"];
  auto const & bare = results[large]["bare_cpu"];
  for (size_t r = 0; r < std::min(burst.size(), bare.size()); ++r) vsBare.push_back(bare[r] / burst[r]);
  std::printf("%d / %d: startup %.2f, burst %.2f, bare %.2f, churn %.2f (linear: %.2f); library / bare at %d: %s\n", large,
              small, ratio("startup_cpu"), ratio("burst_cpu"), ratio("bare_cpu"), ratio("churn_cpu"),
              static_cast<double>(large) / small, large, spread(vsBare, 1, "%.3f").c_str());
  std::printf("json: {\"scale_startup_4096_vs_512\":%s,\"scale_burst_4096_vs_512\":%s,\"scale_burst_vs_bare\":%s,"
              "\"scale_bytes_per_intf\":%s,\"scale_churn_4096_vs_512\":%s,\"scale_startup_us_per_intf\":%s,"
              "\"scale_burst_us_per_change\":%s,\"scale_own_us_per_change\":%s,\"scale_churn_us_per_move\":%s}\n",
              json(ratio("startup_cpu"), "%.2f").c_str(), json(ratio("burst_cpu"), "%.2f").c_str(),
              json(median(vsBare), "%.3f").c_str(), json(median(results[large]["resident_per_intf"]), "%.0f").c_str(),
              json(ratio("churn_cpu"), "%.2f").c_str(), json(median(perIntf(large, "startup_cpu")) * 1e6, "%.1f").c_str(),
              json(median(perIntf(large, "burst_cpu")) * 1e6 / 2, "%.2f").c_str(),
              json(median(perIntf(large, "own_cpu")) * 1e6 / 2, "%.2f").c_str(),
              json(median(perIntf(large, "churn_cpu")) * 1e6 / 2, "%.2f").c_str());
  return 0;
}
