#include "intfsm/SimpleTxRxPktManager/SimpleTxRxPktManager.h"

#include <cstdlib>

#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/ovel/SockFilterProgramValue.h"
#include "intfsm/SimpleTxRxPktManager/ParseFilter.h"
#include "intfsm/SimpleTxRxPktManager/internal/Trace.h"
#include "intfsm/foundation/ovel/EthDevPam.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Exception.h"

namespace Interface {

namespace {
using S = SimpleTxRxPktManager;
// desiredIntfDir is made by name (text) or handed over (an object). bpfFilter reads as a program (a list
// of [code, jt, jf, k]); it is set through applyFilter.
Vorn::AttributeTableOf<S> const attributes("Interface::SimpleTxRxPktManager", [](auto & t) {
  t.scalar("deviceIntfStatusDir", &S::deviceIntfStatusDir)
      .instantiating(
          "desiredIntfDir", &S::desiredIntfDir,
          [](S & s, Vorn::Value const & v) {
            if (v.kind() == Vorn::Value::Kind::text) {
              s.desiredIntfDirIs(Vorn::Name(v.text()));
            } else {
              s.desiredIntfDirIs(Vorn::fromValue<Vorn::Ptr<PamDesiredIntfDir>>(v));
            }
          },
          &S::desiredIntfDirDel)
      .scalar("pamCollection", &S::pamCollection)
      .collection("pam", &S::pamIter, nullptr, nullptr)
      .scalar("ethDevPamManager", &S::ethDevPamManager)
      .scalar("numSent", &S::numSent, &S::numSentIs)
      .scalar("numRcvd", &S::numRcvd, &S::numRcvdIs)
      .scalar("numBadRcvd", &S::numBadRcvd, &S::numBadRcvdIs)
      .scalar("bpfFilterLen", &S::bpfFilterLen, &S::bpfFilterLenIs)
      .scalar("bpfFilter",
              [](S const & s) {
                return s.bpfFilter() ? Ovel::SockFilterProgram(s.bpfFilter(), s.bpfFilterLen())
                                     : Ovel::SockFilterProgram();
              })
      .scalar("initializedTxRx", &S::initializedTxRx, &S::initializedTxRxIs)
      .callable("addIntfPam", &S::addIntfPam)
      .callable("delIntfPam", &S::delIntfPam)
      .callable("applyFilter", &S::applyFilter);
});
Intfsm::TypeRegistration registration("Interface::SimpleTxRxPktManager", nullptr, attributes);

constexpr char handleReadableCountText[] = "void Interface::SimpleTxRxPktManager::VornPam::handleReadableCount()";
}  // namespace

// Follows the collection's Pams: one VornPam per interface that has one.
class SimpleTxRxPktManager::VornPamCollection : public Vorn::Reactor<SimpleTxRxPktManager, EthDevPamCollection> {
 public:
  using Reactor::Reactor;
  void onIntfPam(Ovel::IntfId const & intfId) override { forward(&SimpleTxRxPktManager::handlePamCollection, intfId); }
  void onIntfPamvornImmediate() override { forward(&SimpleTxRxPktManager::handlePamCollection); }
};

Vorn::Ptr<SimpleTxRxPktManager> simpleTxRxPktManagerFactory(Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                                            Vorn::Ptr<EthDevPamCollection> const & pamCollection) {
  return new SimpleTxRxPktManager(deviceIntfStatusDir, pamCollection);
}

SimpleTxRxPktManager::SimpleTxRxPktManager(Vorn::Ptr<DeviceIntfStatusDir const> const & deviceIntfStatusDir,
                                           Vorn::Ptr<EthDevPamCollection> const & pamCollection)
    : Entity(Vorn::Name()), deviceIntfStatusDir_(deviceIntfStatusDir) {
  pamCollectionIs(pamCollection);
}

SimpleTxRxPktManager::~SimpleTxRxPktManager() {
  vornDoZombieReactors(true);
  pam_.delAll();
  pamCollectionReactor_ = nullptr;
  handleDeletion();
  ethDevPamManager_ = nullptr;
}

void SimpleTxRxPktManager::vornDoZombieReactors(bool zombie) {
  if (pamCollectionReactor_) pamCollectionReactor_->vornZombieIs(zombie);
  pam_.zombieIs(zombie);
}

Vorn::Ptr<EthDevPamCollection const> SimpleTxRxPktManager::pamCollection() const { return pamCollection_; }

void SimpleTxRxPktManager::pamCollectionIs(Vorn::Ptr<EthDevPamCollection> const & collection) {
  if (pamCollection_ == collection) return;
  if (pamCollectionReactor_) Vorn::reactorRetire(*pamCollectionReactor_);
  pamCollectionReactor_ = nullptr;
  pamCollection_ = collection;
  // Binding reconciles the per-Pam reactors with the new collection (handlePamCollection()).
  if (collection) {
    pamCollectionReactor_ = Vorn::reactorNew<VornPamCollection>(this, Vorn::Ptr<EthDevPamCollection const>(collection));
  } else {
    pam_.delAll();
  }
  notify(&NotifieeConst::onPamCollection);
}

Vorn::Ptr<PamDesiredIntfDir> SimpleTxRxPktManager::desiredIntfDirIs(Vorn::Name const & name) {
  if (!desiredIntfDir_ || !(desiredIntfDir_->name() == name)) {
    Vorn::Ptr<PamDesiredIntfDir> dir = pamDesiredIntfDirFactory(name);
    dir->parentIs(Vorn::Ptr<Vorn::Entity>(this));
    desiredIntfDirIs(dir);
  }
  return desiredIntfDir_;
}

void SimpleTxRxPktManager::desiredIntfDirIs(Vorn::Ptr<PamDesiredIntfDir> const & dir) {
  if (desiredIntfDir_ == dir) return;
  desiredIntfDir_ = dir;
  notify(&NotifieeConst::onDesiredIntfDir);
}

void SimpleTxRxPktManager::desiredIntfDirDel() { desiredIntfDirIs(Vorn::Ptr<PamDesiredIntfDir>()); }

void SimpleTxRxPktManager::bpfFilterIs(std::unique_ptr<sock_filter[]> filter) {
  bpfFilter_ = std::move(filter);
  notify(&NotifieeConst::onBpfFilter);
}

void SimpleTxRxPktManager::initializedTxRxIs(bool initialized) {
  if (initialized == initializedTxRx_) return;
  initializedTxRx_ = initialized;
  if (initialized) handleInitializedTxRx();
  notify(&NotifieeConst::onInitializedTxRx);
}

void SimpleTxRxPktManager::handleInitializedTxRx() {
  STRPM_TRACE(8, "void Interface::SimpleTxRxPktManager::handleInitializedTxRx()");
  VORN_ASSERT(desiredIntfDir());
  Vorn::Ptr<EthDevPamCollection> collection = ethDevPamCollectionFactory("edpc");
  collection->parentIs(Vorn::Ptr<Vorn::Entity>(this));
  pamCollectionIs(collection);
  ethDevPamManager_ = ethDevPamManagerFactory(desiredIntfDir_, collection, deviceIntfStatusDir_);
  notify(&NotifieeConst::onEthDevPamManager);
}

bool SimpleTxRxPktManager::addIntfPam(Ovel::IntfId const & intfId) {
  STRPM_TRACE(8, "bool Interface::SimpleTxRxPktManager::addIntfPam(Ovel::IntfId)" << "( " << intfId << " )");
  VORN_ASSERT(desiredIntfDir());
  if (!desiredIntfDir_->intfDesiredIter().find(intfId)) {
    STRPM_TRACE(5, "SimpleTxRxPktManager: Adding " << intfId << " to the desired list");
    desiredIntfDir_->intfDesiredIs(intfId, true);
  }
  return true;
}

bool SimpleTxRxPktManager::delIntfPam(Ovel::IntfId const & intfId) {
  STRPM_TRACE(8, "bool Interface::SimpleTxRxPktManager::delIntfPam(Ovel::IntfId)" << "( " << intfId << " )");
  VORN_ASSERT(desiredIntfDir());
  if (desiredIntfDir_->intfDesiredIter().find(intfId)) {
    STRPM_TRACE(5, "SimpleTxRxPktManager: Deleting " << intfId << " PAM");
    desiredIntfDir_->intfDesiredDel(intfId);
  }
  return true;
}

bool SimpleTxRxPktManager::applyFilter(Vorn::String const & text) {
  STRPM_TRACE(8, "bool Interface::SimpleTxRxPktManager::applyFilter(Vorn::String)" << "( " << text << " )");
  if (!std::getenv("ETHDEVPAMMANAGER_TESTING")) {
    STRPM_TRACE(0, "This is call is only intended for testing from python");
    VORN_ASSERT(0 && "This is call is only intended for testing from python");
  }
  int const n = parseFilter(text, nullptr);
  if (n == 0) {
    STRPM_TRACE(0, "Filter not parsed: not a filter program");  // scripts raise this text (Python module)
    return false;
  }
  std::unique_ptr<sock_filter[]> filter(new sock_filter[static_cast<size_t>(n)]);
  parseFilter(text, filter.get());
  try {  // the manager first: what it refuses (too long, or refused by the kernel) is not kept here either
    if (ethDevPamManager_) ethDevPamManager_->filterProgramIs(Ovel::SockFilterProgram(filter.get(), size_t(n)));
  } catch (Vorn::ErrnoException const & refused) {
    STRPM_TRACE(0, "Filter refused, errno " << refused.errorNumber());
    return false;
  } catch (Vorn::RangeException const & refused) {
    STRPM_TRACE(0, "Filter refused: " << refused.what());
    return false;
  }
  bpfFilterIs(std::move(filter));
  bpfFilterLenIs(static_cast<uint32_t>(n));
  STRPM_TRACE(5, "Filter parsed and set");
  return true;
}

void SimpleTxRxPktManager::handlePamCollection(Ovel::IntfId const & intfId) {
  Vorn::Ptr<Ovel::Pam> const pam = pamCollection_ ? pamCollection_->intfPam(intfId) : nullptr;
  if (pam_.reconcileKey(this, intfId, pam) != Vorn::ReactorChange::none) notify(&NotifieeConst::onPam, intfId);
  handlePamCollectionChange(intfId);
}

void SimpleTxRxPktManager::handlePamCollection() {
  if (!pamCollection_) return;
  pam_.reconcile(
      this, pamCollection_->intfPamIter(), [](Vorn::Ptr<Ovel::Pam> const & p) { return Vorn::Ptr<Ovel::Pam const>(p); },
      [this](Ovel::IntfId const & intfId, Vorn::ReactorChange) {
        notify(&NotifieeConst::onPam, intfId);
        handlePamCollectionChange(intfId);
      });
}

void SimpleTxRxPktManager::handlePamCollectionChange(Ovel::IntfId const & intfId) {
  STRPM_TRACE(8, "void Interface::SimpleTxRxPktManager::handlePamCollectionChange(Ovel::IntfId)" << "( " << intfId
                                                                                                 << " )");
  handleOutputPam(intfId);
}

void SimpleTxRxPktManager::handleOutputPam(Ovel::IntfId const & intfId) {
  STRPM_TRACE(8, "virtual void Interface::SimpleTxRxPktManager::handleOutputPam(Ovel::IntfId)" << "( " << intfId
                                                                                               << " )");
}

void SimpleTxRxPktManager::handleRx(Vorn::Ptr<Ovel::Pam> const &, Ovel::IntfId const &, Vorn::Ptr<Ovel::Pkt> const &) {
  STRPM_TRACE(5, "Need to implement handleReq in a derived class");
}

void SimpleTxRxPktManager::VornPam::handleReadableCount() {
  STRPM_TRACE(8, handleReadableCountText);
  // The Pam watched, as the collection holds it (the reactor is rebound whenever that changes).
  Vorn::Ptr<Ovel::Pam> const pam = owner()->pamCollection_ ? owner()->pamCollection_->intfPam(intfId_) : nullptr;
  if (!pam) return;
  auto const * device = dynamic_cast<Ovel::EthDevPam const *>(pam.ptr());
  STRPM_TRACE(7, "Reading for intfId: " << intfId_ << " on device: " << pam->name()
                                        << " ifIndex: " << (device ? device->ifIndex() : 0));
  Vorn::Ptr<Ovel::Pkt> const pkt = pam->rxPkt();
  if (!pkt) {
    STRPM_TRACE(7, handleReadableCountText << " no pkt, pam only set");
    return;
  }
  owner()->numRcvdInc(1);
  owner()->handleRx(pam, intfId_, pkt);
}

void SimpleTxRxPktManager::handleDeletion() {
  STRPM_TRACE(8, "void Interface::SimpleTxRxPktManager::handleDeletion()");
  bpfFilter_.reset();
}

}  // namespace Interface
