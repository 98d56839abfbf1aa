// The harness's private network: a network namespace of its own with veth pairs in it.
//
//   PktRate::Lab lab(1);                       // call before starting any thread
//   PktRate::Lab::Pair const & p = lab.pair(0);
//   // send on p.a (ifindex p.aIndex), read on p.b
//
// The constructor moves the whole process into a new, unnamed namespace (unshare(CLONE_NEWNET)), so
// every socket and thread the harness opens later lives there. Nothing names the namespace: it ends
// with the process, however the process ends (normal exit, an error, SIGINT/SIGTERM, even SIGKILL),
// and takes its devices with it. Nothing is left in `ip netns list` or among the host's devices.
// IPv6 is switched off inside it (only there), so that no address configuration puts frames of its
// own on the pairs. Pair i is "pra<i>" (02:00:00:00:<i>:0a) and "prb<i>" (02:00:00:00:<i>:0b), up.
// Needs root (CAP_SYS_ADMIN, CAP_NET_ADMIN); throws std::runtime_error saying what failed.
#pragma once

#include <string>
#include <vector>

namespace PktRate {

class Lab {
 public:
  struct Pair {
    std::string a, b;
    int aIndex = 0, bIndex = 0;
    unsigned char aMac[6] = {}, bMac[6] = {};
  };

  explicit Lab(int pairs);
  Lab(Lab const &) = delete;
  Lab & operator=(Lab const &) = delete;

  Pair const & pair(int i) const { return pairs_.at(static_cast<size_t>(i)); }
  int pairs() const { return static_cast<int>(pairs_.size()); }

  // Drop counters of a device (rx_dropped + tx_dropped from /proc/net/dev of this namespace).
  static unsigned long long deviceDrops(std::string const & device);

 private:
  std::vector<Pair> pairs_;
};

// Runs a program (looked up in PATH, no shell) and throws with its output when it fails.
void runOrThrow(std::vector<std::string> const & argv);

}  // namespace PktRate
