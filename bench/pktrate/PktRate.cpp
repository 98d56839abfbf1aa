// The packet-rate harness: how much reader CPU a frame costs, how many frames a reader keeps up
// with, how late frames reach it, and what it allocates, for every registered reader (Reader.h) in
// the same run, on a veth pair of the harness's own.
//
//   build/bench/pkt_rate                  # full run: 3 repetitions, 200,000-frame drains, 3 s live
//   build/bench/pkt_rate --quick          # shorter live and latency runs
//   build/bench/pkt_rate --smoke          # a few seconds: every reader and every measure, tiny sizes
//   build/bench/pkt_rate --readers recvmsg,ring-v3 --reps 5
//   build/bench/pkt_rate --readers bundle-ring --measures drain   # e.g. under a profiler
//
// Needs root. The lab (Lab.h) is a namespace that dies with the process. The sender (Sender.h) runs
// on one core and the reader on another when the process may use two; on a veth pair the sender's
// core also does the kernel's receive work (the frame is queued to the socket there), so the reader's
// CPU is the cost of getting frames out of the kernel and into the handler.
//
// Measures, each repeated (default 3 times), the readers interleaved within each repetition:
// - drain: the frames are queued first (a receive buffer or ring big enough for them), then read back
//   to back; reader CPU (CLOCK_THREAD_CPUTIME_ID) per frame read.
// - live: the sender at full speed for a few seconds against a 4 MiB buffer or ring: offered, reached
//   the socket and dropped there (PACKET_STATISTICS), lost on the way (veth / backlog drops), received,
//   reader CPU per frame, and heap allocations per frame after the first 10 % (the whole process).
// - latency: 10,000 frames/s, from the sender's stamp to the handler: p50 and p99.
// - sweep: the same at 1,000, 10,000 and 100,000 frames/s and at the box's limit (the sender at full
//   speed), for the readers a switch agent chooses between (libpcap batched and immediate, ours-ring
//   with and without moderation): offered rate, p50, p99 and reader CPU per frame at each point.
//   --plot-data FILE writes the points for scripts/bench --plot.
// Sender and reader run at real-time priority in live, latency and sweep (--no-rt: not), so that
// other programs on a busy machine decide neither how fast the sender goes nor when the reader wakes.
// Figures are medians over the repetitions, with the smallest and largest in brackets.
//
// The last line of output is one JSON object (see the table's keys); a figure that needs a reader
// not built yet is null.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/pktrate/AllocCount.h"
#include "bench/pktrate/Lab.h"
#include "bench/pktrate/Reader.h"
#include "bench/pktrate/Sender.h"
#include "bench/pktrate/Stats.h"

