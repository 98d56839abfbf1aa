#include "intfsm/foundation/ovel/Platform.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "intfsm/foundation/interface/NetlinkOperState.h"
#include "intfsm/foundation/ovel/SocketAt.h"

namespace Ovel {

namespace {

Platform makeRealPlatform() {
  Platform p;
  p.socketAt = [](int domain, int type, int protocol, char const * nsName) {
    return socketAtThrough(platform(), domain, type, protocol, nsName);
  };
  p.setNetlinkOperState = &Interface::sendNetlinkOperState;
  p.socket = &::socket;
  p.bind = &::bind;
  p.close = &::close;
  p.setsockopt = &::setsockopt;
  p.getsockopt = &::getsockopt;
  p.ioctl = [](int fd, unsigned long request, void * argument) { return ::ioctl(fd, request, argument); };
  p.recvmsg = &::recvmsg;
  p.recvmmsg = [](int fd, mmsghdr * messages, unsigned count, int flags, timespec * timeout) {
    return ::recvmmsg(fd, messages, count, flags, timeout);
  };
  p.sendto = &::sendto;
  p.poll = &::poll;
  p.open = [](char const * path, int flags) { return ::open(path, flags); };
  p.setns = &::setns;
  p.lstat = [](char const * path, struct stat * result) { return ::lstat(path, result); };
  p.stat = [](char const * path, struct stat * result) { return ::stat(path, result); };
  p.fopen = [](char const * path, char const * mode) { return std::fopen(path, mode); };
  return p;
}

}  // namespace

Platform const & realPlatform() {
  static Platform const real = makeRealPlatform();
  return real;
}

Platform & platform() {
  static Platform live = realPlatform();
  return live;
}

}  // namespace Ovel
