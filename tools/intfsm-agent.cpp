// intfsm-agent: the library at work the way a switch agent uses it, in one process on one event loop.
//
// It holds an Interface::IntfStatus and IntfStatusLocal per interface, runs KernelOperState::Root to
// mirror their operational status into the kernel (in whatever namespace each device lives), gives
// packet access on the interfaces it is told to watch through a SimpleEthDevPamManager, and counts
// (and, on request, prints) the frames they receive through a SimpleTxRxPktManager-derived receiver.
// Commands come one per line from standard input or a script:
//
//   intfsm-agent -i Ethernet1=et1 -i Ethernet2=et2@blue       # id=device[@namespace]
//   intfsm-agent -c ports.conf -f scenario.txt                 # "id device [namespace]" per line
//
// The packet side works in the namespace the agent runs in (start it with `ip netns exec NS` to watch
// the devices of NS); the oper-state side reaches every namespace. `help` lists the commands.
//
// Standard input that cannot be watched (/dev/null under a service manager) gives no commands: the
// agent then runs until SIGINT, SIGTERM or SIGHUP. On a terminal it prompts. The library's trace
// lines stay out of the output unless BRISKLOG asks for them. Exit status: 0; 1 when the agent could
// not run, its output was lost, or (with -f) a command of the script failed; 2 for bad arguments.
//
// The sockets are bound to every EtherType, so VLAN tags are always seen; -e selects the EtherType in
// the kernel's socket filter (the type after the outer tag of a tagged frame), and a `filter` program
// given as text replaces that selection while it is in force.
#include <fcntl.h>
#include <getopt.h>
#include <linux/if_ether.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "intfsm/KernelOperState/Root.h"
#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Attribute.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"
#include "intfsm/foundation/brisklog/Brisklog.h"
#include "tools/common/Common.h"
#include "tools/common/Filter.h"
#include "tools/common/FrameText.h"
#include "tools/common/LinkQuery.h"

