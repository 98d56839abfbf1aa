#include "intfsm/foundation/vorn/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Vorn {

namespace {

// O_NONBLOCK on or off; false with errno set when fcntl fails.
bool nonBlockingApply(int fd, bool on) {
  int const flags = fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  int const wanted = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return wanted == flags || fcntl(fd, F_SETFL, wanted) == 0;
}

}  // namespace

FileDescriptor::FileDescriptor(Name const & name) : FileDescriptor(name, activityManager()) {}

FileDescriptor::FileDescriptor(Name const & name, ActivityManager & manager) : Entity(name), manager_(&manager) {}

FileDescriptor::~FileDescriptor() { watchDel(); }

uint32_t FileDescriptor::epollEvents() const {
  // Not even EPOLLPRI without readableWanted: the kernel signals arrivals with IN and PRI together,
  // and a watch that matches either wakes the waiting loop for every arrival (only to find nothing to
  // report), which is the very cost that turning readability off is for.
  return (readableWanted_ ? EPOLLIN | EPOLLPRI : 0u) | (writableWanted_ ? EPOLLOUT : 0u);
}

void FileDescriptor::watchEventsApply() {
  if (!manager_ || descriptor_ < 0) return;
  uint32_t const events = epollEvents();
  if (events == 0) {
    // Out of the set: the kernel calls every entry on the descriptor's wait queue at each arrival,
    // even one that wants nothing.
    if (watchId_) {
      manager_->watchDel(watchId_, descriptor_);
      watchId_ = 0;
      parked_ = true;
    }
    return;
  }
  if (parked_) {
    parked_ = false;
    try {
      watchId_ = manager_->watchAdd(this, descriptor_, events);
    } catch (ErrnoException const & e) {
      if (e.errorNumber() != EBADF) throw;
      watchId_ = 0;  // closed behind our back while out of the set: as a change of a closed watch
    }
    return;
  }
  if (watchId_ && !manager_->watchMod(watchId_, descriptor_, events)) watchId_ = 0;  // closed behind our back
}

void FileDescriptor::watchDel() {
  if (watchId_ && manager_) manager_->watchDel(watchId_, descriptor_);
  watchId_ = 0;
  parked_ = false;
}

void FileDescriptor::descriptorIs(int fd) {
  if (fd < -1) throw RangeException("FileDescriptor::descriptor < -1 not allowed");
  if (fd == descriptor_) return;
  uint64_t id = 0;
  bool const parked = fd >= 0 && manager_ && epollEvents() == 0;
  if (fd >= 0) {
    if (manager_ && !parked) id = manager_->watchAdd(this, fd, epollEvents());
    if (nonBlocking_ && !nonBlockingApply(fd, true)) {
      int const e = errno;
      if (id) manager_->watchDel(id, fd);
      throw ErrnoException(e, "FileDescriptor " + name().stdString() + ": cannot make descriptor " +
                                  std::to_string(fd) + " non-blocking: " + std::strerror(e));
    }
  }
  watchDel();
  descriptor_ = fd;
  watchId_ = id;
  parked_ = parked;
  notify(&NotifieeConst::onDescriptor);
}

void FileDescriptor::nonBlockingIs(bool nonBlocking) {
  if (nonBlocking == nonBlocking_) return;
  if (descriptor_ >= 0 && !nonBlockingApply(descriptor_, nonBlocking)) {
    int const e = errno;
    throw ErrnoException(e, "FileDescriptor " + name().stdString() + ": cannot change O_NONBLOCK of descriptor " +
                                std::to_string(descriptor_) + ": " + std::strerror(e));
  }
  nonBlocking_ = nonBlocking;
  notify(&NotifieeConst::onNonBlocking);
}

void FileDescriptor::writableWantedIs(bool wanted) {
  if (wanted == writableWanted_) return;
  writableWanted_ = wanted;
  watchEventsApply();
  notify(&NotifieeConst::onWritableWanted);
}

void FileDescriptor::readableWantedIs(bool wanted) {
  if (wanted == readableWanted_) return;
  readableWanted_ = wanted;
  watchEventsApply();
  notify(&NotifieeConst::onReadableWanted);
}

void FileDescriptor::readableCountInc(uint64_t n) {
  if (!n) return;
  readableCount_ += n;
  notify(&NotifieeConst::onReadableCount);
}

void FileDescriptor::writableCountInc(uint64_t n) {
  if (!n) return;
  writableCount_ += n;
  notify(&NotifieeConst::onWritableCount);
}

void FileDescriptor::exceptionPendingCountInc(uint64_t n) {
  if (!n) return;
  exceptionPendingCount_ += n;
  notify(&NotifieeConst::onExceptionPendingCount);
}

Ptr<FileDescriptor> fileDescriptorFactory(Name const & name) { return new FileDescriptor(name); }

Ptr<FileDescriptor> fileDescriptorFactory(Name const & name, ActivityManager & manager) {
  return new FileDescriptor(name, manager);
}

}  // namespace Vorn
