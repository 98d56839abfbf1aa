// The device index under random sequences of agent and kernel commands, against a reference model.
// After every command nothing has aborted, and each namespace's DeviceIntfStatusDir, by interface id
// and by ifindex, is what a few plain functions of the state say it must be.
//
// Each sequence runs in a child process, so that an abort is a failure RapidCheck can shrink like any
// other. A fixed seed and 300 sequences by default; INTFSM_MODEL_RUNS=N runs N (RC_PARAMS, when set,
// is used as it is). Each shortest failure found is kept below as a named regression case.
#include <gtest/gtest.h>
#include <net/if.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"

namespace {

// A fixed seed unless asked otherwise; set before RapidCheck reads its configuration.
[[maybe_unused]] int const configured = [] {
  if (std::getenv("RC_PARAMS")) return 0;
  char const * runs = std::getenv("INTFSM_MODEL_RUNS");
  std::string const params = std::string("seed=18 verbose_progress=0 max_success=") + (runs ? runs : "300");
  setenv("RC_PARAMS", params.c_str(), 1);
  return 0;
}();

using Ovel::IntfId;
using Ovel::NamespaceName;

char const * const statusIds[] = {"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"};
char const * const kernelOnlyIds[] = {"Management1", "Management2", "Ethernet1"};  // Ethernet1: also indexed
char const * const deviceNames[] = {"et1", "et2", "et3", ""};  // "": no device name; few names, many clashes
char const * const namespaceNames[] = {"default", "blue", "red", ""};              // "": the default one
constexpr int idCount = 4, deviceCount = 3, nsCount = 3;

enum Kind {
  StatusSet,   // a: id, b: device name (3: none); the status is made when absent
  StatusDel,   // a: id
  LocalSet,    // a: id, b: namespace (3: empty)
  LocalDel,    // a: id
  DevAdd,      // a: namespace, b: device, c: odd = running; an existing device only changes its flags
  DevDel,      // a: namespace, b: device
  DevRename,   // a: namespace, b: device, c: new name (a device holding it is dropped)
  DevIfIndex,  // a: namespace, b: device: re-created with a new ifindex, its deletion never seen
  NsDel,       // a: namespace: the kernel's devices there all go
  NsAdd,       // a: namespace: every device name that is missing there appears, running
  MgrAdd,      // a: namespace (without filtering, it and MgrDel: always the default one)
  MgrDel,      // a: namespace
  KoSet,       // a: namespace, b: device, c: kernel-only id
  KoDel,       // a: namespace, b: device
  Omit,        // a: namespace, b: odd = only running devices
  kindCount
};
char const * const kindNames[] = {"StatusSet", "StatusDel", "LocalSet", "LocalDel", "DevAdd",
                                  "DevDel",    "DevRename", "DevIfIndex", "NsDel",  "NsAdd",
                                  "MgrAdd",    "MgrDel",    "KoSet",    "KoDel",    "Omit"};

struct Cmd {
  int kind, a, b, c;
};

void showValue(Cmd const & cmd, std::ostream & os) {
  os << "{" << kindNames[cmd.kind] << ", " << cmd.a << ", " << cmd.b << ", " << cmd.c << "}";
}

// What a command names, resolved for a root with or without namespace filtering.
struct Args {
  Args(Cmd const & cmd, bool filter)
      : id(statusIds[cmd.a % idCount]),
        ns((cmd.kind == MgrAdd || cmd.kind == MgrDel) && !filter ? "default" : namespaceNames[cmd.a % nsCount]),
        device(deviceNames[cmd.b % deviceCount]),
        newDevice(deviceNames[cmd.c % deviceCount]),
        kernelOnlyId(kernelOnlyIds[cmd.c % 3]),
        statusDevice(deviceNames[cmd.b % (deviceCount + 1)]),
        localNs(namespaceNames[cmd.b % (nsCount + 1)]),
        flag(cmd.kind == Omit ? cmd.b % 2 == 1 : cmd.c % 2 == 1) {}
  std::string id, ns, device, newDevice, kernelOnlyId, statusDevice, localNs;
  bool flag;
};

using Published = std::map<std::string, std::string>;  // key -> "status name ifindex"

std::string row(std::string const & status, std::string const & name, uint32_t ifIndex) {
  return (status.empty() ? "-" : status) + " " + name + " " + std::to_string(ifIndex);
}

// ---- the real thing: the root, fed through its directories and hand-filled kernel link tables ----

struct System {
  explicit System(bool filter) : root(Interface::netNsIntfStatusManagerRootFactory(all, locals, filter)) {
    for (int n = 0; n < nsCount; ++n) {
      std::string const ns = namespaceNames[n];
      kernel[ns] = KernelNetInfo::Root::rootNew(Vorn::Name(ns));
      kni[ns] = KernelNetInfo::Status::statusNew(Vorn::Name(ns), NamespaceName(ns), kernel[ns]);
      kis[ns] = Interface::deviceIntfStatusDirFactory(Vorn::Name(ns));
    }
  }

