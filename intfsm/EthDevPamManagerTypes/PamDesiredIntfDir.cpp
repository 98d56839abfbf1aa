#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
Vorn::AttributeTableOf<PamDesiredIntfDir> const attributes("Interface::PamDesiredIntfDir", [](auto & t) {
  t.collection("intfDesired", &PamDesiredIntfDir::intfDesiredIter, &PamDesiredIntfDir::intfDesiredIs,
               &PamDesiredIntfDir::intfDesiredDel);
});
Intfsm::TypeRegistration registration(
    "Interface::PamDesiredIntfDir",
    [](Vorn::Name const & name) -> Vorn::Ptr<Vorn::Entity> { return pamDesiredIntfDirFactory(name); },
    attributes);
}  // namespace

Vorn::Ptr<PamDesiredIntfDir> pamDesiredIntfDirFactory(Vorn::Name const & name) {
  return new PamDesiredIntfDir(name);
}

}  // namespace Interface
