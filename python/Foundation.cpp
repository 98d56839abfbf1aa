// The module's foundation: errors, the event loop, tracing, packets and Pams, the interface-status
// entities an agent holds, the kernel's view of devices, and watches (Python callbacks on
// notifications).
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <mutex>
#include <string_view>

#include "Bindings.h"
#include "Watch.h"
#include "intfsm/foundation/brisklog/Brisklog.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/interface/ForwardingModel.h"
#include "intfsm/foundation/interface/IntfOperStatus.h"
#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/interface/IntfStatusLocal.h"
#include "intfsm/foundation/kernel/KernelNetInfoStatus.h"
#include "intfsm/foundation/kernel/KernelNetNsInfo.h"
#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/ovel/Pam.h"
#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Attribute.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Value.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/System.h"

namespace IntfsmPython {

namespace {

PyObject * nameInUseError = nullptr;
PyObject * valueTypeError = nullptr;

void translateErrors(std::exception_ptr p) {
  try {
    if (p) std::rethrow_exception(p);
  } catch (Vorn::ErrnoException const & e) {
    // OSError(errno, text): Python makes it the errno's subclass (FileNotFoundError, PermissionError ...).
    std::string text = e.message().empty() ? std::strerror(e.errorNumber()) : e.message();
    py::object error = py::reinterpret_steal<py::object>(
        PyObject_CallFunction(PyExc_OSError, "is", e.errorNumber(), text.c_str()));
    if (error) PyErr_SetObject(reinterpret_cast<PyObject *>(Py_TYPE(error.ptr())), error.ptr());
  } catch (Vorn::ValueTypeException const & e) {
    PyErr_SetString(valueTypeError, e.what());
  } catch (Vorn::RangeException const & e) {
    PyErr_SetString(PyExc_ValueError, e.what());
  } catch (Vorn::NameInUseException const & e) {
    PyErr_SetString(nameInUseError, e.what());
  } catch (Vorn::NoSuchAttributeException const & e) {
    PyErr_SetString(std::string_view(e.what()).find(" given") != std::string_view::npos ? PyExc_TypeError
                                                                                         : PyExc_AttributeError,
                    e.what());
  } catch (Vorn::Exception const & e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
}

// loop_fd(): a descriptor that is readable whenever a pass of the loop has work: one of its watched
// descriptors is ready (the loop's own epoll descriptor is in it), a timer is due, or the last pass
// ran something whose follow-up (deferred calls queued meanwhile) waits for the next pass. The last
// two come from a timerfd that each run_once re-arms, so that a selector-driven loop never sleeps
// through a timer and never spins.
class LoopDescriptor {
 public:
  int descriptor() {
    if (epoll_ >= 0) return epoll_;
    int ep = epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0) throw Vorn::ErrnoException(errno, "loop_fd: epoll_create1 failed");
    int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (timer < 0) {
      int const e = errno;
      ::close(ep);
      throw Vorn::ErrnoException(e, "loop_fd: timerfd_create failed");
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    for (int fd : {Vorn::activityManager().epollDescriptor(), timer}) {
      ev.data.fd = fd;
      if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) < 0) {
        int const e = errno;
        ::close(timer);
        ::close(ep);
        throw Vorn::ErrnoException(e, "loop_fd: epoll_ctl failed");
      }
    }
    epoll_ = ep;
    timer_ = timer;
    arm(true);  // a first pass at once: whatever was set up before the selector took over runs
    return epoll_;
  }

  // After a pass: wake again at once when it ran something, else at the clock's next timer.
  void afterPass(bool ran) {
    if (timer_ < 0) return;
    uint64_t expirations;
    while (::read(timer_, &expirations, sizeof expirations) > 0) {
    }
    arm(ran);
  }

 private:
  void arm(bool now) {
    itimerspec expiry{};
    double delay = 0;
    if (!now) {
      double const next = Vorn::activityManager().clock()->timeMinNext();
      if (std::isinf(next)) {
        timerfd_settime(timer_, 0, &expiry, nullptr);  // disarmed: nothing timed is waiting
        return;
      }
      delay = std::max(next - Vorn::System::currentTime(), 0.0);
    }
    auto const ns = static_cast<int64_t>(delay * 1e9) + 1;  // 0 would disarm
    expiry.it_value.tv_sec = ns / 1000000000;
    expiry.it_value.tv_nsec = ns % 1000000000;
    timerfd_settime(timer_, 0, &expiry, nullptr);
  }

