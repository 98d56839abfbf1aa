// The oper-state root against a model, over the fake platform: random sequences of what an agent and
// the kernel do (statuses and local statuses inserted, replaced, re-inserted and deleted; operStatus
// over every value, mapped or not; device names, duplicates included; namespace moves; namespaces
// appearing and going). After every command the requests sent, the sockets open and the cache equal
// what a few plain functions decide from the commands.
//
// A fixed seed and a few hundred sequences by default; more, or another seed, on demand:
//   RC_PARAMS="max_success=20000 seed=7" build/tests/unit_tests --gtest_filter='*OperStateModel*'
// A failure prints the shortest sequence RapidCheck found; each such sequence stays below as a case.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <cstdlib>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "intfsm/KernelOperState/Root.h"
#include "tests/support/ModuleTest.h"

namespace {

[[maybe_unused]] int const rcDefaults = setenv("RC_PARAMS", "seed=18 max_success=300", /*overwrite=*/0);

using Kind = IntfsmTest::FakePlatform::Kind;
using Ovel::IntfId;
using Ovel::NamespaceName;

char const * const ids[] = {"Ethernet1", "Ethernet2", "Ethernet3"};
char const * const devices[] = {"", "et1", "et2"};
char const * const localNames[] = {"", "default", "blue", "red", "green"};  // green never exists
char const * const namespaces[] = {"default", "blue", "red"};

struct Command {
  enum Op : uint8_t {
    statusNew,       // a new IntfStatus for ids[id] (device a, operStatus b) into the directory
    statusReinsert,  // the status last made for ids[id], into the directory again
    statusDel,
    operStatusIs,    // on the status last made for ids[id], in the directory or not
    deviceNameIs,
    localNew,        // a new IntfStatusLocal (netNsName localNames[a]) into the directory
    localDel,
    netNsNameIs,
    namespaceIs,     // namespaces[id] exists
    namespaceDel,
    ops
  } op;
  uint8_t id, a, b;
};

void showValue(Command const & c, std::ostream & os) {
  static char const * const names[] = {"statusNew",  "statusReinsert", "statusDel",   "operStatusIs", "deviceNameIs",
                                       "localNew",   "localDel",       "netNsNameIs", "namespaceIs",  "namespaceDel"};
  os << names[c.op] << "(";
  if (c.op >= Command::namespaceIs) {
    os << namespaces[c.id % 3] << ")";
    return;
  }
  os << ids[c.id % 3];
  if (c.op == Command::statusNew) os << ", \"" << devices[c.a % 3] << "\", " << c.b % 9;
  if (c.op == Command::operStatusIs) os << ", " << c.b % 9;
  if (c.op == Command::deviceNameIs) os << ", \"" << devices[c.a % 3] << "\"";
  if (c.op == Command::localNew || c.op == Command::netNsNameIs) os << ", \"" << localNames[c.a % 5] << "\"";
  os << ")";
}

// ---- the model ---------------------------------------------------------------------------------

// The kernel operstate sent for a status: 1 is up (6), 2, 5, 6 and 7 are dormant (5), others nothing.
int kernelValue(int operStatus) {
  if (operStatus == 1) return 6;
  return operStatus == 2 || operStatus == 5 || operStatus == 6 || operStatus == 7 ? 5 : -1;
}

struct Model {
  struct Status {
    std::string device;
    int operStatus;
    bool inDir;
  };
  struct Local {
    std::string netNsName;
    bool inDir;
  };
  std::optional<Status> status[3];
  std::optional<Local> local[3];
  std::map<std::string, bool> exists;  // namespaces
};

// "<namespace> <device> <operstate>" of the request that syncing interface `i` sends, or "".
std::string requestOf(Model const & m, int i) {
  if (!m.status[i] || !m.status[i]->inDir) return "";
  std::string ns = "default";
  if (m.local[i] && m.local[i]->inDir && !m.local[i]->netNsName.empty()) ns = m.local[i]->netNsName;
  int const value = kernelValue(m.status[i]->operStatus);
  if (m.status[i]->device.empty() || value < 0) return "";
  return ns + " " + m.status[i]->device + " " + std::to_string(value);
}

// Applies `c` to the model; true when it makes the state machine sync interface c.id.
bool apply(Model & m, Command const & c) {
  int const i = c.id % 3;
  auto & status = m.status[i];
  auto & local = m.local[i];
  switch (c.op) {
    case Command::statusNew:
      status = Model::Status{devices[c.a % 3], c.b % 9, true};
      return true;
    case Command::statusReinsert: {
      bool const changed = status && !status->inDir;
      if (status) status->inDir = true;
      return changed;
    }
    case Command::statusDel:
      if (status) status->inDir = false;
      return false;
    case Command::operStatusIs: {
      bool const changed = status && status->operStatus != c.b % 9;
      if (status) status->operStatus = c.b % 9;
      return changed && status->inDir;
    }
    case Command::deviceNameIs: {
      bool const changed = status && status->device != devices[c.a % 3];
      if (status) status->device = devices[c.a % 3];
      return changed && status->inDir;
    }
    case Command::localNew:
      local = Model::Local{localNames[c.a % 5], true};
      return true;
    case Command::localDel:
      if (local) local->inDir = false;
      return false;
    case Command::netNsNameIs: {
      bool const changed = local && local->netNsName != localNames[c.a % 5];
      if (local) local->netNsName = localNames[c.a % 5];
      return changed && local->inDir;
    }
    case Command::namespaceIs:
      m.exists[namespaces[c.id % 3]] = true;
      return false;
    case Command::namespaceDel:
      m.exists.erase(namespaces[c.id % 3]);
      return false;
    default:
      return false;
  }
}

// ---- the system --------------------------------------------------------------------------------

class KernelOperStateModel : public IntfsmTest::ModuleTest {
 protected:
  KernelOperStateModel() : ModuleTest("KernelOperState") {}

