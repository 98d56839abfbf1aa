// The programs against the real kernel, in a lab the test builds: a "switch" namespace with et1/et2
// and a "peer" namespace with their veth peers pe1/pe2, where pamsend is the traffic source.
// - intfsm-agent, driven through its standard input: the kernel's operstate follows its commands,
//   frames from the peer are counted on watched interfaces only, and a frame it sends reaches the peer;
// - pamdump: -c N prints exactly N frame lines, -w writes a file that tcpdump -r reads back, and bad
//   arguments get one line and exit status 2.
#include <fcntl.h>
#include <linux/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/NetNs.h"

namespace {

using ::testing::HasSubstr;
using IntfsmTest::runCommand;

// A program running in the background, its standard input a pipe and its output (both streams) read
// line by line.
class Program {
 public:
  explicit Program(std::vector<std::string> const & argv) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(out[1], 2);
      std::vector<char *> args;
      for (auto const & a : argv) args.push_back(const_cast<char *>(a.c_str()));
      args.push_back(nullptr);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
  }
  ~Program() {
    if (in_ >= 0) close(in_);
    if (pid_ > 0 && status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(out_);
  }

  void write(std::string const & text) { ASSERT_EQ(::write(in_, text.data(), text.size()), ssize_t(text.size())); }
  void closeInput() {
    close(in_);
    in_ = -1;
  }
  // Output until a line containing `marker` has been read (or the timeout); all output so far.
  std::string readUntil(std::string const & marker, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto const end = std::chrono::steady_clock::now() + timeout;
    while (output_.find(marker) == std::string::npos) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) break;
    }
    return output_;
  }
  // Waits for the exit (reading the rest of the output); the exit status, or -1 on timeout or signal.
  int wait(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    auto const end = std::chrono::steady_clock::now() + timeout;
    while (readSome(50) || std::chrono::steady_clock::now() < end) {
      int s = 0;
      if (waitpid(pid_, &s, WNOHANG) == pid_) {
        while (readSome(0)) {
        }
        status_ = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
        return status_;
      }
    }
    return -1;
  }
  void signal(int sig) { kill(pid_, sig); }
  std::string const & output() const { return output_; }
  // Memory the process has mapped from sockets (receive rings).
  size_t socketMappings() const {
    std::ifstream maps("/proc/" + std::to_string(pid_) + "/maps");
    size_t n = 0;
    for (std::string line; std::getline(maps, line);) n += line.find("socket:[") != std::string::npos;
    return n;
  }

 private:
  bool readSome(int timeoutMs) {
    pollfd p{out_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    char buffer[4096];
    ssize_t const n = read(out_, buffer, sizeof buffer);
    if (n <= 0) return false;
    output_.append(buffer, static_cast<size_t>(n));
    return true;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  int status_ = -1;
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

// "Ethernet1 ... received drops" row of the agent's last table: the received count.
long receivedOf(std::string const & output, std::string const & intf) {
  std::regex const row("^" + intf + R"( +\S+ +\S+ +\S+ +(yes|no) +(\d+))");
  long last = -1;
  std::istringstream in(output);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_search(line, m, row)) last = std::stol(m[2]);
  }
  return last;
}

std::regex const frameLine(R"(^\d\d:\d\d:\d\d\.\d{6} \S+ ([0-9a-f]{2}:){5}[0-9a-f]{2} > ([0-9a-f]{2}:){5}[0-9a-f]{2}, ethertype 0x[0-9a-f]{4}, .*length \d+$)");

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
    ASSERT_TRUE(netns().waitForOperState(sw, "et1", IF_OPER_UP));
    ASSERT_TRUE(netns().waitForOperState(sw, "et2", IF_OPER_UP));
  }

  // Sends `count` frames from the peer side of port `i`; extra pamsend arguments after.
  void send(char const * i, int count, std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {PAMSEND_PATH, "-n", peer, "-i", std::string("pe") + i, "-c", std::to_string(count),
                                     "-r", "1000"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto const r = runCommand(argv);
    ASSERT_EQ(r.status, 0) << r.output;
  }
  Program pamdump(std::vector<std::string> args) {
    args.insert(args.begin(), PAMDUMP_PATH);
    return Program(args);
  }

  std::string sw, peer;
};

