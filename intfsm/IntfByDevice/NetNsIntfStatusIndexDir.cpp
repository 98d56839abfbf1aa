#include "intfsm/IntfByDevice/NetNsIntfStatusIndexDir.h"

#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
// Keyed by each index directory's own name.
Vorn::AttributeTableOf<NetNsIntfStatusIndexDir> const attributes("Interface::NetNsIntfStatusIndexDir", [](auto & t) {
  t.collection("intfStatusIndexDir", &NetNsIntfStatusIndexDir::intfStatusIndexDirIter,
               &NetNsIntfStatusIndexDir::intfStatusIndexDirIs, &NetNsIntfStatusIndexDir::intfStatusIndexDirDel,
               [](auto const & d) { return d->name(); });
});
Intfsm::TypeRegistration registration(
    "Interface::NetNsIntfStatusIndexDir",
    [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> { return netNsIntfStatusIndexDirFactory(n); },
    attributes);
}  // namespace

Vorn::Ptr<NetNsIntfStatusIndexDir> netNsIntfStatusIndexDirFactory(Vorn::Name const & name) {
  return new NetNsIntfStatusIndexDir(name);
}

void NetNsIntfStatusIndexDir::intfStatusIndexDirIs(Vorn::Ptr<IntfStatusIndexDir> const & dir) {
  if (!dir) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatusIndexDir", "Interface::NetNsIntfStatusIndexDir"));
  }
  insert(KeyFunktor()(dir), dir);
}

void NetNsIntfStatusIndexDir::insert(Vorn::Name const & key, Vorn::Ptr<IntfStatusIndexDir> const & _value) {
  auto const fwkKey = [&key] { return key; };
  VORN_ASSERT(fwkKey() == KeyFunktor()( _value ));
  setEntry(intfStatusIndexDir_, key, _value, &NotifieeConst::onIntfStatusIndexDir);
}

void NetNsIntfStatusIndexDir::intfStatusIndexDirDel(Vorn::Name const & name) {
  delEntry(intfStatusIndexDir_, name, &NotifieeConst::onIntfStatusIndexDir);
}

void NetNsIntfStatusIndexDir::intfStatusIndexDirDelAll() {
  delAllEntries(intfStatusIndexDir_, &NotifieeConst::onIntfStatusIndexDir);
}

}  // namespace Interface
