// Generic attribute access by name, on every registered type.
#include "Bindings.h"

namespace IntfsmPython {

void bindGeneric(py::module_ &) {}

}  // namespace IntfsmPython
