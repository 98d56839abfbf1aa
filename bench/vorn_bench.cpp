// Costs of the framework's hot paths: a notified scalar set against a plain virtual call, a notified
// insert+delete in a 4096-key collection, and a walk of 4096 entries.
//
//   build/bench/vorn_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <vector>

#include "tests/support/TestEntities.h"

using TestSupport::Widget;
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

}  // namespace

BENCHMARK_MAIN();
