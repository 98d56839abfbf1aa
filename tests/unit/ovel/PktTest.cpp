#include "intfsm/foundation/ovel/Pkt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "tests/support/ThrownText.h"

using IntfsmTest::thrownText;
using Ovel::Pkt;
using Ovel::PktManager;
using Vorn::Ptr;

namespace {

std::string bytesOf(Pkt const & pkt) {
  return std::string(reinterpret_cast<char const *>(pkt.data()), pkt.dataLen());
}

void fill(Pkt & pkt, std::string const & bytes) { pkt.dataIs(bytes.data(), static_cast<uint32_t>(bytes.size())); }

TEST(PktManager, NewPktIsNullAtTheCapAndAvailableAgainAfterARelease) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(3);
  std::vector<Ptr<Pkt>> held;
  for (int i = 0; i < 3; ++i) held.push_back(manager->newPkt());
  for (auto const & p : held) ASSERT_TRUE(p);
  EXPECT_EQ(manager->livePkts(), 3u);

  EXPECT_FALSE(manager->newPkt());
  EXPECT_FALSE(manager->newPkt());
  EXPECT_EQ(manager->newPktFailures(), 2u);

  Pkt * released = held[1].ptr();
  held[1] = nullptr;
  EXPECT_EQ(manager->livePkts(), 2u);
  EXPECT_EQ(manager->pooledPkts(), 1u);
  Ptr<Pkt> again = manager->newPkt();
  ASSERT_TRUE(again);
  EXPECT_EQ(again.ptr(), released);  // from the pool, not the heap
  EXPECT_EQ(manager->pktsAllocated(), 3u);
  EXPECT_FALSE(manager->newPkt());
}

TEST(PktManager, CapChanges) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(2);
  Ptr<Pkt> a = manager->newPkt();
  Ptr<Pkt> b = manager->newPkt();
  manager->maxPktsIs(1);  // below the live count: nothing dies, nothing new until enough are gone
  EXPECT_TRUE(a && b);
  EXPECT_FALSE(manager->newPkt());
  a = nullptr;
  EXPECT_FALSE(manager->newPkt());
  b = nullptr;
  EXPECT_TRUE(manager->newPkt());

  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { manager->maxPktsIs(0); }), "PktManager::maxPkts < 1 not allowed");
  EXPECT_EQ(manager->maxPkts(), 1u);
  EXPECT_EQ(thrownText<Vorn::RangeException>([] { PktManager::pktManagerNew(0); }),
            "PktManager::maxPkts < 1 not allowed");
  EXPECT_EQ(Ovel::globalPktManager().maxPkts(), PktManager::defaultMaxPkts);
}

TEST(PktManager, OutlivedByItsPackets) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(4);
  Ptr<Pkt> pkt = manager->newPkt();
  fill(*pkt, "still here");
  Ptr<Pkt> copy = pkt->newSharedCopy();
  manager = nullptr;  // the packets keep it
  pkt = nullptr;
  EXPECT_EQ(bytesOf(*copy), "still here");
  EXPECT_EQ(copy->manager().livePkts(), 1u);
  Ptr<Pkt> another = copy->manager().newPkt();
  EXPECT_TRUE(another);
  another = nullptr;
  copy = nullptr;  // the manager goes with its last packet (ASan checks the order)
}