  int epoll_ = -1;
  int timer_ = -1;
};

LoopDescriptor & loopDescriptor() {
  static LoopDescriptor * d = new LoopDescriptor;  // lives as long as the process, like the loop
  return *d;
}

bool runOnce(double timeout) {
  bool ran;
  {
    py::gil_scoped_release unlocked;
    ran = Vorn::activityManager().runOnce(timeout);
  }
  loopDescriptor().afterPass(ran);
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  return ran;
}

bool runUntil(py::function const & done, double timeout) {
  auto check = [&done]() -> bool {
    py::gil_scoped_acquire locked;
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    return py::bool_(done());
  };
  bool result;
  {
    py::gil_scoped_release unlocked;
    result = Vorn::activityManager().runUntil(check, timeout);
  }
  loopDescriptor().afterPass(true);
  return result;
}

// Trace lines to a Python callable: (module, level, text).
class PythonSink : public Brisklog::Sink {
 public:
  void lineIs(Brisklog::Line const & line) override {
    py::gil_scoped_acquire locked;
    if (!callback) return;
    try {
      callback(line.module, line.level, py::str(line.text.data(), line.text.size()));
    } catch (py::error_already_set & e) {
      e.discard_as_unraisable("intfsm trace sink");  // a trace must never fail the traced code
    }
  }
  py::object callback;
};

PythonSink & pythonSink() {
  static PythonSink * sink = new PythonSink;
  return *sink;
}

void traceSinkIs(py::object const & callback) {
  if (callback.is_none()) {
    Brisklog::sinkIs(nullptr);
    pythonSink().callback = py::object();
    return;
  }
  pythonSink().callback = callback;
  Brisklog::sinkIs(&pythonSink());
}

py::bytes pktBytes(Ovel::Pkt const & pkt) {
  return py::bytes(reinterpret_cast<char const *>(pkt.data()), pkt.dataLen());
}

Vorn::Ptr<Ovel::Pkt> pktOf(py::bytes const & data, int vlanTci, uint16_t vlanTpid) {
  std::string_view bytes = data;
  Vorn::Ptr<Ovel::Pkt> pkt = Ovel::globalPktManager().newPkt();
  if (!pkt) throw Vorn::RangeException("Pkt: the packet manager has no packet left");
  pkt->dataIs(bytes.data(), static_cast<uint32_t>(bytes.size()));
  if (vlanTci >= 0) {
    if (vlanTci > 0xffff) throw Vorn::RangeException("Pkt::vlanTci > 65535 not allowed");
    pkt->newSeparateVlanTag(static_cast<uint16_t>(vlanTci), vlanTpid);
  }
  return pkt;
}

std::vector<WatchKind> & watchKinds() {
  static std::vector<WatchKind> kinds;
  return kinds;
}

class IntfStatusWatcher : public Watcher<Interface::IntfStatus> {
 public:
  using Watcher::Watcher;
  INTFSM_ON(active, Active)
  INTFSM_ON(activeStatusChanges, ActiveStatusChanges)
  INTFSM_ON(deviceName, DeviceName)
  INTFSM_ON(forwardingModel, ForwardingModel)
  INTFSM_ON(intfConfig, IntfConfig)
  INTFSM_ON(maxMtu, MaxMtu)
  INTFSM_ON(mtu, Mtu)
  INTFSM_ON(operStatus, OperStatus)
  INTFSM_ON(operStatusChange, OperStatusChange)
};
class IntfStatusLocalWatcher : public Watcher<Interface::IntfStatusLocal> {
 public:
  using Watcher::Watcher;
  INTFSM_ON(netNsName, NetNsName)
};
class AllIntfStatusDirWatcher : public Watcher<Interface::AllIntfStatusDir> {
 public:
  using Watcher::Watcher;
  INTFSM_ON_KEY(intfStatus, IntfStatus, Ovel::IntfId)
};
class DeviceIntfStatusDirWatcher : public Watcher<Interface::DeviceIntfStatusDir> {
 public:
  using Watcher::Watcher;
  INTFSM_ON_KEY(intfStatusAndDeviceName, IntfStatusAndDeviceName, Ovel::IntfId)
  INTFSM_ON_KEY_VALUE(intfStatusByIfIndex, IntfStatusByIfIndex, uint32_t)
};
class PamWatcher : public Watcher<Ovel::Pam> {
 public:
  using Watcher::Watcher;
  INTFSM_ON(readableCount, ReadableCount)
  INTFSM_ON(writableCount, WritableCount)
  INTFSM_ON(rxErrors, RxErrors)
  INTFSM_ON(txErrors, TxErrors)
  INTFSM_ON(queueDropCount, QueueDropCount)
};

}  // namespace

