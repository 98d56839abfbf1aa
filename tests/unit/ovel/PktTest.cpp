// Packets and their manager: the pool and its cap, buffer size classes, and buffers shared between a
// packet and its copies.
#include "intfsm/foundation/ovel/Pkt.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/Packets.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::bytesOf;
using IntfsmTest::thrownText;
using Ovel::Pkt;
using Ovel::PktManager;
using Vorn::Ptr;

namespace {

// At the cap newPkt and newSharedCopy yield null; a released packet comes back from the pool cleared.
// Lowering the cap below the live count kills nothing and allows nothing new until enough are gone.
TEST(PktManager, NewPktIsNullAtTheCapAndComesFromThePoolClearedAfterARelease) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(3);
  std::vector<Ptr<Pkt>> held;
  for (int i = 0; i < 3; ++i) held.push_back(IntfsmTest::pktOf("abc", *manager));
  EXPECT_FALSE(manager->newPkt());
  EXPECT_FALSE(held[0]->newSharedCopy());
  EXPECT_EQ(manager->newPktFailures(), 2u);
  Pkt * released = held[1].ptr();
  held[1]->ifIndexIs(3);
  held[1]->newSeparateVlanTag(5, 0x8100);
  held[1] = nullptr;
  EXPECT_EQ(manager->pooledPkts(), 1u);
  Ptr<Pkt> again = manager->newPkt();
  EXPECT_EQ(again.ptr(), released);  // from the pool, not the heap
  EXPECT_EQ(manager->pktsAllocated(), 3u);
  EXPECT_FALSE(again->hasHeadData());
  EXPECT_EQ(again->dataLen() + again->ifIndex(), 0u);
  EXPECT_FALSE(again->hasVlanTag());

  manager->maxPktsIs(1);
  held.clear();
  EXPECT_FALSE(manager->newPkt());
  again = nullptr;
  EXPECT_TRUE(manager->newPkt());
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { manager->maxPktsIs(0); }), "PktManager::maxPkts < 1 not allowed");
  EXPECT_EQ(manager->maxPkts(), 1u);
}

TEST(PktManager, IsOutlivedByItsPackets) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(4);
  Ptr<Pkt> copy = IntfsmTest::pktOf("still here", *manager)->newSharedCopy();
  manager = nullptr;  // the packets keep it
  EXPECT_EQ(bytesOf(copy), "still here");
  EXPECT_TRUE(copy->manager().newPkt());
  copy = nullptr;  // the manager goes with its last packet (ASan checks the order)
}

// Buffers come in power-of-two classes from 2048; a released one is reused for its class.
TEST(PktManager, ReleasedBuffersAreReusedBySizeClass) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(8);
  for (int round = 0; round < 3; ++round) {
    Ptr<Pkt> small = manager->newPkt(), big = manager->newPkt();
    small->newSharedHeadData(round == 0 ? 1518 : 100);
    big->newSharedHeadData(round == 0 ? 9000 : 16384);
    EXPECT_EQ(small->maxData(), 2048u);
    EXPECT_EQ(big->maxData(), 16384u);
  }
  EXPECT_EQ(manager->headDataAllocated(), 2u);
  EXPECT_EQ(manager->pooledHeadData(), 2u);
  manager->pooledDelAll();
  EXPECT_EQ(manager->pooledHeadData() + manager->pooledPkts(), 0u);
  manager->newPkt()->newSharedHeadData(100);
  EXPECT_EQ(manager->headDataAllocated(), 3u);
}

TEST(Pkt, HeadDataBoundsAndWhenABufferIsKept) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(4);
  Ptr<Pkt> pkt = manager->newPkt();
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pkt->dataLenIs(1); }), "Pkt::dataLen without head data not allowed");
  pkt->newSharedHeadData(1518);
  pkt->dataLenIs(2048);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pkt->dataLenIs(2049); }), "Pkt::dataLen > maxData not allowed");
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pkt->newSharedHeadData(PktManager::maxHeadData + 1); }),
            "Pkt::newSharedHeadData size > 262144 not allowed");
  EXPECT_EQ(pkt->dataLen(), 2048u);
  // A buffer that fits and is not shared is kept; one too small or shared is replaced.
  uint8_t const * first = pkt->data();
  pkt->newSharedHeadData(2000);
  EXPECT_EQ(pkt->data(), first);
  EXPECT_EQ(pkt->dataLen(), 0u);
  pkt->newSharedHeadData(3000);
  EXPECT_NE(pkt->data(), first);
  Ptr<Pkt> copy = pkt->newSharedCopy();
  uint8_t const * shared = pkt->data();
  pkt->newSharedHeadData(100);
  EXPECT_NE(pkt->data(), shared);
  EXPECT_EQ(copy->data(), shared);
}

// The receive path reuses one packet per read: while a queued copy holds its buffer, a reset gives it a
// fresh one (the queued frame stays intact); once the copy is gone, the same buffer serves every read.
TEST(Pkt, ResetGivesAFreshBufferWhileACopyHoldsTheOldOneAndReusesItOnceLetGo) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(8);
  Ptr<Pkt> reader = IntfsmTest::pktOf("frame A", *manager);
  reader->ifIndexIs(7);
  reader->pktTypeIs(1);
  reader->rxTimeIs(1764125000123456789u);
  reader->newSeparateVlanTag(0x2064, 0x88a8);
  Ptr<Pkt> queued = reader->newSharedCopy();
  EXPECT_TRUE(reader->headDataShared());
  EXPECT_EQ(queued->ifIndex(), 7u);
  EXPECT_EQ(std::vector<uint64_t>({queued->pktType(), queued->rxTime()}), std::vector<uint64_t>({1, 1764125000123456789u}));
  EXPECT_EQ(queued->vlanId(), 0x064);
  EXPECT_EQ(queued->vlanTpid(), 0x88a8);
  uint64_t const allocated = manager->headDataAllocated();
  reader->sharedDataResetForReuse();
  EXPECT_NE(reader->data(), queued->data());
  EXPECT_EQ(reader->maxData(), 2048u);
  EXPECT_EQ(reader->ifIndex() + reader->rxTime(), 0u);
  EXPECT_FALSE(reader->hasVlanTag());
  reader->dataIs("frame B overwrites", 18);
  EXPECT_EQ(bytesOf(queued), "frame A");
  EXPECT_TRUE(queued->hasVlanTag());
  queued->vlanTagDel();
  EXPECT_EQ(queued->vlanTci(), 0);

  queued = nullptr;  // the reader of the queue took the frame and let it go
  uint8_t const * buffer = reader->data();
  uint64_t const pkts = manager->pktsAllocated();
  for (int i = 0; i < 5; ++i) {
    reader->sharedDataResetForReuse();
    EXPECT_EQ(reader->dataLen(), 0u);
    reader->dataIs("frame", 5);
    Ptr<Pkt> copy = reader->newSharedCopy();
  }
  EXPECT_EQ(reader->data(), buffer);
  EXPECT_EQ(manager->headDataAllocated(), allocated + 1);
  EXPECT_EQ(manager->pktsAllocated(), pkts);
}

}  // namespace
