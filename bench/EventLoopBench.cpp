// Costs of the event loop's building blocks: a deferred call through an activity, a timer that
// re-arms every pass, a readable descriptor per pass, and an empty pass.
#include <sys/eventfd.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/System.h"

namespace {

class Counter : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Counter> {
   public:
    virtual void onValue() {}
  };
  Counter() : Entity("counter") {}
  void valueIs(uint64_t v) { set(value_, v, &NotifieeConst::onValue); }
  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0;
};

struct Reader : Counter::NotifieeConst {
  void onValue() override { ++calls; }
  uint64_t calls = 0;
};

// N notifiees on one activity, one change: N calls queued and run in one pass.
void BM_DeferredCallsPerPass(benchmark::State & state) {
  Vorn::ActivityManager loop;
  Vorn::Ptr<Vorn::Activity> act = loop.activityIs("bench", 0);
  Vorn::Ptr<Counter> counter = new Counter;
  std::vector<Vorn::Ptr<Reader>> readers;
  for (int64_t i = 0; i < state.range(0); ++i) {
    readers.push_back(new Reader);
    readers.back()->notifierIs(counter);
    readers.back()->activityIs(act.ptr());
  }
  for (auto _ : state) {
    counter->valueIs(counter->value() + 1);
    loop.runOnce(0);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DeferredCallsPerPass)->Arg(1)->Arg(64)->Arg(4096);

struct Rearm : Vorn::Clock::NotifieeConst {
  void onTimeMin() override { timeMinIs(Vorn::System::currentTime()); }
};

void BM_TimerRearmedEveryPass(benchmark::State & state) {
  Vorn::System::testTimeIs(1.0);
  Vorn::ActivityManager loop;
  std::vector<Vorn::Ptr<Rearm>> timers;
  for (int64_t i = 0; i < state.range(0); ++i) {
    timers.push_back(new Rearm);
    timers.back()->notifierIs(loop.clock());
    timers.back()->timeMinIs(1.0);
  }
  for (auto _ : state) loop.runOnce(0);
  state.SetItemsProcessed(state.iterations() * state.range(0));
  timers.clear();
  Vorn::System::testTimeDel();
}
BENCHMARK(BM_TimerRearmedEveryPass)->Arg(1)->Arg(4096);

void BM_ReadablePass(benchmark::State & state) {
  Vorn::ActivityManager loop;
  int const efd = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);  // stays readable
  {
    Vorn::Ptr<Vorn::FileDescriptor> fd = Vorn::fileDescriptorFactory("bench", loop);
    fd->descriptorIs(efd);
    for (auto _ : state) loop.runOnce(0);
    fd->descriptorIs(-1);
  }
  close(efd);
}
BENCHMARK(BM_ReadablePass);

void BM_EmptyPass(benchmark::State & state) {
  Vorn::ActivityManager loop;
  for (auto _ : state) loop.runOnce(0);
}
BENCHMARK(BM_EmptyPass);

}  // namespace

BENCHMARK_MAIN();