  void deviceIs(std::string const & ns, uint32_t ifIndex, bool running, std::string const & name) {
    kernel[ns]->interfaceIs(KernelNetInfo::Interface(ifIndex, IFF_UP | (running ? IFF_RUNNING : 0), name));
  }

  void apply(Cmd const & cmd, bool filter) {
    Args const x(cmd, filter);
    IntfId const id(x.id);
    KernelNetInfo::Root & k = *kernel[x.ns];
    KernelNetInfo::Interface const device = k.interfaceByDeviceName(x.device);
    Vorn::Ptr<Interface::KniIntfStatusManager> const manager = root->intfStatusManager(NamespaceName(x.ns));
    switch (cmd.kind) {
      case StatusSet: {  // a new status enters the directory with its name set
        auto const s = all->intfStatus(id) ? all->intfStatus(id) : Interface::intfStatusFactory(id);
        s->deviceNameIs(x.statusDevice);
        all->intfStatusIs(s);
        break;
      }
      case StatusDel: all->intfStatusDel(id); break;
      case LocalSet: {
        auto const l = locals->intfStatusLocal(id) ? locals->intfStatusLocal(id) : Interface::intfStatusLocalFactory(id);
        l->netNsNameIs(NamespaceName(x.localNs));
        locals->intfStatusLocalIs(l);
        break;
      }
      case LocalDel: locals->intfStatusLocalDel(id); break;
      case DevAdd: deviceIs(x.ns, device ? device.ifIndex() : ++lastIfIndex[x.ns], x.flag, x.device); break;
      case DevDel: if (device) k.interfaceDel(device.ifIndex()); break;
      case DevRename:
        if (device && x.device != x.newDevice) deviceIs(x.ns, device.ifIndex(), device.isRunning(), x.newDevice);
        break;
      case DevIfIndex: if (device) deviceIs(x.ns, ++lastIfIndex[x.ns], device.isRunning(), x.device); break;
      case NsDel: k.interfaceDelAll(); break;
      case NsAdd:
        for (int d = 0; d < deviceCount; ++d) {
          if (!k.interfaceByDeviceNameHas(deviceNames[d])) deviceIs(x.ns, ++lastIfIndex[x.ns], true, deviceNames[d]);
        }
        break;
      case MgrAdd: root->intfStatusManagerIs(kis[x.ns], kni[x.ns], NamespaceName(x.ns)); break;
      case MgrDel: root->intfStatusManagerDel(NamespaceName(x.ns)); break;
      case KoSet: if (manager) manager->kernelOnlyInterfaceIs(x.device, x.kernelOnlyId); break;
      case KoDel: if (manager) manager->kernelOnlyInterfaceDel(x.device); break;
      case Omit: if (manager) manager->omitNonRunningKernelDevicesIs(x.flag); break;
    }
  }

