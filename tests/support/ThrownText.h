// Texts to assert on: the message of the exception of type E that `f` raises, and what a value
// prints as.
//
//   EXPECT_EQ(thrownText<Vorn::RangeException>([] { Ovel::NamespaceName n(tooLong); }),
//             "NamespaceName::bytes > 150 not allowed");
//
// Yields "<nothing thrown>" when f returns normally; any other exception type propagates and fails
// the test.
#pragma once

#include <sstream>
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

// `value` as operator<< prints it.
template <class T>
std::string printed(T const & value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

}  // namespace IntfsmTest