TEST(PktManager, ReleasedBuffersAreReusedBySize) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(8);
  {
    Ptr<Pkt> small = manager->newPkt();
    Ptr<Pkt> big = manager->newPkt();
    small->newSharedHeadData(1518);
    big->newSharedHeadData(9000);
  }
  EXPECT_EQ(manager->headDataAllocated(), 2u);
  EXPECT_EQ(manager->pooledHeadData(), 2u);
  EXPECT_EQ(manager->liveHeadData(), 0u);
  for (int round = 0; round < 3; ++round) {
    Ptr<Pkt> small = manager->newPkt();
    Ptr<Pkt> big = manager->newPkt();
    small->newSharedHeadData(100);
    big->newSharedHeadData(16384);
    EXPECT_EQ(small->maxData(), 2048u);
    EXPECT_EQ(big->maxData(), 16384u);
    EXPECT_EQ(manager->liveHeadData(), 2u);
  }
  EXPECT_EQ(manager->headDataAllocated(), 2u);

  manager->pooledDelAll();
  EXPECT_EQ(manager->pooledHeadData(), 0u);
  EXPECT_EQ(manager->pooledPkts(), 0u);
  Ptr<Pkt> p = manager->newPkt();
  p->newSharedHeadData(100);
  EXPECT_EQ(manager->headDataAllocated(), 3u);
  EXPECT_EQ(manager->pktsAllocated(), 3u);
}

TEST(Pkt, HeadDataAndLength) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(4);
  Ptr<Pkt> pkt = manager->newPkt();
  EXPECT_FALSE(pkt->hasHeadData());
  EXPECT_EQ(pkt->data(), nullptr);
  EXPECT_EQ(pkt->maxData(), PktManager::maxHeadData);  // what its first head data may be
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pkt->dataLenIs(1); }), "Pkt::dataLen without head data not allowed");
  pkt->dataLenIs(0);

  pkt->newSharedHeadData(1518);
  ASSERT_TRUE(pkt->hasHeadData());
  EXPECT_EQ(pkt->maxData(), 2048u);
  EXPECT_EQ(pkt->dataLen(), 0u);
  pkt->dataLenIs(2048);
  EXPECT_EQ(pkt->dataLen(), 2048u);
  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pkt->dataLenIs(2049); }), "Pkt::dataLen > maxData not allowed");
  EXPECT_EQ(pkt->dataLen(), 2048u);

  EXPECT_EQ(thrownText<Vorn::RangeException>([&] { pkt->newSharedHeadData(PktManager::maxHeadData + 1); }),
            "Pkt::newSharedHeadData size > 262144 not allowed");
  EXPECT_EQ(pkt->maxData(), 2048u);
  EXPECT_EQ(pkt->dataLen(), 2048u);
}

TEST(Pkt, NewSharedHeadDataKeepsABufferThatFitsAndIsNotShared) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(4);
  Ptr<Pkt> pkt = manager->newPkt();
  pkt->newSharedHeadData(1518);
  uint8_t const * first = pkt->data();
  pkt->dataLenIs(60);
  pkt->newSharedHeadData(2000);
  EXPECT_EQ(pkt->data(), first);
  EXPECT_EQ(pkt->dataLen(), 0u);
  EXPECT_EQ(manager->headDataAllocated(), 1u);

  pkt->newSharedHeadData(3000);  // too small: replaced
  EXPECT_NE(pkt->data(), first);
  EXPECT_EQ(pkt->maxData(), 4096u);

  Ptr<Pkt> copy = pkt->newSharedCopy();
  uint8_t const * shared = pkt->data();
  pkt->newSharedHeadData(100);  // fits, but shared: the copy keeps it
  EXPECT_NE(pkt->data(), shared);
  EXPECT_EQ(copy->data(), shared);
}

TEST(Pkt, ResetGivesAFreshBufferWhileACopyHoldsTheOldOne) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(8);
  Ptr<Pkt> reader = manager->newPkt();
  reader->newSharedHeadData(1518);
  fill(*reader, "frame A");
  reader->ifIndexIs(7);
  reader->pktTypeIs(1);
  Ptr<Pkt> queued = reader->newSharedCopy();
  ASSERT_TRUE(queued);
  EXPECT_EQ(queued->data(), reader->data());
  EXPECT_TRUE(reader->headDataShared());
  EXPECT_EQ(queued->ifIndex(), 7u);
  EXPECT_EQ(queued->pktType(), 1u);

  uint64_t const allocatedBefore = manager->headDataAllocated();
  reader->sharedDataResetForReuse();
  EXPECT_NE(reader->data(), queued->data());
  EXPECT_EQ(reader->maxData(), 2048u);  // same size as before
  EXPECT_EQ(manager->headDataAllocated(), allocatedBefore + 1);
  EXPECT_FALSE(queued->headDataShared());
  EXPECT_EQ(reader->dataLen(), 0u);
  EXPECT_EQ(reader->ifIndex(), 0u);

  reader->newSharedHeadData(1518);
  fill(*reader, "frame B overwrites");
  EXPECT_EQ(bytesOf(*queued), "frame A");
  EXPECT_EQ(bytesOf(*reader), "frame B overwrites");
}