namespace PktRate {

namespace {

struct Options {
  int reps = 3;
  uint64_t drainFrames = 200000;
  double liveSeconds = 3.0;
  uint64_t latencyFrames = 20000;
  double latencyRate = 10000.0;
  double sweepSeconds = 1.0;  // per point of the sweep
  std::string plotData;       // where the sweep's points go, if anywhere
  size_t liveBuffer = 4u << 20;
  std::vector<std::string> readers;  // empty: all
  std::vector<std::string> measures;  // empty: all
  bool pin = true;
  bool realtime = true;  // the latency test's sender and reader at SCHED_FIFO
  char const * mode = "full";
};

// The library's readers, by the names the summary looks for; missing ones are "not built yet".
char const * const oursSingle = "ours-single";
char const * const oursBulk = "ours-bulk";
char const * const oursRing = "ours-ring";
char const * const oursRingModerated = "ours-ring-mod";
char const * const libpcapBatched = "libpcap";
char const * const libpcapImmediate = "libpcap-imm";
// The sweep's readers and rates (0: the box's limit).
char const * const sweepReaders[] = {libpcapBatched, libpcapImmediate, oursRing, oursRingModerated};
double const sweepRates[] = {1000, 10000, 100000, 0};
constexpr size_t sweepPoints = sizeof sweepRates / sizeof sweepRates[0];

struct DrainRun {
  uint64_t queued = 0, read = 0, droppedQueueing = 0;
  double cpuNsPerFrame = NAN;
};
struct LiveRun {
  uint64_t offered = 0, reached = 0, socketDrops = 0, pathDrops = 0, received = 0;
  double seconds = 0, cpuNsPerFrame = NAN, allocsPerFrame = NAN;
  std::vector<std::pair<std::string, uint64_t>> ownCounters;
};
struct LatencyRun {
  uint64_t sent = 0, received = 0;
  double p50Us = NAN, p99Us = NAN;
  double offeredFps = NAN, cpuNsPerFrame = NAN;
};
struct Results {
  std::vector<DrainRun> drain;
  std::vector<LiveRun> live;
  std::vector<LatencyRun> latency;
  std::vector<LatencyRun> sweep[sweepPoints];
};

std::vector<int> allowedCpus() {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::vector<int> cpus;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return cpus;
  for (int c = 0; c < CPU_SETSIZE; ++c) {
    if (CPU_ISSET(c, &set)) cpus.push_back(c);
  }
  return cpus;
}

// Real-time priority for the latency test, so that a frame waits for the reader's path and not
// for the other programs on a busy machine. Off again with `on` false. Quietly nothing without
// the right to it.
void realtimeIs(bool on) {
  sched_param param{};
  param.sched_priority = on ? 10 : 0;
  pthread_setschedparam(pthread_self(), on ? SCHED_FIFO : SCHED_OTHER, &param);
}

void pinThisThread(int cpu) {
  if (cpu < 0) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

class Harness {
 public:
  Harness(Options const & options, Lab const & lab) : opt_(options), lab_(lab) {
    std::vector<int> const cpus = allowedCpus();
    if (opt_.pin && cpus.size() >= 2) {
      senderCpu_ = cpus[0];
      readerCpu_ = cpus[1];
    }
    pinThisThread(readerCpu_);
    runTag_ = static_cast<uint32_t>(getpid()) * 2654435761u ^ static_cast<uint32_t>(monotonicNs());
  }

  int senderCpu() const { return senderCpu_; }
  int readerCpu() const { return readerCpu_; }

  DrainRun drain(ReaderKind const & kind) {
    auto reader = kind.make();
    ReaderConfig cfg = config();
    cfg.bufferBytes = opt_.liveBuffer;
    cfg.holdFrames = opt_.drainFrames;
    reader->open(cfg);
    Sender sender(pair().aIndex, pair().bMac, pair().aMac, runTag_);
    SendResult sent = onSenderCpu([&] { return sender.burst(opt_.drainFrames); });
    settle(*reader);
    FrameSink sink(FrameSink::Mode::count, runTag_);
    uint64_t const cpu0 = threadCpuNs();
    // Until a pass finds nothing, and one more that may wait a millisecond: a moderated reader reads
    // on its timer after its first batch, so a pass that does not wait finds nothing until then.
    while (reader->pump(sink, 0) != 0 || reader->pump(sink, 1) != 0) {
    }
    uint64_t const cpu1 = threadCpuNs();
    KernelStats const k = reader->kernelStats();
    reader->close();
    DrainRun run;
    run.queued = sent.sent;
    run.read = sink.frames();
    run.droppedQueueing = k.drops;
    if (run.read) run.cpuNsPerFrame = static_cast<double>(cpu1 - cpu0) / static_cast<double>(run.read);
    return run;
  }

  LiveRun live(ReaderKind const & kind) {
    auto reader = kind.make();
    ReaderConfig cfg = config();
    cfg.bufferBytes = opt_.liveBuffer;
    reader->open(cfg);
    Sender sender(pair().aIndex, pair().bMac, pair().aMac, runTag_);
    uint64_t const path0 = Lab::deviceDrops(pair().a) + Lab::deviceDrops(pair().b);
    FrameSink sink(FrameSink::Mode::count, runTag_);
    std::atomic<bool> stop{false}, done{false};
    SendResult sent;
    if (opt_.realtime) realtimeIs(true);
    std::thread senderThread([&] {
      pinThisThread(senderCpu_);
      if (opt_.realtime) realtimeIs(true);
      sent = sender.flood(opt_.liveSeconds, stop);
      done.store(true);
    });
    uint64_t const cpu0 = threadCpuNs();
    sink.steadyFromIs(monotonicNs() + static_cast<uint64_t>(opt_.liveSeconds * 1e8));  // a tenth of the way in
    readUntilQuiet(*reader, sink, done);
    uint64_t const cpu1 = threadCpuNs();
    uint64_t const allocations1 = allocations();
    senderThread.join();
    if (opt_.realtime) realtimeIs(false);
    KernelStats const k = reader->kernelStats();
    LiveRun run;
    run.ownCounters = reader->ownCounters();
    reader->close();
    run.offered = sent.sent;
    run.seconds = sent.seconds;
    run.reached = k.packets;
    run.socketDrops = k.drops;
    run.pathDrops = Lab::deviceDrops(pair().a) + Lab::deviceDrops(pair().b) - path0;
    run.received = sink.frames();
    if (run.received) run.cpuNsPerFrame = static_cast<double>(cpu1 - cpu0) / static_cast<double>(run.received);
    FrameSink::Snapshot const & steady = sink.steady();
    if (steady.taken && run.received > steady.frames) {
      run.allocsPerFrame =
          static_cast<double>(allocations1 - steady.allocations) / static_cast<double>(run.received - steady.frames);
    }
    return run;
  }

  // `frames` at `rate` frames/s; with rate 0, as many as the sender makes in opt_.sweepSeconds.
  LatencyRun latency(ReaderKind const & kind, double rate, uint64_t frames) {
    auto reader = kind.make();
    ReaderConfig cfg = config();
    cfg.bufferBytes = opt_.liveBuffer;
    reader->open(cfg);
    Sender sender(pair().aIndex, pair().bMac, pair().aMac, runTag_);
    // At the limit: room for what a quiet box's sender makes; later frames are counted, not timed.
    size_t const capacity = rate > 0 ? frames + 1024 : static_cast<size_t>(2e6 * opt_.sweepSeconds) + 1024;
    FrameSink sink(FrameSink::Mode::latency, runTag_, capacity);
    std::atomic<bool> stop{false}, done{false};
    SendResult sent;
    if (opt_.realtime) realtimeIs(true);
    std::thread senderThread([&] {
      pinThisThread(senderCpu_);
      if (opt_.realtime) realtimeIs(true);
      sent = rate > 0 ? sender.paced(frames, rate) : sender.flood(opt_.sweepSeconds, stop);
      done.store(true);
    });
    uint64_t const cpu0 = threadCpuNs();
    readUntilQuiet(*reader, sink, done);
    uint64_t const cpu1 = threadCpuNs();
    senderThread.join();
    if (opt_.realtime) realtimeIs(false);
    reader->close();
    LatencyRun run;
    run.sent = sent.sent;
    run.received = sink.frames();
    if (sent.seconds > 0) run.offeredFps = static_cast<double>(sent.sent) / sent.seconds;
    if (run.received) run.cpuNsPerFrame = static_cast<double>(cpu1 - cpu0) / static_cast<double>(run.received);
    std::vector<double> us;
    us.reserve(sink.latenciesNs().size());
    for (int64_t ns : sink.latenciesNs()) us.push_back(static_cast<double>(ns) / 1000.0);
    run.p50Us = percentile(us, 50);
    run.p99Us = percentile(us, 99);
    return run;
  }

 private:
  Lab::Pair const & pair() const { return lab_.pair(0); }
  ReaderConfig config() const {
    ReaderConfig cfg;
    cfg.ifindex = pair().bIndex;
    cfg.ifname = pair().b;
    return cfg;
  }

  template <class F>
  SendResult onSenderCpu(F && f) {
    SendResult result;
    std::thread t([&] {
      pinThisThread(senderCpu_);
      result = f();
    });
    t.join();
    return result;
  }

  // Lets the kernel finish queueing (and a ring hand over its last block) before a drain: until the
  // count of frames that reached the socket has held still for 20 ms, at most 10 s. A fixed wait is
  // not enough on a busy machine: the burst's receive work runs in the sender core's softirq, which
  // the kernel defers to a thread of normal priority when it runs long, so frames may still be
  // arriving when the drain starts; reading then measures the wait for each late frame (a pass of
  // the reader per frame or two), not the reading, and the figure moved 50x between runs.
  static void settle(Reader & reader) {
    usleep(static_cast<useconds_t>((20 + 2 * reader.holdMs()) * 1000));
    uint64_t last = reader.kernelStats().packets;
    uint64_t const deadline = monotonicNs() + 10000000000u;
    for (int still = 0; still < 4 && monotonicNs() < deadline;) {
      usleep(5000);
      uint64_t const now = reader.kernelStats().packets;
      still = now == last ? still + 1 : 0;
      last = now;
    }
  }

  // Reads while the sender runs, then until nothing more has come for a while.
  static void readUntilQuiet(Reader & reader, FrameSink & sink, std::atomic<bool> const & done) {
    uint64_t const quietNs = static_cast<uint64_t>(50 + 2 * reader.holdMs()) * 1000000u;
    uint64_t lastFrameAt = monotonicNs();
    for (;;) {
      size_t const got = reader.pump(sink, 10);
      uint64_t const now = monotonicNs();
      sink.noteTime(now);
      if (got) lastFrameAt = now;
      else if (done.load(std::memory_order_relaxed) && now - lastFrameAt > quietNs) return;
    }
  }

  Options const & opt_;
  Lab const & lab_;
  int senderCpu_ = -1, readerCpu_ = -1;
  uint32_t runTag_ = 0;
};

std::string fmt(char const * format, double v) {
  if (std::isnan(v)) return "-";
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

std::string jsonNumber(double v, char const * format) {
  if (std::isnan(v)) return "null";
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

template <class Run, class F>
Spread spreadOver(std::vector<Run> const & runs, F field) {
  std::vector<double> v;
  for (auto const & r : runs) v.push_back(field(r));
  return spreadOf(v);
}

// Per-repetition ratio num[i] / den[i] (the repetitions ran interleaved), then its spread.
template <class Run, class F>
Spread ratioOver(std::vector<Run> const & num, std::vector<Run> const & den, F field) {
  std::vector<double> v;
  for (size_t i = 0; i < num.size() && i < den.size(); ++i) v.push_back(field(num[i]) / field(den[i]));
  return spreadOf(v);
}

void printReport(Options const & opt, std::vector<ReaderKind> const & kinds, std::map<std::string, Results> const & results,
                 int senderCpu, int readerCpu) {
  std::printf("\npacket-rate harness (%s): %d repetition(s), 60-byte frames over a veth pair; sender on cpu %d, reader on cpu %d\n",
              opt.mode, opt.reps, senderCpu, readerCpu);
  std::printf("drain: %llu frames queued then read; live: %.1f s at full speed, %zu KiB buffer or ring; latency: %llu frames at %.0f/s%s\n",
              static_cast<unsigned long long>(opt.drainFrames), opt.liveSeconds, opt.liveBuffer >> 10,
              static_cast<unsigned long long>(opt.latencyFrames), opt.latencyRate,
              opt.realtime ? " (sender and reader at real-time priority)" : "");
  std::printf("median (min-max) over the repetitions\n\n");
  std::printf("%-12s %-18s %-9s | %-7s %-16s %-7s %-9s %-9s %-18s %-8s | %-16s %-18s\n", "reader", "drain ns/frame",
              "read", "live", "offered Mfps", "reached", "sock drop", "path drop", "live ns/frame", "allocs/f", "p50 us",
              "p99 us");
  auto row = [&](std::string const & name, Results const & r) {
    Spread drainNs = spreadOver(r.drain, [](auto const & x) { return x.cpuNsPerFrame; });
    Spread read = spreadOver(r.drain, [](auto const & x) { return static_cast<double>(x.read); });
    Spread mpps = spreadOver(r.live, [](auto const & x) { return static_cast<double>(x.offered) / x.seconds / 1e6; });
    Spread reached = spreadOver(r.live, [](auto const & x) {
      return x.offered ? static_cast<double>(x.reached) / static_cast<double>(x.offered) * 100 : NAN;
    });
    Spread sockDrop = spreadOver(r.live, [](auto const & x) { return static_cast<double>(x.socketDrops); });
    Spread pathDrop = spreadOver(r.live, [](auto const & x) { return static_cast<double>(x.pathDrops); });
    Spread liveNs = spreadOver(r.live, [](auto const & x) { return x.cpuNsPerFrame; });
    Spread allocs = spreadOver(r.live, [](auto const & x) { return x.allocsPerFrame; });
    Spread delivered = spreadOver(r.live, [](auto const & x) {
      return x.reached ? static_cast<double>(x.received) / static_cast<double>(x.reached) * 100 : NAN;
    });
    Spread p50 = spreadOver(r.latency, [](auto const & x) { return x.p50Us; });
    Spread p99 = spreadOver(r.latency, [](auto const & x) { return x.p99Us; });
    std::printf("%-12s %-18s %-9s | %-7s %-16s %-7s %-9s %-9s %-18s %-8s | %-16s %-18s\n", name.c_str(), text(drainNs).c_str(),
                fmt("%.0f", read.median).c_str(), fmt("%.1f%%", delivered.median).c_str(), text(mpps, "%.2f").c_str(),
                fmt("%.1f%%", reached.median).c_str(), fmt("%.0f", sockDrop.median).c_str(),
                fmt("%.0f", pathDrop.median).c_str(), text(liveNs).c_str(), fmt("%.3f", allocs.median).c_str(),
                text(p50, "%.1f").c_str(), text(p99, "%.1f").c_str());
    for (auto const & run : r.live) {
      for (auto const & [what, value] : run.ownCounters) {
        if (value) std::printf("%-12s   own counter (one repetition): %s %llu\n", "", what.c_str(), static_cast<unsigned long long>(value));
      }
    }
  };
  for (auto const & kind : kinds) {
    auto it = results.find(kind.name);
    if (it != results.end()) row(kind.name, it->second);
  }
  for (char const * ours : {oursSingle, oursBulk, oursRing}) {
    if (!results.count(ours)) std::printf("%-12s not built yet\n", ours);
  }
  bool sweep = false;
  for (auto const & [name, r] : results) sweep |= !r.sweep[0].empty();
  if (sweep) {
    std::printf("\nlatency sweep (%.2g s per point; \"limit\": the sender at full speed, each batch of 64 stamped once)\n",
                opt.sweepSeconds);
    std::printf("%-14s %-7s | %-22s %-18s %-22s %-18s\n", "reader", "rate", "offered frames/s", "p50 us", "p99 us",
                "reader ns/frame");
    for (char const * name : sweepReaders) {
      auto it = results.find(name);
      if (it == results.end() || it->second.sweep[0].empty()) continue;
      for (size_t point = 0; point < sweepPoints; ++point) {
        auto const & runs = it->second.sweep[point];
        Spread offered = spreadOver(runs, [](auto const & x) { return x.offeredFps; });
        Spread p50 = spreadOver(runs, [](auto const & x) { return x.p50Us; });
        Spread p99 = spreadOver(runs, [](auto const & x) { return x.p99Us; });
        Spread ns = spreadOver(runs, [](auto const & x) { return x.cpuNsPerFrame; });
        std::printf("%-14s %-7s | %-22s %-18s %-22s %-18s\n", name,
                    sweepRates[point] > 0 ? fmt("%.0f", sweepRates[point]).c_str() : "limit", text(offered, "%.0f").c_str(),
                    text(p50, "%.1f").c_str(), text(p99, "%.1f").c_str(), text(ns).c_str());
      }
    }
  }
  std::printf("\n\"live\" is frames received / frames that reached the socket; \"reached\" is that / offered.\n");
  for (auto const & kind : kinds) {
    if (results.count(kind.name)) std::printf("  %-12s %s\n", kind.name.c_str(), kind.description.c_str());
  }
}

// The sweep's medians, one line per reader and point: reader, nominal rate (0: limit), offered
// frames/s, p50 us, p99 us, reader ns/frame; blocks of one reader apart by a blank line (gnuplot's
// index), in the order of sweepReaders, each block headed by a comment with the reader's name.
void writePlotData(std::string const & path, std::map<std::string, Results> const & results) {
  FILE * f = std::fopen(path.c_str(), "w");
  if (!f) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  for (char const * name : sweepReaders) {
    auto it = results.find(name);
    std::fprintf(f, "# %s\n", name);
    for (size_t point = 0; it != results.end() && point < sweepPoints; ++point) {
      auto const & runs = it->second.sweep[point];
      if (runs.empty()) continue;
      auto median = [&](auto field) { return spreadOver(runs, field).median; };
      std::fprintf(f, "%s %.0f %.0f %.2f %.2f %.1f\n", name, sweepRates[point],
                   median([](auto const & x) { return x.offeredFps; }), median([](auto const & x) { return x.p50Us; }),
                   median([](auto const & x) { return x.p99Us; }), median([](auto const & x) { return x.cpuNsPerFrame; }));
    }
    std::fprintf(f, "\n\n");
  }
  std::fclose(f);
}

void printJson(std::map<std::string, Results> const & results) {
  auto find = [&](char const * name) -> Results const * {
    auto it = results.find(name);
    return it == results.end() ? nullptr : &it->second;
  };
  auto drainNs = [](DrainRun const & r) { return r.cpuNsPerFrame; };
  auto ratio = [&](char const * reference, char const * ours) {
    Results const * ref = find(reference);
    Results const * o = find(ours);
    return ref && o ? ratioOver(ref->drain, o->drain, drainNs).median : NAN;
  };
  auto drainMedian = [&](char const * name) {
    Results const * r = find(name);
    return r ? spreadOver(r->drain, drainNs).median : NAN;
  };
  auto p99 = [&](char const * name) {
    Results const * r = find(name);
    return r ? spreadOver(r->latency, [](auto const & x) { return x.p99Us; }).median : NAN;
  };
  auto live = [&](char const * name, auto field) {
    Results const * r = find(name);
    return r ? spreadOver(r->live, field).median : NAN;
  };
  auto liveRatio = [&](char const * num, char const * den, auto field) {
    Results const * n = find(num);
    Results const * d = find(den);
    return n && d ? ratioOver(n->live, d->live, field).median : NAN;
  };
  auto liveNs = [](LiveRun const & x) { return x.cpuNsPerFrame; };
  auto offered = [](LiveRun const & x) { return x.seconds > 0 ? static_cast<double>(x.offered) / x.seconds : NAN; };
  // The worst point of the sweep: ours (moderated) p99 / libpcap immediate's p99, medians per point.
  double p99VsImmediate = NAN;
  Results const * mod = find(oursRingModerated);
  Results const * imm = find(libpcapImmediate);
  for (size_t point = 0; mod && imm && point < sweepPoints; ++point) {
    if (mod->sweep[point].empty() || imm->sweep[point].empty()) continue;
    auto p99Of = [](LatencyRun const & x) { return x.p99Us; };
    double const r = spreadOver(mod->sweep[point], p99Of).median / spreadOver(imm->sweep[point], p99Of).median;
    if (std::isnan(p99VsImmediate) || r > p99VsImmediate) p99VsImmediate = r;
  }
  double delivered = NAN;
  if (Results const * ring = find(oursRingModerated) ? find(oursRingModerated) : find(oursRing)) {
    delivered = spreadOver(ring->live, [](auto const & x) {
                  return x.reached ? static_cast<double>(x.received) / static_cast<double>(x.reached) : NAN;
                }).median;
  }
  double allocs = NAN;
  for (char const * ours : {oursSingle, oursBulk, oursRing, oursRingModerated}) {
    if (Results const * r = find(ours)) {
      double const a = spreadOver(r->live, [](auto const & x) { return x.allocsPerFrame; }).median;
      if (std::isnan(allocs) || a > allocs) allocs = a;
    }
  }
  auto ratioText = [](double v) { return jsonNumber(v, "%.3f"); };
  auto amount = [](double v) { return jsonNumber(v, "%.1f"); };
  std::printf("json: {\"single_vs_recvmsg\":%s,\"bulk_vs_recvmmsg\":%s,\"ring_ns_per_frame\":%s,\"ring_vs_libpcap\":%s,"
              "\"ring_p99_us\":%s,\"libpcap_p99_us\":%s,\"live_delivered_ratio\":%s,\"allocs_per_frame\":%s,"
              "\"recvmsg_ns_per_frame\":%s,\"recvmmsg_ns_per_frame\":%s,\"ring_v3_ns_per_frame\":%s,"
              "\"ring_v2_ns_per_frame\":%s,\"libpcap_ns_per_frame\":%s,\"libpcap_immediate_ns_per_frame\":%s,"
              "\"ring_v3_p99_us\":%s,\"ring_v2_p99_us\":%s,\"libpcap_immediate_p99_us\":%s,"
              "\"ring_live_ns_per_frame\":%s,\"ring_unmoderated_live_ns_per_frame\":%s,\"libpcap_live_ns_per_frame\":%s,"
              "\"ring_live_vs_libpcap_batched\":%s,\"ring_offered_ratio\":%s,\"ring_p99_vs_libpcap_immediate\":%s,"
              "\"ring_unmoderated_p99_us\":%s}\n",
              ratioText(ratio("recvmsg", oursSingle)).c_str(), ratioText(ratio("recvmmsg", oursBulk)).c_str(),
              amount(drainMedian(oursRing)).c_str(), ratioText(ratio("libpcap", oursRing)).c_str(),
              amount(p99(find(oursRingModerated) ? oursRingModerated : oursRing)).c_str(), amount(p99("libpcap")).c_str(), jsonNumber(delivered, "%.4f").c_str(),
              jsonNumber(allocs, "%.4f").c_str(), amount(drainMedian("recvmsg")).c_str(),
              amount(drainMedian("recvmmsg")).c_str(), amount(drainMedian("ring-v3")).c_str(),
              amount(drainMedian("ring-v2")).c_str(), amount(drainMedian("libpcap")).c_str(),
              amount(drainMedian("libpcap-imm")).c_str(), amount(p99("ring-v3")).c_str(), amount(p99("ring-v2")).c_str(),
              amount(p99("libpcap-imm")).c_str(), amount(live(oursRingModerated, liveNs)).c_str(),
              amount(live(oursRing, liveNs)).c_str(), amount(live(libpcapBatched, liveNs)).c_str(),
              ratioText(liveRatio(oursRingModerated, libpcapBatched, liveNs)).c_str(),
              ratioText(liveRatio(oursRingModerated, libpcapBatched, offered)).c_str(), ratioText(p99VsImmediate).c_str(),
              amount(p99(oursRing)).c_str());
}

[[noreturn]] void usage(char const * argv0) {
  std::fprintf(stderr,
               "usage: %s [--quick|--smoke] [--reps N] [--drain FRAMES] [--live SECONDS] [--latency FRAMES]\n"
               "          [--rate FRAMES_PER_S] [--readers NAME,...] [--measures drain,live,latency,sweep]\n"
               "          [--plot-data FILE] [--no-pin] [--no-rt] [--list]\n",
               argv0);
  std::exit(2);
}

Options parse(int argc, char ** argv) {
  Options opt;
  for (int i = 1; i < argc; ++i) {
    std::string const a = argv[i];
    auto value = [&]() -> char const * {
      if (i + 1 >= argc) usage(argv[0]);
      return argv[++i];
    };
    if (a == "--quick") {
      opt.mode = "quick";
      opt.liveSeconds = 1.0;
      opt.latencyFrames = 5000;
      opt.sweepSeconds = 0.5;
    } else if (a == "--smoke") {
      opt.mode = "smoke";
      opt.reps = 1;
      opt.drainFrames = 5000;
      opt.liveSeconds = 0.2;
      opt.latencyFrames = 300;
      opt.sweepSeconds = 0.05;
    } else if (a == "--reps") {
      opt.reps = std::max(1, std::atoi(value()));
    } else if (a == "--drain") {
      opt.drainFrames = std::strtoull(value(), nullptr, 10);
    } else if (a == "--live") {
      opt.liveSeconds = std::atof(value());
    } else if (a == "--latency") {
      opt.latencyFrames = std::strtoull(value(), nullptr, 10);
    } else if (a == "--rate") {
      opt.latencyRate = std::atof(value());
    } else if (a == "--readers" || a == "--measures") {
      std::string list = value();
      std::vector<std::string> & names = a == "--readers" ? opt.readers : opt.measures;
      for (size_t at = 0; at <= list.size();) {
        size_t const comma = std::min(list.find(',', at), list.size());
        if (comma > at) names.push_back(list.substr(at, comma - at));
        at = comma + 1;
      }
    } else if (a == "--plot-data") {
      opt.plotData = value();
    } else if (a == "--no-pin") {
      opt.pin = false;
    } else if (a == "--no-rt") {
      opt.realtime = false;
    } else if (a == "--list") {
      for (auto const & k : readerKinds()) std::printf("%-12s %s\n", k.name.c_str(), k.description.c_str());
      std::exit(0);
    } else {
      usage(argv[0]);
    }
  }
  if (opt.drainFrames == 0 || opt.liveSeconds <= 0 || opt.latencyFrames == 0 || opt.latencyRate <= 0) usage(argv[0]);
  return opt;
}

}  // namespace

}  // namespace PktRate

int main(int argc, char ** argv) {
  using namespace PktRate;
  Options const opt = parse(argc, argv);
  std::vector<ReaderKind> kinds;
  for (auto const & k : readerKinds()) {
    if (opt.readers.empty() || std::find(opt.readers.begin(), opt.readers.end(), k.name) != opt.readers.end()) {
      kinds.push_back(k);
    }
  }
  if (kinds.empty()) {
    std::fprintf(stderr, "pkt_rate: no such reader (--list shows them)\n");
    return 2;
  }
  if (geteuid() != 0) {
    std::fprintf(stderr, "pkt_rate needs root: it makes a network namespace and veth pairs\n");
    return 2;
  }
  try {
    Lab const lab(1);  // before any thread: every thread after this lives in the lab
    Harness harness(opt, lab);
    std::map<std::string, Results> results;
    bool const progress = isatty(STDERR_FILENO);
    auto each = [&](char const * what, auto measure) {
      if (!opt.measures.empty() && std::find(opt.measures.begin(), opt.measures.end(), what) == opt.measures.end()) return;
      for (int rep = 0; rep < opt.reps; ++rep) {
        for (auto const & kind : kinds) {
          if (progress) std::fprintf(stderr, "\r%-8s repetition %d/%d: %-12s", what, rep + 1, opt.reps, kind.name.c_str());
          measure(kind, results[kind.name]);
        }
      }
    };
    each("drain", [&](ReaderKind const & k, Results & r) { r.drain.push_back(harness.drain(k)); });
    each("live", [&](ReaderKind const & k, Results & r) { r.live.push_back(harness.live(k)); });
    each("latency", [&](ReaderKind const & k, Results & r) {
      r.latency.push_back(harness.latency(k, opt.latencyRate, opt.latencyFrames));
    });
    each("sweep", [&](ReaderKind const & k, Results & r) {
      if (std::find_if(std::begin(sweepReaders), std::end(sweepReaders), [&](char const * n) { return k.name == n; }) ==
          std::end(sweepReaders)) {
        return;
      }
      for (size_t point = 0; point < sweepPoints; ++point) {
        double const rate = sweepRates[point];
        uint64_t const frames = static_cast<uint64_t>(std::max(opt.sweepSeconds < 0.2 ? 100.0 : 1000.0, rate * opt.sweepSeconds));
        r.sweep[point].push_back(harness.latency(k, rate, frames));
      }
    });
    if (progress) std::fprintf(stderr, "\r%60s\r", "");
    // A reader that read nothing, or foreign frames only, is broken: say so and fail.
    int failures = 0;
    for (auto const & [name, r] : results) {
      for (auto const & d : r.drain) {
        if (d.read == 0) {
          std::fprintf(stderr, "pkt_rate: %s read no frame in the drain test\n", name.c_str());
          ++failures;
        }
      }
      for (auto const & l : r.latency) {
        if (l.received == 0) {
          std::fprintf(stderr, "pkt_rate: %s received no frame in the latency test\n", name.c_str());
          ++failures;
        }
      }
      for (auto const & point : r.sweep) {
        for (auto const & l : point) {
          if (l.received == 0) {
            std::fprintf(stderr, "pkt_rate: %s received no frame in the sweep\n", name.c_str());
            ++failures;
          }
        }
      }
    }
    printReport(opt, kinds, results, harness.senderCpu(), harness.readerCpu());
    if (!opt.plotData.empty()) writePlotData(opt.plotData, results);
    printJson(results);
    return failures ? 1 : 0;
  } catch (std::exception const & e) {
    std::fprintf(stderr, "pkt_rate: %s\n", e.what());
    return 1;
  }
}
