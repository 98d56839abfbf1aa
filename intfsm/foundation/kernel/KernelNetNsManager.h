// Keeps a KernelNetNsInfo::Root equal to the network namespaces that exist, on the event loop.
//
//   auto root = KernelNetNsInfo::Root::rootNew("netNs");
//   Vorn::Ptr<KernelNetNsInfo::Manager> manager = KernelNetNsInfo::ManagerIs(root);
//   manager->hasNotificationActiveIs(true);   // scans now, then follows `ip netns add` / `del`
//
// What "exists" means:
// - the default namespace, named Ovel::DEFAULT_NS, numbered by the inode of the namespace of the thread
//   that turns following on (/proc/thread-self/ns/net): the namespace this process works in, which in
//   a container is not the host's;
// - every entry of /run/netns that is a namespace mount (statfs reports NSFS_MAGIC), named by its file
//   name and numbered by its inode, which is the namespace's inode. An entry called "default" cannot
//   be told from the default namespace by name and is skipped (level-0 trace); so is a name longer
//   than 150 bytes. Entries that vanish between the scan and the look are skipped.
//
// Following: /run/netns is watched with inotify (IN_CLOEXEC | IN_NONBLOCK) through a Vorn::FileDescriptor.
// IN_CREATE / IN_MOVED_TO add an entry, IN_DELETE / IN_MOVED_FROM remove it; a lost-events overflow
// rescans. `ip netns add` creates the file first and bind-mounts the namespace onto it afterwards, and
// the mount makes no inotify event: an entry that is not yet a namespace mount is looked at again every
// mountRetryInterval (5 ms) on the loop's clock, for up to mountWaitLimit (2 s); one that is still a
// plain file then is left alone (level-0 trace) until it changes again. A directory watch the kernel
// refuses (ENOSPC: no watches left, ENOMEM, EACCES) is traced at level 0 once per errno and tried again
// every shortageRetryInterval seconds on the clock; once it holds, the directory is scanned again.
// The parent directory (/run)
// is watched too: while /run/netns does not exist, its creation starts the directory watch and a scan;
// its removal drops every namespace but the default one.
//
// Turning following on (again) scans and reconciles: namespaces that vanished meanwhile are removed,
// new ones added. Turning it off closes the inotify descriptor (after dropping its FileDescriptor) and
// leaves the Root as it was. The directory is scanned with plain system calls (tests point a manager at a
// directory of their own instead, the second ManagerIs); the inotify instance is made, watched and read through
// Platform::calls(), so that a test can feed it bytes. Every event read is checked against the bytes
// actually read: bytes that are not a whole event (a header cut short, a name length past the end) end
// the walk with a level-0 trace, count in malformedReads(), and rescan, since events may be lost.
//
// Out of descriptors (EMFILE, ENFILE) for the inotify instance, turning following on raises nothing: a
// level-0 trace ("cannot open namespace inotify descriptor for directory /run/netns, errno: 24 (out
// of descriptors)", once) and another try every shortageRetryInterval seconds on the clock until the
// instance opens (then the scan and follow as ever); the Root is left as it was meanwhile. The descriptor is
// named "namespace inotify descriptor" for "directory <dir>" in the registry (Vorn/Descriptors.h).
// Traces go to the handle "KernelNetNsInfo".
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "intfsm/foundation/kernel/KernelNetNsInfo.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace KernelNetNsInfo {

// One namespace as a scan finds it.
struct NamespaceEntry {
  Ovel::NamespaceName name;
  uint32_t number = 0;
  bool operator==(NamespaceEntry const &) const = default;
};

// Makes `root` hold exactly `namespaces` (the default namespace included, when it is to stay):
// names that are not listed are removed first, then each listed one is stored. Only real changes notify.
void reconcile(Root & root, std::vector<NamespaceEntry> const & namespaces);

