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

std::string bytesOf(Pkt const & pkt) {
  return std::string(reinterpret_cast<char const *>(pkt.data()), pkt.dataLen());
}

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
    while (Ptr<Pkt> pkt = pam->rxPkt()) out.push_back(bytesOf(*pkt));
    return out;
  }

  Ptr<PktManager> manager = PktManager::pktManagerNew(1024);
  Ptr<Pkt> writer = manager->newPkt();
  Ptr<EthDevPamInBundle> pam = new EthDevPamInBundle(Vorn::String("et1"));
};

TEST_F(EthDevPamInBundleTest, FramesWaitInOrderAndStayIntactWhileTheWriterReusesItsPacket) {
  EXPECT_EQ(pam->name(), "et1");
  EXPECT_EQ(pam->maxRxPkts(), 255u);
  EXPECT_FALSE(pam->headDropPolicy());
  EXPECT_EQ(write(0, 3), 3);
  EXPECT_EQ(pam->curRxPkts(), 3u);
  EXPECT_EQ(pam->rxPkts(), 3u);
  EXPECT_THAT(takeAll(), ElementsAre("f0", "f1", "f2"));
  EXPECT_EQ(pam->curRxPkts(), 0u);
  EXPECT_FALSE(pam->rxPkt());
}

TEST_F(EthDevPamInBundleTest, FullQueueDropsTheNewFrameWithoutHeadDrop) {
  EXPECT_EQ(write(0, 255), 255);
  EXPECT_EQ(pam->curRxPkts(), 255u);
  EXPECT_EQ(pam->queueDropCount(), 0u);
  EXPECT_EQ(write(255, 2), 0);
  EXPECT_EQ(pam->curRxPkts(), 255u);
  EXPECT_EQ(pam->queueDropCount(), 2u);
  std::vector<std::string> const out = takeAll();
  ASSERT_EQ(out.size(), 255u);
  EXPECT_EQ(out.front(), "f0");
  EXPECT_EQ(out.back(), "f254");
}

TEST_F(EthDevPamInBundleTest, FullQueueDropsTheOldestFrameWithHeadDrop) {
  pam->headDropPolicyIs(true);
  EXPECT_EQ(write(0, 257), 257);
  EXPECT_EQ(pam->curRxPkts(), 255u);
  EXPECT_EQ(pam->queueDropCount(), 2u);
  std::vector<std::string> const out = takeAll();
  ASSERT_EQ(out.size(), 255u);
  EXPECT_EQ(out.front(), "f2");
  EXPECT_EQ(out.back(), "f256");
}

TEST_F(EthDevPamInBundleTest, SmallerBound) {
  pam->maxRxPktsIs(3);
  EXPECT_EQ(write(0, 5), 3);
  EXPECT_EQ(pam->queueDropCount(), 2u);
  EXPECT_THAT(takeAll(), ElementsAre("f0", "f1", "f2"));

  pam->headDropPolicyIs(true);
  EXPECT_EQ(write(10, 5), 5);
  EXPECT_THAT(takeAll(), ElementsAre("f12", "f13", "f14"));
  EXPECT_EQ(pam->queueDropCount(), 4u);

  // Lowering the bound below what waits drops the oldest, counted.
  pam->maxRxPktsIs(5);
  write(20, 5);
  pam->maxRxPktsIs(2);
  EXPECT_EQ(pam->queueDropCount(), 7u);
  EXPECT_THAT(takeAll(), ElementsAre("f23", "f24"));

  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->maxRxPktsIs(0); }),
            "EthDevPamInBundle::maxRxPkts < 1 not allowed");
  EXPECT_EQ(pam->maxRxPkts(), 2u);
}

TEST_F(EthDevPamInBundleTest, OrderSurvivesTheRingWrappingAround) {
  std::vector<std::string> expected;
  std::vector<std::string> got;
  for (int round = 0; round < 5; ++round) {  // 500 frames through 255 slots, never more than 220 waiting
    write(round * 100, 100);
    for (int i = round * 100; i < round * 100 + 100; ++i) expected.push_back("f" + std::to_string(i));
    for (int i = 0; i < 70; ++i) got.push_back(bytesOf(*pam->rxPkt()));
    EXPECT_EQ(pam->curRxPkts(), 30 * (round + 1));
  }
  for (std::string const & f : takeAll()) got.push_back(f);
  EXPECT_EQ(pam->queueDropCount(), 0u);
  EXPECT_EQ(got, expected);
}

TEST_F(EthDevPamInBundleTest, SingleReadPathQueuesToo) {
  writer->dataIs("one", 3);
  EXPECT_TRUE(pam->rxPktIs(writer));
  writer->sharedDataResetForReuse();
  writer->dataIs("two", 3);
  EXPECT_TRUE(pam->rxPktIs(writer));
  EXPECT_EQ(pam->curRxPkts(), 2u);
  EXPECT_THAT(takeAll(), ElementsAre("one", "two"));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->writeNewRxPkt(nullptr); }),
            "EthDevPamInBundle::writeNewRxPkt of a null packet not allowed");
}

TEST_F(EthDevPamInBundleTest, DisablingDropsWhatWaits) {
  pam->enabledIs(true);
  write(0, 4);
  pam->enabledIs(false);
  EXPECT_EQ(pam->curRxPkts(), 0u);
  EXPECT_EQ(pam->queueDropCount(), 4u);
  EXPECT_EQ(manager->livePkts(), 1u);  // only the writer: the queued copies went back to the pool
}

}  // namespace
