// The error texts every module shares, the assertion facility and fperror.
#include <gtest/gtest.h>

#include <cerrno>

#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Fperror.h"

namespace {

TEST(Exception, MutatorTexts) {
  EXPECT_EQ(Vorn::nullParameterText("intfStatus", "KernelOperState::IntfStatusDir"),
            "null _intfStatus parameter to mutator for KernelOperState::IntfStatusDir::intfStatus not allowed\"");
  EXPECT_EQ(Vorn::reinstantiationText("_kniStatus", "a", "b"),
            "Reinstantiating the pointer interface where constructor parameter attribute _kniStatus has a different "
            "value of a than the current value of b not allowed");
  Vorn::ErrnoException const e(11, "x");
  EXPECT_EQ(e.errorNumber(), 11);
}

TEST(AssertDeathTest, ReportsModuleExpressionAndPlace) {
  int sd = -1;
  EXPECT_DEATH(VORN_ASSERT(sd >= 0), "assertion \"sd >= 0\" failed at ErrorTest.cpp:[0-9]+ in TestBody");
  char buffer[64];
  EXPECT_STREQ(Vorn::moduleOfPath("/src/intfsm/intfsm/KernelOperState/Root.cpp", buffer, sizeof buffer),
               "KernelOperState");
  EXPECT_STREQ(Vorn::moduleOfPath("/src/intfsm/intfsm/foundation/vorn/Ptr.h", buffer, sizeof buffer),
               "foundation/vorn");
}

TEST(FperrorDeathTest, PrintsTheSystemErrorAndExitsWithStatusOne) {
  EXPECT_EXIT((errno = EMFILE, fperror("socket")), testing::ExitedWithCode(1), "^socket: Too many open files\n$");
}

}  // namespace
