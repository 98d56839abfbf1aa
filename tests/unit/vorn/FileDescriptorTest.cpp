// FileDescriptor: readiness counted per pass, writability only while wanted, hang-ups and errors,
// changing and removing the descriptor, non-blocking mode, and descriptors closed behind its back.
#include "intfsm/foundation/vorn/FileDescriptor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/ActivityManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/System.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Pipe.h"
#include "tests/support/ThrownText.h"

namespace {

using IntfsmTest::Pipe;
using Vorn::FileDescriptor;
using Vorn::Ptr;
using ::testing::ElementsAre;

// Logs every notification of the descriptor it watches, with the value it then reads.
struct FdLog : FileDescriptor::NotifieeConst {
  explicit FdLog(Ptr<FileDescriptor> const & fd) { notifierIs(fd); }
  void add(char const * what, long long value) { log.push_back(what + (" " + std::to_string(value))); }
  void onDescriptor() override { add("descriptor", notifier()->descriptor()); }
  void onReadableCount() override {
    add("readable", notifier()->readableCount());
    if (onReadable) onReadable();
  }
  void onWritableCount() override { add("writable", notifier()->writableCount()); }
  void onExceptionPendingCount() override { add("exception", notifier()->exceptionPendingCount()); }
  void onWritableWanted() override { add("writableWanted", notifier()->writableWanted()); }
  std::vector<std::string> log;
  std::function<void()> onReadable;
};

class FileDescriptorTest : public testing::Test {
 protected:
  Ptr<FileDescriptor> watch(char const * name, int descriptor) {
    Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory(name, loop);
    fd->descriptorIs(descriptor);
    return fd;
  }
  Vorn::ActivityManager loop;
};

// Readiness is level-triggered, one count per pass. Writability is counted only while wanted: an
// always-writable descriptor that nobody wants to write does not wake the loop (an idle pass blocks for
// its whole timeout), and the readable handler of a pass may stop wanting it for that very pass.
TEST_F(FileDescriptorTest, ReadinessIsLevelTriggeredAndWritabilityCountedOnlyWhileWanted) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
  Ptr<FileDescriptor> fd = watch("both", ends[0]);
  Ptr<FdLog> reactor = new FdLog(fd);
  double const start = Vorn::System::monotonicTime();
  EXPECT_FALSE(loop.runOnce(0.05));
  EXPECT_GE(Vorn::System::monotonicTime() - start, 0.045);
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_TRUE(loop.runOnce(0));  // data left: called again
  fd->writableWantedIs(true);
  fd->writableWantedIs(true);  // unchanged: no second notification
  EXPECT_TRUE(loop.runOnce(0));
  reactor->onReadable = [&] { fd->writableWantedIs(false); };
  EXPECT_TRUE(loop.runOnce(0));
  char buffer[8];
  ASSERT_EQ(read(ends[0], buffer, sizeof buffer), 1);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_THAT(reactor->log, ElementsAre("readable 1", "readable 2", "writableWanted 1", "readable 3", "writable 1",
                                        "readable 4", "writableWanted 0"));
  fd = nullptr;
  close(ends[0]), close(ends[1]);
}

// A hang-up (or an error on a write end) is an exception, reported each pass until the owner
// clears the descriptor, and counted after the data that came with it.
TEST_F(FileDescriptorTest, HangUpsAndErrorsAreExceptionsCountedAfterTheData) {
  Pipe hungUp, broken, cleared;
  Ptr<FileDescriptor> hup = watch("hup", hungUp.r), err = watch("err", broken.w), clears = watch("clears", cleared.r);
  Ptr<FdLog> hupLog = new FdLog(hup), clearsLog = new FdLog(clears);
  clearsLog->onReadable = [&] { clears->descriptorIs(-1); };  // the rest of its counts are not raised
  hungUp.put();
  hungUp.closeWrite();
  broken.closeRead();
  cleared.put();
  cleared.closeWrite();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(std::tuple(err->exceptionPendingCount(), err->writableCount()), std::tuple(1u, 0u));
  EXPECT_THAT(clearsLog->log, ElementsAre("readable 1", "descriptor -1"));
  hungUp.drain();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(hupLog->log, ElementsAre("readable 1", "exception 1", "exception 2"));
  hup->descriptorIs(-1);
  err->descriptorIs(-1);
  EXPECT_FALSE(loop.runOnce(0));
}

TEST_F(FileDescriptorTest, AHandlerMayDestroyAnotherReadyDescriptor) {
  Pipe a, b;
  Ptr<FileDescriptor> fdA = watch("a", a.r), fdB = watch("b", b.r);
  Ptr<FdLog> ra = new FdLog(fdA), rb = new FdLog(fdB);
  // Whichever is dispatched first drops the other, reactor included.
  ra->onReadable = [&] { rb = nullptr, fdB = nullptr; };
  rb->onReadable = [&] { ra = nullptr, fdA = nullptr; };
  a.put();
  b.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(std::tuple(loop.watches(), ra ? ra->log.size() : rb->log.size()), std::tuple(1u, 1u));
}

