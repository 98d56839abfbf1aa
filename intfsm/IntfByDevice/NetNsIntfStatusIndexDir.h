// The device-name indexes of every network namespace: one IntfStatusIndexDir per namespace, each
// keyed by its own name (by convention the namespace's name).
//
//   auto all = Interface::netNsIntfStatusIndexDirFactory("nsisid");
//   all->intfStatusIndexDirIs(Interface::intfStatusIndexDirFactory("blue"));  // onIntfStatusIndexDir("blue")
//   all->intfStatusIndexDir("blue");                                         // that index, or null
//   all->intfStatusIndexDirDel("blue");
//
// The key is read from the member itself (IntfStatusIndexDirKeyFunktor), so a member is found under its
// own name and under no other. Mutators notify onIntfStatusIndexDir(name) once per real change; a
// reactor bound with notifierIs first gets onIntfStatusIndexDirvornImmediate().
#pragma once

#include <cstdint>

#include "intfsm/IntfByDevice/IntfStatusIndexDir.h"
#include "intfsm/foundation/vorn/Collection.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

// The key of a member of NetNsIntfStatusIndexDir: the member's name.
struct IntfStatusIndexDirKeyFunktor {
  Vorn::Name operator()(Vorn::Ptr<IntfStatusIndexDir> const & dir) const { return dir->name(); }
};

class NetNsIntfStatusIndexDir : public Vorn::Entity {
 public:
  using KeyFunktor = IntfStatusIndexDirKeyFunktor;
  using IntfStatusIndexDirMap = Vorn::Collection<Vorn::Name, Vorn::Ptr<IntfStatusIndexDir>>;

  class NotifieeConst : public Vorn::Notifiee<NetNsIntfStatusIndexDir> {
   public:
    virtual void onIntfStatusIndexDir(Vorn::Name const &) {}
    virtual void onIntfStatusIndexDirvornImmediate() {}
  };

  char const * vornTypeName() const override { return "Interface::NetNsIntfStatusIndexDir"; }
  bool hasBackupSupport() const { return false; }

  // Null when absent.
  Vorn::Ptr<IntfStatusIndexDir> intfStatusIndexDir(Vorn::Name const & name) const {
    return intfStatusIndexDir_.get(name);
  }
  uint32_t intfStatusIndexDirs() const { return intfStatusIndexDir_.size(); }
  IntfStatusIndexDirMap const & intfStatusIndexDirIter() const { return intfStatusIndexDir_; }

  // Adds `dir` under its own name, replacing another member of that name. Null raises
  // Vorn::RangeException and changes nothing.
  void intfStatusIndexDirIs(Vorn::Ptr<IntfStatusIndexDir> const & dir);
  void intfStatusIndexDirDel(Vorn::Name const & name);
  void intfStatusIndexDirDelAll();

 protected:
  ~NetNsIntfStatusIndexDir() override = default;
  void vornImmediateNotify(Vorn::BaseNotifiee * n) const override {
    notifyOne(n, &NotifieeConst::onIntfStatusIndexDirvornImmediate);
  }

 private:
  friend Vorn::Ptr<NetNsIntfStatusIndexDir> netNsIntfStatusIndexDirFactory(Vorn::Name const & name);
  explicit NetNsIntfStatusIndexDir(Vorn::Name const & name) : Entity(name) {}

  // Stores `_value` under `key`, which must be the key the functor reads from it.
  void insert(Vorn::Name const & key, Vorn::Ptr<IntfStatusIndexDir> const & _value);

  IntfStatusIndexDirMap intfStatusIndexDir_;
};

Vorn::Ptr<NetNsIntfStatusIndexDir> netNsIntfStatusIndexDirFactory(Vorn::Name const & name);

}  // namespace Interface
