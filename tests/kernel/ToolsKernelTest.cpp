// The programs against the real kernel, in a lab the test builds: a "switch" namespace with et1/et2
// and a "peer" namespace with their veth peers pe1/pe2, where scapy (tools/frames.py) and pamsend
// are the traffic sources and tcpdump the reference reader on the same device.
// - pamdump: the same frames as live tcpdump for each expression, tags kept with and without
//   --ethertype, -s, -w -, SLL2 files, lines, promiscuous mode, exit statuses and signals;
// - intfsm-agent: operstate, counting, sending, and what it does with bad input and lost output;
// - pamsend: argument errors and signals.
#include <fcntl.h>
#include <linux/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/NetNs.h"

namespace {

using ::testing::HasSubstr;
using IntfsmTest::runCommand;

// A program running in the background in a process group of its own (a pipeline a test starts ends
// with it), its standard input a pipe and its output (both streams) read as it comes.
class Program {
 public:
  explicit Program(std::vector<std::string> const & argv) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    if ((pid_ = fork()) == 0) {
      setpgid(0, 0), dup2(in[0], 0), dup2(out[1], 1), dup2(out[1], 2);
      std::vector<char *> args;
      for (auto const & a : argv) args.push_back(const_cast<char *>(a.c_str()));
      args.push_back(nullptr);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(in[0]), close(out[1]);
    in_ = in[1], out_ = out[0];
  }
  Program(Program const &) = delete;
  Program & operator=(Program const &) = delete;
  ~Program() {
    if (pid_ > 0 && status_ < 0) kill(-pid_, SIGKILL), waitpid(pid_, nullptr, 0);
    close(in_), close(out_);
  }

  void write(std::string const & text) { ASSERT_EQ(::write(in_, text.data(), text.size()), ssize_t(text.size())); }
  // Output until a line containing `marker` has been read (or the timeout); all output so far.
  std::string readUntil(std::string const & marker, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto const end = std::chrono::steady_clock::now() + timeout;
    while (output_.find(marker) == std::string::npos) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) break;
    }
    return output_;
  }
  // Waits for the exit (reading the rest of the output); the exit status (128 + a signal), -1 on timeout.
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto const end = std::chrono::steady_clock::now() + timeout;
    for (int s = 0; readSome(50) || std::chrono::steady_clock::now() < end;) {
      if (waitpid(pid_, &s, WNOHANG) != pid_) continue;
      while (readSome(0)) {
      }
      return status_ = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
    }
    return -1;
  }
  void signal(int sig) { kill(pid_, sig); }
  std::string const & output() const { return output_; }

 private:
  bool readSome(int timeoutMs) {
    pollfd p{out_, POLLIN, 0};
    char buffer[4096];
    ssize_t const n = poll(&p, 1, timeoutMs) > 0 ? read(out_, buffer, sizeof buffer) : 0;
    if (n > 0) output_.append(buffer, static_cast<size_t>(n));
    return n > 0;
  }

  pid_t pid_ = -1;
  int in_ = -1, out_ = -1, status_ = -1;
  std::string output_;
};

std::vector<std::string> linesMatching(std::string const & text, std::regex const & re) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (std::regex_search(line, re)) out.push_back(line);
  }
  return out;
}

// Takes the time stamps (tcpdump -tt, nanoseconds) off the start of the record lines of `text`.
std::vector<long long> timesTakenOff(std::string & text) {
  std::vector<long long> times;
  std::string rest;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line); rest += line + '\n') {
    size_t const dot = line.find('.'), space = line.find(' ');
    if (line.empty() || !std::isdigit(static_cast<unsigned char>(line[0])) || dot > space) continue;
    times.push_back(std::stoll(line.substr(0, dot)) * 1000000000 + std::stoll(line.substr(dot + 1, space - dot - 1)));
    line.erase(0, space + 1);
  }
  text = rest;
  return times;
}

// "Ethernet1 ... watched received drops" row of the agent's last table: the received count.
long receivedOf(std::string const & output, std::string const & intf) {
  std::regex const row("^" + intf + R"( +\S+ +\S+ +\S+ +\S+ +(yes|no) +(\d+))");
  long last = -1;
  std::istringstream in(output);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_search(line, m, row)) last = std::stol(m[2]);
  }
  return last;
}

