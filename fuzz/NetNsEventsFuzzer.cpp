// The inotify events of the namespace manager's directory, as reads return them: whatever the bytes,
// the walk reads only whole events inside what was read, and the manager keeps the default namespace
// and what it reports consistent (every name it holds has a number that names it back).
//
// Input: reads one after another, each a byte n and then up to 4 * n bytes that the read returns. The
// manager follows a temporary directory of its own whose watch is number 2 (its parent's is 1).
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "intfsm/foundation/kernel/KernelNetNsManager.h"
#include "intfsm/foundation/platform/Platform.h"

namespace {

char parent[] = "/tmp/intfsm-fuzz-XXXXXX";

// Both directories go when the run ends (the events only name entries; nothing is created in them).
void removeDirectories() {
  rmdir((std::string(parent) + "/netns").c_str());
  rmdir(parent);
}

struct Fixture {
  Fixture() {
    if (!mkdtemp(parent)) std::abort();
    std::atexit(removeDirectories);
    directory = std::string(parent) + "/netns";
    if (mkdir(directory.c_str(), 0755) != 0) std::abort();
  }
  std::string directory;
  Vorn::ActivityManager loop;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Fuzz::quietTracing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const * data, size_t size) {
  static Fixture * fixture = new Fixture;
  auto root = KernelNetNsInfo::Root::rootNew("netNs");
  auto manager = KernelNetNsInfo::ManagerIs(root, Vorn::String(fixture->directory), fixture->loop);
  manager->hasNotificationActiveIs(true);

  Fuzz::Input input(data, size);
  Platform::Calls & calls = Platform::calls();
  auto const read = calls.read;
  calls.read = [&input](int, void * buffer, size_t length) -> ssize_t {
    if (input.empty()) return errno = EAGAIN, -1;
    std::string const bytes = input.bytes(4u * input.byte());
    size_t const n = bytes.size() < length ? bytes.size() : length;
    std::memcpy(buffer, bytes.data(), n);
    return static_cast<ssize_t>(n);
  };
  manager->handleReadable();
  calls.read = read;

  FUZZ_CHECK(manager->defaultNumber() == 0 || root->netNsByNameHas(Ovel::NamespaceName::defaultNamespace()),
             "the default namespace stays");
  for (auto const & e : root->netNsByNameIter()) {
    FUZZ_CHECK(root->netNsHas(e.value), e.key.name().stdString());
  }
  manager->hasNotificationActiveIs(false);
  return 0;
}
