// Operational-state changes pushed into real devices: the oper-state state machine against a bare
// loop of the same routing-netlink requests, in one run, with IPv6 enabled on the devices and then
// disabled (the kernel's address configuration runs on every change while IPv6 is on, and is then
// most of the cost of a change).
//
//   build/bench/oper_state_rate [changes=10000] [rounds=3]     # scripts/bench: 5 rounds, --quick 3
//
// Needs root. It makes a namespace of its own ("intfsmb-<pid>") with 128 veth pairs (256 devices),
// changes sysctls only inside it, and removes it on every way out: normal exit, an error, a
// terminating signal or a crash (SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS: the
// handler unmounts and unlinks the namespace's name itself, which is all `ip netns del` does, with
// calls that are safe in a signal handler). Only SIGKILL leaves it behind.
//
// The comparison:
// - The same sequence on both sides: change i goes to device i % 256, to DORMANT on even passes over
//   the devices and to UP on odd ones, starting from every device UP, so that every request changes
//   its device's state. The state machine gets it as the interface's status (down / up), the bare
//   loop as the IFLA_OPERSTATE request itself.
// - The bare loop is what a user writes: one RTM_SETLINK request (device by name, NLM_F_ACK) built
//   with libmnl, sendmsg, then a blocking recv of the acknowledgement, which must be a success.
// - Each side is timed from its first change to the return of its last one. The kernel handles an
//   RTM_SETLINK inside the sender's sendmsg (the change is applied, the notification and the
//   acknowledgement queued before it returns), so a side that does not wait for acknowledgements is
//   timed for all the kernel's work all the same; not waiting is a saving of its own.
// - The time is the benchmark thread's CPU time (CLOCK_THREAD_CPUTIME_ID). It holds the kernel's
//   synchronous work as well as ours, and unlike the wall clock it does not grow when other programs
//   take the CPU away; work the kernel defers to its own threads (IPv6 address configuration) is in
//   neither side. On an idle machine the two clocks agree; the wall-clock ratio is shown too.
// - Each side is credited only with the changes the kernel made: a monitor socket in the namespace
//   (RTNLGRP_LINK) counts the link notifications whose IFLA_OPERSTATE differs from the device's
//   previous one. A request lost, refused or not sent shows up as a missing change, and the rate is
//   changes applied per second. Both sides pay for the monitor alike.
// - Rounds alternate which side goes first; the ratio state machine / bare loop is taken per round.
// The summary's last line is a JSON object: operstate_vs_bare (IPv6 enabled) and the absolute rates.
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench/BenchNamespace.h"
#include "intfsm/KernelOperState/Root.h"
#include "intfsm/foundation/ovel/SocketAt.h"

namespace {

constexpr int devices = 256;
using Bench::nsName;
using Bench::nsPath;
using Bench::removeNamespace;

[[noreturn]] void fail(std::string const & what) {
  std::fprintf(stderr, "oper_state_rate: %s\n", what.c_str());
  std::exit(2);  // the exit handler removes the namespace
}

// Writes a sysctl of the namespace: /proc/sys/net belongs to the namespace of whoever opens it.
void nsSysctl(std::string const & path, char const * value) {
  int const home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  int const lab = open(("/run/netns/" + nsName).c_str(), O_RDONLY | O_CLOEXEC);
  if (home < 0 || lab < 0 || setns(lab, CLONE_NEWNET) != 0) fail("cannot enter the namespace");
  std::ofstream out("/proc/sys/net/" + path);
  out << value;
  out.close();
  std::string check;
  std::ifstream in("/proc/sys/net/" + path);
  in >> check;
  if (setns(home, CLONE_NEWNET) != 0) {
    std::fprintf(stderr, "oper_state_rate: cannot return to the original namespace\n");
    std::abort();
  }
  close(home);
  close(lab);
  if (!out || check != value) fail("cannot set " + path + " in the namespace");
}

// Wall and CPU seconds of this thread since it was made.
class Stopwatch {
 public:
  Stopwatch() : wall0_(now(CLOCK_MONOTONIC)), cpu0_(now(CLOCK_THREAD_CPUTIME_ID)) {}
  double wall() const { return now(CLOCK_MONOTONIC) - wall0_; }
  double cpu() const { return now(CLOCK_THREAD_CPUTIME_ID) - cpu0_; }