std::string const tmp = "/tmp/intfsm-tools-" + std::to_string(getpid());

// The frames of tools/frames.py the capture tests send, in order, and pamdump's line for each (after
// the device).
struct SentFrame {
  char const * name;
  char const * line;
};
SentFrame const sentFrames[] = {
    {"exp", ", ethertype 0x88b5, length 60$"},
    {"exp-v100", ", vlan 100 p 3, ethertype 0x88b5, length 64$"},
    {"arp", ", ethertype 0x0806, length 42: ARP, Request who-has 10.0.0.2 tell 10.0.0.1$"},
    {"arp-v4094", ", vlan 4094 p 5, ethertype 0x0806, length 46: ARP, Request who-has 10.0.0.2 tell 10.0.0.1$"},
    {"dns", ", ethertype 0x0800, length 62: IPv4 10.0.0.1 > 10.0.0.2, UDP 3333 > 53$"},
    {"dns-v200", ", vlan 200 p 0, ethertype 0x0800, length 66: IPv4 10.0.0.1 > 10.0.0.2, UDP 3333 > 53$"},
    {"tcp6", ", ethertype 0x86dd, length 74: IPv6 fd00::1 > fd00::2, TCP 40000 > 80$"},
    {"qinq", ", vlan 30 p 1, vlan 300 p 2, ethertype 0x0800, length 70: IPv4 10.0.0.1 > 10.0.0.2, UDP 3333 > 53$"},
    {"dot1q-dot1q", ", vlan 10 p 0, vlan 20 p 0, ethertype 0x88b5, length 68$"},
    {"lldp", " 01:80:c2:00:00:0e, ethertype 0x88cc, length 60: LLDP, chassis 02:00:00:00:00:01 port port7$"},
    {"lacp", " 01:80:c2:00:00:02, ethertype 0x8809, length 124: LACP, actor 02:00:00:00:00:09 key 7 port 3 state 0x3d$"},
    {"big", ", ethertype 0x0800, length 1514: IPv4 10.0.0.1 > 10.0.0.2, UDP 3333 > 53$"},
};

class ToolsKernelTest : public IntfsmTest::NetNsTest {
 protected:
  void SetUp() override {
    NetNsTest::SetUp();
    if (IsSkipped()) return;
    sw = netns().namespaceNew();
    peer = netns().namespaceNew();
    // No IPv6 in the lab: the kernel's own neighbour and listener reports would add to the counts.
    for (auto const & ns : {sw, peer}) {
      ASSERT_EQ(netns().runIn(ns, "sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1").status, 0);
    }
    for (char const * i : {"1", "2"}) {
      netns().vethPairNew(sw, std::string("et") + i, std::string("pe") + i, peer);
      netns().linkUp(sw, std::string("et") + i);
      netns().linkUp(peer, std::string("pe") + i);
    }
    for (char const * i : {"et1", "et2"}) ASSERT_TRUE(netns().waitForOperState(sw, i, IF_OPER_UP));
  }

