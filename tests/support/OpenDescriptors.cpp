#include "tests/support/OpenDescriptors.h"

#include <dirent.h>
#include <fcntl.h>

namespace intfsmTest {

int openDescriptorCount() {
  DIR * dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  int count = 0;
  while (dirent * e = readdir(dir)) {
    if (e->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory stream's own descriptor
}

bool isCloseOnExec(int fd) {
  int const flags = fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC);
}

}  // namespace intfsmTest
