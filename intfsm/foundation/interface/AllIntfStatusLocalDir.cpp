#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"

#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

void AllIntfStatusLocalDir::intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal> const & local) {
  if (!local) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatusLocal", "Interface::AllIntfStatusLocalDir"));
  }
  Ovel::IntfId const id = local->intfId();
  setEntry(intfStatusLocal_, id, local, &NotifieeConst::onIntfStatusLocal);
}

void AllIntfStatusLocalDir::intfStatusLocalDel(Ovel::IntfId const & id) {
  delEntry(intfStatusLocal_, id, &NotifieeConst::onIntfStatusLocal);
}

void AllIntfStatusLocalDir::intfStatusLocalDelAll() {
  delAllEntries(intfStatusLocal_, &NotifieeConst::onIntfStatusLocal);
}

void AllIntfStatusLocalDir::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  notifyOne(notifiee, &NotifieeConst::onIntfStatusLocalvornImmediate);
}

Vorn::Ptr<AllIntfStatusLocalDir> allIntfStatusLocalDirFactory(Vorn::Name const & name) {
  return new AllIntfStatusLocalDir(name);
}

}  // namespace Interface
