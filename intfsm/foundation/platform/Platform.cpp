#include "intfsm/foundation/platform/Platform.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Platform {

namespace {

Calls makeRealCalls() {
  Calls c;
  c.socket = &::socket;
  c.bind = &::bind;
  c.close = &::close;
  c.setsockopt = &::setsockopt;
  c.getsockopt = &::getsockopt;
  c.ioctl = [](int fd, unsigned long request, void * argument) { return ::ioctl(fd, request, argument); };
  c.recvmsg = &::recvmsg;
  c.recvmmsg = [](int fd, mmsghdr * messages, unsigned count, int flags, timespec * timeout) {
    return ::recvmmsg(fd, messages, count, flags, timeout);
  };
  c.sendto = &::sendto;
  c.poll = &::poll;
  c.mmap = &::mmap;
  c.munmap = &::munmap;
  c.read = &::read;
  c.open = [](char const * path, int flags) { return ::open(path, flags); };
  c.setns = &::setns;
  c.lstat = [](char const * path, struct stat * result) { return ::lstat(path, result); };
  c.stat = [](char const * path, struct stat * result) { return ::stat(path, result); };
  c.fopen = [](char const * path, char const * mode) { return std::fopen(path, mode); };
  c.inotify_init1 = &::inotify_init1;
  c.inotify_add_watch = &::inotify_add_watch;
  return c;
}

}  // namespace

Calls const & realCalls() {
  static Calls const real = makeRealCalls();
  return real;
}

Calls & calls() {
  static Calls live = realCalls();
  return live;
}

}  // namespace Platform
