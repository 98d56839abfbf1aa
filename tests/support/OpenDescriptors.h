// Moved to Descriptors.h (namespace IntfsmTest); this forwarding header goes once no test includes it.
#pragma once

#include "tests/support/Descriptors.h"

namespace intfsmTest {
using IntfsmTest::isCloseOnExec;
using IntfsmTest::openDescriptorCount;
}  // namespace intfsmTest
