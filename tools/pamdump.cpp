// pamdump: captures Ethernet frames on network devices through the library's packet access (the
// packet-access manager over one shared raw socket), one line per frame, or into a pcap file.
//
//   pamdump -i eth1 'vlan and ether proto 0x88b5'       # an expression (libpcap's filter language)
//   pamdump -n lab -c 10 -w frames.pcap                  # every device of namespace lab, 10 frames
//   pamdump -i va0 -B -q -d 5 '{ 0x28, 0, 0, 0xc }, { 0x15, 0, 1, 0x88b5 }, { 0x6, 0, 0, 0x40000 }, { 0x6, 0, 0, 0 }'
//
// Output: a line per frame on standard output; the summary (frames per device, the library's two drop
// counters, the kernel's drops) on standard error at the end, also after Ctrl-C, which leaves a
// complete pcap file. Exit status 0, 1 when capturing failed, 2 for bad arguments (an unknown device
// or namespace, a malformed filter).
#include <getopt.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <pcap/pcap.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManager.h"
#include "intfsm/KniIntfStatusManager/NetNsIntfStatusManagerRoot.h"
#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"
#include "tools/common/Filter.h"
#include "tools/common/FrameText.h"

namespace {

// Room for jumbo frames; longer ones are cut to this and written with their cut length.
constexpr uint32_t maxFrameBytes = 16384;

struct Options {
  std::vector<std::string> devices;
  std::string netNs;
  uint16_t etherType = ETH_P_ALL;  // the sockets' protocol: 0 would receive nothing
  bool bulk = false;
  bool ring = false;
  unsigned long count = 0;
  double seconds = 0;
  bool quiet = false;
  std::string file;
  std::string filter;
};

[[noreturn]] void usage(std::string const & problem) {
  if (!problem.empty()) {
    std::fprintf(stderr, "pamdump: %s\n", problem.c_str());
    std::exit(2);
  }
  std::fprintf(stderr,
               "usage: pamdump [-i DEVICE]... [-n NAMESPACE] [-e ETHERTYPE] [-B|-R] [-c COUNT] [-d SECONDS] [-q]\n"
               "               [-w FILE] [FILTER]\n"
               "  -i DEVICE   capture on DEVICE (again for more; default: every device of the namespace but lo)\n"
               "  -n NS       the devices' network namespace (default: pamdump's own)\n"
               "  -e TYPE     only frames of this EtherType, e.g. 0x88b5 (default: all)\n"
               "  -B          bulk reads (recvmmsg into reused packets) instead of one frame per read\n"
               "  -R          ring reads (a receive ring shared with the kernel: no system call per frame)\n"
               "  -c COUNT    stop after COUNT frames          -d SECONDS  stop after SECONDS\n"
               "  -q          count only: no line per frame    -w FILE     write the frames to a pcap file\n"
               "  FILTER      an expression ('vlan 100 and ether proto 0x88b5'), matched on the frame as on the\n"
               "              wire, or a socket filter program in text form ('{ 0x28, 0, 0, 0xc }, ...')\n");
  std::exit(2);
}

std::optional<unsigned long> number(char const * text, unsigned long max) {
  char * end = nullptr;
  errno = 0;
  unsigned long const v = std::strtoul(text, &end, 0);
  if (errno || !*text || *end || v > max) return std::nullopt;
  return v;
}

Options optionsOf(int argc, char ** argv) {
  Options o;
  int opt;
  while ((opt = getopt(argc, argv, "+i:n:e:BRc:d:qw:h")) != -1) {
    switch (opt) {
      case 'i': o.devices.push_back(optarg); break;
      case 'n': o.netNs = optarg; break;
      case 'e': {
        auto n = number(optarg, 0xffff);
        if (!n) usage(std::string("bad EtherType '") + optarg + "'");
        o.etherType = static_cast<uint16_t>(*n);
        break;
      }
      case 'B': o.bulk = true; break;
      case 'R': o.ring = true; break;
      case 'c': {
        auto n = number(optarg, 1ul << 40);
        if (!n || !*n) usage(std::string("bad count '") + optarg + "'");
        o.count = *n;
        break;
      }
      case 'd': {
        char * end = nullptr;
        o.seconds = std::strtod(optarg, &end);
        if (*end || !(o.seconds > 0)) usage(std::string("bad duration '") + optarg + "'");
        break;
      }
      case 'q': o.quiet = true; break;
      case 'w': o.file = optarg; break;
      default: usage("");
    }
  }
  if (o.bulk && o.ring) usage("-B and -R exclude each other");
  for (int i = optind; i < argc; ++i) o.filter += (o.filter.empty() ? "" : " ") + std::string(argv[i]);
  return o;
}

class Capture;

class Dumper : public Interface::SimpleTxRxPktManager {
 public:
  Dumper(Capture * capture, Vorn::Ptr<Interface::DeviceIntfStatusDir const> const & deviceIntfStatusDir,
         Vorn::Ptr<Interface::EthDevPamCollection> const & pamCollection)
      : SimpleTxRxPktManager(deviceIntfStatusDir, pamCollection), capture_(capture) {}
  void handleRx(Vorn::Ptr<Ovel::Pam> const & pam, Ovel::IntfId const & intfId,
                Vorn::Ptr<Ovel::Pkt> const & pkt) override;