  // Sends `count` frames from the peer side of port `i`; extra pamsend arguments after.
  void send(char const * i, int count, std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {PAMSEND_PATH, "-n", peer, "-i", std::string("pe") + i, "-c", std::to_string(count),
                                     "-r", "1000"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto const r = runCommand(argv);
    ASSERT_EQ(r.status, 0) << r.output;
  }
  Program in(std::string const & ns, std::vector<std::string> args) {
    args.insert(args.begin(), {"ip", "netns", "exec", ns});
    return Program(args);
  }
  Program pamdump(std::vector<std::string> args) {
    args.insert(args.begin(), {PAMDUMP_PATH, "--netns", sw});
    return Program(args);
  }

  std::string sw, peer;
};

// Every capture of one send of the frames above, side by side: pamdump and live tcpdump (-Q in) on
// et1 with the same expression write files that read back the same, frame for frame, tags included;
// pamdump's lines; -w - read by tcpdump -r -; -s; --ethertype keeps the tags.
TEST_F(ToolsKernelTest, PamdumpCapturesWhatTcpdumpCapturesTagsIncluded) {
  struct Case {
    std::vector<std::string> pamdump;  // after -i et1
    std::string tcpdump;               // tcpdump's expression and options for the same frames
    size_t frames;
  } const cases[] = {
      {{}, "", 12},
      {{"vlan"}, "vlan", 5},
      {{"vlan 100"}, "vlan 100", 1},
      {{"udp port 53"}, "udp port 53", 3},
      {{"arp"}, "arp", 2},
      {{"--ethertype", "0x0806"}, "ether proto 0x0806", 2},
      {{"--ethertype", "0x8100"}, "ether proto 0x8100", 2},
      {{"--ethertype", "0x88b5", "vlan"}, "ether proto 0x88b5 and vlan", 1},
      {{"-s", "100", "--bulk"}, "-s 100", 12},
      {{"--ring", "-B", "4096", "ip"}, "ip", 3},
  };
  std::vector<std::unique_ptr<Program>> captures;
  std::vector<std::string> files;
  for (size_t i = 0; i < std::size(cases); ++i) {
    files.push_back(tmp + "-" + std::to_string(i));
    std::vector<std::string> args = {"-i", "et1", "-c", std::to_string(cases[i].frames), "-w", files.back() + ".pam"};
    args.insert(args.end(), cases[i].pamdump.begin(), cases[i].pamdump.end());
    args.insert(args.begin(), {PAMDUMP_PATH, "--netns", sw});
    captures.push_back(std::make_unique<Program>(args));
    captures.push_back(std::make_unique<Program>(std::vector<std::string>{
        "ip", "netns", "exec", sw, "sh", "-c",
        "exec tcpdump -Q in -i et1 -U -c " + std::to_string(cases[i].frames) + " -w " + files.back() + ".tcp " + cases[i].tcpdump}));
  }
  Program lines = pamdump({"-i", "et1", "-c", std::to_string(std::size(sentFrames))});
  Program piped = in(sw, {"sh", "-c", std::string(PAMDUMP_PATH) + " -i et1 -c 3 -w - | tcpdump -r - -nn -e"});
  for (size_t i = 0; i < captures.size(); ++i) {
    char const * ready = i % 2 ? "listening on" : "capturing on";
    ASSERT_THAT(captures[i]->readUntil(ready, std::chrono::seconds(10)), HasSubstr(ready)) << captures[i]->output();
  }
  lines.readUntil("capturing on");
  piped.readUntil("capturing on");
  std::string send = std::string("/usr/bin/python3 ") + TOOLS_FRAMES_PY + " pe1";  // each frame, in order, with scapy
  for (SentFrame const & f : sentFrames) send += std::string(" ") + f.name;
  auto const sent = netns().runIn(peer, send);
  ASSERT_EQ(sent.status, 0) << sent.output;

  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE("pamdump " + ::testing::PrintToString(cases[i].pamdump));
    for (auto const & p : {captures[2 * i].get(), captures[2 * i + 1].get()}) EXPECT_EQ(p->wait(), 0) << p->output();
    auto pam = runCommand({"tcpdump", "-r", files[i] + ".pam", "-nn", "-e", "-tt", "--time-stamp-precision=nano", "-x"});
    auto tcp = runCommand({"tcpdump", "-r", files[i] + ".tcp", "-nn", "-e", "-tt", "--time-stamp-precision=nano", "-x"});
    auto const pamTimes = timesTakenOff(pam.output), tcpTimes = timesTakenOff(tcp.output);  // the kernel's, both
    EXPECT_EQ(pamTimes.size(), tcpTimes.size());
    for (size_t k = 0; k < std::min(pamTimes.size(), tcpTimes.size()); ++k) EXPECT_LT(std::llabs(pamTimes[k] - tcpTimes[k]), 1000000) << k;
    // Equal sizes: the same records, caplen included (a reader cuts records to the file's snaplen).
    EXPECT_EQ(std::ifstream(files[i] + ".pam", std::ios::ate).tellg(), std::ifstream(files[i] + ".tcp", std::ios::ate).tellg());
    unlink((files[i] + ".pam").c_str());
    unlink((files[i] + ".tcp").c_str());
    EXPECT_EQ(pam.output.substr(pam.output.find('\n')), tcp.output.substr(tcp.output.find('\n')));
    EXPECT_EQ(linesMatching(pam.output, std::regex("^02:00:00:00:00:01 > ")).size(), cases[i].frames) << pam.output;
  }
  EXPECT_EQ(lines.wait(), 0) << lines.output();
  for (SentFrame const & f : sentFrames) {
    EXPECT_EQ(linesMatching(lines.output(), std::regex(std::string(R"(^\d\d:\d\d:\d\d\.\d{6} et1 02:00:00:00:00:01 >( ff:ff:ff:ff:ff:ff)?)") + f.line)).size(), 1u)
        << f.name << "\n" << lines.output();
  }
  EXPECT_EQ(piped.wait(), 0) << piped.output();
  EXPECT_THAT(piped.output(), HasSubstr("link-type EN10MB"));
  EXPECT_EQ(linesMatching(piped.output(), std::regex("^[0-9:.]+ 02:00:00:00:00:01 > ")).size(), 3u) << piped.output();
}

