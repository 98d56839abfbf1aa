// Costs of the framework's hot paths: a notified scalar set against a plain virtual call, a notified
// insert+delete in a 4096-key collection, and a walk of 4096 entries.
//
//   build/bench/vorn_bench                                   # 10 repetitions, interleaved
//   build/bench/vorn_bench --benchmark_repetitions=20 --benchmark_min_time=0.1
//
// Repetitions run interleaved in random order (so that a change in the machine's load hits both
// sides of a ratio alike). At the end it prints notify_vs_virtual_call, the CPU time of a notified
// scalar set with one notifiee over that of a plain virtual call, taken per repetition: the median
// and the smallest and largest, and the same as a JSON object on the last line.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tests/support/TestEntities.h"

using IntfsmTest::Widget;
using Vorn::Ptr;

namespace {

struct CountingNotifiee : Widget::NotifieeConst {
  void onLevel() override { ++calls; }
  void onItem(Vorn::String const &) override { ++calls; }
  uint64_t calls = 0;
};

// The baseline: a plain virtual setter that stores and counts, called through a pointer the compiler
// cannot see through.
struct PlainSetter {
  virtual ~PlainSetter() = default;
  virtual void levelIs(int v) = 0;
};
struct CountingSetter : PlainSetter {
  void levelIs(int v) override {
    level = v;
    ++calls;
  }
  int level = 0;
  uint64_t calls = 0;
};
// A second implementation, so that the compiler cannot guess the target and inline it.
struct OtherSetter : PlainSetter {
  void levelIs(int v) override { last = v * 2; }
  int last = 0;
};

void BM_PlainVirtualCall(benchmark::State & state) {
  CountingSetter concrete;
  OtherSetter other;
  volatile bool pickOther = false;
  PlainSetter * setter = pickOther ? static_cast<PlainSetter *>(&other) : &concrete;
  int v = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(setter);
    setter->levelIs(++v);
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(concrete.calls);
}
BENCHMARK(BM_PlainVirtualCall);

void BM_ScalarSetOneNotifiee(benchmark::State & state) {
  auto w = Widget::widgetNew("w");
  Ptr<CountingNotifiee> n = new CountingNotifiee;
  n->notifierIs(w);
  int v = 0;
  for (auto _ : state) {
    w->levelIs(++v);  // a change every time: compare, store, notify
    benchmark::ClobberMemory();
  }
  if (n->calls != static_cast<uint64_t>(v)) state.SkipWithError("notifications lost");
}
BENCHMARK(BM_ScalarSetOneNotifiee);

void BM_CollectionInsertDeleteNotified4096(benchmark::State & state) {
  auto w = Widget::widgetNew("w");
  Ptr<CountingNotifiee> n = new CountingNotifiee;
  n->notifierIs(w);
  std::vector<Vorn::String> keys;
  for (int i = 0; i < 4096; ++i) keys.emplace_back("Ethernet" + std::to_string(i));
  for (int i = 0; i < 4096; ++i) w->itemIs(keys[i], i);
  std::vector<Vorn::String> extra;
  for (int i = 0; i < 1024; ++i) extra.emplace_back("Port-Channel" + std::to_string(i));
  size_t i = 0;
  for (auto _ : state) {
    Vorn::String const & k = extra[i++ & 1023];
    w->itemIs(k, 1);   // insert next to 4096 others, notified
    w->itemDel(k);     // and remove again, notified
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CollectionInsertDeleteNotified4096);

void BM_CollectionWalk4096(benchmark::State & state) {
  auto w = Widget::widgetNew("w");
  for (int i = 0; i < 4096; ++i) w->itemIs("Ethernet" + std::to_string(i), i);
  for (auto _ : state) {
    int64_t sum = 0;
    for (auto const & e : w->itemIter()) sum += e.value;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 4096);
}
BENCHMARK(BM_CollectionWalk4096);

// Keeps each repetition's CPU time per iteration; prints, as the console reporter does, the
// aggregates when there are repetitions and the single runs otherwise.
class RepetitionRecorder : public benchmark::ConsoleReporter {
 public:
  // Colours only on a terminal (a reporter of our own does not get the --benchmark_color choice).
  RepetitionRecorder() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}
  void ReportRuns(std::vector<Run> const & runs) override {
    std::vector<Run> shown;
    for (auto const & run : runs) {
      bool const single = run.run_type == Run::RT_Iteration;
      if (single && !run.error_occurred) cpuNs[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
      if (!single || run.repetitions <= 1) shown.push_back(run);
    }
    if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
  }
  std::map<std::string, std::vector<double>> cpuNs;
};

}  // namespace

int main(int argc, char ** argv) {
  // Defaults first, so that the command line overrides them.
  std::vector<char *> args{argv[0], const_cast<char *>("--benchmark_repetitions=10"),
                           const_cast<char *>("--benchmark_enable_random_interleaving=true")};
  for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  RepetitionRecorder recorder;
  benchmark::RunSpecifiedBenchmarks(&recorder);
  benchmark::Shutdown();

  auto const & notify = recorder.cpuNs["BM_ScalarSetOneNotifiee"];
  auto const & plain = recorder.cpuNs["BM_PlainVirtualCall"];
  std::vector<double> ratios;
  for (size_t i = 0; i < notify.size() && i < plain.size(); ++i) ratios.push_back(notify[i] / plain[i]);
  std::sort(ratios.begin(), ratios.end());
  if (ratios.empty()) {
    std::printf("json: {\"notify_vs_virtual_call\":null}\n");
    return 0;
  }
  size_t const n = ratios.size();
  double const median = n % 2 ? ratios[n / 2] : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
  std::printf("notify_vs_virtual_call: %.2f (%.2f-%.2f over %zu repetitions; goal <= 2.0)\n", median, ratios.front(),
              ratios.back(), n);
  std::printf("json: {\"notify_vs_virtual_call\":%.3f,\"notify_vs_virtual_call_min\":%.3f,\"notify_vs_virtual_call_max\":%.3f}\n",
              median, ratios.front(), ratios.back());
  return 0;
}