 private:
  Capture * capture_;
};

// One capture: the library wired for the devices of one namespace, the output, the counters.
class Capture {
 public:
  explicit Capture(Options const & options) : o_(options) {}
  ~Capture();

  // Sets everything up; exits with status 2 on bad arguments.
  void start();
  void handleFrame(Ovel::Pam const & pam, Ovel::Pkt const & pkt);
  void handleStop() { Vorn::activityManager().stop(); }
  void summary();

 private:
  class VornStop : public Vorn::Reactor<Capture, Vorn::FileDescriptor> {
   public:
    using Reactor::Reactor;
    void onReadableCount() override { forward(&Capture::handleStop); }
  };
  class VornDeadline : public Vorn::Reactor<Capture, Vorn::Clock> {
   public:
    using Reactor::Reactor;
    void onTimeMin() override { forward(&Capture::handleStop); }
  };

  Options const & o_;
  Ovel::NamespaceName ns_;
  Tools::Filter filter_;
  Vorn::Ptr<KernelNetInfo::Status> kernel_;
  Vorn::Ptr<Interface::AllIntfStatusDir> allIntfStatus_;
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocal_;
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> statusRoot_;
  Vorn::Ptr<Interface::DeviceIntfStatusDir> devices_;
  Vorn::Ptr<Interface::PamDesiredIntfDir> desired_;
  Vorn::Ptr<Interface::EthDevPamCollection> pams_;
  Vorn::Ptr<Interface::EthDevPamManager> manager_;
  Vorn::Ptr<Dumper> dumper_;
  std::vector<std::string> captured_;
  std::map<std::string, uint64_t> frames_;
  uint64_t total_ = 0;
  uint64_t unmatched_ = 0;
  pcap_t * dead_ = nullptr;
  pcap_dumper_t * dump_ = nullptr;
  int signalFd_ = -1;
  Vorn::Ptr<Vorn::FileDescriptor> signal_;
  Vorn::Ptr<VornStop> signalReactor_;
  Vorn::Ptr<VornDeadline> deadline_;
  std::vector<uint8_t> wire_;
};

void Dumper::handleRx(Vorn::Ptr<Ovel::Pam> const & pam, Ovel::IntfId const &, Vorn::Ptr<Ovel::Pkt> const & pkt) {
  capture_->handleFrame(*pam, *pkt);
}

Capture::~Capture() {
  deadline_ = nullptr;
  if (signal_) signal_->descriptorIs(-1);
  signalReactor_ = nullptr;
  if (signalFd_ >= 0) close(signalFd_);
  dumper_ = nullptr;
  if (manager_) manager_->enabledIs(false);
  manager_ = nullptr;
  statusRoot_ = nullptr;
  kernel_ = nullptr;
  if (dump_) pcap_dump_close(dump_);
  if (dead_) pcap_close(dead_);
}

void Capture::start() {
  std::string error;
  if (!filter_.parse(o_.filter, error)) usage(error);
  ns_ = Ovel::NamespaceName(o_.netNs.empty() ? Vorn::String(Ovel::DEFAULT_NS) : Vorn::String(o_.netNs));

  // The kernel's devices of the namespace; a namespace that is not there cannot be opened.
  kernel_ = KernelNetInfo::Status::statusNew("kernel", ns_);
  try {
    kernel_->enabledIs(true);
  } catch (Vorn::ErrnoException const & e) {
    if (e.errorNumber() == ENOENT || e.errorNumber() == EINVAL) usage("no network namespace '" + o_.netNs + "'");
    throw;
  }
  auto const root = kernel_->root();
  if (o_.devices.empty()) {
    for (auto const & e : root->interfaceByDeviceNameIter()) {
      if (e.key.view() != "lo" && Ovel::IntfId::isValidName(e.key)) captured_.push_back(e.key.stdString());
    }
    std::sort(captured_.begin(), captured_.end());
    if (captured_.empty()) usage("no device to capture on in namespace " + ns_.name().stdString());
  } else {
    for (std::string const & d : o_.devices) {
      if (!root->interfaceByDeviceNameHas(Vorn::String(d)) || !Ovel::IntfId::isValidName(Vorn::String(d))) {
        usage("no device '" + d + "'" + (o_.netNs.empty() ? std::string() : " in namespace " + o_.netNs));
      }
      captured_.push_back(d);
    }
  }

  if (!o_.file.empty()) {
    dead_ = pcap_open_dead(DLT_EN10MB, static_cast<int>(maxFrameBytes + 4));
    dump_ = dead_ ? pcap_dump_open(dead_, o_.file.c_str()) : nullptr;
    if (!dump_) usage("cannot write " + o_.file + (dead_ ? ": " + std::string(pcap_geterr(dead_)) : std::string()));
  }

  // One interface per device, named after it, in the namespace; the kernel interface status of that
  // namespace joins them with the kernel's devices, and the packet-access manager follows.
  allIntfStatus_ = Interface::allIntfStatusDirFactory("allIntfStatus");
  allIntfStatusLocal_ = Interface::allIntfStatusLocalDirFactory("allIntfStatusLocal");
  for (std::string const & d : captured_) {
    Ovel::IntfId const id{Vorn::String(d)};
    auto status = Interface::intfStatusFactory(id);
    status->deviceNameIs(Vorn::String(d));
    auto local = Interface::intfStatusLocalFactory(id);
    local->netNsNameIs(ns_);
    allIntfStatus_->intfStatusIs(status);
    allIntfStatusLocal_->intfStatusLocalIs(local);
  }
  statusRoot_ = Interface::netNsIntfStatusManagerRootFactory(allIntfStatus_, allIntfStatusLocal_, true);
  devices_ = Interface::deviceIntfStatusDirFactory("devices");
  statusRoot_->intfStatusManagerIs(devices_, kernel_, ns_);
  desired_ = Interface::pamDesiredIntfDirFactory("desired");
  pams_ = Interface::ethDevPamCollectionFactory("pams");
  manager_ = Interface::ethDevPamManagerFactory(desired_, pams_, devices_);
  manager_->netNsIs(ns_);
  manager_->ethProtocolIs(o_.etherType);
  manager_->separateDot1QHdrIs(true);
  manager_->maxRxPktDataIs(maxFrameBytes);
  if (o_.bulk || o_.ring) manager_->pktReuseIs(true);
  manager_->enableBulkPamReadIs(o_.bulk);
  if (o_.ring) {
    // 16 MiB: about a thousand frames of the longest kind, many more of the usual ones.
    manager_->rxRingIs(true);
    manager_->rxRingBlockCountIs(256);
  }
  if (filter_.kind() == Tools::Filter::Kind::kernel) manager_->filterProgramIs(filter_.kernelProgram());
  manager_->handleInitialized();
  manager_->enabledIs(true);
  dumper_ = new Dumper(this, devices_, pams_);
  dumper_->desiredIntfDirIs(desired_);
  for (std::string const & d : captured_) dumper_->addIntfPam(Ovel::IntfId(Vorn::String(d)));

  // Every device has its endpoint once the kernel's view is joined in; one that does not, could not
  // be opened (the library traced why).
  Vorn::activityManager().runUntil([&] { return pams_->intfPams() == captured_.size(); }, 2.0);
  for (std::string const & d : captured_) {
    if (!pams_->intfPam(Ovel::IntfId(Vorn::String(d)))) {
      throw Vorn::Exception("cannot capture on " + d + " (no packet socket; root is needed)");
    }
  }

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signalFd_ = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd_ >= 0) {
    signal_ = Vorn::fileDescriptorFactory("signals");
    signal_->descriptorIs(signalFd_);
    signalReactor_ = Vorn::reactorNew<VornStop>(this, signal_);
  }
  if (o_.seconds > 0) {
    deadline_ = Vorn::reactorNew<VornDeadline>(this, Vorn::activityManager().clock());
    deadline_->timeMinIs(Vorn::System::currentTime() + o_.seconds);
  }
  std::fprintf(stderr, "pamdump: capturing on %zu device%s%s%s%s\n", captured_.size(), captured_.size() == 1 ? "" : "s",
               o_.netNs.empty() ? "" : " in namespace ", o_.netNs.c_str(), o_.bulk ? ", bulk reads" : o_.ring ? ", ring reads" : "");
}

