#include "intfsm/foundation/vorn/Ptr.h"

namespace Vorn {

bool threadSafePointers = false;

}  // namespace Vorn
