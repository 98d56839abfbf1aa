#include "tests/support/Descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace IntfsmTest {

namespace {

template <typename Visit>
void forEachDescriptor(Visit && visit) {
  DIR * dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) throw std::runtime_error(std::string("cannot list /proc/self/fd: ") + std::strerror(errno));
  int const own = ::dirfd(dir);
  while (dirent * entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    int const fd = std::atoi(entry->d_name);
    if (fd != own) visit(fd);
  }
  ::closedir(dir);
}

}  // namespace

int openDescriptorCount() {
  int count = 0;
  forEachDescriptor([&](int) { ++count; });
  return count;
}

std::vector<std::string> openDescriptorTargets() {
  std::vector<std::string> targets;
  forEachDescriptor([&](int fd) {
    std::string const link = "/proc/self/fd/" + std::to_string(fd);
    char target[256];
    ssize_t const n = ::readlink(link.c_str(), target, sizeof target - 1);
    targets.push_back(std::to_string(fd) + " -> " + (n < 0 ? std::string("?") : std::string(target, static_cast<size_t>(n))));
  });
  return targets;
}

bool isCloseOnExec(int fd) {
  int const flags = ::fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

}  // namespace IntfsmTest
