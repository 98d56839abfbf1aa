#include "intfsm/foundation/vorn/Ptr.h"

namespace Vorn {

bool threadSafePointers = false;
std::atomic<int64_t> livePtrInterfaces{0};

}  // namespace Vorn
