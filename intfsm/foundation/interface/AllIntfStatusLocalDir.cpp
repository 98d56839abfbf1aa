#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"

#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

void AllIntfStatusLocalDir::intfStatusLocalIs(Vorn::Ptr<IntfStatusLocal> const & local) {
  if (!local) {
    throw Vorn::RangeException(Vorn::nullParameterText("intfStatusLocal", "Interface::AllIntfStatusLocalDir"));
  }
  Ovel::IntfId const id = local->intfId();
  if (intfStatusLocal_.set(id, local)) notify(&NotifieeConst::onIntfStatusLocal, id);
}

void AllIntfStatusLocalDir::intfStatusLocalDel(Ovel::IntfId const & id) {
  Ovel::IntfId const key = id;  // `id` may be the key of the entry that goes away
  if (intfStatusLocal_.del(key)) notify(&NotifieeConst::onIntfStatusLocal, key);
}

void AllIntfStatusLocalDir::intfStatusLocalDelAll() {
  while (Ovel::IntfId const * key = intfStatusLocal_.anyKey()) intfStatusLocalDel(*key);
}

void AllIntfStatusLocalDir::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  notifyOne(notifiee, &NotifieeConst::onIntfStatusLocalvornImmediate);
}

Vorn::Ptr<AllIntfStatusLocalDir> allIntfStatusLocalDirFactory(Vorn::Name const & name) {
  return new AllIntfStatusLocalDir(name);
}

}  // namespace Interface
