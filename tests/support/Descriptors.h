// This process's open descriptors, for leak checks around code that opens and closes them.
//
//   int const before = IntfsmTest::openDescriptorCount();
//   ... open and close ...
//   EXPECT_EQ(IntfsmTest::openDescriptorCount(), before) << testing::PrintToString(IntfsmTest::openDescriptorTargets());
#pragma once

#include <string>
#include <vector>

namespace IntfsmTest {

// The number of entries of /proc/self/fd, not counting the one used to read it.
int openDescriptorCount();

// What each open descriptor refers to ("7 -> socket:[1234]", ...), for failure messages.
std::vector<std::string> openDescriptorTargets();

// Whether `fd` is open and close-on-exec.
bool isCloseOnExec(int fd);

}  // namespace IntfsmTest
