// The module's subsystems: oper-state into the kernel, the device-name index, kernel interface
// status per namespace, packet access and the simple managers, each through its factories and the
// entities an agent wires and sets. The collections of registered types are left to generic access
// (dir.intfStatus["Ethernet1"], len(dir.intfStatus), ...: see Generic.cpp), so that no typed method
// hides the mapping of the same name.
#include <linux/filter.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Bindings.h"
#include "Watch.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/IntfByDevice/IntfByDevice.h"
#include "intfsm/KernelOperState/KernelOperState.h"
#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"
#include "intfsm/KniIntfStatusManager/NetNsIntfStatusManagerRoot.h"
#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"
#include "intfsm/SimpleTxRxPktManager/internal/Trace.h"
#include "intfsm/foundation/brisklog/Brisklog.h"
#include "intfsm/foundation/kernel/KernelNetNsManager.h"
#include "intfsm/foundation/ovel/SockFilterProgram.h"

namespace pybind11::detail {

// A classic BPF program as a list of (code, jt, jf, k) tuples, both ways.
template <>
struct type_caster<Ovel::SockFilterProgram> {
  PYBIND11_TYPE_CASTER(Ovel::SockFilterProgram, const_name("list[tuple[int, int, int, int]]"));
  bool load(handle src, bool) {
    if (!isinstance<sequence>(src) || isinstance<str>(src)) return false;
    std::vector<sock_filter> instructions;
    for (handle item : reinterpret_borrow<sequence>(src)) {
      auto t = reinterpret_borrow<tuple>(item);
      if (!isinstance<tuple>(item) || t.size() != 4) return false;
      instructions.push_back(sock_filter{t[0].cast<uint16_t>(), t[1].cast<uint8_t>(), t[2].cast<uint8_t>(),
                                         t[3].cast<uint32_t>()});
    }
    value = Ovel::SockFilterProgram(std::move(instructions));
    return true;
  }
  static handle cast(Ovel::SockFilterProgram const & p, return_value_policy, handle) {
    list out;
    for (size_t i = 0; i < p.len(); ++i) {
      auto const & f = p.instruction(i);
      out.append(make_tuple(f.code, f.jt, f.jf, f.k));
    }
    return out.release();
  }
};

}  // namespace pybind11::detail

namespace IntfsmPython {

namespace {

template <class T>
using Class = py::class_<T, Vorn::Entity, Vorn::Ptr<T>>;

// A receiver written in Python: handleRx, handleOutputPam and handlePamCollectionChange may be
// overridden by a subclass. The Python object must stay alive while frames are to reach it (the
// library holds no reference to the Python side).
class PySimpleTxRxPktManager : public Interface::SimpleTxRxPktManager {
 public:
  using SimpleTxRxPktManager::SimpleTxRxPktManager;
  void handleRx(Vorn::Ptr<Ovel::Pam> const & pam, Ovel::IntfId const & intfId,
                Vorn::Ptr<Ovel::Pkt> const & pkt) override {
    PYBIND11_OVERRIDE(void, SimpleTxRxPktManager, handleRx, pam, intfId, pkt);
  }
  void handleOutputPam(Ovel::IntfId const & intfId) override {
    PYBIND11_OVERRIDE(void, SimpleTxRxPktManager, handleOutputPam, intfId);
  }
  void handlePamCollectionChange(Ovel::IntfId const & intfId) override {
    PYBIND11_OVERRIDE(void, SimpleTxRxPktManager, handlePamCollectionChange, intfId);
  }
};

class SimpleTxRxPktManagerWatcher : public Watcher<Interface::SimpleTxRxPktManager> {
 public:
  using Watcher::Watcher;
  INTFSM_ON(desiredIntfDir, DesiredIntfDir)
  INTFSM_ON(pamCollection, PamCollection)
  INTFSM_ON_KEY(pam, Pam, Ovel::IntfId)
  INTFSM_ON(ethDevPamManager, EthDevPamManager)
  INTFSM_ON(numSent, NumSent)
  INTFSM_ON(numRcvd, NumRcvd)
  INTFSM_ON(numBadRcvd, NumBadRcvd)
  INTFSM_ON(bpfFilterLen, BpfFilterLen)
  INTFSM_ON(bpfFilter, BpfFilter)
  INTFSM_ON(initializedTxRx, InitializedTxRx)
};
class PamDesiredIntfDirWatcher : public Watcher<Interface::PamDesiredIntfDir> {
 public:
  using Watcher::Watcher;
  INTFSM_ON_KEY(intfDesired, IntfDesired, Ovel::IntfId)
};
class EthDevPamCollectionWatcher : public Watcher<Interface::EthDevPamCollection> {
 public:
  using Watcher::Watcher;
  INTFSM_ON_KEY(intfPam, IntfPam, Ovel::IntfId)
};

// While it lives, keeps the texts of one trace handle's level-0 (anomaly) lines, with level 0 turned on
// for the time being, and passes every other line on to where it went before (a level-0 line too when
// the level was on already): how a call that only returns false gets the library's reason to raise.
class AnomalyCapture : public Brisklog::Sink {
 public:
  explicit AnomalyCapture(Brisklog::Handle & handle)
      : handle_(handle), levels_(handle.levels()), previous_(Brisklog::sink()) {
    Brisklog::sinkIs(this);
    handle_.levelsIs(levels_ | 1u);
  }
  ~AnomalyCapture() override {
    handle_.levelsIs(levels_);
    Brisklog::sinkIs(previous_);
  }
  void lineIs(Brisklog::Line const & line) override {
    if (line.level == 0 && std::strcmp(line.module, handle_.module()) == 0) {
      if (!texts_.empty()) texts_ += "; ";
      texts_ += line.text;
      if (!(levels_ & 1u)) return;
    }
    if (previous_) {
      previous_->lineIs(line);
      return;
    }
    std::string const text = Brisklog::lineText(line);  // the default output, as without us
    std::string const file = Brisklog::outputFile();
    if (FILE * out = file.empty() ? stderr : std::fopen(file.c_str(), "a")) {
      std::fputs(text.c_str(), out);
      if (out != stderr) std::fclose(out);
    }
  }
  std::string const & texts() const { return texts_; }