// Two devices (one with a name that is no interface id), one given twice: Linux cooked (SLL2)
// records that say which device each frame came from.
TEST_F(ToolsKernelTest, PamdumpWritesTheDeviceOfEachFrameWhenCapturingOnSeveral) {
  std::string const file = tmp + ".sll2";
  netns().linkRename(sw, "et2", "etä2");
  Program capture = pamdump({"-i", "et1", "-i", "etä2", "-i", "et1", "-c", "5", "-w", file});
  ASSERT_THAT(capture.readUntil("capturing on"), HasSubstr("capturing on 2 devices")) << capture.output();
  send("1", 3, {"-v", "7"});
  send("2", 2);
  ASSERT_EQ(capture.wait(), 0) << capture.output();
  auto const r = runCommand({"tcpdump", "-r", file, "-nn", "-e"});
  unlink(file.c_str());
  EXPECT_THAT(r.output, HasSubstr("link-type LINUX_SLL2"));
  for (auto const & [device, count] : {std::pair{"et1", 3u}, std::pair{"etä2", 2u}}) {
    std::string const index = std::to_string(netns().link(sw, device)->ifindex);
    EXPECT_EQ(linesMatching(r.output, std::regex(" B +ifindex " + index + " 02:00:00:00:00:01 ethertype ")).size(), count) << r.output;
  }
  EXPECT_EQ(linesMatching(r.output, std::regex("length 70: vlan 7, p 0, ")).size(), 3u) << r.output;
}

