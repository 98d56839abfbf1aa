// Oper-state convergence against real carrier flaps: how soon, and with how many requests, the decided
// operational state comes back after the kernel has recomputed it by itself.
//
//   build/bench/oper_state_converge [rounds=20] [soakFlaps=1000]
//
// Needs root. It makes a namespace of its own ("intfsmc-<pid>") with 64 veth pairs and removes it on
// every way out but SIGKILL (the same handling as oper_state_rate). Devices bca0..63 are managed:
// even ones are decided DORMANT in the default link mode (a flap brings them back UP), odd ones are
// decided UP under IFLA_LINKMODE dormant (a flap brings them back DORMANT). Their peers bcb0..63 are
// flapped over rtnetlink (IFF_UP off, then on). The oper-state root is wired as an agent wires it, its
// namespace collection filled by hand with this namespace only; the loop runs on this thread.
//
// - Together: every peer goes down (the loop runs until all 64 devices have lost their carrier), then
//   every peer comes up, 64 requests in a row from a second thread while the loop runs on this one.
//   An observer thread, subscribed to RTNLGRP_LINK in the namespace, stamps
//   each link report as it arrives; per device, the latency is the time from the kernel's report of its
//   own recomputed state (the flap's undoing) to the report of the decided state again. Requests are
//   the manager's re-assertions; one per device and flap is the least possible.
// - Soak: `soakFlaps` flaps of random peers (down, up), back to back from the second thread while the
//   loop runs, so that flaps overlap each other and the re-assertions. Then the loop runs until every device shows its
//   decided state (10 s at most) and 200 ms more; the states are then read back with a dump, and each
//   must be the decided one.
// Exit status 1 when a device ends in another state, or a latency could not be measured.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchNamespace.h"
#include "bench/NetlinkAck.h"
#include "intfsm/KernelOperState/Root.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"

