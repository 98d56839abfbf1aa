#include "intfsm/KniIntfStatusManager/NetNsIntfStatusManagerRoot.h"

#include "intfsm/KniIntfStatusManager/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
using Root = NetNsIntfStatusManagerRoot;
// A namespace's manager is made by set(nsName, [kernelIntfStatusDir, kniStatus]).
Vorn::AttributeTableOf<Root> const attributes("Interface::NetNsIntfStatusManagerRoot", [](auto & t) {
  t.scalar("allIntfStatusDir", &Root::allIntfStatusDir)
      .scalar("allIntfStatusLocalDir", &Root::allIntfStatusLocalDir)
      .scalar("filterByNetNs", &Root::filterByNetNs)
      .collection("intfStatusManager", &Root::intfStatusManagerIter,
                  [](Root & r, Ovel::NamespaceName const & ns, std::vector<Vorn::Value> const & args) {
                    if (args.size() != 2) {
                      throw Vorn::NoSuchAttributeException(
                          "Interface::NetNsIntfStatusManagerRoot::intfStatusManager takes [kernelIntfStatusDir, "
                          "kniStatus], " + std::to_string(args.size()) + " given");
                    }
                    r.intfStatusManagerIs(Vorn::fromValue<Vorn::Ptr<DeviceIntfStatusDir>>(args[0]),
                                          Vorn::fromValue<Vorn::Ptr<KernelNetInfo::Status const>>(args[1]), ns);
                  },
                  &Root::intfStatusManagerDel)
      .scalar("netNsIntfStatusIndexDir", &Root::netNsIntfStatusIndexDir)
      .instantiating("isbdn", &Root::isbdn, &Root::isbdnIs, &Root::isbdnDel)
      .scalar("initialized", &Root::initialized);
});
Intfsm::TypeRegistration registration("Interface::NetNsIntfStatusManagerRoot", nullptr, attributes);

constexpr char handleIntfStatusManagerText[] =
    "void Interface::NetNsIntfStatusManagerRoot::handleIntfStatusManager(Ovel::NamespaceName)";

// How a constructor argument is named in the re-instantiation error: by the entity's name.
std::string argumentText(Vorn::Entity const * e) { return e ? e->name().stdString() : "null"; }
}  // namespace

Vorn::Ptr<NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRootFactory(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir, bool filterByNetNs) {
  return new NetNsIntfStatusManagerRoot(allIntfStatusDir, allIntfStatusLocalDir, filterByNetNs);
}

NetNsIntfStatusManagerRoot::NetNsIntfStatusManagerRoot(Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
                                                       Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
                                                       bool filterByNetNs)
    : Entity(Vorn::Name()),
      allIntfStatusDir_(allIntfStatusDir),
      allIntfStatusLocalDir_(allIntfStatusLocalDir),
      filterByNetNs_(filterByNetNs) {
  handleInitialized();
}

NetNsIntfStatusManagerRoot::~NetNsIntfStatusManagerRoot() {
  // The reactor first, so that nothing is filed into indexes while the managers go.
  isbdn_ = nullptr;
  while (Ovel::NamespaceName const * key = intfStatusManager_.anyKey()) {
    Ovel::NamespaceName const ns = *key;
    intfStatusManager_.get(ns)->unpublishAll();
    intfStatusManager_.del(ns);
  }
  netNsIntfStatusIndexDir_ = nullptr;
}

void NetNsIntfStatusManagerRoot::handleInitialized() {
  KNISM_TRACE(3, "void Interface::NetNsIntfStatusManagerRoot::handleInitialized()" << " filterByNetNs "
                                                                                  << filterByNetNs_);
  netNsIntfStatusIndexDir_ = netNsIntfStatusIndexDirFactory("nsisid");
  notify(&NotifieeConst::onNetNsIntfStatusIndexDir);
  isbdnIs(allIntfStatusDir_, allIntfStatusLocalDir_, netNsIntfStatusIndexDir_, filterByNetNs_);
  if (initialized_) return;
  initialized_ = true;
  notify(&NotifieeConst::onInitialized);
}