// Bad arguments: one line and a hint, exit status 2, nothing done; -h and --help: the usage on
// standard output, exit status 0.
TEST_F(ToolsKernelTest, ProgramsRefuseBadArgumentsWithOneLineAndHelpOnStandardOutput) {
  std::string const longName(151, 'n');
  struct Case {
    std::vector<std::string> argv;
    std::string line;
  } const cases[] = {
      {{PAMDUMP_PATH, "--netns", sw, "-i", "nosuch0"}, "pamdump: no device 'nosuch0' in namespace " + sw},
      {{PAMDUMP_PATH, "--netns", "intfsm-no-such-ns"}, "pamdump: no network namespace 'intfsm-no-such-ns'"},
      {{PAMDUMP_PATH, "--netns", longName}, "pamdump: bad network namespace name"},
      {{PAMDUMP_PATH, "--netns", sw, "-i", "et1", "vlan and and"}, "pamdump: malformed filter expression \"vlan and and\": "},
      {{PAMDUMP_PATH, "--netns", sw, "-i", "et1", "{ 0x6, 0, 0 }"}, "pamdump: malformed filter program \"{ 0x6, 0, 0 }\""},
      {{PAMDUMP_PATH, "--netns", sw, "-i", "et1", "--socket-filter", "{ 0x28, 0, 0, 0xc }"},
       "pamdump: the kernel refused the socket filter of 1 instructions: Invalid argument"},
      {{PAMDUMP_PATH, "-c", "x"}, "pamdump: bad count 'x'"},
      {{PAMDUMP_PATH, "-Q", "out"}, "pamdump: -Q out: pamdump captures received frames only (-Q in)"},
      {{PAMDUMP_PATH, "-n", "-z"}, "pamdump: bad option -z or its value is missing"},
      {{INTFSM_AGENT_PATH, "--bogus"}, "intfsm-agent: bad option '--bogus' or its value is missing"},
      {{INTFSM_AGENT_PATH, "-i", "E1=et1@intfsm-no-such-ns"}, "intfsm-agent: no network namespace 'intfsm-no-such-ns' (for E1)"},
      {{INTFSM_AGENT_PATH, "-i", "E1=et1@" + sw, "-i", "E2=et1@" + sw}, "intfsm-agent: interfaces E1 and E2 on one device et1"},
      {{PAMSEND_PATH, "-i", "pe1", "-n", longName}, "pamsend: bad network namespace name"},
      {{PAMSEND_PATH, "-i", "pe1", "-l", "50"}, "pamsend: length 50 below the shortest frame, 60"},
      {{PAMSEND_PATH, "-i", "pe1", "-v", "5", "-l", "60"}, "pamsend: length 60 below the shortest frame, 64"},
      {{PAMSEND_PATH, "-i", "pe1", "-V", "2"}, "pamsend: -V tags every Nth frame of -v: give -v too"},
      {{PAMSEND_PATH, "-n", peer, "-i", "nosuch0"}, "pamsend: no device nosuch0 in namespace " + peer},
  };
  for (Case const & c : cases) {
    std::vector<std::string> argv = {"timeout", "10"};  // a program that went on to work would not end
    argv.insert(argv.end(), c.argv.begin(), c.argv.end());
    auto const r = runCommand(argv);
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_THAT(r.output, testing::StartsWith(c.line));
    EXPECT_THAT(r.output, testing::EndsWith(" -h' for help.\n"));
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 2) << r.output;
  }
  for (char const * program : {PAMDUMP_PATH, INTFSM_AGENT_PATH, PAMSEND_PATH}) {
    for (char const * help : {"-h", "--help"}) {
      auto const r = runCommand({"sh", "-c", std::string(program) + " " + help + " 2>/dev/null"});
      EXPECT_EQ(r.status, 0) << program << " " << help;
      EXPECT_THAT(r.output, testing::StartsWith("usage: ")) << program << " " << help;
    }
  }
}

