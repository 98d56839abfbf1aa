#include "tests/support/KernelModuleTest.h"

#include <linux/if.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "intfsm/foundation/ovel/SocketAt.h"
#include "intfsm/foundation/vorn/Descriptors.h"
#include "tests/support/Descriptors.h"

namespace IntfsmTest {

int mappedSockets() {
  std::ifstream maps("/proc/self/maps");
  int n = 0;
  for (std::string line; std::getline(maps, line);) n += line.find("socket:[") != std::string::npos;
  return n;
}

void Reader::onReadableCount() {
  ++calls;
  if (!consume) return;
  while (Vorn::Ptr<Ovel::Pkt> pkt = pam->rxPkt()) {
    frames.emplace_back(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen());
    held.push_back(pkt);
  }
}

void KernelModuleTest::SetUp() {
  NetNsTest::SetUp();
  if (IsSkipped()) return;
  descriptorsBefore_ = openDescriptorCount();
  namedBefore_ = Vorn::descriptorTotal();
  mappingsBefore_ = mappedSockets();
}

void KernelModuleTest::TearDown() {
  if (!IsSkipped()) {
    for (int fd : senders_) ::close(fd);
    senders_.clear();
    EXPECT_EQ(loop_.watches(), 0u) << "descriptors still watched";
    EXPECT_EQ(descriptorsOpened(), 0) << "descriptors left open";
    EXPECT_EQ(Vorn::descriptorTotal(), namedBefore_) << "closed descriptors still named in the registry";
    EXPECT_EQ(mappedSockets(), mappingsBefore_) << "rings left mapped";
  }
  NetNsTest::TearDown();
}

bool KernelModuleTest::runUntil(std::function<bool()> const & done, double timeout, double pass) {
  // Measured on the clock: a pass ends early on every event, so counting passes would cut the wait short.
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    loop_.runOnce(pass);
  }
  return true;
}

int KernelModuleTest::descriptorsOpened() const { return openDescriptorCount() - descriptorsBefore_; }

KernelModuleTest::VethLink KernelModuleTest::vethUp(std::string const & ns, std::string const & a, std::string const & b,
                                                    std::string const & peerNs) {
  std::string const bNs = peerNs.empty() ? ns : peerNs;
  netns().vethPairNew(ns, a, b, peerNs);
  netns().linkUp(ns, a);
  netns().linkUp(bNs, b);
  EXPECT_TRUE(netns().waitForOperState(ns, a, IF_OPER_UP));
  EXPECT_TRUE(netns().waitForOperState(bNs, b, IF_OPER_UP));
  return {netns().link(ns, a)->ifindex, netns().link(bNs, b)->ifindex};
}

int KernelModuleTest::senderIn(std::string const & ns) {
  int const fd = Ovel::socketAt(AF_PACKET, SOCK_RAW, 0, ns.c_str());  // protocol 0: receives nothing
  EXPECT_GE(fd, 0);
  if (fd >= 0) senders_.push_back(fd);
  return fd;
}

void KernelModuleTest::sendOn(int fd, int ifIndex, std::string const & f) {
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_ifindex = ifIndex;
  ASSERT_EQ(::sendto(fd, f.data(), f.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
            static_cast<ssize_t>(f.size()));
}

}  // namespace IntfsmTest
