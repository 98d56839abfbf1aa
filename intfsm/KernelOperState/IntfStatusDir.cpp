#include "intfsm/KernelOperState/IntfStatusDir.h"

#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/LibraryTypes.h"

namespace KernelOperState {

namespace {
// Both collections are keyed by the entry's own interface id.
Vorn::AttributeTableOf<IntfStatusDir> const statusDirAttributes("KernelOperState::IntfStatusDir", [](auto & t) {
  t.collection("intfStatus", &IntfStatusDir::intfStatusIter, &IntfStatusDir::intfStatusIs, &IntfStatusDir::intfStatusDel,
               [](auto const & s) { return s->intfId(); });
});
Vorn::AttributeTableOf<IntfStatusLocalDir> const localDirAttributes(
    "KernelOperState::IntfStatusLocalDir", [](auto & t) {
      t.collection("intfStatusLocal", &IntfStatusLocalDir::intfStatusLocalIter,
                   &IntfStatusLocalDir::intfStatusLocalIs, &IntfStatusLocalDir::intfStatusLocalDel,
                   [](auto const & s) { return s->intfId(); });
    });
Intfsm::TypeRegistration statusDirType(
    "KernelOperState::IntfStatusDir", [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> {
      return IntfStatusDir::intfStatusDirNew(n);
    },
    statusDirAttributes);
Intfsm::TypeRegistration localDirType(
    "KernelOperState::IntfStatusLocalDir", [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> {
      return IntfStatusLocalDir::intfStatusLocalDirNew(n);
    },
    localDirAttributes);
}  // namespace

void IntfStatusDir::intfStatusIs(Vorn::Ptr<Interface::IntfStatus const> const & status) {
  if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "KernelOperState::IntfStatusDir"));
  setEntry(intfStatus_, status->intfId(), status, &NotifieeConst::onIntfStatus);
}

void IntfStatusDir::intfStatusDel(Ovel::IntfId const & id) {
  delEntry(intfStatus_, id, &NotifieeConst::onIntfStatus);
}

void IntfStatusDir::intfStatusDelAll() {
  delAllEntries(intfStatus_, &NotifieeConst::onIntfStatus);
}

void IntfStatusLocalDir::intfStatusLocalIs(Vorn::Ptr<Interface::IntfStatusLocal const> const & status) {
  if (!status) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatusLocal", "KernelOperState::IntfStatusLocalDir"));
  }
  setEntry(intfStatusLocal_, status->intfId(), status, &NotifieeConst::onIntfStatusLocal);
}

void IntfStatusLocalDir::intfStatusLocalDel(Ovel::IntfId const & id) {
  delEntry(intfStatusLocal_, id, &NotifieeConst::onIntfStatusLocal);
}

void IntfStatusLocalDir::intfStatusLocalDelAll() {
  delAllEntries(intfStatusLocal_, &NotifieeConst::onIntfStatusLocal);
}

}  // namespace KernelOperState
