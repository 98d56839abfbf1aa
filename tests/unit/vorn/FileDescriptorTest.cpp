// FileDescriptor: readiness counted per pass, writability only while wanted, hang-ups and errors,
// changing and removing the descriptor, non-blocking mode, and descriptors closed behind its back.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/unit/vorn/EventLoopFixture.h"

namespace {

using Vorn::FileDescriptor;
using Vorn::Ptr;
using intfsmTest::Pipe;

// Logs every notification of the descriptor it watches.
class FdLog : public FileDescriptor::NotifieeConst {
 public:
  explicit FdLog(Ptr<FileDescriptor> const & fd) { notifierIs(fd); }
  void onDescriptor() override { log.push_back("descriptor " + std::to_string(notifier()->descriptor())); }
  void onNonBlocking() override { log.push_back(std::string("nonBlocking ") + (notifier()->nonBlocking() ? "1" : "0")); }
  void onReadableCount() override {
    log.push_back("readable " + std::to_string(notifier()->readableCount()));
    if (onReadable) onReadable();
  }
  void onWritableCount() override { log.push_back("writable " + std::to_string(notifier()->writableCount())); }
  void onExceptionPendingCount() override {
    log.push_back("exception " + std::to_string(notifier()->exceptionPendingCount()));
  }
  void onWritableWanted() override {
    log.push_back(std::string("writableWanted ") + (notifier()->writableWanted() ? "1" : "0"));
  }
  std::vector<std::string> log;
  std::function<void()> onReadable;
};

class FileDescriptorTest : public intfsmTest::EventLoopTest {
 protected:
  Ptr<FileDescriptor> watch(char const * name, int descriptor) {
    Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory(name, loop);
    fd->descriptorIs(descriptor);
    return fd;
  }
};

bool hasNonBlock(int fd) { return fcntl(fd, F_GETFL) & O_NONBLOCK; }

TEST_F(FileDescriptorTest, APipeIsReadableOncePerPassUntilDrained) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("pipe", pipe.r);
  Ptr<FdLog> reactor = new FdLog(fd);
  EXPECT_FALSE(loop.runOnce(0));
  pipe.put();
  pipe.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(fd->readableCount(), 1u);
  EXPECT_TRUE(loop.runOnce(0));  // level-triggered: data left, called again
  EXPECT_EQ(fd->readableCount(), 2u);
  pipe.drain();
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_THAT(reactor->log, testing::ElementsAre("readable 1", "readable 2"));
  EXPECT_EQ(fd->writableCount(), 0u);
  EXPECT_EQ(fd->exceptionPendingCount(), 0u);
}

TEST_F(FileDescriptorTest, AnEventfdIsReadableWhileItsCounterIsSet) {
  int const efd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  ASSERT_GE(efd, 0);
  {
    Ptr<FileDescriptor> fd = watch("eventfd", efd);
    uint64_t one = 1;
    ASSERT_EQ(write(efd, &one, sizeof one), 8);
    EXPECT_TRUE(loop.runOnce(0));
    EXPECT_EQ(fd->readableCount(), 1u);
    uint64_t value = 0;
    ASSERT_EQ(read(efd, &value, sizeof value), 8);
    EXPECT_FALSE(loop.runOnce(0));
    EXPECT_EQ(fd->readableCount(), 1u);
  }
  close(efd);
}

TEST_F(FileDescriptorTest, WritabilityIsCountedOnlyWhileWanted) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("out", pipe.w);
  Ptr<FdLog> reactor = new FdLog(fd);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(fd->writableCount(), 0u);

  fd->writableWantedIs(true);
  fd->writableWantedIs(true);  // unchanged: no second notification
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(fd->writableCount(), 2u);

  fd->writableWantedIs(false);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(fd->writableCount(), 2u);
  EXPECT_THAT(reactor->log,
              testing::ElementsAre("writableWanted 1", "writable 1", "writable 2", "writableWanted 0"));
}

// An always-writable descriptor that nobody wants to write does not wake the loop: the pass blocks
// in epoll_wait for its whole timeout and reports nothing.
TEST_F(FileDescriptorTest, AnIdleLoopBlocksInsteadOfSpinning) {
  Pipe pipe;
  Ptr<FileDescriptor> out = watch("out", pipe.w);
  Ptr<FileDescriptor> in = watch("in", pipe.r);
  double const start = Vorn::System::monotonicTime();
  EXPECT_FALSE(loop.runOnce(0.05));
  EXPECT_GE(Vorn::System::monotonicTime() - start, 0.045);
  EXPECT_EQ(loop.passes(), 1u);
  EXPECT_EQ(out->writableCount(), 0u);
  EXPECT_EQ(in->readableCount(), 0u);
}

