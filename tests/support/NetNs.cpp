#include "tests/support/NetNs.h"

#include "intfsm/foundation/platform/Platform.h"

#include <dirent.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "intfsm/foundation/ovel/SocketAt.h"

extern char ** environ;

namespace IntfsmTest {

namespace {

// Namespaces made by this process, readable from a signal handler: fixed storage, no allocation.
constexpr int maxRegistered = 256;
constexpr size_t maxNameBytes = 48;
char registered[maxRegistered][maxNameBytes];
pid_t registryOwner = 0;

// Deletes a namespace the way `ip netns del` does: detach its bind mount and remove the file.
// Only async-signal-safe calls.
void removeNamespaceFile(char const * name) {
  char path[sizeof "/run/netns/" + maxNameBytes];
  char const dir[] = "/run/netns/";
  size_t n = 0;
  for (char const * p = dir; *p != '\0'; ++p) path[n++] = *p;
  for (char const * p = name; *p != '\0' && n + 1 < sizeof path; ++p) path[n++] = *p;
  path[n] = '\0';
  ::umount2(path, MNT_DETACH);
  ::unlink(path);
}

void removeRegistered() {
  // A forked child (a death test) shares the table but not the namespaces' ownership.
  if (registryOwner != ::getpid()) return;
  for (auto & slot : registered) {
    if (slot[0] == '\0') continue;
    removeNamespaceFile(slot);
    slot[0] = '\0';
  }
}

bool registerName(std::string const & name) {
  for (auto & slot : registered) {
    if (slot[0] != '\0') continue;
    std::memcpy(slot, name.c_str(), name.size() + 1);
    return true;
  }
  return false;
}

void unregisterName(std::string const & name) {
  for (auto & slot : registered) {
    if (name == slot) slot[0] = '\0';
  }
}

int const fatalSignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGTERM, SIGINT, SIGHUP, SIGQUIT};
struct sigaction previousActions[sizeof fatalSignals / sizeof fatalSignals[0]];

void onFatalSignal(int signal) {
  removeRegistered();
  for (size_t i = 0; i < sizeof fatalSignals / sizeof fatalSignals[0]; ++i) {
    if (fatalSignals[i] == signal) ::sigaction(signal, &previousActions[i], nullptr);
  }
  ::raise(signal);
}

void armCleanup() {
  pid_t const self = ::getpid();
  if (registryOwner == self) return;
  if (registryOwner == 0) std::atexit(removeRegistered);
  for (auto & slot : registered) slot[0] = '\0';  // a forked child starts with nothing of its own
  registryOwner = self;
  struct sigaction action {};
  action.sa_handler = onFatalSignal;
  ::sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < sizeof fatalSignals / sizeof fatalSignals[0]; ++i) {
    ::sigaction(fatalSignals[i], &action, &previousActions[i]);
  }
}

// Leftovers of test processes that ended without cleaning up.
void sweepDeadOwners() {
  for (std::string const & name : prefixedNamespaces()) {
    char * end = nullptr;
    long const pid = std::strtol(name.c_str() + std::strlen(netNsPrefix), &end, 10);
    if (end == nullptr || *end != '-' || pid <= 0 || pid == ::getpid()) continue;
    if (::kill(static_cast<pid_t>(pid), 0) < 0 && errno == ESRCH) removeNamespaceFile(name.c_str());
  }
}

std::string describe(std::vector<std::string> const & argv) {
  std::string text;
  for (auto const & a : argv) text += (text.empty() ? "" : " ") + a;
  return text;
}

std::atomic<unsigned> namespaceCounter{0};

}  // namespace

bool isRoot() { return ::geteuid() == 0; }