namespace {

char const helpText[] =
    "commands (one per line; # starts a comment):\n"
    "  oper ID|all STATUS     set the operational status; what the kernel's operstate becomes:\n"
    "                         up: UP;  down, dormant, notpresent, lowerlayerdown: DORMANT;\n"
    "                         testing, unknown: nothing is sent, the kernel keeps what it has\n"
    "  watch ID|all           give the interface packet access; its frames are counted (devices in\n"
    "                         the agent's own namespace only)\n"
    "  unwatch ID|all         take it away; its frames become drops\n"
    "  filter EXPR            capture-filter expression, e.g. vlan 100 (matched on the frame as on the wire)\n"
    "  filter { c, jt, jf, k }, ...   classic BPF program for the sockets;  filter none: no filter\n"
    "  send ID [count N] [vlan V] [type T] [to MAC] [length L]   frames out of a watched interface\n"
    "  show [ID]              the table: device, ifindex, status set, kernel operstate, frames received, drops\n"
    "  show everything        every library object the agent holds, each attribute read by its name\n"
    "  clear                  zero the counters (frames and drops)\n"
    "  print on|off           print every frame received\n"
    "  wait SECONDS           let the loop run (scripts)\n"
    "  say TEXT               print TEXT (scripts)\n"
    "  quit\n";

struct Port {
  Ovel::IntfId id;
  std::string device;
  std::string netNs;  // empty: the agent's own namespace
  Vorn::Ptr<Interface::IntfStatus> status;
  Vorn::Ptr<Interface::IntfStatusLocal> local;
  uint64_t received = 0;
  uint64_t unmatched = 0;
  uint64_t dropsAtClear = 0;  // the Pam's drop count when the counters were last cleared
  std::string operSet = "-";  // the status the operator set last
  bool ownNamespace = true;   // the device is in the agent's own namespace (named or not)
};

// Whether namespace `ns` (bound at /run/netns) is the one this process runs in.
bool isOwnNamespace(std::string const & ns) {
  struct stat there{}, here{};
  return stat(("/run/netns/" + ns).c_str(), &there) == 0 && stat("/proc/self/ns/net", &here) == 0 &&
         there.st_dev == here.st_dev && there.st_ino == here.st_ino;
}

std::vector<std::string> words(std::string const & line) {
  std::istringstream in(line);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

using Tools::number;

std::optional<Interface::IntfOperStatus> operStatusOf(std::string const & text) {
  static std::map<std::string, Interface::IntfOperStatus> const names = {
      {"up", Interface::intfOperUp},
      {"down", Interface::intfOperDown},
      {"testing", Interface::intfOperTesting},
      {"unknown", Interface::intfOperUnknown},
      {"dormant", Interface::intfOperDormant},
      {"notpresent", Interface::intfOperNotPresent},
      {"lowerlayerdown", Interface::intfOperLowerLayerDown},
  };
  auto it = names.find(text);
  if (it == names.end()) return std::nullopt;
  return it->second;
}

class Agent;

// The receive loop of the library, with this agent's handling of each frame.
class Receiver : public Interface::SimpleTxRxPktManager {
 public:
  Receiver(Agent * agent, Vorn::Ptr<Interface::DeviceIntfStatusDir const> const & deviceIntfStatusDir,
           Vorn::Ptr<Interface::EthDevPamCollection> const & pamCollection)
      : SimpleTxRxPktManager(deviceIntfStatusDir, pamCollection), agent_(agent) {}

  void handleRx(Vorn::Ptr<Ovel::Pam> const & pam, Ovel::IntfId const & intfId,
                Vorn::Ptr<Ovel::Pkt> const & pkt) override;

 private:
  Agent * agent_;
};

class Agent {
 public:
  Agent(std::vector<Port> ports, int etherType, bool script);
  ~Agent();

  // Reads commands from `fd` (a regular file is read whole; anything else is watched on the loop).
  void inputIs(int fd);
  bool quitting() const { return quit_; }
  // The exit status the agent ends with.
  int status() const;

  void handleInput();
  void handleWaitOver();
  void handleSignal();
  void handleRx(Ovel::Pam const & pam, Ovel::IntfId const & intfId, Ovel::Pkt const & pkt);

 private:
  class VornInput : public Vorn::Reactor<Agent, Vorn::FileDescriptor> {
   public:
    using Reactor::Reactor;
    void onReadableCount() override { forward(&Agent::handleInput); }
    void onExceptionPendingCount() override { forward(&Agent::handleInput); }
  };
  class VornWait : public Vorn::Reactor<Agent, Vorn::Clock> {
   public:
    using Reactor::Reactor;
    void onTimeMin() override { forward(&Agent::handleWaitOver); }
  };

  void linesIs(std::string const & text);
  void prompt();
  void error(std::string const & text);
  // Kernel program of -e when no program of the filter command is in force; empty otherwise.
  Ovel::SockFilterProgram etherTypeProgram() const;
  void pump();
  void execute(std::string const & line);
  std::string doOper(std::vector<std::string> const & w);
  std::string doWatch(std::vector<std::string> const & w, bool watch);
  std::string doFilter(std::string const & text);
  std::string doSend(std::vector<std::string> const & w);
  std::string doShow(std::vector<std::string> const & w);
  void doShowEverything() const;
  void doClear();
  // The ports a command names: one, or all for "all"; empty when there is no such interface.
  std::vector<Port *> portsNamed(std::string const & name);

  std::vector<Port> ports_;
  Vorn::Ptr<Interface::AllIntfStatusDir> allIntfStatus_;
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocal_;
  Vorn::Ptr<KernelOperState::Root> operState_;
  Vorn::Ptr<KernelNetInfo::Status> kernel_;
  Vorn::Ptr<Interface::SimpleEthDevPamManager> packets_;
  Vorn::Ptr<Receiver> receiver_;
  Tools::Filter filter_;
  bool print_ = false;
  // The bundle's drop counts when the counters were last cleared: "show" prints what came since.
  uint32_t notReadyAtClear_ = 0;
  uint32_t noPamAtClear_ = 0;

  int etherType_ = -1;
  bool script_ = false;
  unsigned lineNumber_ = 0;
  unsigned failures_ = 0;
  bool outputLost_ = false;
  int inputFd_ = -1;
  bool echo_ = false;
  bool terminal_ = false;
  bool eof_ = false;
  bool waiting_ = false;
  bool quit_ = false;
  std::string partial_;
  size_t scanned_ = 0;  // partial_ holds no newline before this
  std::deque<std::string> lines_;
  Vorn::Ptr<Vorn::FileDescriptor> input_;
  Vorn::Ptr<VornInput> inputReactor_;
  Vorn::Ptr<VornWait> wait_;
  std::unique_ptr<Tools::StopSignals> signals_;
  std::vector<uint8_t> wire_;
};

void Receiver::handleRx(Vorn::Ptr<Ovel::Pam> const & pam, Ovel::IntfId const & intfId,
                        Vorn::Ptr<Ovel::Pkt> const & pkt) {
  agent_->handleRx(*pam, intfId, *pkt);
}

Agent::Agent(std::vector<Port> ports, int etherType, bool script)
    : ports_(std::move(ports)), etherType_(etherType), script_(script) {
  allIntfStatus_ = Interface::allIntfStatusDirFactory("allIntfStatus");
  allIntfStatusLocal_ = Interface::allIntfStatusLocalDirFactory("allIntfStatusLocal");

  // The oper-state subsystem, wired as its header shows.
  operState_ = KernelOperState::rootFactory("kernelOperState");
  operState_->operStateConvergenceIs(true);  // pushed states survive carrier flaps and re-created devices
  operState_->kosmIs();
  operState_->intfStatusDirIs("intfStatus");
  operState_->intfStatusLocalDirIs("intfStatusLocal");
  operState_->netNsCollectionIs("netNs");
  operState_->netNsManagerIs(operState_->netNsCollection());
  operState_->intfStatusOperStatusSmIs(operState_->intfStatusDir(), operState_->intfStatusLocalDir(),
                                       operState_->kosm(), operState_->netNsCollection());

  // Statuses start unknown, which mirrors nothing: the kernel keeps its own view until told.
  for (Port & p : ports_) {
    p.status = Interface::intfStatusFactory(p.id);
    p.status->deviceNameIs(Vorn::String(p.device));
    p.status->operStatusIs(Interface::intfOperUnknown);
    p.local = Interface::intfStatusLocalFactory(p.id);
    if (!p.netNs.empty()) p.local->netNsNameIs(Ovel::NamespaceName(p.netNs));
    allIntfStatus_->intfStatusIs(p.status);
    allIntfStatusLocal_->intfStatusLocalIs(p.local);
    operState_->intfStatusLocalDir()->intfStatusLocalIs(p.local);
    operState_->intfStatusDir()->intfStatusIs(p.status);
  }

  // Packet access in this process's namespace.
  kernel_ = KernelNetInfo::Status::statusNew("kernel", Ovel::NamespaceName(Ovel::DEFAULT_NS));
  kernel_->enabledIs(true);
  packets_ = Interface::simpleEthDevPamManagerFactory(allIntfStatus_, allIntfStatusLocal_, kernel_);
  packets_->initializedIs(true);
  auto const & manager = packets_->ethDevPamManager();
  manager->handleInitialized();
  manager->ethProtocolIs(ETH_P_ALL);  // every EtherType: -e selects in the filter, tags stay visible
  manager->separateDot1QHdrIs(true);  // VLAN tags arrive beside the frame
  if (etherType_ >= 0) manager->filterProgramIs(etherTypeProgram());
  manager->enabledIs(true);
  receiver_ = new Receiver(this, packets_->deviceIntfStatusDir(), packets_->pamCollection());
  receiver_->desiredIntfDirIs(packets_->desiredIntfDir());

  // SIGINT, SIGTERM and SIGHUP end the agent cleanly, on the loop.
  signals_ = std::make_unique<Tools::StopSignals>([this] { handleSignal(); });
  wait_ = Vorn::reactorNew<VornWait>(this, Vorn::activityManager().clock());
}

Agent::~Agent() {
  wait_ = nullptr;
  if (input_) input_->descriptorIs(-1);
  inputReactor_ = nullptr;
  signals_.reset();
  receiver_ = nullptr;
  packets_ = nullptr;
  kernel_ = nullptr;
  operState_ = nullptr;
}

void Agent::inputIs(int fd) {
  inputFd_ = fd;
  terminal_ = isatty(fd);
  echo_ = !terminal_;
  struct stat st{};
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    // A file never blocks, and epoll does not watch files: read it whole.
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
    linesIs(text);
    eof_ = true;
  } else {
    input_ = Vorn::fileDescriptorFactory("commands");
    try {
      input_->descriptorIs(fd);
      input_->nonBlockingIs(true);
      inputReactor_ = Vorn::reactorNew<VornInput>(this, input_);
    } catch (Vorn::ErrnoException const & e) {
      // Not a descriptor epoll can watch (/dev/null): no commands; the agent runs until a signal.
      if (e.errorNumber() != EPERM) throw;
      input_->descriptorIs(-1);
      input_ = nullptr;
      std::fprintf(stderr, "intfsm-agent: standard input gives no commands; running until SIGINT, SIGTERM or SIGHUP\n");
      return;
    }
  }
  pump();
}

void Agent::linesIs(std::string const & text) {
  partial_ += text;
  // Only the new bytes are searched: a long line arriving in pieces is scanned once.
  size_t from = 0;
  for (size_t nl; (nl = partial_.find('\n', std::max(from, scanned_))) != std::string::npos; from = nl + 1) {
    lines_.push_back(partial_.substr(from, nl - from));
    scanned_ = 0;
  }
  partial_.erase(0, from);
  scanned_ = partial_.size();
}

void Agent::prompt() {
  if (terminal_ && !eof_ && !quit_ && lines_.empty() && !waiting_) {
    std::fputs("intfsm> ", stdout);
    std::fflush(stdout);
  }
}

void Agent::error(std::string const & text) {
  ++failures_;
  if (script_) {
    std::fprintf(stderr, "error: line %u: %s\n", lineNumber_, text.c_str());
  } else {
    std::fprintf(stderr, "error: %s\n", text.c_str());
  }
}

int Agent::status() const {
  if (outputLost_) return Tools::exitFailed;
  return script_ && failures_ ? Tools::exitFailed : Tools::exitOk;
}

Ovel::SockFilterProgram Agent::etherTypeProgram() const {
  // The EtherType at offset 12: after the outer tag of a tagged frame, which the kernel holds apart.
  return Ovel::SockFilterProgram{{BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
                                 {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<uint32_t>(etherType_)},
                                 {BPF_RET | BPF_K, 0, 0, 0xffffffff},
                                 {BPF_RET | BPF_K, 0, 0, 0}};
}

void Agent::handleInput() {
  char buffer[4096];
  for (;;) {
    ssize_t const n = read(inputFd_, buffer, sizeof buffer);
    if (n > 0) {
      linesIs(std::string(buffer, static_cast<size_t>(n)));
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
    // End of input (or an input that cannot be read any more): what is left still runs.
    if (!partial_.empty()) lines_.push_back(partial_);
    partial_.clear();
    scanned_ = 0;
    eof_ = true;
    input_->descriptorIs(-1);
    break;
  }
  pump();
}

void Agent::handleWaitOver() {
  waiting_ = false;
  pump();
}

void Agent::handleSignal() {
  quit_ = true;
  Vorn::activityManager().stop();
}

void Agent::pump() {
  while (!waiting_ && !quit_ && !lines_.empty()) {
    std::string line = lines_.front();
    lines_.pop_front();
    ++lineNumber_;
    execute(line);
    if (!Tools::outputOk("intfsm-agent")) {
      outputLost_ = quit_ = true;
    }
  }
  if (quit_ || (eof_ && lines_.empty() && !waiting_)) {
    quit_ = true;
    Vorn::activityManager().stop();
    return;
  }
  prompt();
}

std::vector<Port *> Agent::portsNamed(std::string const & name) {
  std::vector<Port *> out;
  for (Port & p : ports_) {
    if (name == "all" || p.id.name().view() == name) out.push_back(&p);
  }
  return out;
}

void Agent::execute(std::string const & raw) {
  std::string line = raw.substr(0, raw.find('#'));
  std::vector<std::string> const w = words(line);
  if (w.empty()) return;
  if (echo_ && w[0] != "say") std::printf("intfsm> %s\n", line.c_str());
  std::string const & verb = w[0];
  std::string error;
  if (verb == "oper") {
    error = doOper(w);
  } else if (verb == "watch" || verb == "unwatch") {
    error = doWatch(w, verb == "watch");
  } else if (verb == "filter") {
    size_t const at = line.find("filter") + 6;
    std::string text = line.substr(at);
    text.erase(0, text.find_first_not_of(" \t"));
    text.erase(text.find_last_not_of(" \t\r") + 1);
    error = doFilter(text);
  } else if (verb == "send") {
    error = doSend(w);
  } else if (verb == "show" && w.size() == 2 && w[1] == "everything") {
    doShowEverything();
  } else if (verb == "show" && w.size() <= 2) {
    error = doShow(w);
  } else if (verb == "clear" && w.size() == 1) {
    doClear();
  } else if (verb == "print" && w.size() == 2 && (w[1] == "on" || w[1] == "off")) {
    print_ = w[1] == "on";
  } else if (verb == "wait" && w.size() == 2) {
    char * end = nullptr;
    double const seconds = std::strtod(w[1].c_str(), &end);
    if (*end || !(seconds >= 0) || seconds > 3600) {
      error = "wait wants a number of seconds (0 to 3600), not '" + w[1] + "'";
    } else {
      waiting_ = true;
      wait_->timeMinIs(Vorn::System::currentTime() + seconds);
    }
  } else if (verb == "say") {
    std::string text = line.substr(line.find("say") + 3);
    text.erase(0, text.find_first_not_of(" \t"));
    std::printf("\n== %s\n", text.c_str());
  } else if (verb == "help") {
    std::fputs(helpText, stdout);
  } else if ((verb == "quit" || verb == "exit") && w.size() == 1) {
    quit_ = true;
  } else if (verb == "show" || verb == "clear" || verb == "print" || verb == "wait" || verb == "quit") {
    error = "bad arguments to " + verb + " (try help)";
  } else {
    error = "unknown command '" + verb + "' (try help)";
  }
  if (!error.empty()) this->error(error);
}

std::string Agent::doOper(std::vector<std::string> const & w) {
  if (w.size() != 3) return "oper wants an interface and a status, e.g. oper Ethernet1 dormant";
  std::vector<Port *> const ports = portsNamed(w[1]);
  if (ports.empty()) return "no interface '" + w[1] + "'";
  auto const status = operStatusOf(w[2]);
  if (!status) return "no status '" + w[2] + "': up down dormant lowerlayerdown notpresent testing unknown";
  for (Port * p : ports) {
    p->status->operStatusIs(*status);
    p->operSet = w[2];
  }
  return {};
}

std::string Agent::doWatch(std::vector<std::string> const & w, bool watch) {
  if (w.size() != 2) return w[0] + " wants one interface (or all)";
  std::vector<Port *> const ports = portsNamed(w[1]);
  if (ports.empty()) return "no interface '" + w[1] + "'";
  for (Port * p : ports) {
    if (watch && !p->ownNamespace) {
      // The packet side opens its sockets in the agent's own namespace only.
      std::printf("not watching %s: its device %s is in namespace %s; packet access is in the agent's own namespace "
                  "(start the agent with ip netns exec %s)\n",
                  p->id.charPtr(), p->device.c_str(), p->netNs.c_str(), p->netNs.c_str());
      if (w[1] != "all") return "watch: " + w[1] + " is in another namespace";
    } else if (watch) {
      receiver_->addIntfPam(p->id);
    } else {
      receiver_->delIntfPam(p->id);
    }
  }
  return {};
}

std::string Agent::doFilter(std::string const & text) {
  if (text.empty()) return "filter wants an expression, a program, or none";
  Tools::Filter next;
  std::string error;
  if (!next.parse(text, error)) return "filter: " + error;
  // Tried on a scratch socket first: a program the kernel refuses leaves the one in force alone.
  if (next.kind() == Tools::Filter::Kind::kernel && !Tools::kernelAccepts("", next.kernelProgram(), error)) {
    return "filter: " + error;
  }
  filter_.parse(text, error);
  // The sockets get the program of the text form; otherwise -e's selection, or a program that
  // accepts all once one was set (the kernel refuses an empty one), none before.
  auto const & manager = packets_->ethDevPamManager();
  if (filter_.kind() == Tools::Filter::Kind::kernel) {
    manager->filterProgramIs(filter_.kernelProgram());
  } else if (etherType_ >= 0) {
    manager->filterProgramIs(etherTypeProgram());
  } else if (!manager->filterProgram().empty()) {
    manager->filterProgramIs(Ovel::SockFilterProgram{{BPF_RET | BPF_K, 0, 0, 0xffffffff}});
  }
  return {};
}

std::string Agent::doSend(std::vector<std::string> const & w) {
  if (w.size() < 2 || w.size() % 2 != 0) return "send wants an interface, then pairs: count N vlan V type T to MAC length L";
  std::vector<Port *> const ports = portsNamed(w[1]);
  if (ports.size() != 1) return "no interface '" + w[1] + "'";
  Port & port = *ports.front();
  Tools::FrameFields fields;
  unsigned long count = 1;
  for (size_t i = 2; i + 1 < w.size(); i += 2) {
    std::string const & key = w[i];
    std::string const & value = w[i + 1];
    std::optional<unsigned long> n;
    if (key == "count" && (n = number(value, 100000))) {
      count = *n;
    } else if (key == "vlan" && (n = number(value, 4095))) {
      fields.vlan = static_cast<int>(*n);
    } else if (key == "type" && (n = number(value, 0xffff))) {
      fields.etherType = static_cast<uint16_t>(*n);
    } else if (key == "length" && (n = number(value, 9216))) {
      fields.length = static_cast<uint32_t>(*n);
    } else if (key == "to" && Ovel::EthAddr::fromText(value)) {
      fields.destination = *Ovel::EthAddr::fromText(value);
    } else {
      return "send: bad " + key + " '" + value + "'";
    }
  }
  Vorn::Ptr<Ovel::Pam> pam = packets_->pamCollection()->intfPam(port.id);
  if (!pam) return "send: " + w[1] + " is not watched (it has no packet endpoint)";
  for (unsigned long i = 0; i < count; ++i) {
    Vorn::Ptr<Ovel::Pkt> pkt = Tools::framePktOf(fields, static_cast<uint32_t>(i));
    if (!pkt) return "send: no packet buffer left";
    if (!pam->txPkt(pkt)) {
      return "send: the kernel refused the frame out of " + port.device + ": " + std::strerror(pam->lastTxErrno());
    }
    receiver_->numSentInc(1);
  }
  std::printf("sent %lu frame%s out of %s (%s)\n", count, count == 1 ? "" : "s", port.id.charPtr(), port.device.c_str());
  return {};
}

namespace {
uint64_t pamDrops(Ovel::Pam const & pam) { return pam.queueDropCount() + pam.rxErrors(); }
}  // namespace

void Agent::doClear() {
  for (Port & p : ports_) {
    p.received = p.unmatched = 0;
    Vorn::Ptr<Ovel::Pam> pam = packets_->pamCollection()->intfPam(p.id);
    p.dropsAtClear = pam ? pamDrops(*pam) : 0;
  }
  auto const & bundle = packets_->ethDevPamManager()->edpBundle();
  notReadyAtClear_ = bundle ? bundle->pamNotReadyDropCount() : 0;
  noPamAtClear_ = bundle ? bundle->noPamDropCount() : 0;
}

std::string Agent::doShow(std::vector<std::string> const & w) {
  std::vector<Port *> const shown = portsNamed(w.size() == 2 ? w[1] : "all");
  if (shown.empty()) return "no interface '" + w[1] + "'";
  std::printf("%-12s %-8s %7s  %-14s %-15s %-7s %9s %6s\n", "interface", "device", "ifindex", "status set",
              "kernel operstate", "watched", "received", "drops");
  for (Port const * shownPort : shown) {
    Port const & p = *shownPort;
    auto const link = Tools::queryLink(p.netNs, p.device);
    std::string ifIndex = link ? std::to_string(link->ifIndex) : "-";
    char const * oper = link ? Tools::operStateName(link->operState) : "no device";
    Vorn::Ptr<Ovel::Pam> pam = packets_->pamCollection()->intfPam(p.id);
    // A Pam made since the last clear counts from zero.
    std::string drops = !pam ? "-" : std::to_string(pamDrops(*pam) >= p.dropsAtClear ? pamDrops(*pam) - p.dropsAtClear : pamDrops(*pam));
    std::printf("%-12s %-8s %7s  %-14s %-16s %-7s %9llu %6s\n", p.id.charPtr(), p.device.c_str(), ifIndex.c_str(),
                p.operSet.c_str(), oper, pam ? "yes" : "no", static_cast<unsigned long long>(p.received), drops.c_str());
  }
  auto const & bundle = packets_->ethDevPamManager()->edpBundle();
  uint64_t unmatched = 0;
  for (Port const & p : ports_) unmatched += p.unmatched;
  // A bundle made since the last clear counts from zero.
  auto since = [](uint32_t now, uint32_t atClear) { return now >= atClear ? now - atClear : now; };
  std::printf("dropped: %u frames of unwatched interfaces, %u of unknown devices",
              bundle ? since(bundle->pamNotReadyDropCount(), notReadyAtClear_) : 0,
              bundle ? since(bundle->noPamDropCount(), noPamAtClear_) : 0);
  switch (filter_.kind()) {
    case Tools::Filter::Kind::none: std::printf("; no filter\n"); break;
    case Tools::Filter::Kind::kernel: std::printf("; socket filter of %u instructions\n", filter_.kernelProgram().len()); break;
    case Tools::Filter::Kind::expression:
      std::printf("; filter '%s': %llu frames did not match\n", filter_.text().c_str(),
                  static_cast<unsigned long long>(unmatched));
      break;
  }
  return {};
}

// Walks from the agent's roots through every attribute that refers to an object with an attribute
// table, printing each object once: its scalars, its collections entry by entry, and its operations.
void Agent::doShowEverything() const {
  std::deque<Vorn::Ptr<Vorn::Notifier>> pending{operState_, packets_, receiver_};
  std::set<Vorn::PtrInterface const *> seen;
  auto read = [](auto && f) -> std::string {
    try {
      return f().str();
    } catch (Vorn::Exception const & e) {
      return std::string("<") + e.what() + ">";
    }
  };
  auto follow = [&](Vorn::Value const & v) {
    if (v.kind() != Vorn::Value::Kind::object) return;
    auto n = Vorn::ptr_cast<Vorn::Notifier>(v.object());
    if (n && Vorn::AttributeTable::of(*n) && !seen.count(n.ptr())) pending.push_back(n);
  };
  while (!pending.empty()) {
    Vorn::Ptr<Vorn::Notifier> object = pending.front();
    pending.pop_front();
    if (!object || !seen.insert(object.ptr()).second) continue;
    Vorn::Attributes const a(object);
    std::printf("%s\n", Vorn::Value(object).str().c_str());
    for (uint32_t n = 0; n < a.table().size(); ++n) {
      Vorn::AttributeInfo const & info = a.info(n);
      char const * name = info.name.charPtr();
      switch (info.kind) {
        case Vorn::AttributeKind::scalar:
        case Vorn::AttributeKind::instantiating: {
          std::printf("  %s = %s\n", name, read([&] { return a.get(n); }).c_str());
          follow(a.get(n));
          break;
        }
        case Vorn::AttributeKind::collection: {
          std::vector<Vorn::Value> const keys = a.keys(n);
          std::printf("  %s: %zu entr%s\n", name, keys.size(), keys.size() == 1 ? "y" : "ies");
          for (Vorn::Value const & key : keys) {
            std::printf("    [%s] = %s\n", key.str().c_str(), read([&] { return a.get(n, key); }).c_str());
            follow(a.get(n, key));
          }
          break;
        }
        case Vorn::AttributeKind::callable: {
          std::string arguments;
          for (std::string const & t : info.argumentTypes) arguments += (arguments.empty() ? "" : ", ") + t;
          std::printf("  %s(%s)\n", name, arguments.c_str());
          break;
        }
      }
    }
  }
}

void Agent::handleRx(Ovel::Pam const & pam, Ovel::IntfId const & intfId, Ovel::Pkt const & pkt) {
  std::vector<Port *> const ports = portsNamed(intfId.name().stdString());
  if (ports.size() != 1) return;
  Port & port = *ports.front();
  Tools::wireFrameOf(pkt, wire_);
  if (!filter_.matches(wire_.data(), static_cast<uint32_t>(wire_.size()))) {
    ++port.unmatched;
    return;
  }
  ++port.received;
  if (print_) {
    std::string const where = port.id.name().stdString() + "/" + pam.name().stdString();
    std::string const line = Tools::frameLine(Tools::receiveTime(pkt), where, wire_.data(), wire_.size(), wire_.size()) + "\n";
    if (!Tools::outputIs("intfsm-agent", line) || !Tools::outputOk("intfsm-agent")) {
      outputLost_ = quit_ = true;
      Vorn::activityManager().stop();
    }
  }
}

std::string const usageText = std::string(
    "usage: intfsm-agent (-i ID=DEVICE[@NAMESPACE])... [-c PORTS-FILE] [-f SCRIPT] [-e ETHERTYPE]\n"
    "  -i, --interface ID=DEVICE[@NAMESPACE]   an interface: its id, kernel device and the device's namespace\n"
    "                                          (default: the agent's own)\n"
    "  -c, --ports FILE     a file of \"ID DEVICE [NAMESPACE]\" lines\n"
    "  -f, --script FILE    read commands from FILE instead of standard input; a failed command makes\n"
    "                       the exit status 1\n"
    "  -e, --ethertype TYPE receive only this EtherType, after the outer VLAN tag (default: all)\n"
    "  -h, --help           this text\n") + helpText;

Tools::Program const program("intfsm-agent", usageText.c_str());

void portIs(std::vector<Port> & ports, std::string const & id, std::string const & device, std::string const & ns) {
  auto intfId = Ovel::IntfId::fromName(Vorn::String(id));
  if (!intfId) program.argumentError("bad interface id '" + id + "'");
  if (device.empty() || device.size() >= 16) program.argumentError("bad device name '" + device + "' for " + id);
  if (!ns.empty()) {
    struct stat st{};
    if (ns.size() > Ovel::maxNsNameBytes || ns.find('/') != std::string::npos || ns == "." || ns == ".." ||
        stat(("/run/netns/" + ns).c_str(), &st) != 0) {
      program.argumentError("no network namespace '" + ns + "' (for " + id + ")");
    }
  }
  for (Port const & p : ports) {
    if (p.id == *intfId) program.argumentError("interface " + id + " given twice");
    // Two interfaces on one device: the packet side keeps one endpoint per device, and the second
    // would never receive.
    if (p.device == device && p.netNs == ns) {
      program.argumentError("interfaces " + p.id.name().stdString() + " and " + id + " on one device " + device);
    }
  }
  Port p;
  p.id = *intfId;
  p.device = device;
  p.netNs = ns;
  p.ownNamespace = ns.empty() || isOwnNamespace(ns);
  ports.push_back(std::move(p));
}

// Library trace lines are for whoever asked for them with BRISKLOG, not for the operator.
class Silent : public Brisklog::Sink {
 public:
  void lineIs(Brisklog::Line const &) override {}
};

}  // namespace

int main(int argc, char ** argv) {
  static option const longOptions[] = {
      {"interface", required_argument, nullptr, 'i'}, {"ports", required_argument, nullptr, 'c'},
      {"script", required_argument, nullptr, 'f'},    {"ethertype", required_argument, nullptr, 'e'},
      {"help", no_argument, nullptr, 'h'},            {nullptr, 0, nullptr, 0},
  };
  std::vector<Port> ports;
  std::string script;
  int etherType = -1;
  opterr = 0;
  for (int opt; (opt = getopt_long(argc, argv, "i:c:f:e:h", longOptions, nullptr)) != -1;) {
    switch (opt) {
      case 'i': {
        std::string const arg = optarg;
        size_t const eq = arg.find('=');
        if (eq == std::string::npos) program.argumentError("-i wants ID=DEVICE[@NAMESPACE], not '" + arg + "'");
        std::string rest = arg.substr(eq + 1);
        size_t const at = rest.find('@');
        portIs(ports, arg.substr(0, eq), rest.substr(0, at), at == std::string::npos ? "" : rest.substr(at + 1));
        break;
      }
      case 'c': {
        std::ifstream in(optarg);
        if (!in) program.argumentError(std::string("cannot read ") + optarg);
        for (std::string line; std::getline(in, line);) {
          std::vector<std::string> const w = words(line.substr(0, line.find('#')));
          if (w.empty()) continue;
          if (w.size() > 3 || w.size() < 2) program.argumentError("bad line in " + std::string(optarg) + ": " + line);
          portIs(ports, w[0], w[1], w.size() == 3 ? w[2] : "");
        }
        break;
      }
      case 'f': script = optarg; break;
      case 'e': {
        auto n = number(optarg, 0xffff);
        if (!n) program.argumentError(std::string("bad EtherType '") + optarg + "'");
        etherType = static_cast<int>(*n);
        break;
      }
      case 'h': program.help();
      default: program.badOption(optopt, argv[optind - 1]);
    }
  }
  if (optind != argc) program.argumentError(std::string("unexpected argument '") + argv[optind] + "'");
  if (ports.empty()) program.argumentError("no interfaces (-i or -c)");
  int input = STDIN_FILENO;
  if (!script.empty()) {
    input = open(script.c_str(), O_RDONLY | O_CLOEXEC);
    if (input < 0) program.argumentError("cannot read " + script + ": " + std::strerror(errno));
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Silent silent;
  if (!std::getenv("BRISKLOG")) Brisklog::sinkIs(&silent);

  int status = Tools::exitOk;
  try {
    Agent agent(std::move(ports), etherType, !script.empty());
    agent.inputIs(input);
    if (!agent.quitting()) Vorn::activityManager().run();
    status = agent.status();
  } catch (Vorn::Exception const & e) {
    std::fprintf(stderr, "intfsm-agent: %s\n", e.what());
    status = Tools::exitFailed;
  }
  Brisklog::sinkIs(nullptr);
  if (input != STDIN_FILENO) close(input);
  if (!Tools::outputOk("intfsm-agent")) status = Tools::exitFailed;
  return status;
}