TEST_F(ToolsKernelTest, AgentMirrorsOperStatusCountsWatchedFramesAndSends) {
  Program agent({"ip", "netns", "exec", sw, INTFSM_AGENT_PATH, "-i", "Ethernet1=et1@" + sw, "-i", "Ethernet2=et2"});
  agent.write("oper all up\nwatch Ethernet1\nsay ready\n");
  ASSERT_THAT(agent.readUntil("== ready"), HasSubstr("== ready"));

  agent.write("oper Ethernet2 dormant\nsay dormant\n");
  ASSERT_THAT(agent.readUntil("== dormant"), HasSubstr("== dormant"));
  EXPECT_TRUE(netns().waitForOperState(sw, "et2", IF_OPER_DORMANT));
  EXPECT_EQ(netns().link(sw, "et1")->operState, IF_OPER_UP);
  agent.write("oper Ethernet2 up\nsay up\n");
  agent.readUntil("== up");
  EXPECT_TRUE(netns().waitForOperState(sw, "et2", IF_OPER_UP));

  send("1", 5);
  send("2", 4);
  agent.write("wait 0.3\nshow\nsay counted\n");
  std::string out = agent.readUntil("== counted");
  EXPECT_EQ(receivedOf(out, "Ethernet1"), 5) << out;
  EXPECT_EQ(receivedOf(out, "Ethernet2"), 0) << out;
  EXPECT_THAT(out, HasSubstr("dropped: 4 frames of unwatched interfaces")) << out;
  EXPECT_THAT(out, testing::ContainsRegex("Ethernet2 +et2 +[0-9]+ +UP +no")) << out;

  // A frame the agent sends out of et1 arrives at pe1.
  Program capture = pamdump({"-n", peer, "-i", "pe1", "-c", "3", "vlan 7 and ether proto 0x88b7"});
  ASSERT_THAT(capture.readUntil("capturing on"), HasSubstr("capturing on")) << capture.output();
  agent.write("send Ethernet1 count 3 type 0x88b7 vlan 7\nsend Ethernet2\nbogus\nsay sent\n");
  out = agent.readUntil("== sent");
  EXPECT_THAT(out, HasSubstr("sent 3 frames out of Ethernet1 (et1)"));
  EXPECT_THAT(out, HasSubstr("error: send: Ethernet2 is not watched"));
  EXPECT_THAT(out, HasSubstr("error: unknown command 'bogus' (try help)"));
  ASSERT_EQ(capture.wait(), 0) << capture.output();
  EXPECT_EQ(linesMatching(capture.output(), std::regex("^.* pe1 .*ethertype 0x88b7, vlan 7, length 64$")).size(), 3u)
      << capture.output();

  // Unwatched, Ethernet1 loses its endpoint: its frames are drops now, counted from the clear.
  agent.write("unwatch Ethernet1\nclear\nsay unwatched\n");
  agent.readUntil("== unwatched");
  send("1", 3);
  agent.write("wait 0.3\nshow\nsay after\n");
  out = agent.readUntil("== after");
  EXPECT_EQ(receivedOf(out, "Ethernet1"), 0) << out;
  EXPECT_THAT(out, testing::ContainsRegex("Ethernet1 +et1 +[0-9]+ +UP +no")) << out;
  EXPECT_THAT(out, HasSubstr("dropped: 3 frames of unwatched interfaces")) << out;

  agent.write("quit\n");
  EXPECT_EQ(agent.wait(), 0) << agent.output();
}

TEST_F(ToolsKernelTest, PamdumpPrintsOneLinePerFrameAndStopsAtTheCount) {
  for (std::string const mode : {"", "-B", "-R"}) {  // single, bulk and ring reads
    SCOPED_TRACE("reads " + mode);
    std::vector<std::string> args = {"-n", sw, "-i", "et1", "-i", "et2", "-c", "6"};
    if (!mode.empty()) args.push_back(mode);
    Program capture = pamdump(args);
    ASSERT_THAT(capture.readUntil("capturing on 2 devices"), HasSubstr("capturing on 2 devices")) << capture.output();
    EXPECT_EQ(capture.socketMappings() > 0, mode == "-R");
    send("1", 3, {"-v", "100"});
    send("2", 3);
    ASSERT_EQ(capture.wait(), 0) << capture.output();
    auto const lines = linesMatching(capture.output(), frameLine);
    EXPECT_EQ(lines.size(), 6u) << capture.output();
    EXPECT_EQ(linesMatching(capture.output(), std::regex(" et1 02:00:00:00:00:01 > ff:ff:ff:ff:ff:ff, ethertype 0x88b5, "
                                                         "vlan 100, length 64$")).size(),
              3u)
        << capture.output();
    EXPECT_THAT(capture.output(), HasSubstr("pamdump: 6 frames captured"));
  }
}

TEST_F(ToolsKernelTest, PamdumpWritesAPcapFileThatTcpdumpReads) {
  std::string const file = "/tmp/intfsm-pamdump-" + std::to_string(getpid()) + ".pcap";
  Program capture = pamdump({"-n", sw, "-i", "et1", "-B", "-c", "4", "-w", file, "vlan 100"});
  ASSERT_THAT(capture.readUntil("capturing on"), HasSubstr("capturing on")) << capture.output();
  send("1", 3);  // untagged: not matching
  send("1", 4, {"-v", "100"});
  ASSERT_EQ(capture.wait(), 0) << capture.output();
  auto const r = runCommand({"tcpdump", "-r", file, "-nn", "-e"});
  unlink(file.c_str());
  ASSERT_EQ(r.status, 0) << r.output;
  auto const frames = linesMatching(r.output, std::regex(R"(02:00:00:00:00:01 > ff:ff:ff:ff:ff:ff, ethertype 802\.1Q \(0x8100\), length 64: vlan 100, .*0x88b5)"));
  EXPECT_EQ(frames.size(), 4u) << r.output;
  EXPECT_THAT(capture.output(), HasSubstr("did not match the filter: 3"));
}

TEST_F(ToolsKernelTest, PamdumpRefusesBadArgumentsWithOneLine) {
  struct Case {
    std::vector<std::string> args;
    std::string line;
  } const cases[] = {
      {{"-n", sw, "-i", "nosuch0"}, "pamdump: no device 'nosuch0' in namespace " + sw},
      {{"-n", "intfsm-no-such-ns", "-i", "et1"}, "pamdump: no network namespace 'intfsm-no-such-ns'"},
      {{"-n", sw, "-i", "et1", "vlan and and"}, "pamdump: malformed filter expression \"vlan and and\": "},
      {{"-n", sw, "-i", "et1", "{ 0x6, 0, 0 }"}, "pamdump: malformed filter program \"{ 0x6, 0, 0 }\""},
      {{"-c", "x"}, "pamdump: bad count 'x'"},
  };
  for (Case const & c : cases) {
    std::vector<std::string> argv = {"timeout", "10", PAMDUMP_PATH};  // a pamdump that captured would not end
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    auto const r = runCommand(argv);
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
    EXPECT_THAT(r.output, HasSubstr(c.line));
  }
}

}  // namespace
