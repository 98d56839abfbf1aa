// Descriptor bookkeeping for tests that must leave no descriptor behind.
//
//   int const before = intfsmTest::openDescriptorCount();
//   { ... open and close things ... }
//   EXPECT_EQ(intfsmTest::openDescriptorCount(), before);
#pragma once

namespace intfsmTest {

// Descriptors open in this process now (the entries of /proc/self/fd).
int openDescriptorCount();

// Whether `fd` is open and close-on-exec.
bool isCloseOnExec(int fd);

}  // namespace intfsmTest
