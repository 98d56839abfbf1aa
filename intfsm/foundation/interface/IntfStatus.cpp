#include "intfsm/foundation/interface/IntfStatus.h"

namespace Interface {

IntfStatus::IntfStatus(Ovel::IntfId const & intfId) : Vorn::Entity(Vorn::Name(intfId.name())), intfId_(intfId) {}

Vorn::Ptr<IntfStatus> intfStatusFactory(Ovel::IntfId const & intfId) { return new IntfStatus(intfId); }

}  // namespace Interface