// The watch follows the descriptor and goes with the FileDescriptor; the descriptor is never closed.
TEST_F(FileDescriptorTest, ChangingClearingOrDestroyingMovesTheWatchAndNeverCloses) {
  int const descriptors = IntfsmTest::openDescriptorCount();
  Pipe first, second;
  Ptr<FileDescriptor> fd = watch("in", first.r);
  Ptr<FdLog> reactor = new FdLog(fd);
  fd->descriptorIs(second.r);
  fd->descriptorIs(second.r);  // unchanged: no notification
  first.put();
  EXPECT_FALSE(loop.runOnce(0));
  second.put();
  EXPECT_TRUE(loop.runOnce(0));
  fd->descriptorIs(-1);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_THAT(reactor->log, ElementsAre("descriptor " + std::to_string(second.r), "readable 1", "descriptor -1"));
  fd->descriptorIs(first.r);
  reactor = nullptr;
  fd = nullptr;
  EXPECT_EQ(loop.watches(), 0u);
  Ptr<FileDescriptor> again = watch("again", first.r);  // allowed: epoll no longer holds it
  EXPECT_TRUE(loop.runOnce(0));
  again = nullptr;
  EXPECT_EQ(std::tuple(loop.staleWatches(), IntfsmTest::openDescriptorCount()), std::tuple(0u, descriptors + 4));  // pipes open
}

TEST_F(FileDescriptorTest, NonBlockingIsAppliedToTheDescriptorNowAndLater) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);  // blocking
  auto const nonBlock = [](int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; };
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("in", loop);
  fd->nonBlockingIs(true);  // no descriptor yet: remembered
  fd->descriptorIs(fds[0]);
  EXPECT_TRUE(nonBlock(fds[0]));
  fd->nonBlockingIs(false);
  fd->descriptorIs(fds[1]);  // without it, a new descriptor keeps its own flags
  EXPECT_EQ(std::tuple(nonBlock(fds[0]), nonBlock(fds[1])), std::tuple(false, false));
  fd = nullptr;
  close(fds[0]), close(fds[1]);
}

TEST_F(FileDescriptorTest, ADescriptorThatCannotBeWatchedIsRefusedAndChangesNothing) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("in", pipe.r);
  Ptr<FileDescriptor> second = Vorn::fileDescriptorFactory("second", loop);
  std::string const refused = "cannot watch descriptor ";
  auto const refusal = [](std::function<void()> const & f) { return IntfsmTest::thrownText<Vorn::ErrnoException>(f); };
  int const closedFd = dup(pipe.w);
  close(closedFd);
  EXPECT_EQ(refusal([&] { fd->descriptorIs(closedFd); }),
            "FileDescriptor in: " + refused + std::to_string(closedFd) + ": Bad file descriptor");
  int const file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);  // epoll does not take regular files
  EXPECT_EQ(refusal([&] { fd->descriptorIs(file); }),
            "FileDescriptor in: " + refused + std::to_string(file) + ": Operation not permitted");
  EXPECT_EQ(refusal([&] { second->descriptorIs(pipe.r); }),
            "FileDescriptor second: " + refused + std::to_string(pipe.r) + ": File exists (watched by FileDescriptor in)");
  EXPECT_THROW(fd->descriptorIs(-2), Vorn::RangeException);
  close(file);
  EXPECT_EQ(std::tuple(fd->descriptor(), second->descriptor()), std::tuple(pipe.r, -1));
  pipe.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(fd->readableCount(), 1u);
}

// The owner closed its descriptor without clearing it. Clearing it then is quiet, and when the
// number went to a new descriptor that another FileDescriptor watches, it must not unwatch that one.
TEST_F(FileDescriptorTest, ADescriptorClosedBeforeItWasClearedIsForgottenQuietly) {
  Pipe first, second;
  Ptr<FileDescriptor> stale = watch("stale", first.r);
  int const number = first.r;
  first.closeRead();
  Pipe fresh;  // takes the lowest free number, the one just closed
  ASSERT_EQ(fresh.r, number);
  Ptr<FileDescriptor> current = watch("current", fresh.r);
  stale->descriptorIs(-1);
  EXPECT_EQ(loop.staleWatches(), 1u);
  fresh.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(std::tuple(current->readableCount(), stale->readableCount()), std::tuple(1u, 0u));

  Ptr<FileDescriptor> gone = watch("gone", second.r);
  second.closeRead();
  gone->writableWantedIs(true);  // EPOLL_CTL_MOD finds it gone
  gone->descriptorIs(-1);
  EXPECT_EQ(std::tuple(loop.watches(), loop.staleWatches()), std::tuple(1u, 2u));

  // Wanting nothing, a descriptor is out of the set; closed meanwhile, wanting again is quiet.
  Pipe third;
  Ptr<FileDescriptor> parked = watch("parked", third.r);
  parked->readableWantedIs(false);
  EXPECT_EQ(loop.watches(), 1u);
  third.closeRead();
  parked->readableWantedIs(true);
  parked->descriptorIs(-1);
  EXPECT_EQ(loop.watches(), 1u);
}

}  // namespace
