// A bundle's Pam: the queue of frames waiting for the reader, its bound and its drop policies.
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Packets.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::EthDevPamInBundle;
using testing::ElementsAre;
using Vorn::Ptr;

namespace {

class EthDevPamInBundleTest : public testing::Test {
 protected:
  // Writes frames "f<first>" .. "f<first+n-1>" through one packet, as the bulk receive path does;
  // how many were queued.
  int write(int first, int n) {
    int queued = 0;
    for (int i = first; i < first + n; ++i) {
      std::string const bytes = "f" + std::to_string(i);
      writer->sharedDataResetForReuse();
      writer->dataIs(bytes.data(), static_cast<uint32_t>(bytes.size()));
      queued += pam->writeNewRxPkt(writer) ? 1 : 0;
    }
    return queued;
  }
  std::vector<std::string> takeAll() {
    std::vector<std::string> out;
    while (Ptr<Ovel::Pkt> pkt = pam->rxPkt()) out.push_back(IntfsmTest::bytesOf(pkt));
    return out;
  }

  Ptr<Ovel::PktManager> manager = Ovel::PktManager::pktManagerNew(1024);
  Ptr<Ovel::Pkt> writer = manager->newPkt();
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
};

TEST_F(EthDevPamInBundleTest, AFullQueueOf255DropsTheNewFrameOrWithHeadDropTheOldest) {
  for (bool headDrop : {false, true}) {
    SCOPED_TRACE(headDrop);
    pam = new EthDevPamInBundle(Vorn::String("et1"));
    EXPECT_EQ(pam->maxRxPkts(), 255u);
    pam->headDropPolicyIs(headDrop);
    EXPECT_EQ(write(0, 257), headDrop ? 257 : 255);
    EXPECT_EQ(std::tuple(pam->curRxPkts(), pam->queueDropCount()), std::tuple(255u, 2u));
    std::vector<std::string> expected;  // with head drop, through the ring's wrap
    for (int i = headDrop ? 2 : 0; i < (headDrop ? 257 : 255); ++i) expected.push_back("f" + std::to_string(i));
    EXPECT_EQ(takeAll(), expected);
  }
}

TEST_F(EthDevPamInBundleTest, LoweringTheBoundBelowWhatWaitsDropsTheOldest) {
  pam->maxRxPktsIs(5);
  EXPECT_EQ(write(0, 6), 5);
  pam->maxRxPktsIs(2);
  EXPECT_EQ(pam->queueDropCount(), 4u);
  EXPECT_THAT(takeAll(), ElementsAre("f3", "f4"));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->maxRxPktsIs(0); }),
            "EthDevPamInBundle::maxRxPkts < 1 not allowed");
  EXPECT_EQ(pam->maxRxPkts(), 2u);  // kept
}

TEST_F(EthDevPamInBundleTest, TheSingleReadPathQueuesTooAndDisablingDropsWhatWaits) {
  EXPECT_TRUE(pam->rxPktIs(IntfsmTest::pktOf("one", *manager)));
  EXPECT_TRUE(pam->rxPktIs(IntfsmTest::pktOf("two", *manager)));
  EXPECT_THAT(takeAll(), ElementsAre("one", "two"));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->writeNewRxPkt(nullptr); }),
            "EthDevPamInBundle::writeNewRxPkt of a null packet not allowed");
  pam->enabledIs(true);
  write(0, 4);
  pam->enabledIs(false);
  // Only the writer lives: the queued copies went back to the pool.
  EXPECT_EQ(std::tuple(pam->curRxPkts(), pam->queueDropCount(), manager->livePkts()), std::tuple(0u, 4u, 1u));
}

}  // namespace
