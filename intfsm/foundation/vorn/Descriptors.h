// Which descriptors the library holds, and what for: a registry a user can read, and the one way a
// descriptor shortage (EMFILE, ENFILE) is reported.
//
//   int sd = Ovel::socketAt(...);
//   if (sd < 0 && Vorn::isDescriptorShortage(errno)) {
//     std::string const text = Vorn::descriptorShortageIs("bundle socket", "bundle edp in namespace default", errno);
//     if (!text.empty()) TRACE(0, text);      // once, until that descriptor opens again
//   }
//   Vorn::descriptorOpened(sd, "bundle socket", "bundle edp in namespace default");
//   ...
//   Vorn::descriptorClosed(sd);                // just before the one close of the owner
//   Platform::calls().close(sd);
//
//   for (auto const & [use, count] : Vorn::descriptorCounts()) ...   // "bundle socket" / "bundle edp ...": 1
//
// A descriptor is named by its owner, the code that opens it and closes it: the purpose (what kind of
// descriptor: "oper-state netlink socket") and the scope (whose: "namespace blue", "bundle edp in
// namespace default"). Naming a number again (a new owner of a reused number) replaces its name.
// Counts are per purpose and scope; their sum equals the descriptors the library holds open, which
// a test compares with /proc/self/fd.
//
// A shortage is recorded per purpose and scope: descriptorShortageIs returns the level-0 trace text
// the first time ("cannot open <purpose> for <scope>, errno: 24 (out of descriptors)") and an empty
// text while the same shortage goes on, so a retry on the clock does not flood the trace; opening a
// descriptor of that purpose and scope ends the shortage. descriptorShortages() lists those going on.
//
// Single-threaded like the rest of the library (the loop's thread).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Vorn {

// What a descriptor is for: purpose, then scope.
using DescriptorUse = std::pair<std::string, std::string>;

// EMFILE or ENFILE: the process or the system is out of descriptors, which may pass.
bool isDescriptorShortage(int error);

void descriptorOpened(int fd, std::string const & purpose, std::string const & scope);
// Forgets `fd` (nothing when it is not named).
void descriptorClosed(int fd);

// Descriptors held, by purpose and scope; and their sum.
std::map<DescriptorUse, uint32_t> descriptorCounts();
uint32_t descriptorTotal();
// The name of one descriptor (empty texts when it is not named).
DescriptorUse descriptorUseOf(int fd);

// The trace text of a shortage the first time it is seen for this purpose and scope; empty after that
// until a descriptor of that purpose and scope opens again.
std::string descriptorShortageIs(std::string const & purpose, std::string const & scope, int error);
std::string descriptorShortageText(std::string const & purpose, std::string const & scope, int error);
// Shortages going on (purpose, scope), in order.
std::vector<DescriptorUse> descriptorShortages();

// Names one descriptor for as long as it lives: the holder of a descriptor keeps one beside it.
class DescriptorName {
 public:
  DescriptorName() = default;
  DescriptorName(int fd, std::string const & purpose, std::string const & scope) : fd_(fd) {
    if (fd_ >= 0) descriptorOpened(fd_, purpose, scope);
  }
  DescriptorName(DescriptorName && other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  DescriptorName & operator=(DescriptorName && other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  DescriptorName(DescriptorName const &) = delete;
  DescriptorName & operator=(DescriptorName const &) = delete;
  ~DescriptorName() { reset(); }

  // Before the descriptor is closed.
  void reset() {
    if (fd_ >= 0) descriptorClosed(fd_);
    fd_ = -1;
  }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

}  // namespace Vorn
