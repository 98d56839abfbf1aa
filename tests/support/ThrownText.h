// The message of the exception of type E that `f` raises, for asserting exact error texts:
//
//   EXPECT_EQ(thrownText<Vorn::RangeException>([] { Ovel::NamespaceName n(tooLong); }),
//             "NamespaceName::bytes > 150 not allowed");
//
// Yields "<nothing thrown>" when f returns normally; any other exception type propagates and fails
// the test.
#pragma once

#include <string>

namespace IntfsmTest {

template <class E, class F>
std::string thrownText(F && f) {
  try {
    f();
  } catch (E const & e) {
    return e.what();
  }
  return "<nothing thrown>";
}

}  // namespace IntfsmTest