TEST(Pkt, ResetReusesTheBufferInPlaceWhenNobodyElseHoldsIt) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(8);
  Ptr<Pkt> reader = manager->newPkt();
  reader->newSharedHeadData(1518);
  fill(*reader, "frame A");
  reader->newSeparateVlanTag(0x2064, 0x88a8);
  Ptr<Pkt> queued = reader->newSharedCopy();
  queued = nullptr;  // the reader of the queue took the frame and let it go

  uint8_t const * buffer = reader->data();
  uint64_t const allocatedBefore = manager->headDataAllocated();
  uint64_t const pktsBefore = manager->pktsAllocated();
  for (int i = 0; i < 5; ++i) {
    reader->sharedDataResetForReuse();
    EXPECT_FALSE(reader->hasVlanTag());
    EXPECT_EQ(reader->dataLen(), 0u);
    reader->newSharedHeadData(1518);
    fill(*reader, "frame " + std::to_string(i));
    Ptr<Pkt> copy = reader->newSharedCopy();
  }
  EXPECT_EQ(reader->data(), buffer);
  EXPECT_EQ(manager->headDataAllocated(), allocatedBefore);
  EXPECT_EQ(manager->pktsAllocated(), pktsBefore);
}

TEST(Pkt, SharedCopyFailsAtTheCap) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(1);
  Ptr<Pkt> only = manager->newPkt();
  fill(*only, "x");
  EXPECT_FALSE(only->newSharedCopy());
  EXPECT_EQ(manager->newPktFailures(), 1u);
}

TEST(Pkt, SeparateVlanTag) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(4);
  Ptr<Pkt> pkt = manager->newPkt();
  EXPECT_FALSE(pkt->hasVlanTag());
  pkt->newSeparateVlanTag(0xa064, 0x88a8);
  EXPECT_TRUE(pkt->hasVlanTag());
  EXPECT_EQ(pkt->vlanTci(), 0xa064);
  EXPECT_EQ(pkt->vlanTpid(), 0x88a8);
  EXPECT_EQ(pkt->vlanId(), 0x064);
  Ptr<Pkt> copy = pkt->newSharedCopy();
  EXPECT_TRUE(copy->hasVlanTag());
  EXPECT_EQ(copy->vlanTci(), 0xa064);
  EXPECT_EQ(copy->vlanTpid(), 0x88a8);
  pkt->vlanTagDel();
  EXPECT_FALSE(pkt->hasVlanTag());
  EXPECT_EQ(pkt->vlanTci(), 0);
  EXPECT_TRUE(copy->hasVlanTag());
}

TEST(Pkt, ReturnsToThePoolCleared) {
  Ptr<PktManager> manager = PktManager::pktManagerNew(1);
  Ptr<Pkt> pkt = manager->newPkt();
  fill(*pkt, "abc");
  pkt->ifIndexIs(3);
  pkt->newSeparateVlanTag(5, 0x8100);
  pkt = nullptr;
  Ptr<Pkt> again = manager->newPkt();
  EXPECT_FALSE(again->hasHeadData());
  EXPECT_EQ(again->dataLen(), 0u);
  EXPECT_EQ(again->ifIndex(), 0u);
  EXPECT_FALSE(again->hasVlanTag());
  EXPECT_EQ(manager->liveHeadData(), 0u);
}

}  // namespace
