#include "intfsm/KniIntfStatusManager/KniIntfStatusManager.h"

#include "intfsm/KniIntfStatusManager/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

namespace {
using M = KniIntfStatusManager;
// "interfaceInfo" reads as the kernel status it looks devices up in.
Vorn::AttributeTableOf<M> const attributes("Interface::KniIntfStatusManager", [](auto & t) {
  t.scalar("kernelIntfStatusDir", &M::kernelIntfStatusDir)
      .scalar("kniStatus", &M::kniStatus)
      .scalar("nsName", &M::nsName)
      .scalar("interfaceInfo", [](M const & m) { return m.interfaceInfo().status(); })
      .scalar("kniRoot", &M::kniRoot)
      .scalar("omitNonRunningKernelDevices", &M::omitNonRunningKernelDevices, &M::omitNonRunningKernelDevicesIs)
      .scalar("kernelIntfDir", &M::kernelIntfDir)
      .collection("kernelOnlyInterface", &M::kernelOnlyInterfaceIter, &M::kernelOnlyInterfaceIs,
                  &M::kernelOnlyInterfaceDel)
      .collection("deviceToName", &M::deviceToNameIter, nullptr, nullptr)
      .scalar("initialized", &M::initialized);
});
Intfsm::TypeRegistration registration("Interface::KniIntfStatusManager", nullptr, attributes);
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
  unpublishAll();
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
  if (!initialized_ || retired_) return;
  KNISM_TRACE(8, "KniIntfStatusManager::" << "handleKernelIntf" << "(" << name << ")" << " myNs: " << nsName_);
  Vorn::String const key = name;  // `name` may be a key of deviceToName, which changes below
  Ovel::IntfId const id = resolved(key);
  Ovel::IntfId const last = deviceToName(key);

  if (id.empty()) {
    KNISM_TRACE(7, "handleKernelIntf removing " << last << " from kernelIntfStatusDir (" << key
                                                << " not in kernelIntfDir)");
    deviceToNameDel(key);
    if (!last.empty()) publish(last, key);
    return;
  }

  KernelNetInfo::Interface const device = kniRoot_ ? kniRoot_->interfaceByDeviceName(key) : KernelNetInfo::Interface();
  KNISM_TRACE(7, "kernelIntfDir: " << key << " is " << id);
  KNISM_TRACE(7, "kernelDevice: " << key << " " << (device ? device.deviceName() : Vorn::String("none")));
  deviceToNameIs(key, id);
  // The name now leads to another interface: the one it led to loses it first, so that one ifindex
  // never stands for two interfaces.
  if (!last.empty() && !(last == id)) publish(last, key);
  publish(id, key);
}

Ovel::IntfId KniIntfStatusManager::resolved(Vorn::String const & name) const {
  if (Vorn::Ptr<IntfStatus const> const status = kernelIntfDir_->intfStatus(name)) return status->intfId();
  if (auto const parsed = Ovel::IntfId::fromName(kernelOnlyInterface(name))) return *parsed;
  return Ovel::IntfId();
}

bool KniIntfStatusManager::present(Vorn::String const & name) const {
  KernelNetInfo::Interface const device = kniRoot_ ? kniRoot_->interfaceByDeviceName(name) : KernelNetInfo::Interface();
  return device && (!omitNonRunningKernelDevices_ || (device.flags() & runningFlag) != 0);
}

Vorn::String KniIntfStatusManager::publishedName(Ovel::IntfId const & id) const {
  Vorn::String best;
  bool bestIndexed = false;
  auto const names = namesOf_.find(id);
  if (names == namesOf_.end()) return best;
  for (Vorn::String const & name : names->second) {
    if (!present(name)) continue;
    bool const indexed = static_cast<bool>(kernelIntfDir_->intfStatus(name));
    if (best.empty() || (indexed && !bestIndexed) || (indexed == bestIndexed && name.stdString() < best.stdString())) {
      best = name;
      bestIndexed = indexed;
    }
  }
  return best;
}

void KniIntfStatusManager::publish(Ovel::IntfId const & id, Vorn::String const & name) {
  Vorn::String const chosen = publishedName(id);
  IntfStatusAndDeviceName current = kernelIntfStatusDir_->intfStatusAndDeviceName(id);
  if (chosen.empty()) {
    KNISM_TRACE(7, "handleKernelIntf removing " << id << " from kernelIntfStatusDir (" << name << ")");
    kernelIntfStatusDir_->entryDel(id);
    return;
  }
  // Published under another device name (the interface took another name, or lost a contested one):
  // that entry goes first; the ifindex of one device name never changes in place.
  if (current.ifIndex && !(current.deviceName == chosen)) {
    kernelIntfStatusDir_->entryDel(id);
    current = IntfStatusAndDeviceName();
  }
  uint32_t const oldIfIndex = current.ifIndex;
  uint32_t const newIfIndex = kniRoot_->interfaceByDeviceName(chosen).ifIndex();
  KNISM_TRACE(7, "handleKernelIntf adding " << id << " with ifIndex " << newIfIndex << " to kernelIntfStatusDir ("
                                            << chosen << ") oldIfIndex: " << oldIfIndex);
  VORN_ASSERT(!oldIfIndex || oldIfIndex == newIfIndex);
  kernelIntfStatusDir_->entryIs(id, IntfStatusAndDeviceName{kernelIntfDir_->intfStatus(chosen), chosen, newIfIndex});
}

void KniIntfStatusManager::unpublishAll() {
  retired_ = true;
  vornDoZombieReactors(true);
  while (Vorn::String const * name = deviceToName_.anyKey()) {
    Vorn::String const key = *name;
    kernelIntfStatusDir_->entryDel(deviceToName(key));
    deviceToNameDel(key);
  }
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
  if (Ovel::IntfId const * old = deviceToName_.find(name)) {
    if (*old == id) return;
    nameOfDel(*old, name);
  }
  namesOf_[id].push_back(name);
  setEntry(deviceToName_, name, id, &NotifieeConst::onDeviceToName);
}

void KniIntfStatusManager::deviceToNameDel(Vorn::String const & name) {
  Ovel::IntfId const * old = deviceToName_.find(name);
  if (!old) return;
  nameOfDel(*old, name);
  delEntry(deviceToName_, name, &NotifieeConst::onDeviceToName);
}

void KniIntfStatusManager::nameOfDel(Ovel::IntfId const & id, Vorn::String const & name) {
  auto const names = namesOf_.find(id);
  if (names == namesOf_.end()) return;
  std::erase(names->second, name);
  if (names->second.empty()) namesOf_.erase(names);
}

}  // namespace Interface
