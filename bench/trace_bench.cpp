// The cost of a trace statement whose level is off, against the same loop without it: the statement
// should add no more than its one load and one test. The enabled cost (formatting into a sink that
// drops the line) is there for scale.
#include <benchmark/benchmark.h>

#include "intfsm/foundation/brisklog/Brisklog.h"

namespace {

Brisklog::Handle traceHandle("TraceBench");

struct DroppingSink : Brisklog::Sink {
  void lineIs(Brisklog::Line const & line) override { benchmark::DoNotOptimize(line.text.data()); }
};

void emptyLoop(benchmark::State & state) {
  traceHandle.levelsIs(0);
  unsigned intfId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(intfId);
    ++intfId;
    benchmark::ClobberMemory();
  }
}
BENCHMARK(emptyLoop);

void disabledTrace(benchmark::State & state) {
  traceHandle.levelsIs(Brisklog::levelRange(0, 5));
  unsigned intfId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(intfId);
    BRISKLOG_TRACE(traceHandle, 8, "doSyncIntfStatus" << "( " << intfId << " )");
    ++intfId;
    benchmark::ClobberMemory();
  }
  traceHandle.levelsIs(0);
}
BENCHMARK(disabledTrace);

void enabledTraceToDroppingSink(benchmark::State & state) {
  DroppingSink sink;
  Brisklog::sinkIs(&sink);
  traceHandle.levelsIs(Brisklog::allLevels);
  unsigned intfId = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(intfId);
    BRISKLOG_TRACE(traceHandle, 8, "doSyncIntfStatus" << "( " << intfId << " )");
    ++intfId;
    benchmark::ClobberMemory();
  }
  traceHandle.levelsIs(0);
  Brisklog::sinkIs(nullptr);
}
BENCHMARK(enabledTraceToDroppingSink);

}  // namespace

BENCHMARK_MAIN();
