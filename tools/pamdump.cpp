// pamdump: captures Ethernet frames on network devices through the library's packet access (the
// packet-access manager over one shared raw socket), one line per frame, or into a pcap file. Its
// letters mean what they mean to tcpdump; its own features are long options.
//
//   pamdump -i eth1 'vlan and ether proto 0x88b5'         # an expression (libpcap's filter language)
//   pamdump --netns lab -c 10 -w frames.pcap               # every device of namespace lab, 10 frames
//   pamdump -i va0 -w - | tcpdump -r - -vv                 # tcpdump decodes what pamdump captured
//   pamdump -i va0 --bulk --count-only --duration 5 --socket-filter '{ 0x28, 0, 0, 0xc }, ...'
//
// Selection happens in the kernel: the sockets are bound to every EtherType (a socket bound to one
// EtherType never sees the VLAN tag of a tagged frame: the kernel clears a tag that no VLAN device
// takes before such sockets get the frame), and the expression, together with --ethertype, is
// compiled as a live capture on the first device compiles it and attached to the shared socket, so
// frames that do not match never leave the kernel. On a tagged frame, an EtherType test is on the
// type after the outer tag, as in live captures.
//
// Output: a line per frame on standard output (none when the frames go to standard output with
// -w -); the summary (frames per device, the library's two drop counters, the kernel's drops) on
// standard error at the end, also after SIGINT, SIGTERM or SIGHUP, which leave a complete pcap file.
// Exit status 0; 1 when capturing failed or an output could not be written (the file is then not
// complete); 2 for bad arguments (an unknown device or namespace, a malformed filter, a filter the
// kernel refuses).
#include <getopt.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "intfsm/EthDevPamManagerTypes/EthDevPamManager.h"
#include "intfsm/KniIntfStatusManager/NetNsIntfStatusManagerRoot.h"
#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"
#include "tools/common/Common.h"
#include "tools/common/Filter.h"
#include "tools/common/FrameText.h"
#include "tools/common/LinkQuery.h"
#include "tools/common/PcapWriter.h"

