// intfsm-demo: the kernel oper-state subsystem end to end, on real devices.
//
// Creates a network namespace of its own with a veth pair, wires the oper-state root the way an agent
// does, then walks one interface through a few operational statuses. After each change it runs the
// event loop until the kernel's own view of the device (followed over rtnetlink by KernelNetInfo)
// shows the result, and prints it. The namespace is removed at the end, also on Ctrl-C.
//
//   sudo intfsm-demo              # BRISKLOG=KernelOperState/0-8 shows the state machine's traces
#include <linux/if.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "intfsm/KernelOperState/Root.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/vorn/ActivityManager.h"

namespace {

std::string ns;

void removeNamespace() {
  if (ns.empty()) return;
  std::string const cmd = "ip netns del " + ns;
  if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "intfsm-demo: could not remove namespace %s\n", ns.c_str());
  ns.clear();
}

void onSignal(int sig) {
  removeNamespace();
  signal(sig, SIG_DFL);
  raise(sig);
}

void ip(std::string const & args) {
  std::string const cmd = "ip " + args;
  if (std::system(cmd.c_str()) != 0) {
    std::fprintf(stderr, "intfsm-demo: failed: %s\n", cmd.c_str());
    std::exit(1);
  }
}

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::fprintf(stderr, "intfsm-demo: needs root (it creates a network namespace and veth devices)\n");
    return 2;
  }
  ns = "intfsm-demo-" + std::to_string(getpid());
  std::atexit(removeNamespace);
  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);

  std::printf("namespace %s with veth pair demo0/demo1, both up\n", ns.c_str());
  ip("netns add " + ns);
  ip("-n " + ns + " link add demo0 type veth peer name demo1");
  ip("-n " + ns + " link set demo0 up");
  ip("-n " + ns + " link set demo1 up");

  Vorn::ActivityManager & loop = Vorn::activityManager();

  // The kernel's view of the namespace's devices, to show what the state machine achieved.
  auto kernel = KernelNetInfo::Status::statusNew("demoKernel", Ovel::NamespaceName(ns));
  kernel->enabledIs(true);

  // The oper-state subsystem, wired as an agent wires it.
  auto root = KernelOperState::rootFactory("kernelOperState");
  root->kosmIs();
  root->intfStatusDirIs("intfStatus");
  root->intfStatusLocalDirIs("intfStatusLocal");
  root->netNsCollectionIs("netNs");
  root->netNsManagerIs(root->netNsCollection());
  root->intfStatusOperStatusSmIs(root->intfStatusDir(), root->intfStatusLocalDir(), root->kosm(),
                                 root->netNsCollection());
  Ovel::NamespaceName const nsName(ns);
  if (!loop.runUntil([&] { return root->kosm()->nsNetlinkSockFdHas(nsName); }, 5.0)) {
    std::fprintf(stderr, "intfsm-demo: the namespace was not seen\n");
    return 1;
  }
  std::printf("oper-state root wired; cached netlink socket for %s: %d\n", ns.c_str(),
              root->kosm()->nsNetlinkSockFd(nsName));

  // The agent's view of one interface.
  Ovel::IntfId const id("Ethernet1");
  auto status = Interface::intfStatusFactory(id);
  auto local = Interface::intfStatusLocalFactory(id);
  local->netNsNameIs(nsName);
  status->deviceNameIs("demo0");
  status->operStatusIs(Interface::intfOperUp);
  root->intfStatusLocalDir()->intfStatusLocalIs(local);

  auto running = [&] {
    auto intf = kernel->root()->interfaceByDeviceName("demo0");
    return intf.ifIndex() != 0 && intf.isRunning();
  };
  struct Step {
    Interface::IntfOperStatus status;
    bool expectRunning;
  } const steps[] = {{Interface::intfOperUp, true},
                     {Interface::intfOperDown, false},
                     {Interface::intfOperUp, true},
                     {Interface::intfOperLowerLayerDown, false},
                     {Interface::intfOperTesting, false},  // not mapped: nothing is sent
                     {Interface::intfOperUp, true}};
  bool first = true;
  int failures = 0;
  for (auto const & step : steps) {
    status->operStatusIs(step.status);
    if (first) root->intfStatusDir()->intfStatusIs(status);  // the interface joins with its status
    first = false;
    bool const reached = loop.runUntil([&] { return running() == step.expectRunning; }, 2.0);
    auto intf = kernel->root()->interfaceByDeviceName("demo0");
    std::printf("Ethernet1 operStatus %-24s -> kernel demo0 (ifindex %u): %s%s\n",
                Interface::intfOperStatusName(step.status), intf.ifIndex(),
                intf.isRunning() ? "UP, running" : "DORMANT, no carrier", reached ? "" : "   <- unexpected");
    if (!reached) ++failures;
  }

  root = nullptr;
  kernel->enabledIs(false);
  removeNamespace();
  std::printf(failures ? "intfsm-demo: %d step(s) did not reach the kernel\n" : "intfsm-demo: done\n", failures);
  return failures ? 1 : 0;
}