  std::pair<Published, Published> published(std::string const & ns) {
    std::pair<Published, Published> out;
    auto const status = [](Interface::IntfStatusAndDeviceName const & r) {
      return r.intfStatus ? r.intfStatus->intfId().name().stdString() : std::string();
    };
    for (auto const & e : kis[ns]->intfStatusAndDeviceNameIter()) {
      out.first[e.key.name().stdString()] = row(status(e.value), e.value.deviceName.stdString(), e.value.ifIndex);
    }
    for (auto const & e : kis[ns]->intfStatusByIfIndexIter()) {
      out.second[std::to_string(e.key)] = row(status(e.value), e.value.deviceName.stdString(), e.value.ifIndex);
    }
    return out;
  }

  Vorn::Ptr<Interface::AllIntfStatusDir> all = Interface::allIntfStatusDirFactory("all");
  Vorn::Ptr<Interface::AllIntfStatusLocalDir> locals = Interface::allIntfStatusLocalDirFactory("locals");
  std::map<std::string, Vorn::Ptr<KernelNetInfo::Root>> kernel;
  std::map<std::string, Vorn::Ptr<KernelNetInfo::Status>> kni;
  std::map<std::string, Vorn::Ptr<Interface::DeviceIntfStatusDir>> kis;
  std::map<std::string, uint32_t> lastIfIndex;
  Vorn::Ptr<Interface::NetNsIntfStatusManagerRoot> root;
};

// ---- the reference model: the configuration it was given, and the rules as plain functions of it
// and of the inputs (statuses, local statuses and kernel devices, read from the system's fakes) ----

struct Model {
  struct Manager {
    std::map<std::string, std::string> kernelOnly;
    bool omit = false;
  };
  struct Want {
    std::string ns, name;
    uint64_t seq;
  };

  bool filter = false;
  std::map<std::string, Manager> managers;  // by namespace
  std::map<std::string, Want> wants;        // id -> what it reports, since when
  uint64_t lastSeq = 0;
  std::map<std::string, std::string> filed;  // id -> namespace whose index has it

  void apply(Cmd const & cmd, System const & in) {
    Args const x(cmd, filter);
    switch (cmd.kind) {
      case MgrAdd: managers[x.ns]; break;
      case MgrDel: managers.erase(x.ns); break;
      case KoSet: if (managers.count(x.ns)) managers[x.ns].kernelOnly[x.device] = x.kernelOnlyId; break;
      case KoDel: if (managers.count(x.ns)) managers[x.ns].kernelOnly.erase(x.device); break;
      case Omit: if (managers.count(x.ns)) managers[x.ns].omit = x.flag; break;
      default: break;
    }
    settle(in);
  }

  // Where each interface wants to be, since when, and where it is filed.
  void settle(System const & in) {
    for (char const * id : statusIds) {
      auto const status = in.all->intfStatus(IntfId(id));
      auto const local = in.locals->intfStatusLocal(IntfId(id));
      std::string const name = status ? status->deviceName().stdString() : "";
      std::string const ns = filter && local && !local->netNsName().empty() ? local->netNsName().name().stdString() : "default";
      if (name.empty()) {
        wants.erase(id);
        filed.erase(id);
        continue;
      }
      auto const want = wants.find(id);
      if (want == wants.end() || want->second.ns != ns || want->second.name != name) wants[id] = {ns, name, ++lastSeq};
      // Filed in its own namespace's index; while that has none, where it was, while that one lasts.
      if (managers.count(ns)) {
        filed[id] = ns;
      } else if (filed.count(id) && !managers.count(filed[id])) {
        filed.erase(id);
      }
    }
  }

  // A namespace's index: each device name to the interface that claimed it last.
  std::map<std::string, std::string> index(std::string const & ns) const {
    std::map<std::string, std::string> out;
    std::map<std::string, uint64_t> seqOf;
    for (auto const & [id, where] : filed) {
      Want const & w = wants.at(id);
      if (where != ns || (seqOf.count(w.name) && seqOf[w.name] > w.seq)) continue;
      seqOf[w.name] = w.seq;
      out[w.name] = id;
    }
    return out;
  }

