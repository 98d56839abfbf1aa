// One namespace's index of interface status by kernel device name: device name -> the IntfStatus
// whose deviceName it is. The device-name reactors write it; the kernel interface status manager and
// other consumers look interfaces up by device name through it.
//
//   auto index = Interface::intfStatusIndexDirFactory("blue");
//   index->intfStatusIs("et1", status);   // onIntfStatus("et1"); replaces what "et1" held
//   index->intfStatus("et1");             // the status, or null
//   index->intfStatusDel("et1");          // nothing when absent
//
// The key is the bare device name, stored beside the value. Mutators notify onIntfStatus(name) once per
// real change and not at all when nothing changes; a reactor bound with notifierIs first gets
// onIntfStatusvornImmediate().
#pragma once

#include <cstdint>

#include "intfsm/foundation/interface/IntfStatus.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"
#include "intfsm/foundation/vorn/String.h"

namespace Interface {

class IntfStatusIndexDir : public Vorn::Entity {
 public:
  using IntfStatusMap = Vorn::Collection<Vorn::String, Vorn::Ptr<IntfStatus const>>;

  class NotifieeConst : public Vorn::Notifiee<IntfStatusIndexDir> {
   public:
    virtual void onIntfStatus(Vorn::String const &) {}
    virtual void onIntfStatusvornImmediate() {}
  };

  char const * vornTypeName() const override { return "Interface::IntfStatusIndexDir"; }
  bool hasBackupSupport() const { return false; }
  bool nameIsFromBackup(Vorn::Name const &) const { return false; }

  // Null when absent.
  Vorn::Ptr<IntfStatus const> intfStatus(Vorn::String const & name) const { return intfStatus_.get(name); }
  uint32_t intfStatuss() const { return intfStatus_.size(); }
  IntfStatusMap const & intfStatusIter() const { return intfStatus_; }

  // A null status raises Vorn::RangeException and changes nothing.
  void intfStatusIs(Vorn::String const & name, Vorn::Ptr<IntfStatus const> const & status);
  void intfStatusDel(Vorn::String const & name);
  void intfStatusDelAll();
  void intfStatusNotify(Vorn::String const & name) const { notify(&NotifieeConst::onIntfStatus, name); }

 protected:
  ~IntfStatusIndexDir() override = default;
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onIntfStatusvornImmediate);
  }

 private:
  friend Vorn::Ptr<IntfStatusIndexDir> intfStatusIndexDirFactory(Vorn::Name const & name);
  explicit IntfStatusIndexDir(Vorn::Name const & name) : Entity(name) {}

  IntfStatusMap intfStatus_;
};

Vorn::Ptr<IntfStatusIndexDir> intfStatusIndexDirFactory(Vorn::Name const & name);

}  // namespace Interface
