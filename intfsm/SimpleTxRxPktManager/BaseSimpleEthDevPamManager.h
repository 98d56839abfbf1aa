// The directories and the packet-access manager that an agent needs for raw packets on a set of
// interfaces, owned together: a device interface-status directory, the desired-interface directory,
// the Pam collection, and an EthDevPamManager over the three. SimpleEthDevPamManager derives from it
// and adds what fills the device directory from the kernel.
//
// Construction makes the three directories (empty names, in that order; this object their parent) and
// the manager, disabled and with its defaults; enabling and configuring it is the owner's business:
//
//   auto s = Interface::simpleEthDevPamManagerFactory(allIntfStatus, allIntfStatusLocal, kernel);
//   s->ethDevPamManager()->ethProtocolIs(0x88b5);
//   s->ethDevPamManager()->enabledIs(true);
//   s->desiredIntfDir()->intfDesiredIs(Ovel::IntfId("Ethernet1"), true);   // a Pam appears in pamCollection()
//
// Threading: everything runs on the agent's one loop thread and nothing is locked.
#pragma once

#include "intfsm/EthDevPamManagerTypes/EthDevPamCollection.h"
#include "intfsm/EthDevPamManagerTypes/EthDevPamManager.h"
#include "intfsm/EthDevPamManagerTypes/PamDesiredIntfDir.h"
#include "intfsm/foundation/interface/AllIntfStatusDir.h"
#include "intfsm/foundation/interface/AllIntfStatusLocalDir.h"
#include "intfsm/foundation/interface/DeviceIntfStatusDir.h"
#include "intfsm/foundation/vorn/Entity.h"

namespace Interface {

class BaseSimpleEthDevPamManager : public Vorn::Entity {
 public:
  class NotifieeConst : public Vorn::Notifiee<BaseSimpleEthDevPamManager> {
   public:
    virtual void onDeviceIntfStatusDir() {}
    virtual void onDesiredIntfDir() {}
    virtual void onPamCollection() {}
    virtual void onEthDevPamManager() {}
  };

  char const * vornTypeName() const override { return "Interface::BaseSimpleEthDevPamManager"; }

  Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir() const { return allIntfStatusDir_; }
  Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir() const { return allIntfStatusLocalDir_; }

  // Each directory is created by name, with this object as its parent; the same name keeps the
  // current one.
  Vorn::Ptr<DeviceIntfStatusDir> const & deviceIntfStatusDir() const { return deviceIntfStatusDir_; }
  Vorn::Ptr<DeviceIntfStatusDir> deviceIntfStatusDirIs(Vorn::Name const & name);
  void deviceIntfStatusDirDel();
  Vorn::Ptr<PamDesiredIntfDir> const & desiredIntfDir() const { return desiredIntfDir_; }
  Vorn::Ptr<PamDesiredIntfDir> desiredIntfDirIs(Vorn::Name const & name);
  void desiredIntfDirDel();
  Vorn::Ptr<EthDevPamCollection> const & pamCollection() const { return pamCollection_; }
  Vorn::Ptr<EthDevPamCollection> pamCollectionIs(Vorn::Name const & name);
  void pamCollectionDel();

  // The manager over the three; the same three keep the current one.
  Vorn::Ptr<EthDevPamManager> const & ethDevPamManager() const { return ethDevPamManager_; }
  Vorn::Ptr<EthDevPamManager> ethDevPamManagerIs(Vorn::Ptr<PamDesiredIntfDir const> const & desiredIntfDir,
                                                Vorn::Ptr<EthDevPamCollection> const & pamCollection,
                                                Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir);
  void ethDevPamManagerDel();

 protected:
  // The directories exist from construction on; the factory of a derived class adopts them
  // (doAdoptDirectories) once the object is held.
  BaseSimpleEthDevPamManager(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                             Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir);
  ~BaseSimpleEthDevPamManager() override;
  // Makes this object the parent of the three directories.
  void doAdoptDirectories();

 private:
  Vorn::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
  Vorn::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
  Vorn::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir_;
  Vorn::Ptr<PamDesiredIntfDir> desiredIntfDir_;
  Vorn::Ptr<EthDevPamCollection> pamCollection_;
  Vorn::Ptr<EthDevPamManager> ethDevPamManager_;
};

}  // namespace Interface