 private:
  static double now(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  }
  double wall0_, cpu0_;
};

// A bound routing-netlink socket in the namespace; `groups`: multicast groups to join.
int netlinkSocket(unsigned groups, int receiveBuffer) {
  int sd = Ovel::socketAt(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, nsName.c_str());
  if (sd < 0) fail("netlink socket in the namespace: " + std::string(std::strerror(errno)));
  if (receiveBuffer) setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = groups;
  if (bind(sd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) fail("bind netlink");
  return sd;
}

// The bare loop's request: sendmsg, then recv the acknowledgement. True when the kernel accepted it.
class BareSetter {
 public:
  BareSetter() : sd_(netlinkSocket(0, 0)) {}
  ~BareSetter() { close(sd_); }

  bool set(char const * device, int operState) {
    alignas(nlmsghdr) char request[128] = {};
    nlmsghdr * nlh = mnl_nlmsg_put_header(request);
    nlh->nlmsg_type = RTM_SETLINK;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    nlh->nlmsg_seq = ++seq_;
    auto * link = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    link->ifi_family = AF_UNSPEC;
    mnl_attr_put_strz(nlh, IFLA_IFNAME, device);
    mnl_attr_put_u8(nlh, IFLA_OPERSTATE, static_cast<uint8_t>(operState));

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    iovec iov{nlh, nlh->nlmsg_len};
    msghdr msg{};
    msg.msg_name = &kernel;
    msg.msg_namelen = sizeof kernel;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (sendmsg(sd_, &msg, 0) < 0) return false;
    for (;;) {
      ssize_t const n = recv(sd_, answer_, sizeof answer_, 0);
      if (n < 0) return false;
      int length = static_cast<int>(n);
      for (auto const * a = reinterpret_cast<nlmsghdr const *>(answer_); mnl_nlmsg_ok(a, length); a = mnl_nlmsg_next(a, &length)) {
        if (a->nlmsg_seq != seq_ || a->nlmsg_type != NLMSG_ERROR) continue;
        return static_cast<nlmsgerr const *>(mnl_nlmsg_get_payload(a))->error == 0;
      }
    }
  }

 private:
  int sd_;
  uint32_t seq_ = 0;
  alignas(nlmsghdr) char answer_[8192];
};

// Counts the operational-state changes the kernel applied to the namespace's devices.
class ChangeMonitor {
 public:
  ChangeMonitor() : sd_(netlinkSocket(RTMGRP_LINK, 256 << 20)) { fcntl(sd_, F_SETFL, O_NONBLOCK); }
  ~ChangeMonitor() { close(sd_); }

  // Reads what is queued; returns the state changes seen since the last call.
  uint64_t changes() {
    uint64_t count = 0;
    for (;;) {
      ssize_t const n = recv(sd_, buffer_, sizeof buffer_, 0);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == ENOBUFS) fail("the change monitor overran: its count would be wrong");
        return count;
      }
      int length = static_cast<int>(n);
      for (auto const * h = reinterpret_cast<nlmsghdr const *>(buffer_); mnl_nlmsg_ok(h, length); h = mnl_nlmsg_next(h, &length)) {
        if (h->nlmsg_type != RTM_NEWLINK) continue;
        auto const * link = static_cast<ifinfomsg const *>(mnl_nlmsg_get_payload(h));
        if (link->ifi_family != AF_UNSPEC) continue;
        int state = -1;
        auto const * tail = static_cast<char const *>(mnl_nlmsg_get_payload_tail(h));
        for (auto const * attr = static_cast<nlattr const *>(mnl_nlmsg_get_payload_offset(h, sizeof(ifinfomsg)));
             mnl_attr_ok(attr, static_cast<int>(tail - reinterpret_cast<char const *>(attr))); attr = mnl_attr_next(attr)) {
          if (mnl_attr_get_type(attr) == IFLA_OPERSTATE) state = mnl_attr_get_u8(attr);
        }
        if (state < 0) continue;
        // A device not heard of yet is UP: every run starts from a reset to UP.
        auto it = last_.try_emplace(link->ifi_index, IF_OPER_UP).first;
        if (it->second != state) ++count;
        it->second = state;
      }
    }
  }

 private:
  int sd_;
  std::map<int, int> last_;
  alignas(nlmsghdr) char buffer_[65536];
};