// How the programs end: by count, signal or lost output, with the status that says whether the
// output is complete; pamdump's devices are promiscuous while it runs (not with -p).
TEST_F(ToolsKernelTest, ProgramsEndCleanlyOnSignalsAndReportLostOutput) {
  std::string const file = tmp + ".pcap";
  Program capture = pamdump({"-i", "et1", "-w", file});
  Program plain = pamdump({"-i", "et2", "-p", "--count-only"});
  capture.readUntil("capturing on");
  plain.readUntil("capturing on");
  EXPECT_EQ(netns().runIn(sw, "ip -d link show et1 | grep -c 'promiscuity 1'; ip -d link show et2 | grep -c 'promiscuity 0'").output,
            "1\n1\n");
  send("1", 4);
  capture.signal(SIGHUP);
  plain.signal(SIGTERM);
  for (Program * p : {&capture, &plain}) EXPECT_EQ(p->wait(), 0) << p->output();
  EXPECT_EQ(netns().runIn(sw, "ip -d link show et1 | grep -c 'promiscuity 0'").output, "1\n");
  auto const r = runCommand({"tcpdump", "-r", file, "-nn"});
  unlink(file.c_str());
  EXPECT_EQ(linesMatching(r.output, std::regex("^[0-9:.]+ 02:00:00:00:00:01 > ")).size(), 4u) << r.output;

  struct Case {
    std::string shell;  // run in the switch namespace
    std::string ending;
  } const cases[] = {
      // A reader that leaves: no death by SIGPIPE, and the status says the output is not whole.
      {std::string(PAMDUMP_PATH) + " -i et1 -c 2000 | head -1 >/dev/null; echo status ${PIPESTATUS[0]}",
       "pamdump: cannot write standard output: Broken pipe"},
      {std::string(PAMDUMP_PATH) + " -i et1 -c 1 -w /dev/full; echo status $?", "No space left on device; the file is not complete"},
      {"(echo watch E1; echo print on; sleep 1) | " + std::string(INTFSM_AGENT_PATH) +
           " -i E1=et1 | head -3 >/dev/null; echo status ${PIPESTATUS[1]}",
       "intfsm-agent: cannot write standard output: Broken pipe"},
  };
  for (Case const & c : cases) {
    Program p = in(sw, {"bash", "-c", c.shell});
    p.readUntil("capturing on", std::chrono::milliseconds(c.shell.find("pamdump") != std::string::npos ? 5000 : 300));
    send("1", 20, {"-r", "100"});
    EXPECT_EQ(p.wait(), 0) << p.output();
    EXPECT_THAT(p.output(), HasSubstr(c.ending)) << c.shell;
    EXPECT_THAT(p.output(), HasSubstr("status 1\n")) << c.shell;
  }

  // Under a service manager: no commands, running until SIGHUP. pamsend in the background, SIGINT.
  Program agent = in(sw, {"sh", "-c", "exec " + std::string(INTFSM_AGENT_PATH) + " -i E1=et1 </dev/null"});
  Program sender = in(peer, {"sh", "-c", std::string(PAMSEND_PATH) + " -i pe1 -c 0 -r 50 & echo pid $!; wait"});
  std::smatch pid;
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  std::string const started = sender.readUntil("\n");
  ASSERT_TRUE(std::regex_search(started, pid, std::regex("pid ([0-9]+)\n"))) << started;
  EXPECT_THAT(agent.readUntil("running until"), HasSubstr("standard input gives no commands; running until SIGINT"));
  agent.signal(SIGHUP);
  EXPECT_EQ(agent.wait(), 0) << agent.output();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  kill(std::stoi(pid[1]), SIGINT);
  EXPECT_EQ(sender.wait(), 0) << sender.output();
  EXPECT_THAT(sender.output(), testing::ContainsRegex("pamsend: stopped after [0-9]+ frames"));
}

TEST_F(ToolsKernelTest, AgentMirrorsOperStatusCountsWatchedFramesAndSends) {
  Program agent = in(sw, {INTFSM_AGENT_PATH, "-i", "Ethernet1=et1@" + sw, "-i", "Ethernet2=et2", "-e", "0x88b5"});
  agent.write("oper all up\nwatch Ethernet1\nsay ready\n");
  ASSERT_THAT(agent.readUntil("== ready"), HasSubstr("== ready"));

  agent.write("oper Ethernet2 down\nsay down\n");
  ASSERT_THAT(agent.readUntil("== down"), HasSubstr("== down"));
  EXPECT_TRUE(netns().waitForOperState(sw, "et2", IF_OPER_DORMANT));
  EXPECT_EQ(netns().link(sw, "et1")->operState, IF_OPER_UP);
  agent.write("oper Ethernet2 up\nsay up\n");
  agent.readUntil("== up");
  EXPECT_TRUE(netns().waitForOperState(sw, "et2", IF_OPER_UP));

  agent.write("print on\nsay printing\n");
  agent.readUntil("== printing");
  send("1", 5, {"-v", "9"});
  send("1", 2, {"-e", "0x88b6"});  // not the agent's EtherType: the kernel keeps them
  send("2", 4);
  agent.write("wait 0.3\nshow\nshow Ethernet2\nsay counted\n");
  std::string out = agent.readUntil("== counted");
  EXPECT_EQ(receivedOf(out, "Ethernet1"), 5) << out;
  EXPECT_EQ(receivedOf(out, "Ethernet2"), 0) << out;
  EXPECT_EQ(linesMatching(out, std::regex("Ethernet1/et1 .*, vlan 9 p 0, ethertype 0x88b5, length 64$")).size(), 5u) << out;
  EXPECT_THAT(out, HasSubstr("dropped: 4 frames of unwatched interfaces")) << out;
  EXPECT_EQ(linesMatching(out, std::regex("^Ethernet2 +et2 +[0-9]+ +up +UP +no")).size(), 2u) << out;

  // A frame the agent sends out of et1 arrives at pe1.
  Program capture = in(peer, {PAMDUMP_PATH, "-i", "pe1", "-c", "3", "vlan 7 and ether proto 0x88b7"});
  ASSERT_THAT(capture.readUntil("capturing on"), HasSubstr("capturing on")) << capture.output();
  agent.write("print off\nsend Ethernet1 count 3 type 0x88b7 vlan 7\nsend Ethernet2\nbogus\nsay sent\n");
  out = agent.readUntil("== sent");
  EXPECT_THAT(out, HasSubstr("sent 3 frames out of Ethernet1 (et1)"));
  EXPECT_THAT(out, HasSubstr("error: send: Ethernet2 is not watched"));
  EXPECT_THAT(out, HasSubstr("error: unknown command 'bogus' (try help)"));
  ASSERT_EQ(capture.wait(), 0) << capture.output();
  EXPECT_EQ(linesMatching(capture.output(), std::regex("^.* pe1 .*vlan 7 p 0, ethertype 0x88b7, length 64$")).size(), 3u)
      << capture.output();

  // Unwatched, Ethernet1 loses its endpoint: its frames are drops now, counted from the clear (Ethernet2
  // stays watched: the shared socket closes with its last interface, and then nothing is read at all).
  agent.write("watch Ethernet2\nunwatch Ethernet1\nclear\nsay unwatched\n");
  agent.readUntil("== unwatched");
  send("1", 3);
  agent.write("wait 0.3\nshow\nsay after\n");
  out = agent.readUntil("== after");
  EXPECT_EQ(receivedOf(out, "Ethernet1"), 0) << out;
  EXPECT_THAT(out, testing::ContainsRegex("Ethernet1 +et1 +[0-9]+ +up +UP +no")) << out;
  EXPECT_THAT(out, HasSubstr("dropped: 3 frames of unwatched interfaces")) << out;

  agent.write("quit\n");
  EXPECT_EQ(agent.wait(), 0) << agent.output();
}