namespace {

// tcpdump's default and largest capture size.
constexpr uint32_t maxSnapLength = 262144;
// Every frame a device can hand over whole (a 65535-byte MTU plus the Ethernet header): its length
// on the wire is then known, whatever the capture size.
constexpr uint32_t wholeFrameBytes = 65535 + 14;
// The ring's slots have one size; frames longer than this are recorded cut to it in ring mode.
constexpr uint32_t maxRingFrameBytes = 9216 + 4;
constexpr uint64_t defaultRingBytes = 32ull << 20;
constexpr uint32_t ringBlockBytes = 1u << 20;

char const usageText[] =
    "usage: pamdump [-i DEVICE]... [-c COUNT] [-s SNAPLEN] [-w FILE [-U]] [-B KIB] [-penqvlxX] [-Q in] [-D] [-d]\n"
    "               [-r FILE] [--netns NS] [--ethertype TYPE] [--bulk|--ring] [--duration SECONDS]\n"
    "               [--count-only] [--print] [--socket-filter PROGRAM] [EXPRESSION]\n"
    "  -i DEVICE   capture on DEVICE (again for more; any or none: every device of the namespace but lo)\n"
    "  -c COUNT    stop after COUNT frames              -s SNAPLEN  keep at most SNAPLEN bytes (0, default: 262144)\n"
    "  -w FILE     write a pcap file (- : standard output, and nothing else goes there); more than one\n"
    "              device: Linux cooked (SLL2) records with each frame's device and direction\n"
    "  -U          flush the file after each frame      -B KIB      socket buffer (ring size with --ring)\n"
    "  -p          leave the devices' promiscuous mode alone (default: on while capturing)\n"
    "  -e -n -v -l accepted: lines always show the link-level header, never resolve names, go out whole\n"
    "  -q          shorter lines: no protocol summary   -x -xx -X  hex dump (-xx with the link header, -X ASCII)\n"
    "  -Q in       received frames (the only direction pamdump captures)\n"
    "  -D          list the devices and exit            -d          print the kernel's filter program and exit\n"
    "  -r FILE     print the frames of a pcap file (- : standard input) instead of capturing\n"
    "  --netns NS          the devices' network namespace (default: pamdump's own)\n"
    "  --ethertype TYPE    only frames of this EtherType (after the outer VLAN tag), e.g. 0x88b5\n"
    "  --bulk              bulk reads (recvmmsg into reused packets) instead of one frame per read\n"
    "  --ring              a receive ring shared with the kernel (no system call per frame), -B KIB big\n"
    "                      (default 32768); frames longer than 9220 bytes are kept cut to that\n"
    "  --duration SECONDS  stop after SECONDS              --count-only  no line per frame, the summary only\n"
    "  --print             lines on standard output also with -w FILE\n"
    "  --socket-filter PROGRAM   a classic BPF program in text form ('{ 0x28, 0, 0, 0xc }, ...') instead\n"
    "                      of an expression; a text with a brace given as EXPRESSION is taken as one too\n"
    "  EXPRESSION  libpcap's filter language, e.g. 'vlan 100 and udp port 53', run in the kernel\n"
    "  -h, --help  this text\n"
    "Full decoding is tcpdump's: pamdump -w - | tcpdump -r - -vv\n";

Tools::Program const program("pamdump", usageText);

struct Options {
  std::vector<std::string> devices;  // empty: every device but lo
  std::string netNs;
  int etherType = -1;
  bool bulk = false;
  bool ring = false;
  unsigned long count = 0;
  double seconds = 0;
  bool countOnly = false;
  bool print = false;
  bool quick = false;
  int hex = 0;  // 1: -x, 2: -xx
  bool ascii = false;
  bool promiscuous = true;
  bool packetBuffered = false;
  bool listDevices = false;
  bool dumpProgram = false;
  uint32_t snapLength = maxSnapLength;
  unsigned long bufferKiB = 0;
  std::string file;
  std::string readFile;
  std::string expression;
  std::string socketFilter;
};

enum LongOption { optNetns = 256, optEthertype, optBulk, optRing, optDuration, optCountOnly, optPrint, optSocketFilter };

Options optionsOf(int argc, char ** argv) {
  static option const longOptions[] = {
      {"netns", required_argument, nullptr, optNetns},       {"ethertype", required_argument, nullptr, optEthertype},
      {"bulk", no_argument, nullptr, optBulk},               {"ring", no_argument, nullptr, optRing},
      {"duration", required_argument, nullptr, optDuration}, {"count-only", no_argument, nullptr, optCountOnly},
      {"print", no_argument, nullptr, optPrint},             {"socket-filter", required_argument, nullptr, optSocketFilter},
      {"help", no_argument, nullptr, 'h'},                   {nullptr, 0, nullptr, 0},
  };
  Options o;
  opterr = 0;
  auto const bad = [](char const * what) { program.argumentError(std::string("bad ") + what + " '" + optarg + "'"); };
  for (int opt; (opt = getopt_long(argc, argv, "i:c:s:w:UB:penqvlxXQ:Ddr:h", longOptions, nullptr)) != -1;) {
    switch (opt) {
      case 'i':
        if (std::string(optarg) == "any") break;
        if (std::find(o.devices.begin(), o.devices.end(), optarg) == o.devices.end()) o.devices.push_back(optarg);
        break;
      case 'c': {
        auto n = Tools::number(optarg, 1ul << 40);
        if (!n || !*n) bad("count");
        o.count = *n;
        break;
      }
      case 's': {
        auto n = Tools::number(optarg, maxSnapLength);
        if (!n) bad("snapshot length (0 to 262144)");
        o.snapLength = *n && *n >= 14 ? static_cast<uint32_t>(*n) : *n ? 14 : maxSnapLength;
        break;
      }
      case 'w': o.file = optarg; break;
      case 'U': o.packetBuffered = true; break;
      case 'B': {
        auto n = Tools::number(optarg, 1ul << 22);
        if (!n || !*n) bad("buffer size in KiB");
        o.bufferKiB = *n;
        break;
      }
      case 'p': o.promiscuous = false; break;
      case 'e': case 'n': case 'v': case 'l': break;
      case 'q': o.quick = true; break;
      case 'x': o.hex = std::min(o.hex + 1, 2); break;
      case 'X': o.ascii = true; o.hex = std::max(o.hex, 1); break;
      case 'Q':
        if (std::string(optarg) != "in") program.argumentError("-Q " + std::string(optarg) + ": pamdump captures received frames only (-Q in)");
        break;
      case 'D': o.listDevices = true; break;
      case 'd': o.dumpProgram = true; break;
      case 'r': o.readFile = optarg; break;
      case 'h': program.help();
      case optNetns:
        if (!*optarg || std::strlen(optarg) > Ovel::maxNsNameBytes || std::strchr(optarg, '/')) bad("network namespace name");
        o.netNs = optarg;
        break;
      case optEthertype: {
        auto n = Tools::number(optarg, 0xffff);
        if (!n) bad("EtherType");
        o.etherType = static_cast<int>(*n);
        break;
      }
      case optBulk: o.bulk = true; break;
      case optRing: o.ring = true; break;
      case optDuration: {
        char * end = nullptr;
        o.seconds = std::strtod(optarg, &end);
        if (*end || !(o.seconds > 0) || o.seconds > 1e9) bad("duration");
        break;
      }
      case optCountOnly: o.countOnly = true; break;
      case optPrint: o.print = true; break;
      case optSocketFilter: o.socketFilter = optarg; break;
      default: program.badOption(optopt, argv[optind - 1]);
    }
  }
  if (o.bulk && o.ring) program.argumentError("--bulk and --ring exclude each other");
  if (o.print && o.file == "-") program.argumentError("--print with -w -: standard output holds the pcap stream");
  for (int i = optind; i < argc; ++i) o.expression += (o.expression.empty() ? "" : " ") + std::string(argv[i]);
  if (o.expression.find('{') != std::string::npos) {
    if (!o.socketFilter.empty()) program.argumentError("a socket filter program and --socket-filter: give one");
    std::swap(o.expression, o.socketFilter);
  }
  if (!o.socketFilter.empty() && (!o.expression.empty() || o.etherType >= 0)) {
    program.argumentError("--socket-filter takes no expression or --ethertype: put the test in the program");
  }
  return o;
}

// The receive ring, sized in bytes: slots of one size (the frame size the capture keeps), in blocks
// of 1 MiB. The only place the ring's settings are given.
void ringIs(Interface::EthDevPamManager & manager, uint64_t bytes, uint32_t frameBytes) {
  manager.maxRxPktDataIs(frameBytes);
  manager.rxRingIs(true);
  manager.rxRingFrameSizeIs(0);  // the smallest slot for maxRxPktData
  manager.rxRingBlockSizeIs(ringBlockBytes);
  manager.rxRingBlockCountIs(static_cast<uint32_t>(std::max<uint64_t>(1, bytes / ringBlockBytes)));
  // A frame at a time while traffic is light, the ring read on a timer during a storm: the capture
  // neither lags a quiet link nor takes a wake-up per frame of a busy one.
  manager.rxModerationIs(true);
}

// The hex dump of -x/-X: 16 bytes a line, as tcpdump lays it out.
std::string hexDump(uint8_t const * bytes, size_t length, bool ascii) {
  std::string out;
  char text[32];
  for (size_t line = 0; line < length; line += 16) {
    std::snprintf(text, sizeof text, "\t0x%04zx:  ", line);
    out += text;
    size_t const end = std::min(length, line + 16);
    for (size_t i = line; i < line + 16; ++i) {
      if (i < end) {
        std::snprintf(text, sizeof text, "%02x", bytes[i]);
        out += text;
      } else {
        out += "  ";
      }
      if (i % 2) out += ' ';
    }
    if (ascii) {
      out += ' ';
      for (size_t i = line; i < end; ++i) out += bytes[i] >= 0x20 && bytes[i] < 0x7f ? static_cast<char>(bytes[i]) : '.';
    }
    out.erase(out.find_last_not_of(' ') + 1);
    out += '\n';
  }
  return out;
}

struct Device {
  std::string name;
  Ovel::IntfId id;  // the device's name when that is a valid interface id, else "ifindexN"
  uint32_t ifIndex = 0;
  uint64_t frames = 0;
};

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

