#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"

#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
Vorn::AttributeTableOf<IntfStatusIndexDir> const attributes("Interface::IntfStatusIndexDir", [](auto & t) {
  t.collection("intfStatus", &IntfStatusIndexDir::intfStatusIter, &IntfStatusIndexDir::intfStatusIs,
               &IntfStatusIndexDir::intfStatusDel);
});
Intfsm::TypeRegistration registration(
    "Interface::IntfStatusIndexDir",
    [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> { return intfStatusIndexDirFactory(n); }, attributes);
}  // namespace

Vorn::Ptr<IntfStatusIndexDir> intfStatusIndexDirFactory(Vorn::Name const & name) {
  return new IntfStatusIndexDir(name);
}

void IntfStatusIndexDir::intfStatusIs(Vorn::String const & name, Vorn::Ptr<IntfStatus const> const & status) {
  if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "Interface::IntfStatusIndexDir"));
  setEntry(intfStatus_, name, status, &NotifieeConst::onIntfStatus);
}

void IntfStatusIndexDir::intfStatusDel(Vorn::String const & name) {
  delEntry(intfStatus_, name, &NotifieeConst::onIntfStatus);
}

void IntfStatusIndexDir::intfStatusDelAll() { delAllEntries(intfStatus_, &NotifieeConst::onIntfStatus); }

}  // namespace Interface
