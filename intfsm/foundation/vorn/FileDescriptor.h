// A descriptor watched by the event loop: readiness becomes counters that reactors watch.
//
// The FileDescriptor does not own the descriptor: it never closes it. Its owner clears it (or drops
// the FileDescriptor) before closing the descriptor; a descriptor closed while still watched may stay
// in the epoll set through a duplicate in this or another process, and would then wake the loop
// for nothing. The loop copes with descriptors closed behind its back (epoll_ctl's EBADF and ENOENT
// are counted in ActivityManager::staleWatches(), never raised).
//
//   Vorn::Ptr<Vorn::FileDescriptor> fd = Vorn::fileDescriptorFactory("edpm");
//   fd->descriptorIs(sock);            // watched from now on
//   fd->nonBlockingIs(true);           // O_NONBLOCK on `sock`
//   struct Reader : Vorn::FileDescriptor::NotifieeConst {
//     void onReadableCount() override { drain(notifier()->descriptor()); }
//   };
//   ...
//   fd->descriptorIs(-1);              // no longer watched
//   close(sock);
//
// Readiness is level-triggered and counted once per loop pass:
// - readable (EPOLLIN), watched while readableWanted is true (the default): readableCount += 1 and
//   onReadableCount(). A reader that leaves data gets another call on the next pass.
// - writable (EPOLLOUT), watched only while writableWanted is true so that an idle loop never
//   spins on an always-writable descriptor: writableCount += 1 and onWritableCount().
// - error, hang-up or priority data (EPOLLERR, EPOLLHUP, EPOLLPRI): exceptionPendingCount += 1 and
//   onExceptionPendingCount(). A pipe or stream whose peer has gone reports this (and not
//   readability once drained) on every pass until the owner clears the descriptor.
// In one pass they are counted in that order; a handler that clears or changes the descriptor
// stops the rest of that pass's counts for it.
// While neither readability nor writability is wanted, the descriptor is out of the epoll set
// altogether (errors and hang-ups are reported once something is wanted again): the kernel calls
// every entry on a descriptor's wait queue at each arrival, even one that wants nothing, and that
// call costs whoever queues the data (a sender's core for every frame on a packet socket).
#pragma once

#include <cstdint>

#include "intfsm/foundation/vorn/Entity.h"

namespace Vorn {

class ActivityManager;

class FileDescriptor : public Entity {
 public:
  class NotifieeConst : public Notifiee<FileDescriptor> {
   public:
    virtual void onDescriptor() {}
    virtual void onNonBlocking() {}
    virtual void onReadableCount() {}
    virtual void onWritableCount() {}
    virtual void onExceptionPendingCount() {}
    virtual void onWritableWanted() {}
    virtual void onReadableWanted() {}
  };

  // Watched by the process's loop (activityManager()).
  explicit FileDescriptor(Name const & name);
  // Watched by `manager`, which must outlive this object's watch (tests run private loops).
  FileDescriptor(Name const & name, ActivityManager & manager);
  ~FileDescriptor() override;

  // -1 = none. Setting one adds it to the loop's epoll set (and applies nonBlocking); changing or
  // clearing it removes the previous one first. A descriptor that epoll refuses (closed, a regular
  // file, or one already watched by another FileDescriptor) raises ErrnoException and nothing changes;
  // so does a value below -1 (RangeException).
  int descriptor() const { return descriptor_; }
  void descriptorIs(int fd);

  // True puts O_NONBLOCK on the descriptor, now and on any set later; turning it false clears
  // O_NONBLOCK on the current descriptor. With false, a newly set descriptor keeps its own flags.
  // A failing fcntl raises ErrnoException and nothing changes.
  bool nonBlocking() const { return nonBlocking_; }
  void nonBlockingIs(bool nonBlocking);

  uint64_t readableCount() const { return readableCount_; }
  uint64_t writableCount() const { return writableCount_; }
  uint64_t exceptionPendingCount() const { return exceptionPendingCount_; }
  // The loop raises these; they are public so that state machines can be driven without a kernel.
  void readableCountInc(uint64_t n = 1);
  void writableCountInc(uint64_t n = 1);
  void exceptionPendingCountInc(uint64_t n = 1);

  bool writableWanted() const { return writableWanted_; }
  void writableWantedIs(bool wanted);
  // True (the default) watches readability and priority data. An owner that reads on a timer of its own for a while
  // turns it off, so that the kernel wakes nobody per arrival; turning it on again reports data
  // already waiting on the next pass (level-triggered), so nothing that came meanwhile goes unseen.
  bool readableWanted() const { return readableWanted_; }
  void readableWantedIs(bool wanted);

 private:
  friend class ActivityManager;
  uint32_t epollEvents() const;
  void watchEventsApply();
  void watchDel();

  ActivityManager * manager_;
  int descriptor_ = -1;
  bool nonBlocking_ = false;
  bool writableWanted_ = false;
  bool readableWanted_ = true;
  uint64_t readableCount_ = 0;
  uint64_t writableCount_ = 0;
  uint64_t exceptionPendingCount_ = 0;
  uint64_t watchId_ = 0;  // our registration in the manager's epoll set; 0 = none
  bool parked_ = false;  // out of the set while nothing is wanted, added again when something is
};

Ptr<FileDescriptor> fileDescriptorFactory(Name const & name);
Ptr<FileDescriptor> fileDescriptorFactory(Name const & name, ActivityManager & manager);

}  // namespace Vorn