  // Sets everything up; exits with status 2 on bad arguments (0 after -D and -d).
  void start();
  void handleFrame(Ovel::IntfId const & intfId, Ovel::Pkt const & pkt);
  // False when an output could not be written.
  bool finish();

 private:
  class VornDeadline : public Vorn::Reactor<Capture, Vorn::Clock> {
   public:
    using Reactor::Reactor;
    void onTimeMin() override { forward(&Capture::handleStop); }
  };
  void handleStop() { Vorn::activityManager().stop(); }
  void devicesIs(KernelNetInfo::Status const & kernel);
  Ovel::SockFilterProgram filterProgram();
  void promiscuousIs();
  void libraryIs(Ovel::SockFilterProgram const & filter);
  bool linesOnStdout() const { return !o_.countOnly && (o_.file.empty() || o_.print); }

  Options const & o_;
  Ovel::NamespaceName ns_;
  Vorn::Ptr<KernelNetInfo::Status> kernel_;
  Vorn::Ptr<Interface::AllIntfStatusDir> allIntfStatus_;
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocal_;
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> statusRoot_;
  Vorn::Ptr<Interface::DeviceIntfStatusDir> devices_;
  Vorn::Ptr<Interface::PamDesiredIntfDir> desired_;
  Vorn::Ptr<Interface::EthDevPamCollection> pams_;
  Vorn::Ptr<Interface::EthDevPamManager> manager_;
  Vorn::Ptr<Dumper> dumper_;
  std::vector<Device> captured_;
  std::map<Ovel::IntfId, size_t> byId_;
  uint64_t total_ = 0;
  bool outputLost_ = false;
  int promiscuousSd_ = -1;  // holds the devices' promiscuous membership while open
  Tools::PcapWriter writer_;
  std::unique_ptr<Tools::StopSignals> signals_;
  Vorn::Ptr<VornDeadline> deadline_;
  std::vector<uint8_t> wire_;
};

