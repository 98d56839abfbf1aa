#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration(
    "Interface::EthDevPamCollection",
    [](Vorn::Name const & name) -> Vorn::Ptr<Vorn::Entity> { return ethDevPamCollectionFactory(name); },
    {"intfPam"});
}  // namespace

Vorn::Ptr<EthDevPamCollection> ethDevPamCollectionFactory(Vorn::Name const & name) {
  return new EthDevPamCollection(name);
}

}  // namespace Interface