TEST_F(FileDescriptorTest, AHangUpIsAnExceptionNotReadability) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("in", pipe.r);
  pipe.closeWrite();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(fd->exceptionPendingCount(), 1u);
  EXPECT_EQ(fd->readableCount(), 0u);
  EXPECT_TRUE(loop.runOnce(0));  // reported until the owner clears the descriptor
  EXPECT_EQ(fd->exceptionPendingCount(), 2u);
  fd->descriptorIs(-1);
  EXPECT_FALSE(loop.runOnce(0));
}

TEST_F(FileDescriptorTest, AnErrorOnTheWriteEndIsAnException) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("out", pipe.w);
  pipe.closeRead();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(fd->exceptionPendingCount(), 1u);
  EXPECT_EQ(fd->writableCount(), 0u);
}

TEST_F(FileDescriptorTest, DataAndHangUpInOnePassAreCountedReadableFirst) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("in", pipe.r);
  Ptr<FdLog> reactor = new FdLog(fd);
  pipe.put();
  pipe.closeWrite();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(reactor->log, testing::ElementsAre("readable 1", "exception 1"));
}

TEST_F(FileDescriptorTest, AHandlerThatClearsTheDescriptorStopsTheRestOfItsCounts) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("in", pipe.r);
  Ptr<FdLog> reactor = new FdLog(fd);
  reactor->onReadable = [&] { fd->descriptorIs(-1); };
  pipe.put();
  pipe.closeWrite();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_THAT(reactor->log, testing::ElementsAre("readable 1", "descriptor -1"));
  EXPECT_EQ(fd->exceptionPendingCount(), 0u);
}

TEST_F(FileDescriptorTest, AHandlerMayDestroyAnotherReadyDescriptor) {
  Pipe a, b;
  Ptr<FileDescriptor> fdA = watch("a", a.r);
  Ptr<FileDescriptor> fdB = watch("b", b.r);
  Ptr<FdLog> ra = new FdLog(fdA);
  Ptr<FdLog> rb = new FdLog(fdB);
  // Whichever is dispatched first drops the other, reactor included.
  ra->onReadable = [&] { rb = nullptr, fdB = nullptr; };
  rb->onReadable = [&] { ra = nullptr, fdA = nullptr; };
  a.put();
  b.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ((fdA ? 1 : 0) + (fdB ? 1 : 0), 1);
  EXPECT_EQ(loop.watches(), 1u);
  EXPECT_EQ(ra ? ra->log.size() : rb->log.size(), 1u);
}

TEST_F(FileDescriptorTest, ChangingTheDescriptorMovesTheWatch) {
  Pipe first, second;
  Ptr<FileDescriptor> fd = watch("in", first.r);
  Ptr<FdLog> reactor = new FdLog(fd);
  fd->descriptorIs(second.r);
  fd->descriptorIs(second.r);  // unchanged: no notification
  first.put();
  EXPECT_FALSE(loop.runOnce(0));
  second.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(fd->readableCount(), 1u);
  EXPECT_EQ(loop.watches(), 1u);

  fd->descriptorIs(-1);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(loop.watches(), 0u);
  EXPECT_EQ(loop.staleWatches(), 0u);
  EXPECT_THAT(reactor->log,
              testing::ElementsAre("descriptor " + std::to_string(second.r), "readable 1", "descriptor -1"));
}

TEST_F(FileDescriptorTest, DestructionTakesTheDescriptorOutOfEpoll) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("in", pipe.r);
  fd = nullptr;
  EXPECT_EQ(loop.watches(), 0u);
  pipe.put();
  EXPECT_FALSE(loop.runOnce(0));
  // Watching it again is allowed: epoll no longer holds it.
  Ptr<FileDescriptor> again = watch("again", pipe.r);
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(again->readableCount(), 1u);
  EXPECT_EQ(loop.staleWatches(), 0u);
}

TEST_F(FileDescriptorTest, NonBlockingIsAppliedToTheDescriptorNowAndLater) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);  // blocking
  {
    Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("in", loop);
    Ptr<FdLog> reactor = new FdLog(fd);
    fd->nonBlockingIs(true);  // no descriptor yet: remembered
    fd->descriptorIs(fds[0]);
    EXPECT_TRUE(hasNonBlock(fds[0]));
    fd->nonBlockingIs(false);
    EXPECT_FALSE(hasNonBlock(fds[0]));
    fd->nonBlockingIs(true);
    EXPECT_TRUE(hasNonBlock(fds[0]));
    // Without it, a new descriptor keeps its own flags.
    fd->nonBlockingIs(false);
    fd->descriptorIs(fds[1]);
    EXPECT_FALSE(hasNonBlock(fds[1]));
    EXPECT_THAT(reactor->log, testing::ElementsAre("nonBlocking 1", "descriptor " + std::to_string(fds[0]),
                                                   "nonBlocking 0", "nonBlocking 1", "nonBlocking 0",
                                                   "descriptor " + std::to_string(fds[1])));
  }
  close(fds[0]);
  close(fds[1]);
}