void WatchHandle::close() {
  if (notifiee_) {
    Vorn::Ptr<Vorn::BaseNotifiee> n = std::move(notifiee_);
    unbind_(*n);
  }
  if (callback) {
    py::gil_scoped_acquire locked;
    callback = py::object();
  }
}

void watchKindIs(WatchKind kind) { watchKinds().insert(watchKinds().begin(), std::move(kind)); }

void bindWatch(py::module_ & m, EntityClass & entity) {
  py::class_<WatchHandle>(m, "Watch", py::custom_type_setup([](PyHeapTypeObject * heapType) {
                            auto * type = &heapType->ht_type;
                            type->tp_flags |= Py_TPFLAGS_HAVE_GC;
                            type->tp_traverse = [](PyObject * self, visitproc visit, void * arg) {
                              Py_VISIT(Py_TYPE(self));
                              auto & instance = *reinterpret_cast<py::detail::instance *>(self);
                              if (!instance.get_value_and_holder().holder_constructed()) return 0;
                              auto & w = py::cast<WatchHandle &>(py::handle(self));
                              Py_VISIT(w.callback.ptr());
                              return 0;
                            };
                            type->tp_clear = [](PyObject * self) {
                              auto & instance = *reinterpret_cast<py::detail::instance *>(self);
                              if (instance.get_value_and_holder().holder_constructed()) {
                                py::cast<WatchHandle &>(py::handle(self)).close();
                              }
                              return 0;
                            };
                          }))
      .def("close", &WatchHandle::close, "Stops watching; the callback is dropped.")
      .def_property_readonly("open", &WatchHandle::open);

  entity.def(
      "watch",
      [](Vorn::Ptr<Vorn::Entity> const & e, py::object callback) {
        for (auto const & kind : watchKinds()) {
          if (!kind.matches(*e)) continue;
          auto handle = std::make_unique<WatchHandle>();
          handle->callback = std::move(callback);
          handle->notifiee_ = kind.make(e, handle.get());
          handle->unbind_ = kind.unbind;
          return handle;
        }
        throw Vorn::RangeException(std::string(e->vornTypeName()) + " cannot be watched");
      },
      py::arg("callback"),
      "Calls callback(attribute) or callback(attribute, key) on every change; returns the Watch (keep it).");

  watchable<Interface::IntfStatus, IntfStatusWatcher>();
  watchable<Interface::IntfStatusLocal, IntfStatusLocalWatcher>();
  watchable<Interface::AllIntfStatusDir, AllIntfStatusDirWatcher>();
  watchable<Interface::DeviceIntfStatusDir, DeviceIntfStatusDirWatcher>();
  watchable<Ovel::Pam, PamWatcher>();
}

