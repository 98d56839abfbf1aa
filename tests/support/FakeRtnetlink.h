// The kernel's rtnetlink link service, played by a test: a KernelNetInfo::Status under test reads
// what the test writes, as if the kernel had sent it.
//
// While it lives (inside a FakePlatform), socketAt hands out one end of a datagram socket pair; the
// test keeps the other end. A dump request (RTM_GETLINK with NLM_F_DUMP) sent on the status's end is
// recorded and, unless answering is held, answered at once from the fake's link table: RTM_NEWLINK
// messages with NLM_F_MULTI and the request's sequence number, a few per datagram, then NLMSG_DONE.
// Events go out as the kernel multicasts them: sequence 0, no NLM_F_MULTI.
//
//   IntfsmTest::FakePlatform fake;
//   IntfsmTest::FakeRtnetlink kernel(fake);
//   kernel.linkIs(1, IFF_UP | IFF_RUNNING, "lo");
//   status->enabledIs(true);                       // dumped: the Root holds lo
//   kernel.newLink(3, IFF_UP, "va0");              // an event; the table follows
//   loop.runOnce(0);                               // the Root holds va0
//
// Every helper asserts (GoogleTest) that its datagram was queued whole.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/FakePlatform.h"

namespace IntfsmTest {

class FakeRtnetlink {
 public:
  struct Link {
    uint32_t flags = 0;
    std::string name;
  };

  explicit FakeRtnetlink(FakePlatform & fake);
  ~FakeRtnetlink();
  FakeRtnetlink(FakeRtnetlink const &) = delete;
  FakeRtnetlink & operator=(FakeRtnetlink const &) = delete;

  // The table that dumps report; changing it sends nothing (the event is "lost").
  void linkIs(uint32_t ifIndex, uint32_t flags, std::string const & name) { links_[ifIndex] = {flags, name}; }
  void linkDel(uint32_t ifIndex) { links_.erase(ifIndex); }

  // Events: the table changes and the message is sent.
  void newLink(uint32_t ifIndex, uint32_t flags, std::string const & name);
  void delLink(uint32_t ifIndex);

  // Sequence numbers of the dump requests seen, in order; the ones not answered yet.
  std::vector<uint32_t> const & dumpRequests() const { return requests_; }
  size_t heldRequests() const { return held_.size(); }

  // False holds requests until the test answers them.
  void autoAnswerIs(bool autoAnswer) { autoAnswer_ = autoAnswer; }
  // Links per datagram in answers.
  void linksPerDatagramIs(unsigned n) { linksPerDatagram_ = n == 0 ? 1 : n; }
  // The next answer's messages carry NLM_F_DUMP_INTR.
  void interruptNextDump() { interruptNext_ = true; }

  // Answers the oldest held request whole.
  void answer();
  // Refuses it with NLMSG_ERROR `error`, as the kernel refuses a second dump on one socket (EBUSY).
  void refuse(int error);
  // Or in steps: begin (the table is read now), send the next `count` links, then done.
  void dumpBegin();
  void dumpSend(size_t count);
  void dumpDone();

  // Raw datagrams to the status.
  void send(std::string const & datagram);

  // One link message: nlmsghdr, ifinfomsg and IFLA_IFNAME (and IFLA_NEW_NETNSID, IFLA_OPERSTATE when given).
  static std::string linkMessage(uint16_t type, uint16_t nlFlags, uint32_t seq, uint32_t ifIndex, uint32_t flags,
                                 std::string const & name, uint8_t family = 0,
                                 std::optional<int32_t> newNetNsId = std::nullopt,
                                 std::optional<uint8_t> operState = std::nullopt);
  static std::string doneMessage(uint32_t seq, uint16_t nlFlags = 0);
  static std::string errorMessage(uint32_t seq, int error);

 private:
  int socketPair();

  FakePlatform & fake_;
  std::map<uint32_t, Link> links_;
  int statusSide_ = -1;
  int kernelSide_ = -1;
  bool autoAnswer_ = true;
  bool interruptNext_ = false;
  unsigned linksPerDatagram_ = 3;
  std::vector<uint32_t> requests_;
  std::deque<uint32_t> held_;
  // The dump being answered in steps.
  uint32_t dumpSeq_ = 0;
  uint16_t dumpFlags_ = 0;
  std::vector<std::pair<uint32_t, Link>> dumpLinks_;
  size_t dumpNext_ = 0;
};

}  // namespace IntfsmTest
