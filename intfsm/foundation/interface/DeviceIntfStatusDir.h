// Interface status joined with the kernel's devices of one namespace: for every interface whose device
// the kernel has, its status, device name and ifindex, kept twice, by interface id and by ifindex. The
// kernel interface status manager writes it; the receive path finds a frame's interface by ifindex, and
// the packet-access manager reacts per interface id.
//
//   auto dir = Interface::deviceIntfStatusDirFactory("kernelIntfStatus");
//   Interface::IntfStatusAndDeviceName r{status, "et1", 7};
//   dir->intfStatusAndDeviceNameIs(status->intfId(), r);   // onIntfStatusAndDeviceName(Ethernet1)
//   dir->intfStatusByIfIndexIs(7, r);                      // onIntfStatusByIfIndex(7)
//   auto found = dir->intfStatusByIfIndex(7);              // an empty record when absent
//
// A writer uses the paired mutators, which change both views together so that they always agree:
// one interface id per ifindex and one ifindex per id.
//
//   dir->entryIs(status->intfId(), r);    // by id and by ifindex; an old ifindex of the id goes
//   dir->entryDel(status->intfId());      // both entries go, also for a record without status
//
// The per-view mutators below stay for readers' tests and old writers; they change one view only.
// Each mutator stores and notifies its key only when the stored record changes; xDel returns the
// record it removed (an empty record when the key was absent).
#pragma once

#include <cstdint>

#include "intfsm/foundation/interface/IntfStatusAndDeviceName.h"
#include "intfsm/foundation/ovel/IntfId.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/Ptr.h"

namespace Interface {

class DeviceIntfStatusDir : public Vorn::Entity {
 public:
  using ByIntfIdMap = Vorn::Collection<Ovel::IntfId, IntfStatusAndDeviceName>;
  using ByIfIndexMap = Vorn::Collection<uint32_t, IntfStatusAndDeviceName>;

  class NotifieeConst : public Vorn::Notifiee<DeviceIntfStatusDir> {
   public:
    virtual void onIntfStatusAndDeviceName(Ovel::IntfId const &) {}
    virtual void onIntfStatusAndDeviceNamevornImmediate() {}
    virtual void onIntfStatusByIfIndex(uint32_t) {}
    virtual void onIntfStatusByIfIndexvornImmediate() {}
  };

  explicit DeviceIntfStatusDir(Vorn::Name const & name) : Vorn::Entity(name) {}

  char const * vornTypeName() const override { return "Interface::DeviceIntfStatusDir"; }

  IntfStatusAndDeviceName intfStatusAndDeviceName(Ovel::IntfId const & id) const {
    return intfStatusAndDeviceName_.get(id);
  }
  ByIntfIdMap const & intfStatusAndDeviceNameIter() const { return intfStatusAndDeviceName_; }
  uint32_t intfStatusAndDeviceNames() const { return intfStatusAndDeviceName_.size(); }
  void intfStatusAndDeviceNameIs(Ovel::IntfId const & id, IntfStatusAndDeviceName const & record);
  IntfStatusAndDeviceName intfStatusAndDeviceNameDel(Ovel::IntfId const & id);
  void intfStatusAndDeviceNameDelAll();
  void intfStatusAndDeviceNameNotify(Ovel::IntfId const & id) const {
    notify(&NotifieeConst::onIntfStatusAndDeviceName, id);
  }

  // Publishes `record` for `id` in both views. The id's previous ifindex entry goes when the ifindex
  // differs, and an id that held `record.ifIndex` loses both its entries first. Ifindex 0 publishes
  // nothing by ifindex.
  void entryIs(Ovel::IntfId const & id, IntfStatusAndDeviceName const & record);
  // Removes the id's entries from both views (its ifindex entry only while that is the id's); returns
  // the record removed by id, with its ifindex (ifIndex 0 when the id was absent).
  IntfStatusAndDeviceName entryDel(Ovel::IntfId const & id);
  // The id published with `ifIndex` by entryIs; the empty id when none.
  Ovel::IntfId ifIndexOwner(uint32_t ifIndex) const { return ifIndexOwner_.get(ifIndex); }

  IntfStatusAndDeviceName intfStatusByIfIndex(uint32_t ifIndex) const { return intfStatusByIfIndex_.get(ifIndex); }
  ByIfIndexMap const & intfStatusByIfIndexIter() const { return intfStatusByIfIndex_; }
  uint32_t intfStatusByIfIndexs() const { return intfStatusByIfIndex_.size(); }
  void intfStatusByIfIndexIs(uint32_t ifIndex, IntfStatusAndDeviceName const & record);
  IntfStatusAndDeviceName intfStatusByIfIndexDel(uint32_t ifIndex);
  void intfStatusByIfIndexDelAll();
  void intfStatusByIfIndexNotify(uint32_t ifIndex) const { notify(&NotifieeConst::onIntfStatusByIfIndex, ifIndex); }

 protected:
  ~DeviceIntfStatusDir() override = default;
  void vornImmediateNotify(Vorn::BaseNotifiee * notifiee) const override;

 private:
  ByIntfIdMap intfStatusAndDeviceName_;
  ByIfIndexMap intfStatusByIfIndex_;
  Vorn::Collection<uint32_t, Ovel::IntfId> ifIndexOwner_;  // who entryIs put under each ifindex
};

Vorn::Ptr<DeviceIntfStatusDir> deviceIntfStatusDirFactory(Vorn::Name const & name);

}  // namespace Interface