void Dumper::handleRx(Vorn::Ptr<Ovel::Pam> const &, Ovel::IntfId const & intfId, Vorn::Ptr<Ovel::Pkt> const & pkt) {
  capture_->handleFrame(intfId, *pkt);
}

Capture::~Capture() {
  deadline_ = nullptr;
  signals_.reset();
  dumper_ = nullptr;
  if (manager_) manager_->enabledIs(false);
  manager_ = nullptr;
  statusRoot_ = nullptr;
  kernel_ = nullptr;
  if (promiscuousSd_ >= 0) close(promiscuousSd_);
}

void Capture::devicesIs(KernelNetInfo::Status const & kernel) {
  auto const root = kernel.root();
  std::vector<std::string> names = o_.devices;
  if (names.empty()) {
    for (auto const & e : root->interfaceByDeviceNameIter()) {
      if (e.key.view() != "lo") names.push_back(e.key.stdString());
    }
    std::sort(names.begin(), names.end());
    if (names.empty()) program.argumentError("no device to capture on in namespace " + ns_.name().stdString());
  }
  for (std::string const & d : names) {
    auto const link = Tools::queryLink(o_.netNs, d);
    if (!link) program.argumentError("no device '" + d + "'" + (o_.netNs.empty() ? std::string() : " in namespace " + o_.netNs));
    Device device;
    device.name = d;
    device.ifIndex = link->ifIndex;
    auto id = Ovel::IntfId::fromName(Vorn::String(d));
    device.id = id ? *id : Ovel::IntfId(Vorn::String("ifindex" + std::to_string(link->ifIndex)));
    byId_[device.id] = captured_.size();
    captured_.push_back(device);
  }
}