void bindFoundation(py::module_ & m) {
  nameInUseError = PyErr_NewExceptionWithDoc(
      "intfsm.NameInUseError", "A named child exists already with other constructor arguments.", PyExc_ValueError,
      nullptr);
  m.attr("NameInUseError") = py::handle(nameInUseError);
  // A value of the wrong kind or out of a C++ type's range, in generic access: both a TypeError and a
  // ValueError, so that either handler takes it.
  py::tuple valueTypeBases = py::make_tuple(py::handle(PyExc_TypeError), py::handle(PyExc_ValueError));
  valueTypeError = PyErr_NewExceptionWithDoc("intfsm.ValueTypeError", "A value the attribute cannot take.",
                                             valueTypeBases.ptr(), nullptr);
  m.attr("ValueTypeError") = py::handle(valueTypeError);
  py::register_exception_translator(&translateErrors);

  // The event loop.
  m.def("run_once", &runOnce, py::arg("timeout") = 0.0,
        "One pass of the loop, waiting at most `timeout` seconds (< 0: without limit); True if anything ran.");
  m.def("run_until", &runUntil, py::arg("predicate"), py::arg("timeout"),
        "Passes until predicate() is true or `timeout` seconds have gone; returns predicate().");
  m.def("loop_fd", [] { return loopDescriptor().descriptor(); },
        "A descriptor that is readable when the loop has work: loop.add_reader(intfsm.loop_fd(), intfsm.run_once).");
  m.def("stop", [] { Vorn::activityManager().stop(); });
  m.def("current_time", &Vorn::System::currentTime, "The loop's clock, seconds (CLOCK_MONOTONIC).");
  m.def(
      "_timed_mtu_sets",
      [](Interface::IntfStatus & status, uint32_t n) {  // the C++ reference of the module's benchmark
        auto const t0 = std::chrono::steady_clock::now();
        for (uint32_t i = 0; i < n; ++i) status.mtuIs(i);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      },
      py::arg("status"), py::arg("n"), "Seconds that n sets of status.mtu take from C++ (benchmark reference).");
  m.def("live_objects", &Vorn::PtrInterface::liveObjects,
        "Reference-counted library objects alive now (allocation tracking).");

  // Tracing.
  m.def("trace_configure", [](std::string const & text) { Brisklog::configure(text.c_str()); }, py::arg("text"),
        "Trace levels as BRISKLOG takes them: 'KernelOperState/0-8,SimpleTxRxPktManager/5', '*/0-3'.");
  m.def("trace_levels", [](std::string const & module, uint16_t mask) { Brisklog::levelsIs(module.c_str(), mask); },
        py::arg("module"), py::arg("mask"));
  m.def("trace_file", [](std::string const & path) { Brisklog::outputFileIs(path.c_str()); }, py::arg("path"),
        "Trace lines go to this file ('' for stderr).");
  m.def("trace_sink", &traceSinkIs, py::arg("callback"),
        "callback(module, level, text) for every trace line from now on; None restores the default output.");
  py::module_::import("atexit").attr("register")(py::cpp_function([] { traceSinkIs(py::none()); }));

  // Value types that are not texts.
  py::enum_<Interface::IntfOperStatus>(m, "IntfOperStatus", py::arithmetic())
      .value("intfOperUp", Interface::intfOperUp)
      .value("intfOperDown", Interface::intfOperDown)
      .value("intfOperTesting", Interface::intfOperTesting)
      .value("intfOperUnknown", Interface::intfOperUnknown)
      .value("intfOperDormant", Interface::intfOperDormant)
      .value("intfOperNotPresent", Interface::intfOperNotPresent)
      .value("intfOperLowerLayerDown", Interface::intfOperLowerLayerDown)
      .export_values();
  py::enum_<Interface::ForwardingModel>(m, "ForwardingModel", py::arithmetic())
      .value("forwardingModelUnknown", Interface::forwardingModelUnknown)
      .value("forwardingModelRouted", Interface::forwardingModelRouted)
      .value("forwardingModelDataLink", Interface::forwardingModelDataLink)
      .value("forwardingModelInactive", Interface::forwardingModelInactive)
      .value("forwardingModelBridged", Interface::forwardingModelBridged)
      .export_values();

  // Every library object.
  py::class_<Vorn::Notifier, Vorn::Ptr<Vorn::Notifier>>(m, "Notifier");
  EntityClass entity(m, "Entity");
  entity
      .def_property_readonly("name", [](Vorn::Entity const & e) { return Vorn::String(e.name()); })
      .def_property_readonly("parent", &Vorn::Entity::parent)
      .def_property_readonly("typeName", [](Vorn::Entity const & e) { return std::string(e.vornTypeName()); })
      .def_property_readonly("references", &Vorn::Entity::references)
      .def("__repr__", [](Vorn::Entity const & e) {
        return std::string("<") + (*e.vornTypeName() ? e.vornTypeName() : "Vorn::Entity") + " '" +
               e.name().charPtr() + "'>";
      });

  bindWatch(m, entity);

  // Packets.
  py::class_<Ovel::Pkt, Vorn::Ptr<Ovel::Pkt>>(m, "Pkt")
      .def(py::init(&pktOf), py::arg("data"), py::arg("vlanTci") = -1, py::arg("vlanTpid") = Ovel::Pkt::defaultVlanTpid,
           "A frame to send: its bytes, and a VLAN tag to put in on the way out (vlanTci >= 0).")
      .def_property_readonly("data", &pktBytes, "The frame's bytes (the VLAN tag the kernel took out is not in them).")
      .def("__len__", &Ovel::Pkt::dataLen)
      .def("__bytes__", &pktBytes)
      .def_property_readonly("hasVlanTag", &Ovel::Pkt::hasVlanTag)
      .def_property_readonly("vlanTci", &Ovel::Pkt::vlanTci)
      .def_property_readonly("vlanTpid", &Ovel::Pkt::vlanTpid)
      .def_property_readonly("vlanId", [](Ovel::Pkt const & p) -> py::object {
        if (!p.hasVlanTag()) return py::none();
        return py::int_(p.vlanId());
      })
      .def_property_readonly("ifIndex", &Ovel::Pkt::ifIndex)
      .def_property_readonly("pktType", &Ovel::Pkt::pktType)
      .def_property_readonly("rxTime", &Ovel::Pkt::rxTime, "Kernel receive time, ns since the epoch; 0 if unknown.");

  py::class_<Ovel::Pam, Vorn::Entity, Vorn::Ptr<Ovel::Pam>>(m, "Pam")
      .def("rxPkt", &Ovel::Pam::rxPkt, "The oldest frame waiting, taken off the Pam; None when none waits.")
      .def_property_readonly("rxPkts", &Ovel::Pam::rxPkts)
      .def("txPkt", &Ovel::Pam::txPkt, py::arg("pkt"), "Sends a frame; True when the kernel took it.")
      .def(
          "txPkt",
          [](Ovel::Pam & pam, py::bytes const & data, int vlanTci) { return pam.txPkt(pktOf(data, vlanTci, 0x8100)); },
          py::arg("data"), py::arg("vlanTci") = -1)
      .def_property_readonly("lastTxErrno", &Ovel::Pam::lastTxErrno)
      .def_property_readonly("readableCount", &Ovel::Pam::readableCount)
      .def_property_readonly("rxErrors", &Ovel::Pam::rxErrors)
      .def_property_readonly("txErrors", &Ovel::Pam::txErrors)
      .def_property_readonly("queueDropCount", &Ovel::Pam::queueDropCount);
  py::class_<Ovel::EthDevPamBase, Ovel::Pam, Vorn::Ptr<Ovel::EthDevPamBase>>(m, "EthDevPamBase")
      .def_property_readonly("ethProtocol", &Ovel::EthDevPamBase::ethProtocol);
  py::class_<Ovel::EthDevPam, Ovel::EthDevPamBase, Vorn::Ptr<Ovel::EthDevPam>>(m, "EthDevPam")
      .def_property_readonly("ifIndex", &Ovel::EthDevPam::ifIndex)
      .def_property_readonly("sd", &Ovel::EthDevPam::sd)
      .def_property_readonly("enabled", &Ovel::EthDevPam::enabled)
      .def_property_readonly("netNs", &Ovel::EthDevPam::netNs);

  // The interface status an agent holds.
  py::class_<Interface::IntfStatus, Vorn::Entity, Vorn::Ptr<Interface::IntfStatus>>(m, "IntfStatus")
      .def(py::init(&Interface::intfStatusFactory), py::arg("intfId"))
      .def_property_readonly("intfId", &Interface::IntfStatus::intfId)
      .def_property("deviceName", &Interface::IntfStatus::deviceName, &Interface::IntfStatus::deviceNameIs)
      .def_property("operStatus", &Interface::IntfStatus::operStatus, &Interface::IntfStatus::operStatusIs)
      .def_property("forwardingModel", &Interface::IntfStatus::forwardingModel,
                    &Interface::IntfStatus::forwardingModelIs)
      .def_property("active", &Interface::IntfStatus::active, &Interface::IntfStatus::activeIs)
      .def_property("mtu", &Interface::IntfStatus::mtu, &Interface::IntfStatus::mtuIs)
      .def_property("maxMtu", &Interface::IntfStatus::maxMtu, &Interface::IntfStatus::maxMtuIs);
  m.def("intfStatusFactory", &Interface::intfStatusFactory, py::arg("intfId"));
  py::class_<Interface::IntfStatusLocal, Vorn::Entity, Vorn::Ptr<Interface::IntfStatusLocal>>(m, "IntfStatusLocal")
      .def(py::init(&Interface::intfStatusLocalFactory), py::arg("intfId"))
      .def_property_readonly("intfId", &Interface::IntfStatusLocal::intfId)
      .def_property("netNsName", &Interface::IntfStatusLocal::netNsName, &Interface::IntfStatusLocal::netNsNameIs);
  m.def("intfStatusLocalFactory", &Interface::intfStatusLocalFactory, py::arg("intfId"));
  py::class_<Interface::AllIntfStatusDir, Vorn::Entity, Vorn::Ptr<Interface::AllIntfStatusDir>>(m, "AllIntfStatusDir")
      .def(py::init(&Interface::allIntfStatusDirFactory), py::arg("name"))
      .def("intfStatus", py::overload_cast<Ovel::IntfId const &>(&Interface::AllIntfStatusDir::intfStatus),
           py::arg("intfId"))
      .def("intfStatusIs", &Interface::AllIntfStatusDir::intfStatusIs, py::arg("status"))
      .def("intfStatusDel", &Interface::AllIntfStatusDir::intfStatusDel, py::arg("intfId"))
      .def_property_readonly("intfStatuss", &Interface::AllIntfStatusDir::intfStatuss);
  m.def("allIntfStatusDirFactory", &Interface::allIntfStatusDirFactory, py::arg("name"));
  py::class_<Interface::AllIntfStatusLocalDir, Vorn::Entity, Vorn::Ptr<Interface::AllIntfStatusLocalDir>>(
      m, "AllIntfStatusLocalDir")
      .def(py::init(&Interface::allIntfStatusLocalDirFactory), py::arg("name"))
      .def("intfStatusLocal",
           py::overload_cast<Ovel::IntfId const &>(&Interface::AllIntfStatusLocalDir::intfStatusLocal),
           py::arg("intfId"))
      .def("intfStatusLocalIs", &Interface::AllIntfStatusLocalDir::intfStatusLocalIs, py::arg("local"))
      .def("intfStatusLocalDel", &Interface::AllIntfStatusLocalDir::intfStatusLocalDel, py::arg("intfId"))
      .def_property_readonly("intfStatusLocals", &Interface::AllIntfStatusLocalDir::intfStatusLocals);
  m.def("allIntfStatusLocalDirFactory", &Interface::allIntfStatusLocalDirFactory, py::arg("name"));

  // Interface status by device, as the packet-access manager reads it.
  py::class_<Interface::DeviceIntfStatusDir, Vorn::Entity, Vorn::Ptr<Interface::DeviceIntfStatusDir>>(
      m, "DeviceIntfStatusDir")
      .def(py::init(&Interface::deviceIntfStatusDirFactory), py::arg("name"))
      .def(
          "intfStatusAndDeviceName",
          [](Interface::DeviceIntfStatusDir const & d, Ovel::IntfId const & id) -> py::object {
            auto const r = d.intfStatusAndDeviceName(id);
            if (!r.intfStatus) return py::none();
            return py::make_tuple(r.intfStatus, r.deviceName, r.ifIndex);
          },
          py::arg("intfId"), "(IntfStatus, deviceName, ifIndex) of the interface, or None.")
      .def("ifIndexOwner",
           [](Interface::DeviceIntfStatusDir const & d, uint32_t ifIndex) -> py::object {
             auto const id = d.ifIndexOwner(ifIndex);
             if (id.empty()) return py::none();
             return py::cast(id);
           })
      .def_property_readonly("intfStatusAndDeviceNames", &Interface::DeviceIntfStatusDir::intfStatusAndDeviceNames);
  m.def("deviceIntfStatusDirFactory", &Interface::deviceIntfStatusDirFactory, py::arg("name"));

  // The kernel's devices and namespaces.
  auto kernelNetInfo = m.def_submodule("KernelNetInfo", "The kernel's view of network devices");
  py::class_<KernelNetInfo::Status, Vorn::Entity, Vorn::Ptr<KernelNetInfo::Status>>(kernelNetInfo, "Status")
      .def(py::init([](Vorn::Name const & name, Ovel::NamespaceName const & netNs) {
             return KernelNetInfo::Status::statusNew(name, netNs);
           }),
           py::arg("name"), py::arg("netNs") = Ovel::NamespaceName(Ovel::DEFAULT_NS))
      .def_property_readonly("netNs", &KernelNetInfo::Status::netNs)
      .def_property("enabled", &KernelNetInfo::Status::enabled, &KernelNetInfo::Status::enabledIs)
      .def_property_readonly("synced", &KernelNetInfo::Status::synced)
      .def_property_readonly("events", &KernelNetInfo::Status::events);
  auto kernelNetNsInfo = m.def_submodule("KernelNetNsInfo", "The kernel's network namespaces");
  py::class_<KernelNetNsInfo::Root, Vorn::Entity, Vorn::Ptr<KernelNetNsInfo::Root>>(kernelNetNsInfo, "Root")
      .def(py::init(&KernelNetNsInfo::Root::rootNew), py::arg("name"))
      .def("netNsByName", &KernelNetNsInfo::Root::netNsByName, py::arg("netNs"))
      .def("netNsByNameHas", &KernelNetNsInfo::Root::netNsByNameHas, py::arg("netNs"))
      .def_property_readonly("netNss", &KernelNetNsInfo::Root::netNss);
}

}  // namespace IntfsmPython
