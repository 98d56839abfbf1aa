#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"

#include "intfsm/KniIntfStatusManager/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration("Interface::KniIntfStatusManager", nullptr,
                                      {"kernelIntfStatusDir", "kniStatus", "nsName", "interfaceInfo", "kniRoot",
                                       "omitNonRunningKernelDevices", "kernelIntfDir", "kernelOnlyInterface",
                                       "deviceToName", "initialized"});
}  // namespace

class KniIntfStatusManager::VornKernelIntfDir : public Vorn::Reactor<KniIntfStatusManager, IntfStatusIndexDir> {
 public:
  using Reactor::Reactor;
  void onIntfStatus(Vorn::String const & name) override {
    forward<Vorn::String const &>(&KniIntfStatusManager::handleKernelIntf, name);
  }
  void onIntfStatusvornImmediate() override { forward<>(&KniIntfStatusManager::handleKernelIntf); }
};

class KniIntfStatusManager::VornKniRoot : public Vorn::Reactor<KniIntfStatusManager, KernelNetInfo::Root> {
 public:
  using Reactor::Reactor;
  void onInterfaceByDeviceName(Vorn::String const & name) override {
    forward<Vorn::String const &>(&KniIntfStatusManager::handleKernelDevice, name);
  }
  void onInterfaceByDeviceNamevornImmediate() override { forward<>(&KniIntfStatusManager::handleKernelDevice); }
};

Vorn::Ptr<KniIntfStatusManager> kniIntfStatusManagerFactory(Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
                                                            Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus,
                                                            Ovel::NamespaceName const & nsName) {
  if (!kernelIntfStatusDir) {
    throw Vorn::RangeException(Vorn::nullParameterText("kernelIntfStatusDir", "Interface::KniIntfStatusManager"));
  }
  return new KniIntfStatusManager(kernelIntfStatusDir, kniStatus, nsName);
}

KniIntfStatusManager::KniIntfStatusManager(Vorn::Ptr<DeviceIntfStatusDir> const & kernelIntfStatusDir,
                                           Vorn::Ptr<KernelNetInfo::Status const> const & kniStatus,
                                           Ovel::NamespaceName const & nsName)
    : Entity(Vorn::Name(nsName.name())), kernelIntfStatusDir_(kernelIntfStatusDir), kniStatus_(kniStatus), nsName_(nsName) {
  handleKernelIntf();
  handleInitialized();
}

KniIntfStatusManager::~KniIntfStatusManager() {
  vornDoZombieReactors(true);
  kernelIntfDirReactor_ = nullptr;
  kniRootReactor_ = nullptr;
}

void KniIntfStatusManager::vornDoZombieReactors(bool zombie) {
  if (kernelIntfDirReactor_) kernelIntfDirReactor_->vornZombieIs(zombie);
  if (kniRootReactor_) kniRootReactor_->vornZombieIs(zombie);
}

void KniIntfStatusManager::handleInitialized() {
  KNISM_TRACE(8, "void Interface::KniIntfStatusManager::handleInitialized()" << " myNs: " << nsName_);
  kernelIntfDir_ = intfStatusIndexDirFactory(Vorn::Name(nsName_.name()));
  kernelIntfDirReactor_ = Vorn::reactorNew<VornKernelIntfDir>(this, kernelIntfDir_);  // runs handleKernelIntf()
  interfaceInfo_.statusIs(kniStatus_);
  kniRoot_ = interfaceInfo_.root();
  kniRootReactor_ = Vorn::reactorNew<VornKniRoot>(this, kniRoot_);
  // Not initialized yet, so this pass publishes nothing: entries come as kernelIntfDir is filled.
  if (kniRoot_) {
    for (auto const & e : kniRoot_->interfaceByDeviceNameIter()) handleKernelDevice(Vorn::String(e.key));
  }
  initializedIs(true);
}

void KniIntfStatusManager::initializedIs(bool initialized) {
  if (initialized == initialized_) return;
  initialized_ = initialized;
  notify(&NotifieeConst::onInitialized);
}

void KniIntfStatusManager::handleKernelDevice() {
  KNISM_TRACE(8, "void Interface::KniIntfStatusManager::handleKernelDevice()" << " myNs: " << nsName_);
}

void KniIntfStatusManager::handleKernelDevice(Vorn::String const & name) {
  KNISM_TRACE(8, "KniIntfStatusManager::" << "handleKernelDevice" << "(" << name << ") myNs: " << nsName_);
  handleKernelIntf(name);
}

void KniIntfStatusManager::handleKernelIntf() {
  KNISM_TRACE(8, "void Interface::KniIntfStatusManager::handleKernelIntf()" << " myNs: " << nsName_);
  VORN_ASSERT(kernelIntfDir() == 0 || kernelIntfDir()->intfStatuss() == 0);
}

