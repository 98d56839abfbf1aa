#include "tests/support/Descriptors.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace IntfsmTest {

int openDescriptorCount() {
  DIR * dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) throw std::runtime_error(std::string("cannot list /proc/self/fd: ") + std::strerror(errno));
  int count = 0;
  while (dirent * entry = ::readdir(dir)) count += entry->d_name[0] != '.';
  ::closedir(dir);
  return count - 1;  // the one reading the list
}

bool isCloseOnExec(int fd) {
  int const flags = ::fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

}  // namespace IntfsmTest
