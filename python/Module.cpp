// The Python module `intfsm`: the library driven from Python, on the library's own event loop.
//
//   import intfsm
//   status = intfsm.IntfStatus("Ethernet1")
//   status.deviceName = "et1"
//   ...
//   intfsm.run_until(lambda: receiver.numRcvd >= 4, 2.0)
//
// Everything runs on the thread that calls run_once / run_until; the GIL is released while the loop
// waits in epoll and taken again for every Python callback.
#include "Bindings.h"

PYBIND11_MODULE(intfsm, m) {
  m.doc() = "Reactive interface state machines: oper-state into the kernel, device index, packet access";
  m.attr("__version__") = INTFSM_VERSION;
  IntfsmPython::bindFoundation(m);
  IntfsmPython::bindSubsystems(m);
  IntfsmPython::bindGeneric(m);
}