void KniIntfStatusManager::handleKernelIntf(Vorn::String const & name) {
  if (!initialized_) return;
  KNISM_TRACE(8, "KniIntfStatusManager::" << "handleKernelIntf" << "(" << name << ")" << " myNs: " << nsName_);
  Vorn::Ptr<IntfStatus const> const status = kernelIntfDir_->intfStatus(name);
  Ovel::IntfId id;
  if (status) {
    id = status->intfId();
  } else if (auto const parsed = Ovel::IntfId::fromName(kernelOnlyInterface(name))) {
    id = *parsed;
  }

  if (id.empty()) {
    Ovel::IntfId const last = deviceToName(name);
    KNISM_TRACE(7, "handleKernelIntf removing " << last << " from kernelIntfStatusDir (" << name
                                                << " not in kernelIntfDir)");
    IntfStatusAndDeviceName const removed = kernelIntfStatusDir_->intfStatusAndDeviceNameDel(last);
    if (!!removed) kernelIntfStatusDir_->intfStatusByIfIndexDel(removed.ifIndex);
    deviceToNameDel(name);
    return;
  }

  KernelNetInfo::Interface const device = kniRoot_ ? kniRoot_->interfaceByDeviceName(name) : KernelNetInfo::Interface();
  KNISM_TRACE(7, "kernelIntfDir: " << name << " is " << id);
  KNISM_TRACE(7, "kernelDevice: " << name << " " << (device ? device.deviceName() : Vorn::String("none")));
  deviceToNameIs(name, id);

  bool const present = device && (!omitNonRunningKernelDevices_ || (device.flags() & runningFlag) != 0);
  if (present) {
    uint32_t const oldIfIndex = kernelIntfStatusDir_->intfStatusAndDeviceName(id).ifIndex;
    uint32_t const newIfIndex = device.ifIndex();
    KNISM_TRACE(7, "handleKernelIntf adding " << id << " with ifIndex " << newIfIndex << " to kernelIntfStatusDir ("
                                              << name << ") oldIfIndex: " << oldIfIndex);
    VORN_ASSERT(!oldIfIndex || oldIfIndex == newIfIndex);
    IntfStatusAndDeviceName const record{status, name, newIfIndex};
    kernelIntfStatusDir_->intfStatusAndDeviceNameIs(id, record);
    kernelIntfStatusDir_->intfStatusByIfIndexIs(newIfIndex, record);
    return;
  }
  KNISM_TRACE(7, "handleKernelIntf removing " << id << " from kernelIntfStatusDir (" << name << ")");
  IntfStatusAndDeviceName const removed = kernelIntfStatusDir_->intfStatusAndDeviceNameDel(id);
  if (!!removed) kernelIntfStatusDir_->intfStatusByIfIndexDel(removed.ifIndex);
}

void KniIntfStatusManager::omitNonRunningKernelDevicesIs(bool omit) {
  if (omit == omitNonRunningKernelDevices_) return;
  omitNonRunningKernelDevices_ = omit;
  handleOmitNonRunningKernelDevices();
  notify(&NotifieeConst::onOmitNonRunningKernelDevices);
}

void KniIntfStatusManager::handleOmitNonRunningKernelDevices() {
  if (!initialized_) return;
  KNISM_TRACE(8, "KniIntfStatusManager::" << "handleOmitNonRunningKernelDevices" << "(" << omitNonRunningKernelDevices_
                                          << ") myNs: " << nsName_);
  for (auto const & e : deviceToName_) handleKernelIntf(Vorn::String(e.key));
}

void KniIntfStatusManager::kernelOnlyInterfaceIs(Vorn::String const & name, Vorn::String const & intfIdText) {
  if (!intfIdText.empty()) static_cast<void>(Ovel::IntfId(intfIdText));  // a bad text is refused before anything changes
  if (!kernelOnlyInterface_.set(name, intfIdText)) return;
  notify(&NotifieeConst::onKernelOnlyInterface, name);
  handleKernelIntf(name);
}

void KniIntfStatusManager::kernelOnlyInterfaceDel(Vorn::String const & name) {
  Vorn::String const key = name;  // `name` may be the key of the entry that goes
  if (kernelOnlyInterface_.del(key)) notify(&NotifieeConst::onKernelOnlyInterface, key);
  handleKernelIntf(key);
}

void KniIntfStatusManager::kernelOnlyInterfaceDelAll() {
  while (Vorn::String const * key = kernelOnlyInterface_.anyKey()) kernelOnlyInterfaceDel(*key);
}

void KniIntfStatusManager::deviceToNameIs(Vorn::String const & name, Ovel::IntfId const & id) {
  setEntry(deviceToName_, name, id, &NotifieeConst::onDeviceToName);
}

void KniIntfStatusManager::deviceToNameDel(Vorn::String const & name) {
  delEntry(deviceToName_, name, &NotifieeConst::onDeviceToName);
}

}  // namespace Interface