struct Side {
  std::vector<double> rates;       // applied changes per CPU second, per round
  std::vector<double> wallRates;   // applied changes per second of wall time, per round
  std::vector<double> applied;     // applied / requested, per round
};

double median(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

std::string spread(std::vector<double> const & v, char const * format) {
  if (v.empty()) return "-";
  char m[32], lo[32], hi[32];
  std::snprintf(m, sizeof m, format, median(v));
  std::snprintf(lo, sizeof lo, format, *std::min_element(v.begin(), v.end()));
  std::snprintf(hi, sizeof hi, format, *std::max_element(v.begin(), v.end()));
  return std::string(m) + " (" + lo + "-" + hi + ")";
}

std::string json(double v, char const * format) {
  if (std::isnan(v)) return "null";
  char b[32];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

}  // namespace

int main(int argc, char ** argv) {
  int const changes = argc > 1 ? std::atoi(argv[1]) : 10000;
  int const rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  if (changes <= 0 || rounds <= 0) {
    std::fprintf(stderr, "usage: oper_state_rate [changes=10000] [rounds=3]\n");
    return 2;
  }
  if (geteuid() != 0) {
    std::fprintf(stderr, "oper_state_rate needs root (it creates a network namespace)\n");
    return 2;
  }

  if (!Bench::namespaceAdd("intfsmb")) fail("cannot create the namespace");
  {
    std::string batch = "/tmp/" + nsName + ".batch";
    std::ofstream out(batch);
    for (int i = 0; i < devices / 2; ++i) {
      out << "link add bva" << i << " type veth peer name bvb" << i << "\n";
      out << "link set bva" << i << " up\nlink set bvb" << i << " up\n";
    }
    out.close();
    int const status = std::system(("ip -n " + nsName + " -batch " + batch).c_str());
    unlink(batch.c_str());
    if (status != 0) fail("cannot create the devices");
  }
  std::vector<std::string> names;
  for (int i = 0; i < devices / 2; ++i) {
    names.push_back("bva" + std::to_string(i));
    names.push_back("bvb" + std::to_string(i));
  }

  // The state machine, wired as an agent wires it; the namespace collection is filled by hand.
  auto root = KernelOperState::rootFactory("bench");
  auto kosm = root->kosmIs();
  auto dir = root->intfStatusDirIs("intfStatus");
  auto localDir = root->intfStatusLocalDirIs("intfStatusLocal");
  auto netNs = root->netNsCollectionIs("netNs");
  struct stat st {};
  if (stat(nsPath, &st) != 0) fail("namespace vanished");
  netNs->namespaceIs(Ovel::NamespaceName(nsName), static_cast<uint32_t>(st.st_ino));
  std::vector<Vorn::Ptr<Interface::IntfStatus>> statuses;
  for (int i = 0; i < devices; ++i) {
    Ovel::IntfId id("Ethernet" + std::to_string(i + 1));
    auto status = Interface::intfStatusFactory(id);
    status->deviceNameIs(names[i]);
    status->operStatusIs(Interface::intfOperUp);
    auto local = Interface::intfStatusLocalFactory(id);
    local->netNsNameIs(Ovel::NamespaceName(nsName));
    dir->intfStatusIs(status);
    localDir->intfStatusLocalIs(local);
    statuses.push_back(status);
  }
  root->intfStatusOperStatusSmIs(dir, localDir, kosm, netNs);

  BareSetter bare;
  ChangeMonitor monitor;
  auto target = [](int i) { return ((i / devices) & 1) ? IF_OPER_UP : IF_OPER_DORMANT; };

  // Every device UP, in the kernel and in the state machine's view, and the monitor emptied.
  auto reset = [&] {
    for (auto & s : statuses) s->operStatusIs(Interface::intfOperUp);
    for (auto const & n : names) {
      if (!bare.set(n.c_str(), IF_OPER_UP)) fail("reset of " + n + " refused: " + std::strerror(errno));
    }
    monitor.changes();
  };
  auto runBare = [&](Side & side) {
    reset();
    Stopwatch const watch;
    for (int i = 0; i < changes; ++i) {
      if (!bare.set(names[i % devices].c_str(), target(i))) fail("bare request refused: " + std::string(std::strerror(errno)));
    }
    double const cpu = watch.cpu(), wall = watch.wall();
    double const applied = static_cast<double>(monitor.changes());
    side.rates.push_back(applied / cpu);
    side.wallRates.push_back(applied / wall);
    side.applied.push_back(applied / changes);
  };
  auto runSm = [&](Side & side) {
    reset();
    Stopwatch const watch;
    for (int i = 0; i < changes; ++i) {
      statuses[i % devices]->operStatusIs(target(i) == IF_OPER_UP ? Interface::intfOperUp : Interface::intfOperDown);
    }
    double const cpu = watch.cpu(), wall = watch.wall();
    double const applied = static_cast<double>(monitor.changes());
    side.rates.push_back(applied / cpu);
    side.wallRates.push_back(applied / wall);
    side.applied.push_back(applied / changes);
  };

  struct Mode {
    char const * name;
    Side bare, sm;
    std::vector<double> ratios, wallRatios;
  } modes[2] = {{"IPv6 enabled", {}, {}, {}, {}}, {"IPv6 disabled", {}, {}, {}, {}}};
  for (int m = 0; m < 2; ++m) {
    if (m == 1) {
      nsSysctl("ipv6/conf/all/disable_ipv6", "1");
      nsSysctl("ipv6/conf/default/disable_ipv6", "1");
    }
    for (int round = 0; round < rounds; ++round) {
      if (round % 2 == 0) {
        runBare(modes[m].bare);
        runSm(modes[m].sm);
      } else {
        runSm(modes[m].sm);
        runBare(modes[m].bare);
      }
      modes[m].ratios.push_back(modes[m].sm.rates.back() / modes[m].bare.rates.back());
      modes[m].wallRatios.push_back(modes[m].sm.wallRates.back() / modes[m].bare.wallRates.back());
    }
  }

  std::printf("oper-state changes: %d per round over %d veth devices, %d round(s) per mode, median (min-max)\n", changes,
              devices, rounds);
  std::printf("changes applied per second of the thread's CPU time (wall clock: last column)\n");
  std::printf("%-14s %-26s %-26s %-22s %-9s %-9s %-22s\n", "devices", "bare loop", "state machine",
              "state machine / bare", "bare ok", "sm ok", "ratio by wall clock");
  for (auto const & mode : modes) {
    std::printf("%-14s %-26s %-26s %-22s %-9s %-9s %-22s\n", mode.name, spread(mode.bare.rates, "%.0f").c_str(),
                spread(mode.sm.rates, "%.0f").c_str(), spread(mode.ratios, "%.3f").c_str(),
                json(median(mode.bare.applied) * 100, "%.1f%%").c_str(), json(median(mode.sm.applied) * 100, "%.1f%%").c_str(),
                spread(mode.wallRatios, "%.3f").c_str());
  }
  std::printf("per change: %.1f us bare / %.1f us state machine with IPv6, %.1f / %.1f us without\n",
              1e6 / median(modes[0].bare.rates), 1e6 / median(modes[0].sm.rates), 1e6 / median(modes[1].bare.rates),
              1e6 / median(modes[1].sm.rates));
  std::printf("json: {\"operstate_vs_bare\":%s,\"operstate_bare_per_s\":%s,\"operstate_sm_per_s\":%s,"
              "\"operstate_vs_bare_noipv6\":%s,\"operstate_bare_per_s_noipv6\":%s,\"operstate_sm_per_s_noipv6\":%s,"
              "\"operstate_vs_bare_wall\":%s,\"operstate_vs_bare_noipv6_wall\":%s}\n",
              json(median(modes[0].ratios), "%.3f").c_str(), json(median(modes[0].bare.rates), "%.0f").c_str(),
              json(median(modes[0].sm.rates), "%.0f").c_str(), json(median(modes[1].ratios), "%.3f").c_str(),
              json(median(modes[1].bare.rates), "%.0f").c_str(), json(median(modes[1].sm.rates), "%.0f").c_str(),
              json(median(modes[0].wallRatios), "%.3f").c_str(), json(median(modes[1].wallRatios), "%.3f").c_str());
  bool const allApplied = std::all_of(std::begin(modes), std::end(modes), [](Mode const & m) {
    return median(m.bare.applied) > 0.999 && median(m.sm.applied) > 0.999;
  });
  root = nullptr;
  removeNamespace();
  if (!allApplied) {
    std::fprintf(stderr, "oper_state_rate: the kernel applied fewer changes than were asked for\n");
    return 1;
  }
  return 0;
}
