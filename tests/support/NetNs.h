// Network namespaces and veth pairs for kernel tests, removed on every path.
//
//   class MyKernelTest : public IntfsmTest::NetNsTest {};
//   TEST_F(MyKernelTest, SeesTheDevice) {
//     std::string const ns = netns().namespaceNew();          // "intfsmt-<pid>-<n>"
//     netns().vethPairNew(ns, "va0", "vb0");
//     netns().linkUp(ns, "va0");
//     EXPECT_EQ(netns().link(ns, "va0")->flags & IFF_UP, IFF_UP);
//   }
//
// A NetNsFixture deletes the namespaces it made when it is destroyed (also when a test fails or
// throws). The namespaces are also registered process-wide: an exit handler and a handler of the
// fatal and terminating signals (SIGABRT, SIGSEGV, SIGBUS, SIGTERM, SIGINT, SIGHUP, SIGQUIT) delete
// whatever is still registered when the process that made them ends early; the handler then lets
// the signal take its previous course. Each fixture first deletes leftovers with the prefix whose
// process no longer runs (SIGKILL leaves them for that sweep).
// Devices live only inside the fixture's namespaces, so they go with them.
//
// Device names: `ip link add a type veth` would read "a" as an abbreviation of "address"; use names
// such as "va0" / "vb0". The "dummy" link type is not available on every kernel; veth always is.
// Every helper throws std::runtime_error, with the command and its output, when a command fails.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace IntfsmTest {

inline constexpr char netNsPrefix[] = "intfsmt-";
inline constexpr char rootSkipMessage[] = "kernel tests need root (CAP_NET_ADMIN, CAP_SYS_ADMIN)";

bool isRoot();

// Skips the current test, with a clear message, unless the process runs as root.
#define INTFSM_REQUIRE_ROOT()                                                 \
  do {                                                                        \
    if (!::IntfsmTest::isRoot()) GTEST_SKIP() << ::IntfsmTest::rootSkipMessage; \
  } while (0)

// A device as rtnetlink reports it.
struct LinkState {
  int ifindex = 0;
  unsigned flags = 0;      // IFF_*
  int operState = -1;      // IF_OPER_*
  std::string name;
};

struct CommandResult {
  int status = -1;         // the exit status, or -1 when the command did not exit normally
  std::string output;      // standard output and standard error together
};

// Runs argv[0] (looked up in PATH) without a shell.
CommandResult runCommand(std::vector<std::string> const & argv);

// Namespaces with the prefix that exist now (entries of /run/netns).
std::vector<std::string> prefixedNamespaces();

class NetNsFixture {
 public:
  NetNsFixture();
  ~NetNsFixture();
  NetNsFixture(NetNsFixture const &) = delete;
  NetNsFixture & operator=(NetNsFixture const &) = delete;

  // A new empty namespace, its loopback device up; named `name` when given (one deleted before, made
  // again under its old name).
  std::string namespaceNew(std::string const & name = {});
  void namespaceDel(std::string const & ns);

  // A veth pair: `a` in `ns`, `b` in `peerNs` (in `ns` when empty); both administratively down.
  void vethPairNew(std::string const & ns, std::string const & a, std::string const & b,
                   std::string const & peerNs = "");
  void linkUp(std::string const & ns, std::string const & device);
  void linkDown(std::string const & ns, std::string const & device);
  void linkRename(std::string const & ns, std::string const & device, std::string const & newName);
  void linkMove(std::string const & ns, std::string const & device, std::string const & toNs);
  void linkDel(std::string const & ns, std::string const & device);

  // The device `device` of namespace `ns` (the default namespace when `ns` is empty), read over
  // rtnetlink; nullopt when there is no such device.
  std::optional<LinkState> link(std::string const & ns, std::string const & device) const;

  // Waits, reading the device every few milliseconds, until its operational state is `operState`
  // (the kernel applies carrier changes asynchronously). False on timeout or when the device is gone.
  bool waitForOperState(std::string const & ns, std::string const & device, int operState,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

  // Runs a shell command inside `ns`.
  CommandResult runIn(std::string const & ns, std::string const & shellCommand) const;

 private:
  void ip(std::vector<std::string> const & arguments) const;

  std::vector<std::string> namespaces_;
};

// A test base that skips when not root and otherwise provides a fixture.
class NetNsTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override { netns_.reset(); }
  NetNsFixture & netns() { return *netns_; }

 private:
  std::optional<NetNsFixture> netns_;
};

}  // namespace IntfsmTest
