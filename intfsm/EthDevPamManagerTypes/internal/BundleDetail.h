// What the bundle's source files share and nothing else needs.
#pragma once

#include "intfsm/foundation/platform/Platform.h"

namespace Interface {

// setsockopt of an int value; -1 with errno on failure.
inline int bundleIntOption(int sock, int level, int option, int value) {
  return Platform::calls().setsockopt(sock, level, option, &value, sizeof value);
}

}  // namespace Interface