// A script's bad lines: each error with its line, the filter in force kept, the exit status 1.
TEST_F(ToolsKernelTest, AgentScriptReportsEachFailedLineAndEndsWithStatusOne) {
  std::string program;
  for (int i = 0; i < 65536; ++i) program += "{ 0x6, 0, 0, 0xffff } ";
  std::string const script = tmp + ".script";
  std::ofstream(script) << "filter vlan 5\nfilter\nfilter " << program << "\nfilter { 0x28, 0, 0, 0xc }\nwatch E2\n"
                        << "watch all\noper E1 testing\nshow E1\nshow E9\nshow everything\n";
  auto const r = runCommand({"ip", "netns", "exec", sw, INTFSM_AGENT_PATH, "-i", "E1=et1", "-i", "E2=pe1@" + peer, "-f", script});
  unlink(script.c_str());
  EXPECT_EQ(r.status, 1) << r.output;
  for (std::string const & line : std::vector<std::string>{
           "error: line 2: filter wants an expression, a program, or none",
           "error: line 3: filter: filter program of 65536 instructions: at most 65535 fit in a socket filter",
           "error: line 4: filter: the kernel refused the socket filter of 1 instructions: Invalid argument",
           "not watching E2: its device pe1 is in namespace " + peer + "; packet access is in the agent's own namespace",
           "error: line 5: watch: E2 is in another namespace",
           "error: line 9: no interface 'E9'",
           "; filter 'vlan 5': 0 frames did not match",
       }) {
    EXPECT_THAT(r.output, HasSubstr(line));
  }
  EXPECT_EQ(linesMatching(r.output, std::regex("^not watching E2")).size(), 2u) << r.output;
  EXPECT_THAT(r.output, testing::ContainsRegex("E1 +et1 +[0-9]+ +testing +UP +yes"));
  // Every object reached from the agent's roots, through each attribute by name.
  EXPECT_THAT(r.output, HasSubstr("<Interface::EthDevPamInBundleHolder E1>\n  intfId = \"E1\"\n  pam = "));
  EXPECT_THAT(r.output, HasSubstr("    [\"E1\"] = \"et1\"\n"));
  EXPECT_THAT(r.output, HasSubstr("  operStateConvergence = true\n"));
}

}  // namespace
