// A pipe for driving the event loop with real readiness: both ends close-on-exec and non-blocking,
// closed with the object.
//
//   IntfsmTest::Pipe pipe;
//   fd->descriptorIs(pipe.r);
//   pipe.put();              // readable on the next pass
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace IntfsmTest {

struct Pipe {
  int r = -1;
  int w = -1;
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) r = fds[0], w = fds[1];
  }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  Pipe(Pipe const &) = delete;
  Pipe & operator=(Pipe const &) = delete;
  void put(char c = 'x') const { ASSERT_EQ(::write(w, &c, 1), 1); }
  void drain() const {
    char buf[256];
    while (::read(r, buf, sizeof buf) > 0) {
    }
  }
  void closeRead() {
    if (r >= 0) ::close(r);
    r = -1;
  }
  void closeWrite() {
    if (w >= 0) ::close(w);
    w = -1;
  }
};

}  // namespace IntfsmTest
