// This process's open descriptors, for leak checks around code that opens and closes them.
//
//   int const before = IntfsmTest::openDescriptorCount();
//   ... open and close ...
//   EXPECT_EQ(IntfsmTest::openDescriptorCount(), before);
#pragma once

namespace IntfsmTest {

// The number of entries of /proc/self/fd, not counting the one used to read it.
int openDescriptorCount();

// Whether `fd` is open and close-on-exec.
bool isCloseOnExec(int fd);

}  // namespace IntfsmTest
