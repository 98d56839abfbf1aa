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
  held[1]->ifIndexIs(3), held[1]->newSeparateVlanTag(5, 0x8100);
  held[1] = nullptr;
  EXPECT_EQ(manager->pooledPkts(), 1u);
  Ptr<Pkt> again = manager->newPkt();  // from the pool, not the heap, and cleared
  EXPECT_EQ(std::tuple(again.ptr(), manager->pktsAllocated(), again->hasHeadData(), again->dataLen() + again->ifIndex(),
                       again->hasVlanTag()),
            std::tuple(released, 3u, false, 0u, false));

  manager->maxPktsIs(1);
  held.clear();
  EXPECT_FALSE(manager->newPkt());
  again = nullptr;
  EXPECT_TRUE(manager->newPkt());
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { manager->maxPktsIs(0); }), "PktManager::maxPkts < 1 not allowed");
  EXPECT_EQ(manager->maxPkts(), 1u);  // kept
}

TEST(PktManager, IsOutlivedByItsPackets) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(4);
  Ptr<Pkt> copy = IntfsmTest::pktOf("still here", *manager)->newSharedCopy();
  manager = nullptr;  // the packets keep it
  EXPECT_EQ(std::tuple(bytesOf(copy), bool(copy->manager().newPkt())), std::tuple("still here", true));
  copy = nullptr;  // the manager goes with its last packet (ASan checks the order)
}

// Buffers come in power-of-two classes from 2048; a released one is reused for its class.
TEST(PktManager, ReleasedBuffersAreReusedBySizeClass) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(8);
  for (int round = 0; round < 3; ++round) {
    Ptr<Pkt> small = manager->newPkt(), big = manager->newPkt();
    small->newSharedHeadData(round == 0 ? 1518 : 100);
    big->newSharedHeadData(round == 0 ? 9000 : 16384);
    EXPECT_EQ(std::tuple(small->maxData(), big->maxData()), std::tuple(2048u, 16384u));
  }
  EXPECT_EQ(std::tuple(manager->headDataAllocated(), manager->pooledHeadData()), std::tuple(2u, 2u));
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
  EXPECT_EQ(std::tuple(pkt->data(), pkt->dataLen()), std::tuple(first, 0u));
  pkt->newSharedHeadData(3000);
  EXPECT_NE(pkt->data(), first);
  Ptr<Pkt> copy = pkt->newSharedCopy();
  uint8_t const * shared = pkt->data();
  pkt->newSharedHeadData(100);
  EXPECT_EQ(std::tuple(pkt->data() != shared, copy->data()), std::tuple(true, shared));
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
  EXPECT_EQ(std::tuple(queued->ifIndex(), queued->pktType(), queued->rxTime(), queued->vlanId(), queued->vlanTpid()),
            std::tuple(7u, 1, 1764125000123456789u, 0x064, 0x88a8));
  uint64_t const allocated = manager->headDataAllocated();
  reader->sharedDataResetForReuse();
  EXPECT_EQ(std::tuple(reader->data() != queued->data(), reader->maxData(), reader->ifIndex() + reader->rxTime(),
                       reader->hasVlanTag()),
            std::tuple(true, 2048u, 0u, false));
  reader->dataIs("frame B overwrites", 18);
  EXPECT_EQ(std::tuple(bytesOf(queued), queued->hasVlanTag()), std::tuple("frame A", true));
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
  EXPECT_EQ(std::tuple(reader->data(), manager->headDataAllocated(), manager->pktsAllocated()),
            std::tuple(buffer, allocated + 1, pkts));
}

}  // namespace