CommandResult runCommand(std::vector<std::string> const & argv) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) < 0) throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
  std::vector<char *> args;
  for (auto const & a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  int const spawnError = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  CommandResult result;
  if (spawnError != 0) {
    ::close(pipeFds[0]);
    result.output = describe(argv) + ": " + std::strerror(spawnError);
    return result;
  }
  char buffer[4096];
  for (;;) {
    ssize_t const n = ::read(pipeFds[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    result.output.append(buffer, static_cast<size_t>(n));
  }
  ::close(pipeFds[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::vector<std::string> prefixedNamespaces() {
  std::vector<std::string> names;
  DIR * dir = ::opendir("/run/netns");
  if (dir == nullptr) return names;
  while (dirent * entry = ::readdir(dir)) {
    if (std::strncmp(entry->d_name, netNsPrefix, std::strlen(netNsPrefix)) == 0) names.emplace_back(entry->d_name);
  }
  ::closedir(dir);
  return names;
}

NetNsFixture::NetNsFixture() {
  armCleanup();
  sweepDeadOwners();
}

NetNsFixture::~NetNsFixture() {
  while (!namespaces_.empty()) namespaceDel(namespaces_.back());
}

void NetNsFixture::ip(std::vector<std::string> const & arguments) const {
  std::vector<std::string> argv{"ip"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  CommandResult const r = runCommand(argv);
  if (r.status != 0) throw std::runtime_error(describe(argv) + " failed: " + r.output);
}

std::string NetNsFixture::namespaceNew(std::string const & given) {
  std::string const name = !given.empty() ? given
                                          : netNsPrefix + std::to_string(::getpid()) + "-" +
                                                std::to_string(namespaceCounter.fetch_add(1));
  // Registered before it exists, so that an end in between still removes it.
  if (!registerName(name)) throw std::runtime_error("too many test namespaces at once");
  namespaces_.push_back(name);
  ip({"netns", "add", name});
  ip({"-n", name, "link", "set", "lo", "up"});
  return name;
}

void NetNsFixture::namespaceDel(std::string const & ns) {
  removeNamespaceFile(ns.c_str());
  unregisterName(ns);
  std::erase(namespaces_, ns);
}

void NetNsFixture::vethPairNew(std::string const & ns, std::string const & a, std::string const & b,
                               std::string const & peerNs) {
  std::vector<std::string> args{"-n", ns, "link", "add", a, "type", "veth", "peer", "name", b};
  if (!peerNs.empty() && peerNs != ns) args.insert(args.end(), {"netns", peerNs});
  ip(args);
}

void NetNsFixture::linkUp(std::string const & ns, std::string const & device) { ip({"-n", ns, "link", "set", device, "up"}); }
void NetNsFixture::linkDown(std::string const & ns, std::string const & device) { ip({"-n", ns, "link", "set", device, "down"}); }
void NetNsFixture::linkRename(std::string const & ns, std::string const & device, std::string const & newName) {
  ip({"-n", ns, "link", "set", device, "name", newName});
}
void NetNsFixture::linkMove(std::string const & ns, std::string const & device, std::string const & toNs) {
  ip({"-n", ns, "link", "set", device, "netns", toNs});
}
void NetNsFixture::linkDel(std::string const & ns, std::string const & device) { ip({"-n", ns, "link", "del", device}); }

std::optional<LinkState> NetNsFixture::link(std::string const & ns, std::string const & device) const {
  // The real calls, whatever a test has put in the live table.
  int const sd = Ovel::socketAtThrough(Platform::realCalls(), AF_NETLINK, SOCK_RAW, NETLINK_ROUTE,
                                       ns.empty() ? nullptr : ns.c_str());
  if (sd < 0) throw std::runtime_error("rtnetlink socket in " + ns + ": " + std::strerror(errno));

  alignas(nlmsghdr) char request[256] = {};
  nlmsghdr * nlh = mnl_nlmsg_put_header(request);
  nlh->nlmsg_type = RTM_GETLINK;
  nlh->nlmsg_flags = NLM_F_REQUEST;
  nlh->nlmsg_seq = 1;
  auto * ifm = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
  ifm->ifi_family = AF_UNSPEC;
  mnl_attr_put_strz(nlh, IFLA_IFNAME, device.c_str());
  mnl_attr_put_u32(nlh, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);

  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(sd, nlh, nlh->nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) < 0) {
    int const e = errno;
    ::close(sd);
    throw std::runtime_error(std::string("RTM_GETLINK send: ") + std::strerror(e));
  }
  std::vector<nlmsghdr> replyBuffer(65536 / sizeof(nlmsghdr));  // aligned for the headers
  auto * reply = reinterpret_cast<char *>(replyBuffer.data());
  ssize_t n;
  do n = ::recv(sd, reply, replyBuffer.size() * sizeof(nlmsghdr), 0);
  while (n < 0 && errno == EINTR);
  int const e = errno;
  ::close(sd);
  if (n < 0) throw std::runtime_error(std::string("RTM_GETLINK receive: ") + std::strerror(e));

  int length = static_cast<int>(n);
  for (auto const * h = reinterpret_cast<nlmsghdr const *>(reply); mnl_nlmsg_ok(h, length); h = mnl_nlmsg_next(h, &length)) {
    if (h->nlmsg_type == NLMSG_ERROR) {
      auto const * err = static_cast<nlmsgerr const *>(mnl_nlmsg_get_payload(h));
      if (err->error == -ENODEV) return std::nullopt;
      throw std::runtime_error(std::string("RTM_GETLINK: ") + std::strerror(-err->error));
    }
    if (h->nlmsg_type != RTM_NEWLINK) continue;
    auto const * info = static_cast<ifinfomsg const *>(mnl_nlmsg_get_payload(h));
    LinkState state;
    state.ifindex = info->ifi_index;
    state.flags = info->ifi_flags;
    auto const collect = [](nlattr const * attr, void * data) {
      auto & s = *static_cast<LinkState *>(data);
      switch (mnl_attr_get_type(attr)) {
        case IFLA_IFNAME: s.name = mnl_attr_get_str(attr); break;
        case IFLA_OPERSTATE: s.operState = mnl_attr_get_u8(attr); break;
        default: break;
      }
      return MNL_CB_OK;
    };
    mnl_attr_parse(h, sizeof(ifinfomsg), collect, &state);
    return state;
  }
  throw std::runtime_error("RTM_GETLINK: no answer for " + device);
}

bool NetNsFixture::waitForOperState(std::string const & ns, std::string const & device, int operState,
                                    std::chrono::milliseconds timeout) const {
  auto const deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    std::optional<LinkState> const state = link(ns, device);
    if (!state) return false;
    if (state->operState == operState) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

CommandResult NetNsFixture::runIn(std::string const & ns, std::string const & shellCommand) const {
  return runCommand({"ip", "netns", "exec", ns, "sh", "-c", shellCommand});
}

void NetNsTest::SetUp() {
  INTFSM_REQUIRE_ROOT();
  netns_.emplace();
}

}  // namespace IntfsmTest