 private:
  Brisklog::Handle & handle_;
  uint16_t const levels_;
  Brisklog::Sink * previous_;
  std::string texts_;
};

// applyFilter for scripts: true, or ValueError with the library's reason; nothing changes then.
bool applyFilterOrRaise(Interface::SimpleTxRxPktManager & manager, Vorn::String const & text) {
  std::string reason;
  bool applied;
  {
    AnomalyCapture capture(Interface::simpleTxRxPktManagerTrace);
    applied = manager.applyFilter(text);
    reason = capture.texts();
  }
  if (!applied) throw Vorn::RangeException(reason.empty() ? "applyFilter: the filter was not applied" : reason);
  return true;
}

py::object bpfFilterOf(Interface::SimpleTxRxPktManager const & m) {
  if (!m.bpfFilter()) return py::none();
  return py::cast(Ovel::SockFilterProgram(m.bpfFilter(), m.bpfFilterLen()));
}

void bindKernelOperState(py::module_ & top) {
  auto m = top.def_submodule("KernelOperState", "Operational status of interfaces into the kernel");
  using namespace KernelOperState;
  py::class_<KernelOperStateManager, Vorn::Notifier, Vorn::Ptr<KernelOperStateManager>>(m, "KernelOperStateManager");
  py::class_<IntfStatusOperStatusSm, Vorn::Notifier, Vorn::Ptr<IntfStatusOperStatusSm>>(m, "IntfStatusOperStatusSm");
  Class<IntfStatusDir>(m, "IntfStatusDir")
      .def("intfStatusIs", &IntfStatusDir::intfStatusIs, py::arg("status"))
      .def("intfStatusDel", &IntfStatusDir::intfStatusDel, py::arg("intfId"))
      .def_property_readonly("intfStatuss", &IntfStatusDir::intfStatuss);
  Class<IntfStatusLocalDir>(m, "IntfStatusLocalDir")
      .def("intfStatusLocalIs", &IntfStatusLocalDir::intfStatusLocalIs, py::arg("local"))
      .def("intfStatusLocalDel", &IntfStatusLocalDir::intfStatusLocalDel, py::arg("intfId"))
      .def_property_readonly("intfStatusLocals", &IntfStatusLocalDir::intfStatusLocals);
  Class<Root>(m, "Root")
      .def(py::init(&rootFactory), py::arg("name"))
      .def_property_readonly("kosm", &Root::kosm)
      .def("kosmIs", &Root::kosmIs)
      .def_property_readonly("intfStatusDir", &Root::intfStatusDir)
      .def("intfStatusDirIs", &Root::intfStatusDirIs, py::arg("name"))
      .def_property_readonly("intfStatusLocalDir", &Root::intfStatusLocalDir)
      .def("intfStatusLocalDirIs", &Root::intfStatusLocalDirIs, py::arg("name"))
      .def_property_readonly("netNsCollection", &Root::netNsCollection)
      .def("netNsCollectionIs", &Root::netNsCollectionIs, py::arg("name"))
      .def_property_readonly("netNsManager", &Root::netNsManager)
      .def("netNsManagerIs", &Root::netNsManagerIs, py::arg("root"))
      .def_property_readonly("intfStatusOperStatusSm", &Root::intfStatusOperStatusSm)
      .def("intfStatusOperStatusSmIs", &Root::intfStatusOperStatusSmIs, py::arg("intfStatusDir"),
           py::arg("intfStatusLocalDir"), py::arg("kosm"), py::arg("netNsCollection"))
      .def_property("operStateConvergence", &Root::operStateConvergence, &Root::operStateConvergenceIs);
  m.def("rootFactory", &rootFactory, py::arg("name"));
}

void bindIndexes(py::module_ & m) {
  using namespace Interface;
  Class<IntfStatusIndexDir>(m, "IntfStatusIndexDir")
      .def_property_readonly("intfStatuss", &IntfStatusIndexDir::intfStatuss);
  m.def("intfStatusIndexDirFactory", &intfStatusIndexDirFactory, py::arg("name"));
  Class<NetNsIntfStatusIndexDir>(m, "NetNsIntfStatusIndexDir");
  m.def("netNsIntfStatusIndexDirFactory", &netNsIntfStatusIndexDirFactory, py::arg("name"));
  Class<AllIntfDeviceNameReactor>(m, "AllIntfDeviceNameReactor")
      .def_property("filterByNetNs", &AllIntfDeviceNameReactor::filterByNetNs,
                    &AllIntfDeviceNameReactor::filterByNetNsIs);
  m.def("allIntfDeviceNameReactorFactory", &allIntfDeviceNameReactorFactory, py::arg("allIntfStatusDir"),
        py::arg("allIntfStatusLocalDir"), py::arg("intf"), py::arg("netNs"));

  Class<NetNsIntfIdMap>(m, "NetNsIntfIdMap");
  Class<NetNsKernelIntfStatusDir>(m, "NetNsKernelIntfStatusDir");
  Class<KniAllIntfDeviceNameReactor>(m, "KniAllIntfDeviceNameReactor");
  Class<KniIntfStatusManager>(m, "KniIntfStatusManager");
  Class<NetNsIntfStatusManagerRoot>(m, "NetNsIntfStatusManagerRoot")
      .def("intfStatusManagerIs", &NetNsIntfStatusManagerRoot::intfStatusManagerIs, py::arg("kernelIntfStatusDir"),
           py::arg("kniStatus"), py::arg("netNs"));
  m.def("netNsIntfStatusManagerRootFactory", &netNsIntfStatusManagerRootFactory, py::arg("allIntfStatusDir"),
        py::arg("allIntfStatusLocalDir"), py::arg("filterByNetNs") = false);
}

void bindPacketAccess(py::module_ & m) {
  using namespace Interface;
  Class<PamDesiredIntfDir>(m, "PamDesiredIntfDir")
      .def(py::init(&pamDesiredIntfDirFactory), py::arg("name"))
      .def("intfDesiredIs", &PamDesiredIntfDir::intfDesiredIs, py::arg("intfId"), py::arg("desired"))
      .def("intfDesiredDel", &PamDesiredIntfDir::intfDesiredDel, py::arg("intfId"))
      .def_property_readonly("intfDesireds", &PamDesiredIntfDir::intfDesireds);
  m.def("pamDesiredIntfDirFactory", &pamDesiredIntfDirFactory, py::arg("name"));
  Class<EthDevPamCollection>(m, "EthDevPamCollection")
      .def(py::init(&ethDevPamCollectionFactory), py::arg("name"))
      .def_property_readonly("intfPams", &EthDevPamCollection::intfPams);
  m.def("ethDevPamCollectionFactory", &ethDevPamCollectionFactory, py::arg("name"));
  Class<EthDevPamInBundleHolder>(m, "EthDevPamInBundleHolder");
  Class<EthDevPamHolder>(m, "EthDevPamHolder");
  py::class_<EthDevPamBundle, Ovel::EthDevPamBase, Vorn::Ptr<EthDevPamBundle>>(m, "EthDevPamBundle");
  py::class_<EthDevPamBundleFdSm, Vorn::Notifier, Vorn::Ptr<EthDevPamBundleFdSm>>(m, "EthDevPamBundleFdSm");
  py::class_<EthDevPamBundleActivitySm, Vorn::Notifier, Vorn::Ptr<EthDevPamBundleActivitySm>>(
      m, "EthDevPamBundleActivitySm");
  Class<EthDevPamManagerBase>(m, "EthDevPamManagerBase")
      .def_property("enabled", &EthDevPamManagerBase::enabled, &EthDevPamManagerBase::enabledIs)
      .def_property("ethProtocol", &EthDevPamManagerBase::ethProtocol, &EthDevPamManagerBase::ethProtocolIs)
      .def_property("maxRxPktData", &EthDevPamManagerBase::maxRxPktData, &EthDevPamManagerBase::maxRxPktDataIs)
      .def_property("filterProgram", &EthDevPamManagerBase::filterProgram, &EthDevPamManagerBase::filterProgramIs);
  py::class_<EthDevPamManager, EthDevPamManagerBase, Vorn::Ptr<EthDevPamManager>>(m, "EthDevPamManager")
      .def("handleInitialized", &EthDevPamManager::handleInitialized)
      .def_property("sockPrio", &EthDevPamManager::sockPrio, &EthDevPamManager::sockPrioIs)
      .def_property("sockRcvBuf", &EthDevPamManager::sockRcvBuf, &EthDevPamManager::sockRcvBufIs)
      .def_property("separateDot1QHdr", &EthDevPamManager::separateDot1QHdr, &EthDevPamManager::separateDot1QHdrIs)
      .def_property("enableBulkPamRead", &EthDevPamManager::enableBulkPamRead,
                    &EthDevPamManager::enableBulkPamReadIs)
      .def_property("pktReuse", &EthDevPamManager::pktReuse, &EthDevPamManager::pktReuseIs)
      .def_property("socketReadLimit", &EthDevPamManager::socketReadLimit, &EthDevPamManager::socketReadLimitIs)
      .def_property("rxRing", &EthDevPamManager::rxRing, &EthDevPamManager::rxRingIs)
      .def_property_readonly("edpBundle", &EthDevPamManager::edpBundle);
  m.def("ethDevPamManagerFactory", &ethDevPamManagerFactory, py::arg("desiredIntfDir"), py::arg("pamCollection"),
        py::arg("deviceIntfStatusDir"));
  Class<EthBridgeIntfFilter>(m, "EthBridgeIntfFilter");
  m.def("ethBridgeIntfFilterFactory", &ethBridgeIntfFilterFactory, py::arg("deviceIntfStatusDir"),
        py::arg("desiredIntfDir"));
}

void bindSimpleManagers(py::module_ & m) {
  using namespace Interface;
  Class<BaseSimpleEthDevPamManager>(m, "BaseSimpleEthDevPamManager")
      .def_property_readonly("deviceIntfStatusDir", &BaseSimpleEthDevPamManager::deviceIntfStatusDir)
      .def_property_readonly("desiredIntfDir", &BaseSimpleEthDevPamManager::desiredIntfDir)
      .def_property_readonly("pamCollection", &BaseSimpleEthDevPamManager::pamCollection)
      .def_property_readonly("ethDevPamManager", &BaseSimpleEthDevPamManager::ethDevPamManager);
  py::class_<SimpleEthDevPamManager, BaseSimpleEthDevPamManager, Vorn::Ptr<SimpleEthDevPamManager>>(
      m, "SimpleEthDevPamManager")
      .def(py::init(&simpleEthDevPamManagerFactory), py::arg("allIntfStatusDir"), py::arg("allIntfStatusLocalDir"),
           py::arg("kniStatus"))
      .def_property_readonly("intfStatusManagerRoot", &SimpleEthDevPamManager::intfStatusManagerRoot)
      .def_property("initialized", &SimpleEthDevPamManager::initialized, &SimpleEthDevPamManager::initializedIs);
  m.def("simpleEthDevPamManagerFactory", &simpleEthDevPamManagerFactory, py::arg("allIntfStatusDir"),
        py::arg("allIntfStatusLocalDir"), py::arg("kniStatus"));

  py::class_<SimpleTxRxPktManager, Vorn::Entity, PySimpleTxRxPktManager, Vorn::Ptr<SimpleTxRxPktManager>>(
      m, "SimpleTxRxPktManager")
      .def(py::init<Vorn::Ptr<DeviceIntfStatusDir const> const &, Vorn::Ptr<EthDevPamCollection> const &>(),
           py::arg("deviceIntfStatusDir"), py::arg("pamCollection") = nullptr)
      .def_property_readonly("deviceIntfStatusDir", &SimpleTxRxPktManager::deviceIntfStatusDir)
      .def_property_readonly("desiredIntfDir", &SimpleTxRxPktManager::desiredIntfDir)
      .def("desiredIntfDirIs", py::overload_cast<Vorn::Name const &>(&SimpleTxRxPktManager::desiredIntfDirIs),
           py::arg("name"))
      .def("desiredIntfDirIs",
           py::overload_cast<Vorn::Ptr<PamDesiredIntfDir> const &>(&SimpleTxRxPktManager::desiredIntfDirIs),
           py::arg("dir"))
      .def_property_readonly("pamCollection", &SimpleTxRxPktManager::pamCollection)
      .def("pam",
           [](SimpleTxRxPktManager const & s, Ovel::IntfId const & id) -> Vorn::Ptr<Ovel::Pam> {
             auto reactor = s.pam(id);
             return reactor ? Vorn::Ptr<Ovel::Pam>(const_cast<Ovel::Pam *>(reactor->notifier().ptr())) : nullptr;
           },
           py::arg("intfId"), "The Pam read for the interface, or None.")
      .def_property_readonly("pams", &SimpleTxRxPktManager::pams)
      .def_property_readonly("ethDevPamManager", &SimpleTxRxPktManager::ethDevPamManager)
      .def_property("numSent", &SimpleTxRxPktManager::numSent, &SimpleTxRxPktManager::numSentIs)
      .def_property("numRcvd", &SimpleTxRxPktManager::numRcvd, &SimpleTxRxPktManager::numRcvdIs)
      .def_property("numBadRcvd", &SimpleTxRxPktManager::numBadRcvd, &SimpleTxRxPktManager::numBadRcvdIs)
      .def_property_readonly("bpfFilterLen", &SimpleTxRxPktManager::bpfFilterLen)
      .def_property_readonly("bpfFilter", &bpfFilterOf, "The filter last applied, or None.")
      .def_property("initializedTxRx", &SimpleTxRxPktManager::initializedTxRx,
                    &SimpleTxRxPktManager::initializedTxRxIs)
      .def("addIntfPam", &SimpleTxRxPktManager::addIntfPam, py::arg("intfId"))
      .def("delIntfPam", &SimpleTxRxPktManager::delIntfPam, py::arg("intfId"))
      .def("applyFilter", &applyFilterOrRaise, py::arg("text"),
           "Test environments only (ETHDEVPAMMANAGER_TESTING): installs a filter given as text; True, or "
           "ValueError with the library's reason (the filter in force stays).")
      .def("handleRx", &SimpleTxRxPktManager::handleRx, py::arg("pam"), py::arg("intfId"), py::arg("pkt"))
      .def("handleOutputPam", &SimpleTxRxPktManager::handleOutputPam, py::arg("intfId"))
      .def("handlePamCollectionChange", &SimpleTxRxPktManager::handlePamCollectionChange, py::arg("intfId"));
  m.def("simpleTxRxPktManagerFactory", &simpleTxRxPktManagerFactory, py::arg("deviceIntfStatusDir"),
        py::arg("pamCollection") = nullptr);
  m.def(
      "parseFilter",
      [](Vorn::String const & text) -> py::object {
        int const n = parseFilter(text, nullptr);
        if (n == 0) return py::none();
        std::vector<sock_filter> program(static_cast<size_t>(n));
        parseFilter(text, program.data());
        return py::cast(Ovel::SockFilterProgram(std::move(program)));
      },
      py::arg("text"), "The program of a filter text as (code, jt, jf, k) tuples; None when the text is not one.");
}

}  // namespace

void bindSubsystems(py::module_ & m) {
  py::class_<KernelNetNsInfo::Manager, Vorn::Entity, Vorn::Ptr<KernelNetNsInfo::Manager>>(
      m.attr("KernelNetNsInfo").cast<py::module_>(), "Manager");
  bindKernelOperState(m);
  bindIndexes(m);
  bindPacketAccess(m);
  bindSimpleManagers(m);
  watchable<Interface::PamDesiredIntfDir, PamDesiredIntfDirWatcher>();
  watchable<Interface::EthDevPamCollection, EthDevPamCollectionWatcher>();
  watchable<Interface::SimpleTxRxPktManager, SimpleTxRxPktManagerWatcher>();
}

}  // namespace IntfsmPython
