#include "intfsm/foundation/ovel/Pam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/NotificationLog.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::NotificationLog;
using IntfsmTest::thrownText;
using Ovel::Pam;
using Ovel::Pkt;
using Ovel::PktManager;
using testing::ElementsAre;
using testing::IsEmpty;
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
  void onSavedPacketvornImmediate() override { log.add("onSavedPacketvornImmediate"); }
  void onSavedPacketRx(uint16_t slot) override { log.add("onSavedPacketRx", slot); }
  void onSavedPacketRxvornImmediate() override { log.add("onSavedPacketRxvornImmediate"); }
  NotificationLog log;
};

std::string bytesOf(Pkt const & pkt) {
  return std::string(reinterpret_cast<char const *>(pkt.data()), pkt.dataLen());
}

Ptr<Pkt> frame(PktManager & manager, std::string const & bytes) {
  Ptr<Pkt> pkt = manager.newPkt();
  pkt->dataIs(bytes.data(), static_cast<uint32_t>(bytes.size()));
  return pkt;
}

class PamTest : public testing::Test {
 protected:
  Ptr<PktManager> manager = PktManager::pktManagerNew(16);
  Ptr<Pam> pam = new Pam("p0");
};

TEST_F(PamTest, CountersNotifyOncePerNonZeroIncrement) {
  PamRecorder recorder(pam);
  EXPECT_THAT(recorder.log.take(), ElementsAre("onSavedPacketvornImmediate", "onSavedPacketRxvornImmediate"));

  pam->readableCountInc(2);
  pam->readableCountInc(0);
  pam->writableCountInc(1);
  pam->rxErrorsInc(3);
  pam->txErrorsInc(1);
  pam->queueDropCountInc(4);
  EXPECT_THAT(recorder.log.take(),
              ElementsAre("onReadableCount", "onWritableCount", "onRxErrors", "onTxErrors", "onQueueDropCount"));
  EXPECT_EQ(pam->readableCount(), 2u);
  EXPECT_EQ(pam->writableCount(), 1u);
  EXPECT_EQ(pam->rxErrors(), 3u);
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_EQ(pam->queueDropCount(), 4u);

  pam->rxErrorsInc(0xffffffffu);  // 32 bits: wraps
  EXPECT_EQ(pam->rxErrors(), 2u);
}

TEST_F(PamTest, ReceivedFrameIsTakenOnce) {
  Ptr<Pkt> received = frame(*manager, "hello");
  received->ifIndexIs(4);
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_TRUE(pam->rxPktIs(received));
  EXPECT_EQ(pam->rxPkts(), 1u);

  Ptr<Pkt> taken = pam->rxPkt();
  ASSERT_TRUE(taken);
  EXPECT_NE(taken, received);  // the Pam's own packet ...
  EXPECT_EQ(taken->data(), received->data());  // ... sharing the receiver's buffer
  EXPECT_EQ(bytesOf(*taken), "hello");
  EXPECT_EQ(taken->ifIndex(), 4u);
  EXPECT_FALSE(pam->rxPkt());
  EXPECT_EQ(pam->rxPkts(), 0u);
}

TEST_F(PamTest, NewestFrameReplacesAnUntakenOne) {
  PamRecorder recorder(pam);
  recorder.log.take();
  pam->rxPktIs(frame(*manager, "first"));
  pam->rxPktIs(frame(*manager, "second"));
  EXPECT_EQ(pam->queueDropCount(), 1u);
  EXPECT_THAT(recorder.log.take(), ElementsAre("onQueueDropCount"));  // storing alone does not notify readers
  EXPECT_EQ(bytesOf(*pam->rxPkt()), "second");
  EXPECT_FALSE(pam->rxPkt());
}

