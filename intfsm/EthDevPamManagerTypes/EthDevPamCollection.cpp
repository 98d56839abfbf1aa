#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
Vorn::AttributeTableOf<EthDevPamCollection> const attributes("Interface::EthDevPamCollection", [](auto & t) {
  t.collection("intfPam", &EthDevPamCollection::intfPamIter, &EthDevPamCollection::intfPamIs,
               &EthDevPamCollection::intfPamDel);
});
Intfsm::TypeRegistration registration(
    "Interface::EthDevPamCollection",
    [](Vorn::Name const & name) -> Vorn::Ptr<Vorn::Entity> { return ethDevPamCollectionFactory(name); },
    attributes);
}  // namespace

Vorn::Ptr<EthDevPamCollection> ethDevPamCollectionFactory(Vorn::Name const & name) {
  return new EthDevPamCollection(name);
}

}  // namespace Interface