Ovel::SockFilterProgram Capture::filterProgram() {
  std::string error;
  Ovel::SockFilterProgram program;
  if (!o_.socketFilter.empty()) {
    Tools::Filter text;
    if (!text.parse(o_.socketFilter, error)) ::program.argumentError(error);
    program = text.kernelProgram();
  } else {
    std::string expression = o_.expression;
    if (o_.etherType >= 0) {
      char type[32];
      std::snprintf(type, sizeof type, "ether proto 0x%04x", o_.etherType);
      expression = expression.empty() ? type : std::string(type) + " and (" + expression + ")";
    }
    if (!expression.empty() && !Tools::compileForDevice(o_.netNs, captured_.front().name, expression, program, error)) {
      ::program.argumentError(error);
    }
  }
  if (!program.empty() && !Tools::kernelAccepts(o_.netNs, program, error)) ::program.argumentError(error);
  return program;
}

void Capture::promiscuousIs() {
  if (!o_.promiscuous) return;
  // One socket that only holds the membership: the kernel ends it with the socket, however pamdump ends.
  promiscuousSd_ = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, o_.netNs.c_str());
  for (Device const & d : captured_) {
    packet_mreq request{};
    request.mr_ifindex = static_cast<int>(d.ifIndex);
    request.mr_type = PACKET_MR_PROMISC;
    if (promiscuousSd_ < 0 ||
        setsockopt(promiscuousSd_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
      std::fprintf(stderr, "pamdump: %s stays out of promiscuous mode: %s\n", d.name.c_str(), std::strerror(errno));
    }
  }
}

