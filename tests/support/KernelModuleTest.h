// The base of kernel tests: skips unless root, makes namespaces and veth pairs that go on every path
// (NetNsTest), runs a private event loop as the process's loop, and checks that the test leaves no
// descriptor (open, or still named in the registry of descriptors) and no packet-ring mapping behind.
//
//   class MyKernelTest : public IntfsmTest::KernelModuleTest {
//    protected:
//     void TearDown() override {
//       pam = nullptr;                       // what holds descriptors goes before the leak check
//       KernelModuleTest::TearDown();
//     }
//     Ptr<Ovel::EthDevPam> pam;
//   };
//   TEST_F(MyKernelTest, Receives) {
//     std::string const ns = netns().namespaceNew();
//     auto const link = vethUp(ns, "va0", "vb0");          // both ends up and running
//     Ptr<IntfsmTest::Reader> reader = new IntfsmTest::Reader(pam);
//     sendOn(senderIn(ns), link.b, frame('a'));            // out of vb0
//     ASSERT_TRUE(runUntil([&] { return reader->frames.size() == 1; }));
//   }
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/Pam.h"
#include "intfsm/foundation/ovel/Pkt.h"
#include "intfsm/foundation/vorn/ActivityManager.h"
#include "tests/support/NetNs.h"
#include "tests/support/Packets.h"
#include "tests/support/ScopedLoop.h"

namespace IntfsmTest {

// Packet-socket mappings (receive rings) of this process.
int mappedSockets();

// Reads every frame a Pam announces (or none while `consume` is false) and keeps the packets.
struct Reader : Ovel::Pam::NotifieeConst {
  explicit Reader(Vorn::Ptr<Ovel::Pam> const & p) : pam(p.ptr()) { notifierIs(p); }
  void onReadableCount() override;
  Ovel::Pam * pam;  // the Pam outlives its reader
  bool consume = true;
  unsigned calls = 0;
  std::vector<std::string> frames;
  std::vector<Vorn::Ptr<Ovel::Pkt>> held;
};

class KernelModuleTest : public NetNsTest {
 protected:
  void SetUp() override;
  // Checks for leaks; a test that holds descriptors drops them first, then calls this.
  void TearDown() override;

  Vorn::ActivityManager & loop() { return loop_; }
  // Loop passes of at most `pass` seconds each until `done`, for at most `timeout` seconds. Short
  // passes: work on an activity would otherwise leave a pass blocked for its whole timeout.
  bool runUntil(std::function<bool()> const & done, double timeout = 5.0, double pass = 0.01);

  // Descriptors opened, and packet rings mapped, since the test began.
  int descriptorsOpened() const;
  int mappingsOpened() const { return mappedSockets() - mappingsBefore_; }

  // Ifindexes of a veth pair made by vethUp.
  struct VethLink {
    int a = 0, b = 0;
  };
  // A veth pair, `a` in `ns` and `b` in `peerNs` (in `ns` when empty), both up and running.
  VethLink vethUp(std::string const & ns, std::string const & a, std::string const & b, std::string const & peerNs = "");
  // A raw packet socket in `ns` that receives nothing and sends out of any device (closed at tear-down).
  int senderIn(std::string const & ns);
  // Sends `f` out of the device of index `ifIndex` that `fd` sees.
  static void sendOn(int fd, int ifIndex, std::string const & f);

 private:
  Vorn::ActivityManager loop_;
  ScopedLoop scopedLoop_{loop_};
  int descriptorsBefore_ = 0;
  uint32_t namedBefore_ = 0;
  int mappingsBefore_ = 0;
  std::vector<int> senders_;
};

}  // namespace IntfsmTest
