// The library's readers: a packet-access manager (EthDevPamManager) in the lab's namespace makes the
// device's Pam on the bundle's shared socket, and a reader on that Pam takes every frame it is told
// of. pump() is one pass of the framework's event loop, so a frame's cost is everything from the
// kernel to the user's handler: the loop's wait, the bundle's read, the dispatch by ifindex, the Pam's
// queue and the notification. The manager itself only sets things up (nothing of it runs per frame).
//
//   ours-single   one recvmsg per readable event, one packet reused for every read
//   ours-bulk     one recvmmsg of up to 128 frames per readable event into reused packets
//   ours-ring     ring mode: up to 128 frames per readable event copied out of a TPACKET_V2 ring
//   ours-ring-mod ring mode with receive moderation: timed reads while frames come in batches
//                 (PKT_RATE_MOD_BATCH and PKT_RATE_MOD_US override the batch and interval, for tuning)
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "bench/pktrate/Reader.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManagerTypes.h"
#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/ovel/EthDevPamInBundle.h"
#include "intfsm/foundation/ovel/PktManager.h"
#include "intfsm/foundation/vorn/ActivityManager.h"

namespace PktRate {

namespace {

using Vorn::Ptr;

enum class Path { single, bulk, ring, ringModerated };

class ManagerReader final : public Reader {
 public:
  explicit ManagerReader(Path path) : path_(path) {}
  ~ManagerReader() override { ManagerReader::close(); }

  void open(ReaderConfig const & cfg) override {
    manager_ = Interface::ethDevPamManagerFactory(desired_, pams_, devices_);
    manager_->ethProtocolIs(cfg.ethType);
    manager_->maxRxPktDataIs(cfg.maxFrameBytes);
    manager_->pktReuseIs(true);
    manager_->separateDot1QHdrIs(true);
    manager_->enableBulkPamReadIs(path_ == Path::bulk);
    // A frame of 60 bytes takes about 1280 bytes of receive buffer (its buffer and bookkeeping).
    manager_->sockRcvBufIs(static_cast<uint32_t>(cfg.bufferFor(1280)));
    bool const ring = path_ == Path::ring || path_ == Path::ringModerated;
    if (ring) {
      // 1600-byte slots for 1518-byte frames, 40 to a 64 KiB block.
      uint32_t const blockSize = Interface::EthDevPamBundle::defaultRxRingBlockSize;
      size_t const blocks = (cfg.bufferFor(blockSize / 40) + blockSize - 1) / blockSize;
      manager_->rxRingIs(true);
      manager_->rxRingBlockCountIs(static_cast<uint32_t>(std::max<size_t>(blocks, 4)));
      manager_->rxModerationIs(path_ == Path::ringModerated);
      if (char const * batch = std::getenv("PKT_RATE_MOD_BATCH")) manager_->rxModerationBatchIs(std::atoi(batch));
      if (char const * us = std::getenv("PKT_RATE_MOD_US")) manager_->rxModerationIntervalUsIs(std::atoi(us));
    }
    manager_->handleInitialized();
    manager_->enabledIs(true);
    Ovel::IntfId const intf("Ethernet1");
    Interface::IntfStatusAndDeviceName const record{Interface::intfStatusFactory(intf), Vorn::String(cfg.ifname),
                                                    static_cast<uint32_t>(cfg.ifindex)};
    devices_->intfStatusByIfIndexIs(record.ifIndex, record);  // how the receive path finds the interface
    devices_->intfStatusAndDeviceNameIs(intf, record);
    desired_->intfDesiredIs(intf, true);
    pam_ = Vorn::ptr_cast<Ovel::EthDevPamInBundle>(pams_->intfPam(intf));
    Ptr<Interface::EthDevPamBundle> const & bundle = manager_->edpBundle();
    if (!pam_ || !pam_->enabled() || ring != bundle->rxRingMapped(bundle->sd())) {
      close();
      throw std::runtime_error("the packet-access manager made no working Pam on " + cfg.ifname);
    }
    consumer_ = new Consumer(pam_);
    pkts0_ = Ovel::globalPktManager().pktsAllocated();
  }

  size_t pump(FrameSink & sink, int timeoutMs) override {
    consumer_->sink = &sink;
    consumer_->taken = 0;
    Vorn::activityManager().runOnce(timeoutMs / 1000.0);
    return consumer_->taken;
  }

  KernelStats kernelStats() override {
    return packetStatistics(manager_ ? manager_->edpBundle()->sd() : -1, total_);
  }

  std::vector<std::pair<std::string, uint64_t>> ownCounters() override {
    if (!manager_) return {};
    Interface::EthDevPamBundle const & bundle = *manager_->edpBundle();
    return {{"noPamDropCount", bundle.noPamDropCount()},
            {"pamNotReadyDropCount", bundle.pamNotReadyDropCount()},
            {"rxErrors", bundle.rxErrors()},
            {"queueDropCount", pam_->queueDropCount()},
            {"pktsAllocated", Ovel::globalPktManager().pktsAllocated() - pkts0_},
            {"rxModerationEntries", bundle.rxModerationEntries()}};
  }

  void close() override {
    consumer_ = nullptr;
    pam_ = nullptr;
    if (manager_) manager_->enabledIs(false);  // Pams withdrawn, sockets closed, ring unmapped
    manager_ = nullptr;
    desired_->intfDesiredDelAll();
  }

 private:
  // The user's handler: every frame the Pam holds, at each notification.
  struct Consumer : Ovel::Pam::NotifieeConst {
    explicit Consumer(Ptr<Ovel::EthDevPamInBundle> const & p) : pam(p.ptr()) { notifierIs(p); }
    void onReadableCount() override {
      while (Ptr<Ovel::Pkt> pkt = pam->rxPkt()) {
        sink->take(pkt->data(), pkt->dataLen());
        ++taken;
      }
    }
    Ovel::EthDevPamInBundle * pam;  // held by the binding
    FrameSink * sink = nullptr;
    size_t taken = 0;
  };

  Path path_;
  Ptr<Interface::PamDesiredIntfDir> desired_ = Interface::pamDesiredIntfDirFactory("desired");
  Ptr<Interface::DeviceIntfStatusDir> devices_ = Interface::deviceIntfStatusDirFactory("devices");
  Ptr<Interface::EthDevPamCollection> pams_ = Interface::ethDevPamCollectionFactory("pams");
  Ptr<Interface::EthDevPamManager> manager_;
  Ptr<Ovel::EthDevPamInBundle> pam_;
  Ptr<Consumer> consumer_;
  KernelStats total_;
  uint64_t pkts0_ = 0;
};

ReaderRegistration oursSingle{{"ours-single", "the manager's Pam on the bundle's single-frame path (recvmsg)", 70,
                               [] { return std::make_unique<ManagerReader>(Path::single); }}};
ReaderRegistration oursBulk{{"ours-bulk", "the manager's Pam on the bundle's bulk path (recvmmsg of 128)", 80,
                             [] { return std::make_unique<ManagerReader>(Path::bulk); }}};
ReaderRegistration oursRing{{"ours-ring", "the manager's Pam on the bundle's ring mode (TPACKET_V2, 1600-byte slots)", 90,
                             [] { return std::make_unique<ManagerReader>(Path::ring); }}};
ReaderRegistration oursRingModerated{{"ours-ring-mod", "ours-ring with receive moderation (timed reads under load)", 95,
                                      [] { return std::make_unique<ManagerReader>(Path::ringModerated); }}};

}  // namespace

}  // namespace PktRate