void Capture::libraryIs(Ovel::SockFilterProgram const & filter) {
  // One interface per device, in the namespace; the kernel interface status of that namespace joins
  // them with the kernel's devices, and the packet-access manager follows.
  allIntfStatus_ = Interface::allIntfStatusDirFactory("allIntfStatus");
  allIntfStatusLocal_ = Interface::allIntfStatusLocalDirFactory("allIntfStatusLocal");
  for (Device const & d : captured_) {
    auto status = Interface::intfStatusFactory(d.id);
    status->deviceNameIs(Vorn::String(d.name));
    auto local = Interface::intfStatusLocalFactory(d.id);
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
  manager_->ethProtocolIs(ETH_P_ALL);  // every EtherType: the filter selects, tags stay visible
  manager_->separateDot1QHdrIs(true);
  if (o_.ring) {
    ringIs(*manager_, o_.bufferKiB ? o_.bufferKiB * 1024 : defaultRingBytes, std::min(o_.snapLength, maxRingFrameBytes));
  } else {
    manager_->maxRxPktDataIs(wholeFrameBytes);
    if (o_.bufferKiB) manager_->sockRcvBufIs(static_cast<uint32_t>(std::min<uint64_t>(o_.bufferKiB * 1024, UINT32_MAX)));
  }
  if (o_.bulk || o_.ring) manager_->pktReuseIs(true);
  manager_->enableBulkPamReadIs(o_.bulk);
  if (!filter.empty()) manager_->filterProgramIs(filter);
  manager_->handleInitialized();
  manager_->enabledIs(true);
  dumper_ = new Dumper(this, devices_, pams_);
  dumper_->desiredIntfDirIs(desired_);
  for (Device const & d : captured_) dumper_->addIntfPam(d.id);

  // Every device has its endpoint once the kernel's view is joined in; one that does not, could not
  // be opened (the library traced why).
  Vorn::activityManager().runUntil([&] { return pams_->intfPams() == captured_.size(); }, 2.0);
  for (Device const & d : captured_) {
    if (!pams_->intfPam(d.id)) throw Vorn::Exception("cannot capture on " + d.name + " (no packet socket; root is needed)");
  }
}

void Capture::start() {
  ns_ = Ovel::NamespaceName(o_.netNs.empty() ? Vorn::String(Ovel::DEFAULT_NS) : Vorn::String(o_.netNs));
  // The kernel's devices of the namespace; a namespace that is not there cannot be opened.
  kernel_ = KernelNetInfo::Status::statusNew("kernel", ns_);
  try {
    kernel_->enabledIs(true);
  } catch (Vorn::ErrnoException const & e) {
    if (e.errorNumber() == ENOENT || e.errorNumber() == EINVAL) program.argumentError("no network namespace '" + o_.netNs + "'");
    throw;
  }
  devicesIs(*kernel_);
  if (o_.listDevices) {
    for (size_t i = 0; i < captured_.size(); ++i) std::printf("%zu.%s [ifindex %u]\n", i + 1, captured_[i].name.c_str(), captured_[i].ifIndex);
    std::exit(Tools::outputOk("pamdump") ? Tools::exitOk : Tools::exitFailed);
  }
  Ovel::SockFilterProgram const filter = filterProgram();
  if (o_.dumpProgram) {
    std::fputs(filter.empty() ? "(000) ret      #262144\n" : Tools::programText(filter).c_str(), stdout);
    std::exit(Tools::outputOk("pamdump") ? Tools::exitOk : Tools::exitFailed);
  }
  if (!o_.file.empty()) {
    if (!writer_.open(o_.file, captured_.size() > 1 ? Tools::PcapWriter::linuxSll2 : Tools::PcapWriter::ethernet, o_.snapLength)) {
      program.argumentError(writer_.error());
    }
    writer_.packetBufferedIs(o_.packetBuffered);
  }
  promiscuousIs();
  libraryIs(filter);
  signals_ = std::make_unique<Tools::StopSignals>([] { Vorn::activityManager().stop(); });
  if (o_.seconds > 0) {
    deadline_ = Vorn::reactorNew<VornDeadline>(this, Vorn::activityManager().clock());
    deadline_->timeMinIs(Vorn::System::currentTime() + o_.seconds);
  }
  std::fprintf(stderr, "pamdump: capturing on %zu device%s%s%s%s\n", captured_.size(), captured_.size() == 1 ? "" : "s",
               o_.netNs.empty() ? "" : " in namespace ", o_.netNs.c_str(), o_.bulk ? ", bulk reads" : o_.ring ? ", ring reads" : "");
}

void Capture::handleFrame(Ovel::IntfId const & intfId, Ovel::Pkt const & pkt) {
  if ((o_.count && total_ >= o_.count) || outputLost_) return;
  auto const at = byId_.find(intfId);
  if (at == byId_.end()) return;
  Device & device = captured_[at->second];
  Tools::wireFrameOf(pkt, wire_);
  timespec const when = Tools::receiveTime(pkt);
  uint32_t const len = static_cast<uint32_t>(wire_.size());
  uint32_t const caplen = std::min(len, o_.snapLength);
  ++total_;
  ++device.frames;
  if (linesOnStdout()) {
    std::string line = Tools::frameLine(when, device.name, wire_.data(), caplen, len);
    if (o_.quick) line = line.substr(0, line.find(": "));
    line += '\n';
    if (o_.hex) {
      size_t const skip = o_.hex == 2 ? 0 : std::min<size_t>(caplen, 14);
      line += hexDump(wire_.data() + skip, caplen - skip, o_.ascii);
    }
    if (!Tools::outputIs("pamdump", line)) outputLost_ = true;
  }
  if (writer_.isOpen() && !writer_.frameIs(when, wire_.data(), caplen, len, pkt.ifIndex(), pkt.pktType())) outputLost_ = true;
  if ((o_.count && total_ >= o_.count) || outputLost_) Vorn::activityManager().stop();
}

bool Capture::finish() {
  bool ok = Tools::outputOk("pamdump") && !outputLost_;
  bool const written = writer_.close();
  if (!written) std::fprintf(stderr, "pamdump: %s; the file is not complete\n", writer_.error().c_str());
  std::fprintf(stderr, "pamdump: %llu frame%s captured%s%s\n", static_cast<unsigned long long>(total_),
               total_ == 1 ? "" : "s", o_.file.empty() ? "" : ", written to ",
               o_.file.empty() ? "" : o_.file == "-" ? "standard output" : o_.file.c_str());
  for (Device const & d : captured_) std::fprintf(stderr, "  %-16s %llu\n", d.name.c_str(), static_cast<unsigned long long>(d.frames));
  auto const & bundle = manager_ ? manager_->edpBundle() : nullptr;
  if (bundle) {
    std::fprintf(stderr, "  dropped: %u of devices not captured, %u of devices without a ready endpoint, %llu by the kernel\n",
                 bundle->noPamDropCount(), bundle->pamNotReadyDropCount(),
                 static_cast<unsigned long long>(bundle->kernelDrops()));
  }
  return ok && written;
}

// -r: the frames of a pcap file, one line each, through the same expression.
int readFile(Options const & o) {
  char reason[PCAP_ERRBUF_SIZE] = "";
  pcap_t * in = pcap_open_offline_with_tstamp_precision(o.readFile.c_str(), PCAP_TSTAMP_PRECISION_NANO, reason);
  if (!in) program.argumentError(std::string("cannot read ") + o.readFile + ": " + reason);
  bpf_program compiled{};
  if (!o.expression.empty() && (pcap_compile(in, &compiled, o.expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0 ||
                                pcap_setfilter(in, &compiled) != 0)) {
    std::string const error = pcap_geterr(in);
    pcap_close(in);
    program.argumentError("malformed filter expression \"" + o.expression + "\": " + error);
  }
  pcap_freecode(&compiled);
  bool const ethernet = pcap_datalink(in) == DLT_EN10MB;
  pcap_pkthdr * header = nullptr;
  u_char const * bytes = nullptr;
  unsigned long n = 0;
  int got;
  while ((!o.count || n < o.count) && (got = pcap_next_ex(in, &header, &bytes)) == 1) {
    ++n;
    timespec const when{header->ts.tv_sec, static_cast<long>(header->ts.tv_usec)};  // nanoseconds, as opened
    std::string line = ethernet ? Tools::frameLine(when, "-", bytes, header->caplen, header->len)
                                : "frame of link type " + std::to_string(pcap_datalink(in)) + ", length " + std::to_string(header->len);
    if (o.quick) line = line.substr(0, line.find(": "));
    if (std::printf("%s\n", line.c_str()) < 0) break;
  }
  std::string const error = got == PCAP_ERROR ? pcap_geterr(in) : "";
  pcap_close(in);
  if (!error.empty()) std::fprintf(stderr, "pamdump: %s: %s\n", o.readFile.c_str(), error.c_str());
  return Tools::outputOk("pamdump") && error.empty() ? Tools::exitOk : Tools::exitFailed;
}

}  // namespace

int main(int argc, char ** argv) {
  Options const options = optionsOf(argc, argv);
  if (!options.readFile.empty()) return readFile(options);
  // The pcap stream on standard output is written whole records at a time; lines go out one by one.
  if (options.file != "-") setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    Capture capture(options);
    capture.start();
    Vorn::activityManager().run();
    return capture.finish() ? Tools::exitOk : Tools::exitFailed;
  } catch (Vorn::Exception const & e) {
    std::fprintf(stderr, "pamdump: %s\n", e.what());
    return Tools::exitFailed;
  }
}
