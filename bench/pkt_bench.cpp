// The receive path's packet handling without a kernel: fill a packet as a read would, queue it in a
// Pam, let the reader take it. Compares reusing one packet per read (pktReuse) with a new packet per
// frame from the pool, and with a plain heap buffer per frame; the "allocs/frame" counter comes from
// the replaced global operator new below and must read 0 for the reuse paths.
//
//   build/bench/pkt_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"

namespace {
uint64_t allocations = 0;  // the benchmarks run on one thread
// Out of line so that the compiler does not pair free() with the operator new it can see.
[[gnu::noinline]] void release(void * p) noexcept { std::free(p); }
}  // namespace

void * operator new(size_t size) {
  ++allocations;
  if (void * p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void * operator new[](size_t size) { return operator new(size); }
void operator delete(void * p) noexcept { release(p); }
void operator delete[](void * p) noexcept { release(p); }
void operator delete(void * p, size_t) noexcept { release(p); }
void operator delete[](void * p, size_t) noexcept { release(p); }

namespace {

using Ovel::EthDevPamInBundle;
using Ovel::Pkt;
using Vorn::Ptr;

constexpr uint32_t maxRxPktData = 1518;
constexpr uint32_t frameBytes = 64;
unsigned char const frame[frameBytes] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 1, 0x88, 0xb5};

// A read into `pkt`: what recvmsg would leave there.
void fill(Pkt & pkt) {
  pkt.newSharedHeadData(maxRxPktData);
  std::memcpy(pkt.data(), frame, frameBytes);
  pkt.dataLenIs(frameBytes);
}

void reportAllocations(benchmark::State & state, uint64_t before) {
  state.counters["allocs/frame"] =
      benchmark::Counter(static_cast<double>(allocations - before) / static_cast<double>(state.iterations()));
}

// pktReuse: one packet for every read; the reader takes each frame before the next read.
void BM_ReceiveReusingOnePacket(benchmark::State & state) {
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
  Ptr<Pkt> saved = Ovel::globalPktManager().newPkt();
  for (int i = 0; i < 4; ++i) {  // warm the pools
    saved->sharedDataResetForReuse();
    fill(*saved);
    pam->writeNewRxPkt(saved);
    pam->rxPkt();
  }
  uint64_t const before = allocations;
  for (auto _ : state) {
    saved->sharedDataResetForReuse();
    fill(*saved);
    pam->writeNewRxPkt(saved);
    Ptr<Pkt> taken = pam->rxPkt();
    benchmark::DoNotOptimize(taken->data()[0]);
  }
  reportAllocations(state, before);
}
BENCHMARK(BM_ReceiveReusingOnePacket);

// pktReuse with a reader that falls `lag` frames behind: the read packet gets fresh buffers while
// copies wait, from the pool once it has seen that many.
void BM_ReceiveReusingWithLaggingReader(benchmark::State & state) {
  int const lag = static_cast<int>(state.range(0));
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
  Ptr<Pkt> saved = Ovel::globalPktManager().newPkt();
  auto frameThrough = [&] {
    saved->sharedDataResetForReuse();
    fill(*saved);
    pam->writeNewRxPkt(saved);
    if (pam->curRxPkts() > lag) benchmark::DoNotOptimize(pam->rxPkt());
  };
  for (int i = 0; i < 2 * lag + 2; ++i) frameThrough();
  uint64_t const before = allocations;
  for (auto _ : state) frameThrough();
  reportAllocations(state, before);
}
BENCHMARK(BM_ReceiveReusingWithLaggingReader)->Arg(16)->Arg(200);

// No reuse: a new packet from the pool for every frame.
void BM_ReceiveNewPacketPerFrame(benchmark::State & state) {
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
  Ovel::PktManager & manager = Ovel::globalPktManager();
  uint64_t const before = allocations;
  for (auto _ : state) {
    Ptr<Pkt> pkt = manager.newPkt();
    fill(*pkt);
    pam->writeNewRxPkt(pkt);
    Ptr<Pkt> taken = pam->rxPkt();
    benchmark::DoNotOptimize(taken->data()[0]);
  }
  reportAllocations(state, before);
}
BENCHMARK(BM_ReceiveNewPacketPerFrame);

// Baseline: a plain heap buffer per frame, as a reader without a pool would do.
void BM_HeapBufferPerFrame(benchmark::State & state) {
  uint64_t const before = allocations;
  for (auto _ : state) {
    auto * buffer = new unsigned char[maxRxPktData];
    std::memcpy(buffer, frame, frameBytes);
    benchmark::DoNotOptimize(buffer[0]);
    delete[] buffer;
  }
  reportAllocations(state, before);
}
BENCHMARK(BM_HeapBufferPerFrame);

}  // namespace

BENCHMARK_MAIN();