  // Runs `commands` against the root and the model, checking after each.
  void run(std::vector<Command> const & commands) {
    auto sm = root->intfStatusOperStatusSmIs(dir, localDir, kosm, netNs);
    Model m;
    std::map<int, std::string> nsOfSocket;
    for (Command const & c : commands) {
      int const i = c.id % 3;
      fake.clearCalls();
      trace.clear();
      bool const syncs = apply(m, c);
      std::string const expected = syncs ? requestOf(m, i) : "";
      execute(c);

      for (auto const & call : fake.calls(Kind::socketAt)) nsOfSocket[static_cast<int>(call.result)] = call.text;
      std::string sent;
      for (auto const & r : fake.operStateRequests()) {
        sent += (sent.empty() ? "" : "; ") + nsOfSocket[r.sd] + " " + r.deviceName + " " + std::to_string(r.operState);
        // A namespace with a cached socket is sent to on it; any other on a local one.
        RC_ASSERT(kosm->nsNetlinkSockFdHas(NamespaceName(nsOfSocket[r.sd])) ==
                  (kosm->nsNetlinkSockFd(NamespaceName(nsOfSocket[r.sd])) == r.sd));
        RC_ASSERT(r.tag == 111);
      }
      RC_ASSERT(sent == expected);
      if (syncs) RC_ASSERT(trace.contains("doSyncIntfStatus( " + std::string(ids[i]) + " )"));
      if (c.op < Command::namespaceIs && !traces().empty()) {
        bool const onLocal = c.op >= Command::localNew;
        RC_ASSERT(traces().front() ==
                  std::string(onLocal ? "handleNetNsName( " : "handleOperStatusOrDeviceName( ") + ids[i] + " )");
      }

      // One cached socket per namespace that exists, opened there; nothing else open; no state
      // besides the cache.
      std::vector<int> cached;
      for (auto const & e : kosm->nsNetlinkSockFdIter()) {
        RC_ASSERT(m.exists.count(std::string(e.key.charPtr())) == 1u);
        RC_ASSERT(nsOfSocket[e.value] == std::string(e.key.charPtr()));
        cached.push_back(e.value);
      }
      std::sort(cached.begin(), cached.end());
      RC_ASSERT(cached.size() == m.exists.size());
      RC_ASSERT(fake.openDescriptors() == cached);
      RC_ASSERT(kosm->decidedOperStates() == 0u);
      RC_ASSERT(!kosm->linkMonitor(NamespaceName("blue")));
    }
  }

  void execute(Command const & c) {
    int const i = c.id % 3;
    IntfId const id(ids[i]);
    switch (c.op) {
      case Command::statusNew:
        status[i] = Interface::intfStatusFactory(id);
        status[i]->deviceNameIs(devices[c.a % 3]);
        status[i]->operStatusIs(Interface::IntfOperStatus(c.b % 9));
        dir->intfStatusIs(status[i]);
        break;
      case Command::statusReinsert:
        if (status[i]) dir->intfStatusIs(status[i]);
        break;
      case Command::statusDel:
        dir->intfStatusDel(id);
        break;
      case Command::operStatusIs:
        if (status[i]) status[i]->operStatusIs(Interface::IntfOperStatus(c.b % 9));
        break;
      case Command::deviceNameIs:
        if (status[i]) status[i]->deviceNameIs(devices[c.a % 3]);
        break;
      case Command::localNew:
        local[i] = Interface::intfStatusLocalFactory(id);
        local[i]->netNsNameIs(NamespaceName(localNames[c.a % 5]));
        localDir->intfStatusLocalIs(local[i]);
        break;
      case Command::localDel:
        localDir->intfStatusLocalDel(id);
        break;
      case Command::netNsNameIs:
        if (local[i]) local[i]->netNsNameIs(NamespaceName(localNames[c.a % 5]));
        break;
      case Command::namespaceIs:
        netNs->namespaceIs(NamespaceName(namespaces[i]), 1 + i);
        break;
      case Command::namespaceDel:
        netNs->namespaceDel(NamespaceName(namespaces[i]));
        break;
      default:
        break;
    }
  }

  Vorn::Ptr<KernelOperState::Root> root = KernelOperState::rootFactory("kos");
  Vorn::Ptr<KernelOperState::IntfStatusDir> dir = root->intfStatusDirIs("intfStatus");
  Vorn::Ptr<KernelOperState::IntfStatusLocalDir> localDir = root->intfStatusLocalDirIs("intfStatusLocal");
  Vorn::Ptr<KernelNetNsInfo::Root> netNs = root->netNsCollectionIs("netNs");
  Vorn::Ptr<KernelOperState::KernelOperStateManager> kosm = root->kosmIs();
  Vorn::Ptr<Interface::IntfStatus> status[3];
  Vorn::Ptr<Interface::IntfStatusLocal> local[3];
};

}  // namespace

namespace rc {
template <>
struct Arbitrary<Command> {
  static Gen<Command> arbitrary() {
    return gen::construct<Command>(gen::cast<Command::Op>(gen::inRange<int>(0, Command::ops)),
                                   gen::inRange<uint8_t>(0, 3), gen::inRange<uint8_t>(0, 5),
                                   gen::inRange<uint8_t>(0, 9));
  }
};
}  // namespace rc

RC_GTEST_FIXTURE_PROP(KernelOperStateModel, EveryCommandSendsWhatTheModelDecides, (std::vector<Command> const & commands)) {
  run(commands);
}
