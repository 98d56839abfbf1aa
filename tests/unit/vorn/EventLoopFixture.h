// What the event-loop tests share: a private loop per test, a test clock, and pipes that close
// themselves.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>

#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/System.h"

namespace intfsmTest {

// A pipe, both ends close-on-exec and non-blocking; closed with the object.
struct Pipe {
  int r = -1;
  int w = -1;
  Pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
      r = fds[0];
      w = fds[1];
    }
  }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  Pipe(Pipe const &) = delete;
  Pipe & operator=(Pipe const &) = delete;
  void put(char c = 'x') const { ASSERT_EQ(write(w, &c, 1), 1); }
  void drain() const {
    char buf[256];
    while (read(r, buf, sizeof buf) > 0) {
    }
  }
  void closeRead() {
    if (r >= 0) close(r);
    r = -1;
  }
  void closeWrite() {
    if (w >= 0) close(w);
    w = -1;
  }
};

// Each test gets its own loop; the test clock, when a test sets it, is cleared afterwards.
class EventLoopTest : public ::testing::Test {
 protected:
  void TearDown() override { Vorn::System::testTimeDel(); }
  Vorn::ActivityManager loop;
};

}  // namespace intfsmTest