void Capture::handleFrame(Ovel::Pam const & pam, Ovel::Pkt const & pkt) {
  if (o_.count && total_ >= o_.count) return;
  Tools::wireFrameOf(pkt, wire_);
  if (!filter_.matches(wire_.data(), static_cast<uint32_t>(wire_.size()))) {
    ++unmatched_;
    return;
  }
  timeval now{};
  gettimeofday(&now, nullptr);
  ++total_;
  ++frames_[pam.name().stdString()];
  if (!o_.quiet) std::printf("%s\n", Tools::frameLine(now, pam.name().view(), wire_.data(), wire_.size()).c_str());
  if (dump_) {
    pcap_pkthdr header{};
    header.ts = now;
    header.caplen = static_cast<bpf_u_int32>(wire_.size());
    header.len = header.caplen;
    pcap_dump(reinterpret_cast<u_char *>(dump_), &header, wire_.data());
  }
  if (o_.count && total_ >= o_.count) Vorn::activityManager().stop();
}

void Capture::summary() {
  if (dump_) pcap_dump_flush(dump_);
  std::fflush(stdout);
  std::fprintf(stderr, "pamdump: %llu frame%s captured%s%s\n", static_cast<unsigned long long>(total_),
               total_ == 1 ? "" : "s", dump_ ? ", written to " : "", dump_ ? o_.file.c_str() : "");
  for (std::string const & d : captured_) {
    std::fprintf(stderr, "  %-16s %llu\n", d.c_str(), static_cast<unsigned long long>(frames_[d]));
  }
  if (filter_.kind() == Tools::Filter::Kind::expression) {
    std::fprintf(stderr, "  did not match the filter: %llu\n", static_cast<unsigned long long>(unmatched_));
  }
  auto const & bundle = manager_ ? manager_->edpBundle() : nullptr;
  if (!bundle) return;
  // The kernel's count of frames it dropped for want of room in the socket (read, and so reset, once).
  unsigned kernelDrops = 0;
  for (int sd : {bundle->sd(), bundle->sdTap()}) {
    tpacket_stats stats{};
    socklen_t length = sizeof stats;
    if (sd >= 0 && getsockopt(sd, SOL_PACKET, PACKET_STATISTICS, &stats, &length) == 0) kernelDrops += stats.tp_drops;
  }
  std::fprintf(stderr, "  dropped: %u of devices not captured, %u of devices without a ready endpoint, %u by the kernel\n",
               bundle->noPamDropCount(), bundle->pamNotReadyDropCount(), kernelDrops);
}

}  // namespace

int main(int argc, char ** argv) {
  Options const options = optionsOf(argc, argv);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    Capture capture(options);
    capture.start();
    Vorn::activityManager().run();
    capture.summary();
  } catch (Vorn::Exception const & e) {
    std::fprintf(stderr, "pamdump: %s\n", e.what());
    return 1;
  }
  return 0;
}
