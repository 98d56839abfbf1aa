// Counting this process's open descriptors, for leak checks around code that opens and closes them.
//
//   int const before = IntfsmTest::openDescriptorCount();
//   ... open and close ...
//   EXPECT_EQ(IntfsmTest::openDescriptorCount(), before);
#pragma once

#include <string>
#include <vector>

namespace IntfsmTest {

// The number of entries of /proc/self/fd, not counting the one used to read it.
int openDescriptorCount();

// What each open descriptor refers to ("socket:[1234]", "/dev/null", ...), for failure messages.
std::vector<std::string> openDescriptorTargets();

}  // namespace IntfsmTest
