#include "intfsm/foundation/vorn/Fperror.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(FperrorDeathTest, PrintsTheSystemErrorAndExitsWithStatusOne) {
  EXPECT_EXIT(
      {
        errno = EMFILE;
        fperror("socket");
      },
      testing::ExitedWithCode(1), "^socket: Too many open files\n$");
}

}  // namespace