  // What a namespace's DeviceIntfStatusDir holds, by id and by ifindex: each interface under one
  // present device name that leads to it, an indexed name before a kernel-only one, then the smallest.
  std::pair<Published, Published> published(std::string const & ns, System const & in) const {
    std::pair<Published, Published> out;
    auto const manager = managers.find(ns);
    if (manager == managers.end()) return out;
    auto const idx = index(ns);
    std::set<std::string> names;
    for (auto const & e : idx) names.insert(e.first);
    for (auto const & e : manager->second.kernelOnly) names.insert(e.first);
    std::map<std::string, std::pair<std::string, bool>> best;  // id -> its device name, indexed
    for (std::string const & name : names) {
      bool const indexed = idx.count(name) > 0;
      std::string const id = indexed ? idx.at(name) : manager->second.kernelOnly.at(name);
      KernelNetInfo::Interface const device = in.kernel.at(ns)->interfaceByDeviceName(name);
      if (!device || (manager->second.omit && !device.isRunning())) continue;
      auto const b = best.find(id);  // names come in order: the first is the smallest
      if (b == best.end() || (indexed && !b->second.second)) best[id] = {name, indexed};
    }
    for (auto const & [id, c] : best) {
      uint32_t const ifIndex = in.kernel.at(ns)->interfaceByDeviceName(c.first).ifIndex();
      std::string const r = row(c.second ? id : "", c.first, ifIndex);
      out.first[id] = r;
      out.second[std::to_string(ifIndex)] = r;
    }
    return out;
  }
};

std::string text(Published const & p) {
  std::string out;
  for (auto const & [k, v] : p) out += " [" + k + ": " + v + "]";
  return out.empty() ? " (none)" : out;
}

// Applies the commands to both; the first difference, described, or "".
std::string runSequence(std::vector<Cmd> const & cmds, bool filter) {
  System system(filter);
  Model model;
  model.filter = filter;
  for (size_t i = 0; i < cmds.size(); ++i) {
    system.apply(cmds[i], filter);
    model.apply(cmds[i], system);
    for (int n = 0; n < nsCount; ++n) {
      auto const real = system.published(namespaceNames[n]);
      auto const expected = model.published(namespaceNames[n], system);
      if (real == expected) continue;
      std::ostringstream os;
      showValue(cmds[i], os);
      return "after command " + std::to_string(i) + " " + os.str() + ", namespace " + namespaceNames[n] +
             "\n  by id:      " + text(real.first) + "\n  expected:   " + text(expected.first) +
             "\n  by ifindex: " + text(real.second) + "\n  expected:   " + text(expected.second);
    }
  }
  return "";
}

// Runs `body` in a child process: what it returns, or how the child died with what it wrote.
std::string isolated(std::function<std::string()> const & body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  pid_t const pid = fork();
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], STDERR_FILENO);  // an assertion's report comes back with the result
    std::string const result = body();
    ssize_t const written = write(fds[1], result.data(), result.size());
    _exit(written == static_cast<ssize_t>(result.size()) ? 0 : 3);
  }
  close(fds[1]);
  std::string out;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status)) return "died of signal " + std::to_string(WTERMSIG(status)) + ": " + out;
  return out;
}

// Commands that change much come more often than those that mostly find nothing to change.
rc::Gen<Cmd> command() {
  auto const kind = rc::gen::map(rc::gen::inRange(0, kindCount + 6), [](int k) {
    int const often[] = {StatusSet, DevAdd, MgrAdd};  // each three times as likely as the others
    return k < kindCount ? k : often[(k - kindCount) % 3];
  });
  return rc::gen::construct<Cmd>(kind, rc::gen::inRange(0, 5), rc::gen::inRange(0, 5), rc::gen::inRange(0, 5));
}

