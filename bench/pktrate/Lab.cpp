#include "bench/pktrate/Lab.h"

#include <net/if.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char ** environ;

namespace PktRate {

namespace {

std::string errnoText(std::string const & what) { return what + ": " + std::strerror(errno); }

void writeSysctl(std::string const & path, char const * value) {
  std::ofstream out(path);
  out << value;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace

void runOrThrow(std::vector<std::string> const & argv) {
  std::string command;
  for (auto const & a : argv) command += (command.empty() ? "" : " ") + a;
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error(errnoText("pipe"));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
  std::vector<char *> args;
  for (auto const & a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int const spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  std::string output;
  char buffer[512];
  ssize_t n;
  while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) output.append(buffer, static_cast<size_t>(n));
  }
  close(pipeFds[0]);
  if (spawned != 0) throw std::runtime_error(command + ": " + std::strerror(spawned));
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(command + " failed: " + output);
}

Lab::Lab(int pairs) {
  if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error(errnoText("unshare(CLONE_NEWNET) (needs root)"));
  // /proc/sys/net belongs to the namespace of whoever opens it: these change only ours.
  writeSysctl("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1");
  writeSysctl("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
  for (int i = 0; i < pairs; ++i) {
    Pair p;
    p.a = "pra" + std::to_string(i);
    p.b = "prb" + std::to_string(i);
    char aMac[18], bMac[18];
    std::snprintf(aMac, sizeof aMac, "02:00:00:00:%02x:0a", i & 0xff);
    std::snprintf(bMac, sizeof bMac, "02:00:00:00:%02x:0b", i & 0xff);
    runOrThrow({"ip", "link", "add", p.a, "address", aMac, "type", "veth", "peer", "name", p.b, "address", bMac});
    runOrThrow({"ip", "link", "set", p.a, "up"});
    runOrThrow({"ip", "link", "set", p.b, "up"});
    p.aIndex = static_cast<int>(if_nametoindex(p.a.c_str()));
    p.bIndex = static_cast<int>(if_nametoindex(p.b.c_str()));
    if (p.aIndex == 0 || p.bIndex == 0) throw std::runtime_error(errnoText("if_nametoindex " + p.a));
    unsigned char const a[6] = {2, 0, 0, 0, static_cast<unsigned char>(i), 0x0a};
    unsigned char const b[6] = {2, 0, 0, 0, static_cast<unsigned char>(i), 0x0b};
    std::memcpy(p.aMac, a, sizeof a);
    std::memcpy(p.bMac, b, sizeof b);
    pairs_.push_back(p);
  }
}

unsigned long long Lab::deviceDrops(std::string const & device) {
  // /proc/self/net is the view of the reading thread's namespace, unlike /sys/class/net.
  std::ifstream in("/proc/self/net/dev");
  std::string line;
  while (std::getline(in, line)) {
    auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    name.erase(0, name.find_first_not_of(' '));
    if (name != device) continue;
    std::istringstream fields(line.substr(colon + 1));
    unsigned long long v[16] = {};
    for (auto & x : v) fields >> x;
    return v[3] + v[11];  // rx drop, tx drop
  }
  return 0;
}

}  // namespace PktRate
