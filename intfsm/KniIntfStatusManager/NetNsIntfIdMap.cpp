#include "intfsm/KniIntfStatusManager/NetNsIntfIdMap.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration(
    "Interface::NetNsIntfIdMap",
    [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> { return netNsIntfIdMapFactory(n); }, {"intf"});
}  // namespace

Vorn::Ptr<NetNsIntfIdMap> netNsIntfIdMapFactory(Vorn::Name const & nsName) { return new NetNsIntfIdMap(nsName); }

}  // namespace Interface
