// Kernel interface status at scale: interfaces spread over 64 namespaces, each namespace's kernel link
// table filled by hand, the root wired as an agent wires it (NetNsIntfStatusManagerRoot with
// filterByNetNs, one manager per namespace). per_intf is the time per interface.
// - StartUp: the agent (re)starts with every interface and device already there: from wiring the root
//   until every interface is published by id and by ifindex. Each iteration starts with cold caches,
//   as a start-up does (second argument 1), or with what the previous one left in them (0).
// - FillFromEmpty: the root is wired with empty directories, then every interface's status and local
//   status arrive, until every interface is published (cold caches).
// - DeviceNameChange: one interface's device name flips between two devices of its namespace (one
//   unpublish and one publish).
// Each at 512 and at 4096 interfaces: linear start-up, and a change whose cost does not grow.
//
//   build/bench/intf_by_device_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <net/if.h>

#include <string>
#include <vector>

#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"

namespace {

using Ovel::IntfId;
using Ovel::NamespaceName;

constexpr int namespaceCount = 64;

struct World {
  explicit World(int interfaces) : interfaces(interfaces) {
    for (int n = 0; n < namespaceCount; ++n) {
      NamespaceName const ns(Vorn::String("ns" + std::to_string(n)));
      names.push_back(ns);
      kernels.push_back(KernelNetInfo::Root::rootNew(Vorn::Name(ns.name())));
      statuses.push_back(KernelNetInfo::Status::statusNew(Vorn::Name(ns.name()), ns, kernels.back()));
    }
    for (int i = 0; i < interfaces; ++i) {
      int const n = i % namespaceCount;
      std::string const device = "et" + std::to_string(i);
      kernels[n]->interfaceIs(KernelNetInfo::Interface(uint32_t(i + 2), IFF_UP | IFF_RUNNING, device));
      intfStatus.push_back(Interface::intfStatusFactory(IntfId(Vorn::String("Ethernet" + std::to_string(i)))));
      intfStatus.back()->deviceNameIs(device);
      intfStatusLocal.push_back(Interface::intfStatusLocalFactory(intfStatus.back()->intfId()));
      intfStatusLocal.back()->netNsNameIs(names[n]);
    }
    // The second device that Ethernet0 flips to.
    kernels[0]->interfaceIs(KernelNetInfo::Interface(uint32_t(interfaces + 2), IFF_UP | IFF_RUNNING, "alt0"));
    kisNew();
  }

  void fill() {
    for (int i = 0; i < interfaces; ++i) {
      all->intfStatusIs(intfStatus[i]);
      locals->intfStatusLocalIs(intfStatusLocal[i]);
    }
  }
  // Fresh, empty output directories.
  void kisNew() {
    kis.clear();
    for (int n = 0; n < namespaceCount; ++n) kis.push_back(Interface::deviceIntfStatusDirFactory(Vorn::Name(names[n].name())));
  }
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> wire() {
    auto root = Interface::netNsIntfStatusManagerRootFactory(all, locals, true);
    for (int n = 0; n < namespaceCount; ++n) root->intfStatusManagerIs(kis[n], statuses[n], names[n]);
    return root;
  }
  // Outside what is timed: checks that everything was published, then undoes it all and leaves the
  // caches cold, as they are when an agent starts.
  void check(benchmark::State & state, Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> & root, bool emptyDirs) {
    int published = 0;
    for (auto const & dir : kis) published += int(dir->intfStatusByIfIndexs());
    if (published != interfaces) state.SkipWithError("not everything was published");
    root = nullptr;
    kisNew();
    if (emptyDirs) {
      all->intfStatusDelAll();
      locals->intfStatusLocalDelAll();
    }
    evictCaches();
  }
  void evictCaches() {
    if (!cold) return;
    for (size_t i = 0; i < evict.size(); i += 64) evict[i] = char(evict[i] + 1);
    benchmark::ClobberMemory();
  }
  void perInterface(benchmark::State & state) {
    state.counters["per_intf"] =
        benchmark::Counter(double(interfaces), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  }

  int interfaces;
  std::vector<NamespaceName> names;
  std::vector<Vorn::Ptr<KernelNetInfo::Root>> kernels;
  std::vector<Vorn::Ptr<KernelNetInfo::Status>> statuses;
  std::vector<Vorn::Ptr<Interface::IntfStatus>> intfStatus;
  std::vector<Vorn::Ptr<Interface::IntfStatusLocal>> intfStatusLocal;
  std::vector<Vorn::Ptr<Interface::DeviceIntfStatusDir>> kis;
  bool cold = true;
  std::vector<char> evict = std::vector<char>(64u << 20);  // twice the largest last-level cache we run on
  Vorn::Ptr<Interface::AllIntfStatusDir> all = Interface::allIntfStatusDirFactory("all");
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals = Interface::allIntfStatusLocalDirFactory("locals");
};

// The second argument 0 keeps the caches warm from one iteration to the next: what it costs beyond
// the cold start is the caches' share.
void BM_StartUp(benchmark::State & state) {
  World world(int(state.range(0)));
  world.cold = state.range(1) != 0;
  world.fill();
  world.evictCaches();
  for (auto _ : state) {
    auto root = world.wire();
    state.PauseTiming();
    world.check(state, root, false);
    state.ResumeTiming();
  }
  world.perInterface(state);
}
BENCHMARK(BM_StartUp)->Args({512, 1})->Args({4096, 1})->Args({512, 0})->Args({4096, 0})->Unit(benchmark::kMillisecond);

void BM_FillFromEmpty(benchmark::State & state) {
  World world(int(state.range(0)));
  world.evictCaches();
  for (auto _ : state) {
    auto root = world.wire();
    world.fill();
    state.PauseTiming();
    world.check(state, root, true);
    state.ResumeTiming();
  }
  world.perInterface(state);
}
BENCHMARK(BM_FillFromEmpty)->Arg(512)->Arg(4096)->Unit(benchmark::kMillisecond);

void BM_DeviceNameChange(benchmark::State & state) {
  World world(int(state.range(0)));
  world.fill();
  auto root = world.wire();
  auto const & status = world.intfStatus[0];
  bool alt = false;
  for (auto _ : state) {
    alt = !alt;
    status->deviceNameIs(alt ? "alt0" : "et0");
  }
  if (world.kis[0]->intfStatusAndDeviceName(status->intfId()).deviceName != (alt ? "alt0" : "et0")) {
    state.SkipWithError("the change was not published");
  }
}
BENCHMARK(BM_DeviceNameChange)->Arg(512)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
