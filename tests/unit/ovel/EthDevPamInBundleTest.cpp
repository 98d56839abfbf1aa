#include "intfsm/foundation/ovel/EthDevPamInBundle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::EthDevPamInBundle;
using Ovel::Pkt;
using Ovel::PktManager;
using testing::ElementsAre;
using Vorn::Ptr;

namespace {

class EthDevPamInBundleTest : public testing::Test {
 protected:
  // Writes frames "f<first>" .. "f<first+n-1>"; how many were queued.
  int write(int first, int n) {
    int queued = 0;
    for (int i = first; i < first + n; ++i) {
      std::string const bytes = "f" + std::to_string(i);
      writer->sharedDataResetForReuse();  // one packet for every read, as the bulk receive path does
      writer->dataIs(bytes.data(), static_cast<uint32_t>(bytes.size()));
      queued += pam->writeNewRxPkt(writer) ? 1 : 0;
    }
    return queued;
  }
  // Takes every waiting frame.
  std::vector<std::string> takeAll() {
    std::vector<std::string> out;
    while (Ptr<Pkt> pkt = pam->rxPkt()) out.emplace_back(reinterpret_cast<char const *>(pkt->data()), pkt->dataLen());
    return out;
  }

  Ptr<PktManager> manager = PktManager::pktManagerNew(1024);
  Ptr<Pkt> writer = manager->newPkt();
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
};

TEST_F(EthDevPamInBundleTest, FullQueueOf255DropsTheNewFrameOrWithHeadDropTheOldest) {
  struct Case {
    bool headDrop;
    int queued;
    int first;  // of the frames left, in order
  };
  for (Case const c : {Case{false, 255, 0}, Case{true, 257, 2}}) {
    SCOPED_TRACE(c.headDrop);
    pam = new EthDevPamInBundle(Vorn::String("et1"));
    EXPECT_EQ(pam->maxRxPkts(), 255u);
    EXPECT_FALSE(pam->headDropPolicy());
    pam->headDropPolicyIs(c.headDrop);
    EXPECT_EQ(write(0, 257), c.queued);
    EXPECT_EQ(pam->curRxPkts(), 255u);
    EXPECT_EQ(pam->rxPkts(), 255u);
    EXPECT_EQ(pam->queueDropCount(), 2u);
    std::vector<std::string> expected;  // with head drop, through the ring's wrap
    for (int i = c.first; i < c.first + 255; ++i) expected.push_back("f" + std::to_string(i));
    EXPECT_EQ(takeAll(), expected);
    EXPECT_EQ(pam->curRxPkts(), 0u);
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
  EXPECT_EQ(pam->maxRxPkts(), 2u);
}

TEST_F(EthDevPamInBundleTest, SingleReadPathQueuesTooAndDisablingDropsWhatWaits) {
  writer->dataIs("one", 3);
  EXPECT_TRUE(pam->rxPktIs(writer));
  writer->sharedDataResetForReuse();
  writer->dataIs("two", 3);
  EXPECT_TRUE(pam->rxPktIs(writer));
  EXPECT_THAT(takeAll(), ElementsAre("one", "two"));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->writeNewRxPkt(nullptr); }),
            "EthDevPamInBundle::writeNewRxPkt of a null packet not allowed");

  pam->enabledIs(true);
  write(0, 4);
  pam->enabledIs(false);
  EXPECT_EQ(pam->curRxPkts(), 0u);
  EXPECT_EQ(pam->queueDropCount(), 4u);
  EXPECT_EQ(manager->livePkts(), 1u);  // only the writer: the queued copies went back to the pool
}

}  // namespace
