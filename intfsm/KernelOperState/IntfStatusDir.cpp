#include "intfsm/KernelOperState/IntfStatusDir.h"

#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/TypeRegistry.h"

namespace KernelOperState {

namespace {
Vorn::TypeRegistration statusDirType(
    "KernelOperState::IntfStatusDir", [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> {
      return IntfStatusDir::intfStatusDirNew(n);
    },
    {"intfStatus"});
Vorn::TypeRegistration localDirType(
    "KernelOperState::IntfStatusLocalDir", [](Vorn::Name const & n) -> Vorn::Ptr<Vorn::Entity> {
      return IntfStatusLocalDir::intfStatusLocalDirNew(n);
    },
    {"intfStatusLocal"});
}  // namespace

void IntfStatusDir::intfStatusIs(Vorn::Ptr<Interface::IntfStatus const> const & status) {
  if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "KernelOperState::IntfStatusDir"));
  Ovel::IntfId id = status->intfId();
  if (intfStatus_.set(id, status)) notify(&NotifieeConst::onIntfStatus, id);
}

void IntfStatusDir::intfStatusDel(Ovel::IntfId const & id) {
  Ovel::IntfId key = id;  // `id` may be the key of the entry being removed
  if (intfStatus_.del(key)) notify(&NotifieeConst::onIntfStatus, key);
}

void IntfStatusDir::intfStatusDelAll() {
  while (Ovel::IntfId const * key = intfStatus_.anyKey()) intfStatusDel(*key);
}

void IntfStatusLocalDir::intfStatusLocalIs(Vorn::Ptr<Interface::IntfStatusLocal const> const & status) {
  if (!status) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatusLocal", "KernelOperState::IntfStatusLocalDir"));
  }
  Ovel::IntfId id = status->intfId();
  if (intfStatusLocal_.set(id, status)) notify(&NotifieeConst::onIntfStatusLocal, id);
}

void IntfStatusLocalDir::intfStatusLocalDel(Ovel::IntfId const & id) {
  Ovel::IntfId key = id;
  if (intfStatusLocal_.del(key)) notify(&NotifieeConst::onIntfStatusLocal, key);
}

void IntfStatusLocalDir::intfStatusLocalDelAll() {
  while (Ovel::IntfId const * key = intfStatusLocal_.anyKey()) intfStatusLocalDel(*key);
}

}  // namespace KernelOperState