class Manager : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<Manager> {
   public:
    virtual void onHasNotificationActive() {}
  };

  static constexpr char defaultDirectory[] = "/run/netns";
  static constexpr double mountRetryInterval = 0.005;
  static constexpr double mountWaitLimit = 2.0;
  static constexpr double shortageRetryInterval = 1.0;
  static constexpr char inotifyPurpose[] = "namespace inotify descriptor";

  ~Manager() override;

  Vorn::Ptr<Root> const & root() const { return root_; }
  // The directory of namespace mounts followed.
  Vorn::String const & directory() const { return directory_; }

  // True: scan now and follow (Vorn::ErrnoException when inotify cannot be had; still off then).
  // False: stop following. Setting the current value does nothing.
  bool hasNotificationActive() const { return active_; }
  void hasNotificationActiveIs(bool active);

  // The default namespace's number found by the last activation; 0 before one, or if it was unreadable.
  uint32_t defaultNumber() const { return defaultNumber_; }
  // Whether the directory itself is watched (false while it does not exist).
  bool directoryWatched() const { return dirWatch_ >= 0; }
  // Entries created but not yet namespace mounts, looked at again on the clock.
  uint32_t pendingMounts() const { return static_cast<uint32_t>(pending_.size()); }
  // Full scans made (activation, directory appearing, inotify overflow).
  uint64_t scans() const { return scans_; }
  // The inotify descriptor, or -1 while off (or waiting for a descriptor).
  int descriptor() const { return inotify_; }
  // Following is on but the inotify instance waits for a descriptor (tried again on the clock).
  bool waitingForDescriptor() const { return activationPending_; }
  // Reads that held bytes which are not a whole inotify event.
  uint64_t malformedReads() const { return malformedReads_; }

  // What the loop calls: the inotify descriptor is readable; the retry time has come.
  void handleReadable();
  void handlePendingMounts();
  // Walks the inotify events of one read (`length` bytes at `data`).
  void handleEvents(char const * data, size_t length);

 private:
  class VornFileDesc;
  class VornClock;
  enum class Look { isNamespace, notMounted, absent };

  Manager(Vorn::Ptr<Root> const & root, Vorn::String const & directory, Vorn::ActivityManager & loop);
  friend Vorn::Ptr<Manager> ManagerIs(Vorn::Ptr<Root> const &, Vorn::String const &, Vorn::ActivityManager &);

  void activate();
  void deactivate();
  void watchDirectory();
  void directoryGone();
  void rescan();
  Look look(std::string const & entry, uint32_t & number) const;
  void entryAdded(std::string const & entry);
  void entryRemoved(std::string const & entry);
  void armRetry();
  void eventsMalformed(size_t bytes);

  Vorn::Ptr<Root> root_;
  Vorn::String directory_;
  std::string parent_;
  std::string base_;
  Vorn::ActivityManager & loop_;
  bool active_ = false;
  uint32_t defaultNumber_ = 0;
  int inotify_ = -1;
  int dirWatch_ = -1;
  int parentWatch_ = -1;
  Vorn::Ptr<Vorn::FileDescriptor> fd_;
  Vorn::Ptr<VornFileDesc> fdReactor_;
  Vorn::Ptr<VornClock> clockReactor_;
  std::map<std::string, double> pending_;  // entry -> time to give up
  uint64_t scans_ = 0;
  uint64_t malformedReads_ = 0;
  bool activationPending_ = false;
  int watchRefused_ = 0;  // the errno of the directory watch's last refusal (traced once), 0 when none
  double watchRetryAt_ = Vorn::Clock::never;  // when a refused directory watch is tried again
};

// A manager of `root`, not following yet; on the process's loop and /run/netns.
Vorn::Ptr<Manager> ManagerIs(Vorn::Ptr<Root> const & root);
// The same on another directory (its parent watched for its creation) and loop.
Vorn::Ptr<Manager> ManagerIs(Vorn::Ptr<Root> const & root, Vorn::String const & directory,
                             Vorn::ActivityManager & loop);

}  // namespace KernelNetNsInfo