TEST_F(FileDescriptorTest, ADescriptorThatCannotBeWatchedIsRefusedAndChangesNothing) {
  Pipe pipe;
  Ptr<FileDescriptor> fd = watch("in", pipe.r);

  int const closedFd = dup(pipe.w);
  close(closedFd);
  try {
    fd->descriptorIs(closedFd);
    FAIL() << "no exception";
  } catch (Vorn::ErrnoException const & e) {
    EXPECT_EQ(e.errorNumber(), EBADF);
    EXPECT_EQ(e.message(), "FileDescriptor in: cannot watch descriptor " + std::to_string(closedFd) +
                               ": Bad file descriptor");
  }

  int const file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  try {
    fd->descriptorIs(file);
    FAIL() << "no exception";
  } catch (Vorn::ErrnoException const & e) {
    EXPECT_EQ(e.errorNumber(), EPERM);  // epoll does not take regular files
  }
  close(file);

  EXPECT_THROW(fd->descriptorIs(-2), Vorn::RangeException);
  EXPECT_EQ(fd->descriptor(), pipe.r);
  pipe.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(fd->readableCount(), 1u);
}

TEST_F(FileDescriptorTest, TwoFileDescriptorsCannotWatchOneDescriptor) {
  Pipe pipe;
  Ptr<FileDescriptor> first = watch("first", pipe.r);
  Ptr<FileDescriptor> second = Vorn::fileDescriptorFactory("second", loop);
  try {
    second->descriptorIs(pipe.r);
    FAIL() << "no exception";
  } catch (Vorn::ErrnoException const & e) {
    EXPECT_EQ(e.errorNumber(), EEXIST);
    EXPECT_EQ(e.message(), "FileDescriptor second: cannot watch descriptor " + std::to_string(pipe.r) +
                               ": File exists (watched by FileDescriptor first)");
  }
  EXPECT_EQ(second->descriptor(), -1);
  pipe.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(first->readableCount(), 1u);
}

TEST_F(FileDescriptorTest, ADescriptorClosedBeforeItWasClearedIsForgottenQuietly) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  Ptr<FileDescriptor> fd = watch("in", fds[0]);
  close(fds[0]);
  fd->writableWantedIs(true);  // EPOLL_CTL_MOD finds it gone
  fd->descriptorIs(-1);
  EXPECT_EQ(fd->descriptor(), -1);
  EXPECT_EQ(loop.watches(), 0u);
  EXPECT_EQ(loop.staleWatches(), 1u);
  close(fds[1]);
}

// The owner closed its descriptor without clearing it, and the number went to a new descriptor
// that another FileDescriptor watches: clearing the stale one must not unwatch the new one.
TEST_F(FileDescriptorTest, ClearingAStaleWatchLeavesTheReusedNumberAlone) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  Ptr<FileDescriptor> stale = watch("stale", fds[0]);
  int const number = fds[0];
  close(fds[0]);
  Pipe fresh;  // takes the lowest free number, the one just closed
  ASSERT_EQ(fresh.r, number);
  Ptr<FileDescriptor> current = watch("current", fresh.r);
  stale->descriptorIs(-1);
  EXPECT_EQ(loop.staleWatches(), 1u);
  fresh.put();
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(current->readableCount(), 1u);
  EXPECT_EQ(stale->readableCount(), 0u);
  close(fds[1]);
}

TEST_F(FileDescriptorTest, NeverClosesTheDescriptorItWatches) {
  Pipe pipe;
  int const before = intfsmTest::openDescriptorCount();
  {
    Ptr<FileDescriptor> fd = watch("in", pipe.r);
    fd->descriptorIs(pipe.w);
  }
  EXPECT_EQ(intfsmTest::openDescriptorCount(), before);
  EXPECT_GE(fcntl(pipe.r, F_GETFD), 0);
  EXPECT_GE(fcntl(pipe.w, F_GETFD), 0);
}

TEST_F(FileDescriptorTest, CountersCanBeRaisedWithoutAKernel) {
  Ptr<FileDescriptor> fd = Vorn::fileDescriptorFactory("fake", loop);
  Ptr<FdLog> reactor = new FdLog(fd);
  fd->readableCountInc(2);
  fd->writableCountInc();
  fd->exceptionPendingCountInc(0);  // nothing happened: nobody is told
  EXPECT_THAT(reactor->log, testing::ElementsAre("readable 2", "writable 1"));
}

}  // namespace
