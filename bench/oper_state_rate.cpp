// Operational-status changes pushed into real devices: the oper-state state machine against a bare
// loop that sends the same acknowledged requests directly, in one run.
//
// Needs root: it creates a namespace of its own with 128 veth pairs (256 devices) and removes it at
// the end (also on SIGINT/SIGTERM). Usage:
//   build/bench/oper_state_rate [changes=10000] [rounds=3]
// Prints the rate of each path and the ratio state machine / bare loop (goal: at least 0.8).
#include <linux/if.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "intfsm/KernelOperState/Root.h"
#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/ovel/SocketAt.h"

namespace {

std::string nsName;

void removeNamespace() {
  if (nsName.empty()) return;
  std::string cmd = "ip netns del " + nsName + " 2>/dev/null";
  if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "could not remove namespace %s\n", nsName.c_str());
  nsName.clear();
}

void onSignal(int sig) {
  removeNamespace();
  signal(sig, SIG_DFL);
  raise(sig);
}

void run(std::string const & cmd) {
  if (std::system(cmd.c_str()) != 0) {
    std::fprintf(stderr, "failed: %s\n", cmd.c_str());
    std::exit(2);
  }
}

double seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

int main(int argc, char ** argv) {
  int const changes = argc > 1 ? std::atoi(argv[1]) : 10000;
  int const rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  int const devices = 256;
  if (geteuid() != 0) {
    std::fprintf(stderr, "oper_state_rate needs root (it creates a network namespace)\n");
    return 2;
  }

  nsName = "intfsmb-" + std::to_string(getpid());
  std::atexit(removeNamespace);
  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);
  run("ip netns add " + nsName);
  {
    std::string batch = "/tmp/" + nsName + ".batch";
    std::ofstream out(batch);
    for (int i = 0; i < devices / 2; ++i) {
      out << "link add bva" << i << " type veth peer name bvb" << i << "\n";
      out << "link set bva" << i << " up\nlink set bvb" << i << " up\n";
    }
    out.close();
    run("ip -n " + nsName + " -batch " + batch);
    unlink(batch.c_str());
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
  if (stat(("/run/netns/" + nsName).c_str(), &st) != 0) return 2;
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

  // The bare loop: one bound route-netlink socket in the namespace, the same requests.
  int sd = Ovel::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, nsName.c_str());
  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  if (sd < 0 || bind(sd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) return 2;

  std::vector<double> bareRates, smRates;
  for (int round = 0; round < rounds; ++round) {
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < changes; ++i) {
      int operState = ((i / devices) & 1) ? IF_OPER_UP : IF_OPER_DORMANT;
      if (!Interface::doSetNetlinkOperState(sd, names[i % devices].c_str(), 111, operState)) return 3;
    }
    auto t1 = std::chrono::steady_clock::now();
    for (int i = 0; i < changes; ++i) {
      bool up = ((i / devices) & 1) != 0;
      statuses[i % devices]->operStatusIs(up ? Interface::intfOperUp : Interface::intfOperDown);
    }
    auto t2 = std::chrono::steady_clock::now();
    bareRates.push_back(changes / seconds(t1 - t0));
    smRates.push_back(changes / seconds(t2 - t1));
  }
  close(sd);

  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  double bare = median(bareRates), sm = median(smRates);
  std::printf("changes per round: %d over %d devices, rounds: %d\n", changes, devices, rounds);
  std::printf("bare loop:      %10.0f requests/s (median)\n", bare);
  std::printf("state machine:  %10.0f changes/s  (median)\n", sm);
  std::printf("ratio state machine / bare loop: %.3f (goal >= 0.8)\n", sm / bare);
  root = nullptr;
  removeNamespace();
  return 0;
}
