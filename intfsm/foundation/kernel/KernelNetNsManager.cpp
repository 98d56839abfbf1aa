#include "intfsm/foundation/kernel/KernelNetNsManager.h"

#include <dirent.h>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <unordered_set>

#include "intfsm/foundation/kernel/internal/Trace.h"
#include "intfsm/foundation/platform/Platform.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"

namespace KernelNetNsInfo {

namespace {

uint32_t const directoryEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF |
                                 IN_ONLYDIR;
uint32_t const parentEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR;

// The namespace of the calling thread: the one this process works in, also inside a container.
uint32_t ownNamespaceNumber() {
  struct stat st {};
  if (::stat("/proc/thread-self/ns/net", &st) == 0 || ::stat("/proc/self/ns/net", &st) == 0) {
    return static_cast<uint32_t>(st.st_ino);
  }
  KNNI_TRACE(0, "KernelNetNsInfo::Manager cannot read its own namespace, errno: " << errno
                                                                                  << "; following without it");
  return 0;
}

}  // namespace

class Manager::VornFileDesc : public Vorn::Reactor<Manager, Vorn::FileDescriptor> {
 public:
  using Reactor::Reactor;
  void onReadableCount() override { forward(&Manager::handleReadable); }
};

class Manager::VornClock : public Vorn::Reactor<Manager, Vorn::Clock> {
 public:
  using Reactor::Reactor;
  void onTimeMin() override { forward(&Manager::handlePendingMounts); }
};

void reconcile(Root & root, std::vector<NamespaceEntry> const & namespaces) {
  std::unordered_set<Ovel::NamespaceName> listed;
  for (NamespaceEntry const & e : namespaces) listed.insert(e.name);
  std::vector<Ovel::NamespaceName> vanished;
  for (auto const & e : root.netNsByNameIter()) {
    if (listed.count(e.key) == 0) vanished.push_back(e.key);
  }
  for (Ovel::NamespaceName const & name : vanished) root.namespaceDel(name);
  for (NamespaceEntry const & e : namespaces) root.namespaceIs(e.name, e.number);
}

Vorn::Ptr<Manager> ManagerIs(Vorn::Ptr<Root> const & root) {
  return ManagerIs(root, Manager::defaultDirectory, Vorn::activityManager());
}

Vorn::Ptr<Manager> ManagerIs(Vorn::Ptr<Root> const & root, Vorn::String const & directory,
                             Vorn::ActivityManager & loop) {
  if (!root) throw Vorn::RangeException("KernelNetNsInfo::ManagerIs: null root not allowed");
  return new Manager(root, directory, loop);
}

namespace {

// The directory that holds `path`'s last component: "." for a bare name, "/" for one under the root.
std::string_view parentOf(std::string_view path) {
  size_t const slash = path.find_last_of('/');
  if (slash == std::string_view::npos) return ".";
  return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::string_view baseOf(std::string_view path) {
  size_t const slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

Manager::Manager(Vorn::Ptr<Root> const & root, Vorn::String const & directory, Vorn::ActivityManager & loop)
    : Entity(root->name()),
      root_(root),
      directory_(directory),
      parent_(parentOf(directory.view())),
      base_(baseOf(directory.view())),
      loop_(loop) {
  clockReactor_ = Vorn::reactorNew<VornClock>(this, loop_.clock());
}

Manager::~Manager() {
  deactivate();
  Vorn::reactorRetire(*clockReactor_);
  clockReactor_ = nullptr;
}

void Manager::hasNotificationActiveIs(bool active) {
  if (active == active_) return;
  KNNI_TRACE(8, "hasNotificationActiveIs( " << (active ? "true" : "false") << " ) directory: " << directory_);
  // Set first: reactors called by the first scan see the manager on (and may turn it off again).
  active_ = active;
  if (active) {
    try {
      activate();
    } catch (...) {
      active_ = false;
      throw;
    }
  } else {
    deactivate();
  }
  notify(&NotifieeConst::onHasNotificationActive);
}

void Manager::activate() {
  defaultNumber_ = ownNamespaceNumber();
  int const fd = Platform::calls().inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  std::string const scope = "directory " + std::string(directory_.view());
  if (fd < 0 && Vorn::isDescriptorShortage(errno)) {
    std::string const text = Vorn::descriptorShortageIs(inotifyPurpose, scope, errno);
    if (!text.empty()) KNNI_TRACE(0, text);
    // Tried again on the clock; a scan needs a descriptor too, and comes with the watch.
    activationPending_ = true;
    if (clockReactor_) clockReactor_->timeMinIs(Vorn::System::currentTime() + shortageRetryInterval);
    return;
  }
  if (fd < 0) {
    int const error = errno;
    std::ostringstream text;
    text << "KernelNetNsInfo::Manager inotify_init1 failed, errno: " << error;
    KNNI_TRACE(0, text.str());
    throw Vorn::ErrnoException(error, text.str());
  }
  inotify_ = fd;
  activationPending_ = false;
  Vorn::descriptorOpened(fd, inotifyPurpose, scope);
  try {
    fd_ = Vorn::fileDescriptorFactory(name(), loop_);
    fd_->nonBlockingIs(true);
    fd_->descriptorIs(fd);
  } catch (Vorn::ErrnoException const & e) {
    std::ostringstream text;
    text << "KernelNetNsInfo::Manager watch failed, errno: " << e.errorNumber();
    KNNI_TRACE(0, text.str());
    deactivate();
    throw Vorn::ErrnoException(e.errorNumber(), text.str());
  }
  fdReactor_ = Vorn::reactorNew<VornFileDesc>(this, fd_);

  // The parent first: a directory created right after the look below is then still seen.
  parentWatch_ = Platform::calls().inotify_add_watch(fd, parent_.c_str(), parentEvents);
  if (parentWatch_ < 0) {
    KNNI_TRACE(0, "KernelNetNsInfo::Manager cannot watch " << parent_ << ", errno: " << errno
                                                           << "; " << directory_ << " is followed only while it exists");
  }
  watchDirectory();
  rescan();
}

void Manager::deactivate() {
  if (fdReactor_) {
    Vorn::reactorRetire(*fdReactor_);
    fdReactor_ = nullptr;
  }
  // The loop must stop watching the descriptor before it is closed.
  if (fd_) {
    fd_->descriptorIs(-1);
    fd_ = nullptr;
  }
  if (inotify_ >= 0) {
    Vorn::descriptorClosed(inotify_);
    Platform::calls().close(inotify_);
  }
  inotify_ = -1;
  activationPending_ = false;
  dirWatch_ = -1;
  watchRefused_ = 0;
  watchRetryAt_ = Vorn::Clock::never;
  parentWatch_ = -1;
  pending_.clear();
  if (clockReactor_) clockReactor_->timeMinIs(Vorn::Clock::never);
}

void Manager::watchDirectory() {
  int const wd = Platform::calls().inotify_add_watch(inotify_, directory_.charPtr(), directoryEvents);
  if (wd >= 0) {
    if (dirWatch_ != wd) KNNI_TRACE(5, "watching " << directory_);
    dirWatch_ = wd;
    watchRefused_ = 0;
    watchRetryAt_ = Vorn::Clock::never;
    return;
  }
  dirWatch_ = -1;
  int const error = errno;
  if (error == ENOENT || error == ENOTDIR) {
    KNNI_TRACE(5, directory_ << " does not exist; waiting for it in " << parent_);
    return;
  }
  // Refused (no watches left, no memory, no access): tried again on the clock, since nothing else
  // would ever watch the directory again; traced once per errno.
  if (error != watchRefused_) KNNI_TRACE(0, "KernelNetNsInfo::Manager cannot watch " << directory_ << ", errno: " << error);
  watchRefused_ = error;
  watchRetryAt_ = Vorn::System::currentTime() + shortageRetryInterval;
  armRetry();
}

void Manager::directoryGone() {
  if (dirWatch_ >= 0) {
    ::inotify_rm_watch(inotify_, dirWatch_);  // already gone when the directory was removed: fine
    dirWatch_ = -1;
  }
  KNNI_TRACE(5, directory_ << " is gone");
  pending_.clear();
  armRetry();
  // It may already be back.
  watchDirectory();
  rescan();
}

void Manager::rescan() {
  ++scans_;
  std::vector<NamespaceEntry> found;
  if (defaultNumber_ != 0) found.push_back({Ovel::NamespaceName::defaultNamespace(), defaultNumber_});
  std::map<std::string, double> pending;
  if (DIR * dir = ::opendir(directory_.charPtr())) {
    double const giveUp = Vorn::System::currentTime() + mountWaitLimit;
    while (dirent const * entry = ::readdir(dir)) {
      std::string const name = entry->d_name;
      uint32_t number = 0;
      switch (look(name, number)) {
        case Look::isNamespace:
          found.push_back({Ovel::NamespaceName(Vorn::String(name)), number});
          break;
        case Look::notMounted: {
          auto const known = pending_.find(name);
          pending[name] = known == pending_.end() ? giveUp : known->second;
          break;
        }
        case Look::absent:
          break;
      }
    }
    ::closedir(dir);
  } else if (errno != ENOENT) {
    KNNI_TRACE(0, "KernelNetNsInfo::Manager cannot read " << directory_ << ", errno: " << errno);
  }
  KNNI_TRACE(5, "scanned " << directory_ << ": " << found.size() << " namespaces, " << pending.size()
                           << " waiting for their mount");
  pending_ = std::move(pending);
  reconcile(*root_, found);
  armRetry();
}

Manager::Look Manager::look(std::string const & entry, uint32_t & number) const {
  if (entry.empty() || entry == "." || entry == "..") return Look::absent;
  if (entry == Ovel::DEFAULT_NS) {
    KNNI_TRACE(0, "Skipping " << directory_ << "/" << entry << ": that name is the default namespace's");
    return Look::absent;
  }
  if (entry.size() > Ovel::NamespaceName::maxBytes) {
    KNNI_TRACE(0, "Skipping " << directory_ << "/" << entry << ": NamespaceName::bytes > 150 not allowed");
    return Look::absent;
  }
  std::string const path = std::string(directory_.view()) + "/" + entry;
  struct statfs fs {};
  if (::statfs(path.c_str(), &fs) < 0) {
    if (errno != ENOENT) KNNI_TRACE(0, "KernelNetNsInfo::Manager cannot read " << path << ", errno: " << errno);
    return Look::absent;
  }
  if (static_cast<unsigned long>(fs.f_type) != NSFS_MAGIC) return Look::notMounted;
  struct stat st {};
  if (::stat(path.c_str(), &st) < 0) return Look::absent;
  number = static_cast<uint32_t>(st.st_ino);
  return Look::isNamespace;
}

void Manager::handleReadable() {
  Vorn::Ptr<Manager> keep(references() ? this : nullptr);
  int const fd = inotify_;
  alignas(inotify_event) char buffer[8192];
  while (fd >= 0 && inotify_ == fd) {
    ssize_t const length = Platform::calls().read(fd, buffer, sizeof buffer);
    if (length < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        KNNI_TRACE(0, "KernelNetNsInfo::Manager read failed, errno: " << errno);
      }
      return;
    }
    if (length == 0) return;
    handleEvents(buffer, std::min(static_cast<size_t>(length), sizeof buffer));
  }
}

void Manager::handleEvents(char const * data, size_t length) {
  int const fd = inotify_;
  for (size_t at = 0; at < length && inotify_ == fd;) {
    // Each event is checked against the bytes read before any of it is used; the header is copied
    // out, since bytes that are not the kernel's need not be aligned.
    inotify_event event{};
    size_t const left = length - at;
    if (left < sizeof event) {
      eventsMalformed(left);
      return;
    }
    std::memcpy(&event, data + at, sizeof event);
    if (event.len > left - sizeof event) {
      eventsMalformed(left);
      return;
    }
    char const * const nameAt = data + at + sizeof event;
    at += sizeof event + event.len;
    std::string const name(nameAt, ::strnlen(nameAt, event.len));
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      KNNI_TRACE(0, "KernelNetNsInfo::Manager lost inotify events; scanning " << directory_ << " again");
      if (dirWatch_ < 0) watchDirectory();
      rescan();
      continue;
    }
    if (dirWatch_ >= 0 && event.wd == dirWatch_) {
      if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
        directoryGone();
      } else if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        entryAdded(name);
      } else if ((event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        entryRemoved(name);
      }
    } else if (parentWatch_ >= 0 && event.wd == parentWatch_ && name == base_) {
      if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        watchDirectory();
        rescan();
      } else if ((event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0 && dirWatch_ >= 0) {
        directoryGone();
      }
    }
  }
}

void Manager::eventsMalformed(size_t bytes) {
  ++malformedReads_;
  KNNI_TRACE(0, "KernelNetNsInfo::Manager read " << bytes << " bytes that are not a whole inotify event; scanning "
                                                 << directory_ << " again");
  rescan();
}

void Manager::entryAdded(std::string const & entry) {
  uint32_t number = 0;
  switch (look(entry, number)) {
    case Look::isNamespace:
      pending_.erase(entry);
      KNNI_TRACE(5, "namespace " << entry << " added, number " << number);
      root_->namespaceIs(Ovel::NamespaceName(Vorn::String(entry)), number);
      break;
    case Look::notMounted:
      pending_.try_emplace(entry, Vorn::System::currentTime() + mountWaitLimit);
      armRetry();
      break;
    case Look::absent:
      break;
  }
}

void Manager::entryRemoved(std::string const & entry) {
  pending_.erase(entry);
  if (entry == Ovel::DEFAULT_NS || entry.size() > Ovel::NamespaceName::maxBytes) return;
  Ovel::NamespaceName const name{Vorn::String(entry)};
  if (!root_->netNsByNameHas(name)) return;
  KNNI_TRACE(5, "namespace " << entry << " removed");
  root_->namespaceDel(name);
}

void Manager::handlePendingMounts() {
  Vorn::Ptr<Manager> keep(references() ? this : nullptr);
  if (activationPending_) {
    if (!active_ || inotify_ >= 0) return;
    try {
      activate();
    } catch (Vorn::ErrnoException const &) {
      // Traced at level 0; following is off until it is turned on again.
      active_ = false;
      notify(&NotifieeConst::onHasNotificationActive);
    }
    return;
  }
  double const now = Vorn::System::currentTime();
  if (inotify_ >= 0 && dirWatch_ < 0 && now >= watchRetryAt_) {
    watchRetryAt_ = Vorn::Clock::never;
    watchDirectory();
    if (dirWatch_ >= 0) rescan();  // what changed while nothing watched
  }
  std::vector<std::string> entries;
  for (auto const & [entry, giveUp] : pending_) entries.push_back(entry);
  for (std::string const & entry : entries) {
    if (inotify_ < 0) return;
    uint32_t number = 0;
    switch (look(entry, number)) {
      case Look::isNamespace:
        pending_.erase(entry);
        KNNI_TRACE(5, "namespace " << entry << " mounted, number " << number);
        root_->namespaceIs(Ovel::NamespaceName(Vorn::String(entry)), number);
        break;
      case Look::notMounted:
        if (now >= pending_[entry]) {
          pending_.erase(entry);
          KNNI_TRACE(0, "KernelNetNsInfo::Manager " << directory_ << "/" << entry << " is not a namespace mount after "
                                                    << mountWaitLimit << " s; ignored until it changes");
        }
        break;
      case Look::absent:
        pending_.erase(entry);
        break;
    }
  }
  armRetry();
}

void Manager::armRetry() {
  if (!clockReactor_ || activationPending_) return;
  if (inotify_ < 0) {
    clockReactor_->timeMinIs(Vorn::Clock::never);
    return;
  }
  double const mounts = pending_.empty() ? Vorn::Clock::never : Vorn::System::currentTime() + mountRetryInterval;
  clockReactor_->timeMinIs(std::min(mounts, watchRetryAt_));
}

}  // namespace KernelNetNsInfo