namespace {

constexpr int devices = 64;
using Bench::nsName;
using Bench::nsPath;
using Bench::removeNamespace;

[[noreturn]] void fail(std::string const & what) {
  std::fprintf(stderr, "oper_state_converge: %s\n", what.c_str());
  std::exit(2);  // the exit handler removes the namespace
}

double now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void runLoop(double seconds) { Vorn::activityManager().runOnce(seconds); }

// A bound routing-netlink socket in the namespace, joined to RTNLGRP_LINK when `monitor`.
int netlinkSocket(bool monitor) {
  int sd = Ovel::socketAt(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE, nsName.c_str());
  if (sd < 0) fail("netlink socket in the namespace: " + std::string(std::strerror(errno)));
  int const buffer = 64 << 20;
  if (monitor) setsockopt(sd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = monitor ? RTMGRP_LINK : 0;
  if (bind(sd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) fail("bind netlink");
  return sd;
}

struct LinkReport {
  int ifIndex;
  int operState;
  std::string name;
};

// The RTM_NEWLINK reports of a datagram (device messages only).
std::vector<LinkReport> linkReports(char const * data, ssize_t length) {
  std::vector<LinkReport> reports;
  int left = static_cast<int>(length);
  for (auto const * h = reinterpret_cast<nlmsghdr const *>(data); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
    if (h->nlmsg_type != RTM_NEWLINK) continue;
    auto const * link = static_cast<ifinfomsg const *>(NLMSG_DATA(h));
    if (link->ifi_family != AF_UNSPEC) continue;
    LinkReport r{link->ifi_index, -1, {}};
    int attributes = static_cast<int>(IFLA_PAYLOAD(h));
    for (auto const * a = IFLA_RTA(link); RTA_OK(a, attributes); a = RTA_NEXT(a, attributes)) {
      if (a->rta_type == IFLA_OPERSTATE) r.operState = *static_cast<uint8_t const *>(RTA_DATA(a));
      if (a->rta_type == IFLA_IFNAME) r.name = static_cast<char const *>(RTA_DATA(a));
    }
    reports.push_back(r);
  }
  return reports;
}

// Requests of our own: IFF_UP of a device, and a dump of every device's state.
class Rtnl {
 public:
  Rtnl() : sd_(netlinkSocket(false)) {}
  ~Rtnl() { close(sd_); }

  void linkUp(std::string const & device, bool up) {
    struct {
      nlmsghdr header;
      ifinfomsg link;
      char attributes[32];
    } request{};
    request.header.nlmsg_type = RTM_NEWLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request.header.nlmsg_seq = ++seq_;
    request.link.ifi_family = AF_UNSPEC;
    request.link.ifi_change = IFF_UP;
    request.link.ifi_flags = up ? IFF_UP : 0;
    auto * name = reinterpret_cast<rtattr *>(request.attributes);
    name->rta_type = IFLA_IFNAME;
    name->rta_len = static_cast<unsigned short>(RTA_LENGTH(device.size() + 1));
    std::memcpy(RTA_DATA(name), device.c_str(), device.size() + 1);
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_ALIGN(name->rta_len);
    if (send(sd_, &request, request.header.nlmsg_len, 0) < 0) fail("send: " + std::string(std::strerror(errno)));
    std::optional<int> const error = Bench::netlinkAck(sd_, seq_, buffer_, sizeof buffer_);
    if (!error) fail("recv: " + std::string(std::strerror(errno)));
    if (*error != 0) fail("setting " + device + " up/down: " + std::strerror(-*error));
  }

  // Device name -> (ifindex, operstate).
  std::map<std::string, LinkReport> links() {
    struct {
      nlmsghdr header;
      ifinfomsg link;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = ++seq_;
    if (send(sd_, &request, request.header.nlmsg_len, 0) < 0) fail("dump: " + std::string(std::strerror(errno)));
    std::map<std::string, LinkReport> links;
    for (;;) {
      ssize_t const n = recv(sd_, buffer_, sizeof buffer_, 0);
      if (n < 0) fail("dump recv: " + std::string(std::strerror(errno)));
      for (auto const & r : linkReports(buffer_, n)) links[r.name] = r;
      int left = static_cast<int>(n);
      for (auto const * h = reinterpret_cast<nlmsghdr const *>(buffer_); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
        if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR) return links;
      }
    }
  }

 private:
  int sd_;
  uint32_t seq_ = 0;
  alignas(nlmsghdr) char buffer_[1 << 16];
};

// Stamps every link report of the namespace as it arrives, on a thread of its own.
class Observer {
 public:
  struct Seen {
    int ifIndex;
    int operState;
    double time;
  };

  Observer() : sd_(netlinkSocket(true)), thread_([this] { run(); }) {}
  ~Observer() {
    stop_ = true;
    thread_.join();
    close(sd_);
  }
  std::vector<Seen> since(double t) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Seen> out;
    for (auto const & s : seen_) {
      if (s.time >= t) out.push_back(s);
    }
    return out;
  }
  bool overran() const { return overran_; }

 private:
  void run() {
    while (!stop_) {
      pollfd p{sd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      ssize_t const n = recv(sd_, buffer_, sizeof buffer_, MSG_DONTWAIT);
      double const t = now();
      if (n < 0) {
        if (errno == ENOBUFS) overran_ = true;
        continue;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      for (auto const & r : linkReports(buffer_, n)) seen_.push_back({r.ifIndex, r.operState, t});
    }
  }

  int sd_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> overran_{false};
  std::mutex mutex_;
  std::vector<Seen> seen_;
  alignas(nlmsghdr) char buffer_[1 << 16];
  std::thread thread_;
};

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  size_t const i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

}  // namespace

int main(int argc, char ** argv) {
  int const rounds = argc > 1 ? std::atoi(argv[1]) : 20;
  int const soakFlaps = argc > 2 ? std::atoi(argv[2]) : 1000;
  if (rounds <= 0 || soakFlaps < 0) {
    std::fprintf(stderr, "usage: oper_state_converge [rounds=20] [soakFlaps=1000]\n");
    return 2;
  }
  if (geteuid() != 0) {
    std::fprintf(stderr, "oper_state_converge needs root (it creates a network namespace)\n");
    return 2;
  }
  std::string const loadBefore = loadAverage();

  if (!Bench::namespaceAdd("intfsmc")) fail("cannot create the namespace");
  {
    std::string const batch = "/tmp/" + nsName + ".batch";
    std::ofstream out(batch);
    for (int i = 0; i < devices; ++i) {
      out << "link add bca" << i << " type veth peer name bcb" << i << "\n";
      if (i % 2) out << "link set dev bca" << i << " mode dormant\n";
      out << "link set bca" << i << " up\nlink set bcb" << i << " up\n";
    }
    out.close();
    int const status = std::system(("ip -n " + nsName + " -batch " + batch).c_str());
    unlink(batch.c_str());
    if (status != 0) fail("cannot create the devices");
  }

  Rtnl rtnl;
  Observer observer;
  std::vector<std::string> managed, peers;
  std::vector<int> decided(devices), kernelOwn(devices);
  std::map<int, int> deviceOfIfIndex;
  auto const links = rtnl.links();
  for (int i = 0; i < devices; ++i) {
    managed.push_back("bca" + std::to_string(i));
    peers.push_back("bcb" + std::to_string(i));
    decided[i] = i % 2 ? IF_OPER_UP : IF_OPER_DORMANT;
    kernelOwn[i] = i % 2 ? IF_OPER_DORMANT : IF_OPER_UP;
    auto const link = links.find(managed[i]);
    if (link == links.end()) fail("no device " + managed[i]);
    deviceOfIfIndex[link->second.ifIndex] = i;
  }

  auto root = KernelOperState::rootFactory("bench");
  root->operStateConvergenceIs(true);
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
    status->deviceNameIs(managed[i]);
    status->operStatusIs(decided[i] == IF_OPER_UP ? Interface::intfOperUp : Interface::intfOperDown);
    auto local = Interface::intfStatusLocalFactory(id);
    local->netNsNameIs(Ovel::NamespaceName(nsName));
    dir->intfStatusIs(status);
    localDir->intfStatusLocalIs(local);
    statuses.push_back(status);
  }
  root->intfStatusOperStatusSmIs(dir, localDir, kosm, netNs);

  // Runs the loop until every device shows `wanted(i)` (read by dumps), at most `limit` seconds.
  auto runUntilAll = [&](auto wanted, double limit) {
    double const end = now() + limit;
    for (;;) {
      auto const states = rtnl.links();
      bool all = true;
      for (int i = 0; i < devices && all; ++i) all = states.at(managed[i]).operState == wanted(i);
      if (all) return true;
      if (now() > end) return false;
      runLoop(0.002);
    }
  };
  // The start-up sync sets the even devices DORMANT; the odd ones are UP already.
  if (!runUntilAll([&](int i) { return decided[i]; }, 5)) fail("devices did not take their first state");

  // Runs the loop while `work` runs on a thread of its own (the flaps, with the loop reacting meanwhile).
  Rtnl flapper;
  auto runLoopDuring = [&](auto work) {
    std::atomic<bool> done{false};
    std::thread thread([&] {
      work();
      done = true;
    });
    while (!done) runLoop(0.005);
    thread.join();
  };
  // Runs the loop until, for every device, the last report since `start` is `wanted(i)`.
  auto runUntilReported = [&](double start, auto wanted, double limit) {
    double const end = now() + limit;
    for (;;) {
      std::vector<int> last(devices, -1);
      for (auto const & s : observer.since(start)) {
        if (auto const d = deviceOfIfIndex.find(s.ifIndex); d != deviceOfIfIndex.end()) last[d->second] = s.operState;
      }
      bool all = true;
      for (int i = 0; i < devices && all; ++i) all = last[i] == wanted(i);
      if (all) return true;
      if (now() > end) return false;
      runLoop(0.005);
    }
  };

  // Together.
  std::vector<double> latencies;
  uint64_t missing = 0;
  double requestsTogether = 0;
  for (int round = 0; round < rounds; ++round) {
    double const down = now();
    runLoopDuring([&] {
      for (auto const & p : peers) flapper.linkUp(p, false);
    });
    if (!runUntilReported(down, [](int) { return IF_OPER_LOWERLAYERDOWN; }, 5)) fail("carriers did not go down");
    uint64_t const before = kosm->reassertions();
    double const start = now();
    runLoopDuring([&] {
      for (auto const & p : peers) flapper.linkUp(p, true);
    });
    if (!runUntilReported(start, [&](int i) { return decided[i]; }, 5)) {
      fail("round " + std::to_string(round) + " did not converge");
    }
    double const quiet = now() + 0.05;
    while (now() < quiet) runLoop(0.01);
    requestsTogether += static_cast<double>(kosm->reassertions() - before);
    // Per device: the kernel's own state reported, then the decided one.
    std::vector<double> own(devices, -1), back(devices, -1);
    for (auto const & s : observer.since(start)) {
      auto const d = deviceOfIfIndex.find(s.ifIndex);
      if (d == deviceOfIfIndex.end()) continue;
      int const i = d->second;
      if (own[i] < 0 && s.operState == kernelOwn[i]) own[i] = s.time;
      if (own[i] >= 0 && back[i] < 0 && s.operState == decided[i]) back[i] = s.time;
    }
    for (int i = 0; i < devices; ++i) {
      if (own[i] >= 0 && back[i] >= 0) {
        latencies.push_back(back[i] - own[i]);
      } else {
        ++missing;
      }
    }
  }

  // Soak.
  std::mt19937 random(12345);
  uint64_t const soakBefore = kosm->reassertions();
  runLoopDuring([&] {
    for (int f = 0; f < soakFlaps; ++f) {
      std::string const & peer = peers[random() % devices];
      flapper.linkUp(peer, false);
      flapper.linkUp(peer, true);
    }
  });
  bool const soakConverged = runUntilAll([&](int i) { return decided[i]; }, 10);
  double const quiet = now() + 0.2;
  while (now() < quiet) runLoop(0.01);
  uint64_t const soakRequests = kosm->reassertions() - soakBefore;
  auto const states = rtnl.links();
  int wrong = 0;
  for (int i = 0; i < devices; ++i) {
    if (states.at(managed[i]).operState != decided[i]) {
      ++wrong;
      std::fprintf(stderr, "%s ends in operstate %d, decided %d\n", managed[i].c_str(), states.at(managed[i]).operState,
                   decided[i]);
    }
  }

  std::printf("oper-state convergence: %d devices (half DORMANT in default link mode, half UP under dormant mode)\n",
              devices);
  std::printf("machine shared and loaded: load average %s before, %s after\n", loadBefore.c_str(),
              loadAverage().c_str());
  std::printf("together: %d rounds of all %d peers down then up\n", rounds, devices);
  std::printf("  kernel's own state reported -> decided state reported: median %.3f ms, p99 %.3f ms, max %.3f ms "
              "(%zu samples, %llu not measured)\n",
              percentile(latencies, 0.5) * 1e3, percentile(latencies, 0.99) * 1e3, percentile(latencies, 1.0) * 1e3,
              latencies.size(), static_cast<unsigned long long>(missing));
  std::printf("  requests per device flap: %.3f (%.1f per round of %d)\n", requestsTogether / (rounds * devices),
              requestsTogether / rounds, devices);
  std::printf("soak: %d flaps of random peers: %llu requests (%.3f per flap); converged: %s; devices in the decided "
              "state at the end: %d of %d\n",
              soakFlaps, static_cast<unsigned long long>(soakRequests),
              soakFlaps ? static_cast<double>(soakRequests) / soakFlaps : 0.0, soakConverged ? "yes" : "no",
              devices - wrong, devices);
  if (observer.overran()) std::printf("(the observer overran: some latencies may be missing)\n");
  std::printf("json: {\"converge_median_ms\":%.3f,\"converge_p99_ms\":%.3f,\"requests_per_flap\":%.3f,"
              "\"soak_requests_per_flap\":%.3f,\"soak_wrong\":%d}\n",
              percentile(latencies, 0.5) * 1e3, percentile(latencies, 0.99) * 1e3,
              requestsTogether / (rounds * devices),
              soakFlaps ? static_cast<double>(soakRequests) / soakFlaps : 0.0, wrong);

  root = nullptr;
  kosm = nullptr;  // closes the link monitor
  removeNamespace();
  return wrong == 0 && missing == 0 ? 0 : 1;
}