Vorn::Ptr<KniIntfStatusManager> NetNsIntfStatusManagerRoot::intfStatusManagerIs(
    Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir, Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus,
    Ovel::NamespaceName const & nsName) {
  Vorn::Ptr<KniIntfStatusManager> manager = intfStatusManager_.get(nsName);
  if (manager) {
    if (!(manager->kernelIntfStatusDir() == kernelIntfStatusDir)) {
      throw Vorn::NameInUseException(Vorn::reinstantiationText("_kernelIntfStatusDir",
                                                               argumentText(kernelIntfStatusDir.ptr()),
                                                               argumentText(manager->kernelIntfStatusDir().ptr())));
    }
    if (!(manager->kniStatus() == kniStatus)) {
      throw Vorn::NameInUseException(Vorn::reinstantiationText("_kniStatus", argumentText(kniStatus.ptr()),
                                                               argumentText(manager->kniStatus().ptr())));
    }
  } else {
    manager = kniIntfStatusManagerFactory(kernelIntfStatusDir, kniStatus, nsName);
    setEntry(intfStatusManager_, nsName, manager, &NotifieeConst::onIntfStatusManager);
  }
  handleIntfStatusManager(nsName);
  return manager;
}

void NetNsIntfStatusManagerRoot::intfStatusManagerDel(Ovel::NamespaceName const & nsName) {
  Ovel::NamespaceName const key = nsName;  // `nsName` may be the key of the entry that goes
  // What it published goes with it, also when someone else still holds the manager.
  if (Vorn::Ptr<KniIntfStatusManager> const manager = intfStatusManager_.get(key)) manager->unpublishAll();
  delEntry(intfStatusManager_, key, &NotifieeConst::onIntfStatusManager);
  handleIntfStatusManager(key);
}

void NetNsIntfStatusManagerRoot::handleIntfStatusManager(Ovel::NamespaceName const & nsName) {
  KNISM_TRACE(3, handleIntfStatusManagerText << " for ns " << nsName << " filterByNetNs: " << filterByNetNs_);
  if (!filterByNetNs_ && !nsName.isDefault()) {
    VORN_ASSERT(false && "filterByNetNs must be set to be used for non-default namespaces");
  }
  if (Vorn::Ptr<KniIntfStatusManager> const manager = intfStatusManager_.get(nsName)) {
    KNISM_TRACE(7, handleIntfStatusManagerText << " create intfStatusIndexDir");
    netNsIntfStatusIndexDir_->intfStatusIndexDirIs(manager->kernelIntfDir());
  } else {
    KNISM_TRACE(7, handleIntfStatusManagerText << " delete intfStatusIndexDir");
    netNsIntfStatusIndexDir_->intfStatusIndexDirDel(Vorn::Name(nsName.name()));
  }
}

Vorn::Ptr<KniAllIntfDeviceNameReactor> NetNsIntfStatusManagerRoot::isbdnIs(
    Vorn::Ptr<AllIntfStatusDir const> const & allIntfStatusDir,
    Vorn::Ptr<AllIntfStatusLocalDir const> const & allIntfStatusLocalDir,
    Vorn::Ptr<NetNsIntfStatusIndexDir> const & netNsIntfStatusIndexDir, bool filterByNetNs) {
  if (isbdn_ && isbdn_->allIntfStatusDir() == allIntfStatusDir &&
      isbdn_->allIntfStatusLocalDir() == allIntfStatusLocalDir &&
      isbdn_->netNsIntfStatusIndexDir() == netNsIntfStatusIndexDir && isbdn_->filterByNetNs() == filterByNetNs) {
    return isbdn_;
  }
  isbdn_ = nullptr;  // the old one stops filing before the new one starts
  isbdn_ = kniAllIntfDeviceNameReactorFactory(allIntfStatusDir, allIntfStatusLocalDir, netNsIntfStatusIndexDir,
                                              filterByNetNs);
  notify(&NotifieeConst::onIsbdn);
  return isbdn_;
}

void NetNsIntfStatusManagerRoot::isbdnDel() {
  if (!isbdn_) return;
  isbdn_ = nullptr;
  notify(&NotifieeConst::onIsbdn);
}

}  // namespace Interface
