#include "intfsm/foundation/interface/AllIntfStatusDir.h"

#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

void AllIntfStatusDir::intfStatusIs(Vorn::Ptr<IntfStatus> const & status) {
  if (!status) throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "Interface::AllIntfStatusDir"));
  Ovel::IntfId const id = status->intfId();
  if (intfStatus_.set(id, status)) notify(&NotifieeConst::onIntfStatus, id);
}

void AllIntfStatusDir::intfStatusDel(Ovel::IntfId const & id) {
  Ovel::IntfId const key = id;  // `id` may be the key of the entry that goes away
  if (intfStatus_.del(key)) notify(&NotifieeConst::onIntfStatus, key);
}

void AllIntfStatusDir::intfStatusDelAll() {
  while (Ovel::IntfId const * key = intfStatus_.anyKey()) intfStatusDel(*key);
}

void AllIntfStatusDir::vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const {
  notifyOne(notifiee, &NotifieeConst::onIntfStatusvornImmediate);
}

Vorn::Ptr<AllIntfStatusDir> allIntfStatusDirFactory(Vorn::Name const & name) { return new AllIntfStatusDir(name); }

}  // namespace Interface