TEST_F(PamTest, FrameDroppedWhenNoPacketIsLeftForTheCopy) {
  Ptr<PktManager> tiny = PktManager::pktManagerNew(1);
  EXPECT_FALSE(pam->rxPktIs(frame(*tiny, "no room")));
  EXPECT_EQ(pam->rxErrors(), 1u);
  EXPECT_EQ(pam->rxPkts(), 0u);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->rxPktIs(nullptr); }),
            "Pam::rxPkt of a null packet not allowed");
}

TEST_F(PamTest, ReceiverReusingItsPacketNeverTouchesTheStoredFrame) {
  Ptr<Pkt> reader = manager->newPkt();
  reader->newSharedHeadData(1518);
  reader->dataIs("frame A", 7);
  pam->rxPktIs(reader);

  reader->sharedDataResetForReuse();
  reader->newSharedHeadData(1518);
  reader->dataIs("frame B", 7);
  EXPECT_EQ(bytesOf(*pam->rxPkt()), "frame A");

  // Taken and let go: the next reset reuses the buffer in place.
  uint64_t const allocated = manager->headDataAllocated();
  uint8_t const * buffer = reader->data();
  pam->rxPktIs(reader);
  pam->rxPkt();
  reader->sharedDataResetForReuse();
  EXPECT_EQ(reader->data(), buffer);
  EXPECT_EQ(manager->headDataAllocated(), allocated);
}

TEST_F(PamTest, SavedPacketSlots) {
  PamRecorder recorder(pam);
  recorder.log.take();
  Ptr<Pkt> a = manager->newPkt();
  Ptr<Pkt> b = manager->newPkt();

  pam->savedPacketIs(3, a);
  pam->savedPacketIs(3, a);
  pam->savedPacketIs(0, b);
  EXPECT_EQ(pam->savedPacket(3), a);
  EXPECT_EQ(pam->savedPacket(0), b);
  EXPECT_FALSE(pam->savedPacket(1));
  EXPECT_EQ(pam->savedPackets(), 2u);
  pam->savedPacketIs(3, b);
  pam->savedPacketIs(3, nullptr);
  pam->savedPacketDel(3);
  EXPECT_EQ(pam->savedPackets(), 1u);
  EXPECT_THAT(recorder.log.take(),
              ElementsAre("onSavedPacket(3)", "onSavedPacket(0)", "onSavedPacket(3)", "onSavedPacket(3)"));

  pam->savedPacketRxIs(5, false);  // stored as given: present, false
  pam->savedPacketRxIs(5, false);
  pam->savedPacketRxIs(5, true);
  EXPECT_TRUE(pam->savedPacketRx(5));
  EXPECT_FALSE(pam->savedPacketRx(6));
  EXPECT_EQ(pam->savedPacketRxs(), 1u);
  EXPECT_THAT(recorder.log.take(), ElementsAre("onSavedPacketRx(5)", "onSavedPacketRx(5)"));

  pam->savedPacketDelAll();
  pam->savedPacketRxDelAll();
  EXPECT_EQ(pam->savedPackets(), 0u);
  EXPECT_EQ(pam->savedPacketRxs(), 0u);
  EXPECT_THAT(recorder.log.take(), ElementsAre("onSavedPacket(0)", "onSavedPacketRx(5)"));
}

TEST_F(PamTest, PlainPamRefusesToTransmit) {
  PamRecorder recorder(pam);
  recorder.log.take();
  EXPECT_FALSE(pam->txPkt(frame(*manager, std::string(60, 'x'))));
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_EQ(pam->lastTxErrno(), EOPNOTSUPP);
  EXPECT_THAT(recorder.log.take(), ElementsAre("onTxErrors"));

  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->txPkt(nullptr); }), "Pam::txPkt of a null packet not allowed");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pam->txPkt(frame(*manager, std::string(13, 'x'))); }),
            "Pam::txPkt of a frame shorter than 14 bytes not allowed");
  EXPECT_EQ(pam->txErrors(), 1u);
  EXPECT_THAT(recorder.log.take(), IsEmpty());
}

}  // namespace
