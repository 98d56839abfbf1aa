#include "intfsm/KniIntfStatusManager/NetNsIntfIdMap.h"

#include "intfsm/LibraryTypes.h"

namespace Interface {

namespace {
Vorn::AttributeTableOf<NetNsIntfIdMap> const attributes("Interface::NetNsIntfIdMap", [](auto & t) {
  t.collection("intf", &NetNsIntfIdMap::intfIter, &NetNsIntfIdMap::intfIs, &NetNsIntfIdMap::intfDel);
});
Intfsm::TypeRegistration registration(
    "Interface::NetNsIntfIdMap",
    [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> { return netNsIntfIdMapFactory(n); }, attributes);
}  // namespace

Vorn::Ptr<NetNsIntfIdMap> netNsIntfIdMapFactory(Vorn::Name const & nsName) { return new NetNsIntfIdMap(nsName); }

}  // namespace Interface
