#include "intfsm/foundation/interface/IntfStatusLocal.h"

namespace Interface {

IntfStatusLocal::IntfStatusLocal(Ovel::IntfId const & intfId)
    : Vorn::Entity(Vorn::Name(intfId.name())), intfId_(intfId) {}

Vorn::Ptr<IntfStatusLocal> intfStatusLocalFactory(Ovel::IntfId const & intfId) {
  return new IntfStatusLocal(intfId);
}

}  // namespace Interface
