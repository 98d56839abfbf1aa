#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration(
    "Interface::PamDesiredIntfDir",
    [](Vorn::Name const & name) -> Vorn::Ptr<Vorn::Entity> { return pamDesiredIntfDirFactory(name); },
    {"intfDesired"});
}  // namespace

Vorn::Ptr<PamDesiredIntfDir> pamDesiredIntfDirFactory(Vorn::Name const & name) {
  return new PamDesiredIntfDir(name);
}

}  // namespace Interface
