// The plain Pam: its counters, the one received frame it keeps, saved packets, and refusing to send.
#include "intfsm/foundation/ovel/Pam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/Packets.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::bytesOf;
using IntfsmTest::thrownText;
using Ovel::Pam;
using Ovel::Pkt;
using testing::ElementsAre;
using Vorn::Ptr;

namespace {

struct PamRecorder : Pam::NotifieeConst {
  explicit PamRecorder(Ptr<Pam const> const & pam) { notifierIs(pam); }
  void onReadableCount() override { log.add("onReadableCount"); }
  void onWritableCount() override { log.add("onWritableCount"); }
  void onRxErrors() override { log.add("onRxErrors"); }
  void onTxErrors() override { log.add("onTxErrors"); }
  void onQueueDropCount() override { log.add("onQueueDropCount"); }
  void onSavedPacket(uint16_t slot) override { log.add("onSavedPacket", slot); }
  void onSavedPacketRx(uint16_t slot) override { log.add("onSavedPacketRx", slot); }
  IntfsmTest::NotificationLog log;
};

class PamTest : public testing::Test {
 protected:
  Ptr<Pkt> frame(std::string const & bytes) { return IntfsmTest::pktOf(bytes, *manager); }
  Ptr<Ovel::PktManager> manager = Ovel::PktManager::pktManagerNew(16);
  Ptr<Pam> pam = new Pam("p0");
  PamRecorder recorder{pam};
};

TEST_F(PamTest, CountersNotifyTheirOwnCallbackOncePerNonZeroIncrementAndWrapAt32Bits) {
  pam->readableCountInc(2);
  pam->readableCountInc(0);
  pam->writableCountInc(3);
  pam->rxErrorsInc(4);
  pam->txErrorsInc(5);
  pam->queueDropCountInc(6);
  EXPECT_THAT(recorder.log.take(),
              ElementsAre("onReadableCount", "onWritableCount", "onRxErrors", "onTxErrors", "onQueueDropCount"));
  EXPECT_THAT((std::vector<uint32_t>{pam->readableCount(), pam->writableCount(), pam->rxErrors(), pam->txErrors(),
                                     pam->queueDropCount()}),
              ElementsAre(2, 3, 4, 5, 6));
  pam->rxErrorsInc(0xffffffffu);
  EXPECT_EQ(pam->rxErrors(), 3u);
}

// The Pam keeps its own packet sharing the receiver's buffer; the newest replaces an untaken one,
// counted as a drop, and a frame is dropped as an error when the pool has no packet for the copy.
TEST_F(PamTest, AReceivedFrameIsTakenOnceAndTheNewestReplacesAnUntakenOne) {
  Ptr<Pkt> received = frame("hello");
  received->ifIndexIs(4);
  EXPECT_TRUE(pam->rxPktIs(received));
  EXPECT_EQ(pam->rxPkts(), 1u);
  Ptr<Pkt> taken = pam->rxPkt();  // its own packet, the receiver's buffer
  EXPECT_EQ(std::tuple(taken != received, taken->data(), taken->ifIndex()), std::tuple(true, received->data(), 4u));
  EXPECT_FALSE(pam->rxPkt());
  pam->rxPktIs(frame("first"));
  pam->rxPktIs(frame("second"));
  EXPECT_THAT(recorder.log.take(), ElementsAre("onQueueDropCount"));  // storing alone does not notify readers
  EXPECT_EQ(bytesOf(pam->rxPkt()), "second");

  Ptr<Ovel::PktManager> tiny = Ovel::PktManager::pktManagerNew(1);
  EXPECT_FALSE(pam->rxPktIs(IntfsmTest::pktOf("no room", *tiny)));
  EXPECT_EQ(std::tuple(pam->rxErrors(), pam->rxPkts()), std::tuple(1u, 0u));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->rxPktIs(nullptr); }), "Pam::rxPkt of a null packet not allowed");
}

TEST_F(PamTest, SavedPacketSlots) {
  Ptr<Pkt> a = manager->newPkt();
  pam->savedPacketIs(3, a);
  pam->savedPacketIs(3, a);
  pam->savedPacketIs(0, a);
  EXPECT_EQ(pam->savedPacket(3), a);
  pam->savedPacketIs(3, nullptr);  // a null packet empties the slot
  EXPECT_EQ(pam->savedPackets(), 1u);
  pam->savedPacketRxIs(5, false);  // stored as given: present, false
  pam->savedPacketRxIs(5, true);
  EXPECT_EQ(pam->savedPacketRxs(), 1u);
  pam->savedPacketDelAll();
  pam->savedPacketRxDelAll();
  EXPECT_EQ(pam->savedPackets() + pam->savedPacketRxs(), 0u);
  EXPECT_THAT(recorder.log.take(), ElementsAre("onSavedPacket(3)", "onSavedPacket(0)", "onSavedPacket(3)",
                                               "onSavedPacketRx(5)", "onSavedPacketRx(5)", "onSavedPacket(0)",
                                               "onSavedPacketRx(5)"));
}

TEST_F(PamTest, APlainPamRefusesToTransmit) {
  EXPECT_FALSE(pam->txPkt(frame(std::string(60, 'x'))));
  EXPECT_EQ(pam->lastTxErrno(), EOPNOTSUPP);
  EXPECT_THAT(recorder.log.take(), ElementsAre("onTxErrors"));
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->txPkt(nullptr); }), "Pam::txPkt of a null packet not allowed");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->txPkt(frame(std::string(13, 'x'))); }),
            "Pam::txPkt of a frame shorter than 14 bytes not allowed");
  EXPECT_EQ(pam->txErrors(), 1u);
}

}  // namespace
