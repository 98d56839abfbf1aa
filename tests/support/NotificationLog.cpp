#include "tests/support/NotificationLog.h"

#include <utility>

namespace IntfsmTest {

std::vector<std::string> NotificationLog::take() { return std::exchange(lines_, {}); }

}  // namespace IntfsmTest