RC_GTEST_PROP(DeviceIndexModel, PublishedStateFollowsTheModel, ()) {
  bool const filter = *rc::gen::arbitrary<bool>();
  auto const cmds = *rc::gen::container<std::vector<Cmd>>(command());
  std::string const failure = isolated([&] { return runSequence(cmds, filter); });
  RC_ASSERT(failure == std::string());
}

// The shortest failures the property found (against the code before the fixes, and since), kept.
struct Regression {
  char const * name;
  bool filter;
  std::vector<Cmd> cmds;
};

std::vector<Regression> const regressions = {
    // The manager went, its entries (by id and by ifindex) stayed.
    {"manager deleted", false, {{NsAdd, 0, 0, 0}, {StatusSet, 0, 0, 0}, {MgrAdd, 0, 0, 0}, {MgrDel, 0, 0, 0}}},
    // Ethernet2 took et1 from Ethernet1: both stayed published by id, on one ifindex.
    {"a duplicate", false, {{NsAdd, 0, 0, 0}, {StatusSet, 0, 0, 0}, {MgrAdd, 0, 0, 0}, {StatusSet, 1, 0, 0}}},
    // Which of two claimants held a name depended on the order a manager's start-up pass visited them.
    {"two claimants when the manager comes", false,
     {{StatusSet, 1, 0, 0}, {StatusSet, 0, 0, 0}, {MgrAdd, 0, 0, 0}, {NsAdd, 0, 0, 0}}},
    // Ethernet1 left et2 for et1; et2's key went with it although Ethernet2 still reported et2.
    {"the loser of a duplicate moving on", false,
     {{MgrAdd, 0, 0, 0}, {StatusSet, 1, 1, 0}, {StatusSet, 0, 1, 0}, {StatusSet, 0, 0, 0}, {NsAdd, 0, 0, 0}}},
    // Ethernet1 et1 -> et2, then Ethernet2 et2 -> et1: aborted on the ifindex assertion.
    {"swapped device names", false,
     {{MgrAdd, 0, 0, 0}, {NsAdd, 0, 0, 0}, {StatusSet, 0, 0, 0}, {StatusSet, 1, 1, 0}, {StatusSet, 0, 1, 0},
      {StatusSet, 1, 0, 0}}},
    // Deleting the manager left both entries; re-creating it over a device with a new ifindex aborted.
    {"manager re-created over a new ifindex", false,
     {{MgrAdd, 0, 0, 0}, {DevAdd, 0, 0, 1}, {StatusSet, 0, 0, 0}, {MgrDel, 0, 0, 0}, {DevIfIndex, 0, 0, 0},
      {MgrAdd, 0, 0, 0}}},
    // A kernel-only device's by-ifindex entry stayed after each of the three ways it goes.
    {"kernel-only device deleted", false, {{MgrAdd, 0, 0, 0}, {DevAdd, 0, 0, 1}, {KoSet, 0, 0, 0}, {KoDel, 0, 0, 0}}},
    {"kernel-only device gone from the kernel", false,
     {{MgrAdd, 0, 0, 0}, {DevAdd, 0, 0, 1}, {KoSet, 0, 0, 0}, {DevDel, 0, 0, 0}}},
    {"kernel-only device stops running", false,
     {{MgrAdd, 0, 0, 0}, {DevAdd, 0, 0, 1}, {KoSet, 0, 0, 0}, {Omit, 0, 1, 0}, {DevAdd, 0, 0, 0}}},
    // Waiting for blue's index, its local status went: it stayed unindexed in the default namespace.
    {"local status of a waiting interface removed", true,
     {{MgrAdd, 0, 0, 0}, {NsAdd, 0, 0, 0}, {LocalSet, 0, 1, 0}, {StatusSet, 0, 0, 0}, {LocalDel, 0, 0, 0}}},
};

TEST(DeviceIndexModel, RegressionCases) {
  for (Regression const & r : regressions) {
    EXPECT_EQ(isolated([&] { return runSequence(r.cmds, r.filter); }), "") << r.name;
  }
}

}  // namespace
