// Texts to assert on: the message of the exception of type E that `f` raises, and what a value
// prints as.
//
//   EXPECT_EQ(thrownText<Vorn::RangeException>([] { Ovel::NamespaceName n(tooLong); }),
//             "NamespaceName::bytes > 150 not allowed");
//
// Yields "<nothing thrown>" when f returns normally; any other exception type propagates and fails
// the test. thrownErrno: the errno a Vorn::ErrnoException carries, 0 when f returns.
#pragma once

#include <regex>
#include <sstream>
#include <string>

#include "intfsm/foundation/vorn/Exception.h"

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
template <class F>
long thrownErrno(F && f) {
  try {
    f();
  } catch (Vorn::ErrnoException const & e) {
    return e.errorNumber();
  }
  return 0;
}

template <class T>
std::string printed(T const & value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

// The death-test pattern of a failed VORN_ASSERT(expression), its special characters escaped.
inline std::string assertionFailed(std::string const & expression) {
  return "assertion \"" + std::regex_replace(expression, std::regex(R"([()|*.\[\]^$+?{}\\])"), R"(\$&)") + "\" failed";
}

}  // namespace IntfsmTest
