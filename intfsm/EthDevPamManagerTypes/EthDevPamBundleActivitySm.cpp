#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleActivitySm.h"

#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Reactor.h"
#include "intfsm/foundation/vorn/System.h"

namespace Interface {

namespace {
Vorn::AttributeTableOf<EthDevPamBundleActivitySm> const attributes("Interface::EthDevPamBundleActivitySm", [](auto & t) {
  t.scalar("ethDevPamBundle", &EthDevPamBundleActivitySm::ethDevPamBundle,
           &EthDevPamBundleActivitySm::ethDevPamBundleIs);
});
Intfsm::TypeRegistration registration("Interface::EthDevPamBundleActivitySm", nullptr, attributes);
}  // namespace

class EthDevPamBundleActivitySm::VornEthDevPamBundle : public Vorn::Reactor<EthDevPamBundleActivitySm, EthDevPamBundle> {
 public:
  using Reactor::Reactor;
  void onSchedPktDelivery() override { forward(&EthDevPamBundleActivitySm::handleSchedPktDelivery); }
};

class EthDevPamBundleActivitySm::VornDeliveryClock : public Vorn::Reactor<EthDevPamBundleActivitySm, Vorn::Clock> {
 public:
  using Reactor::Reactor;
  void onTimeMin() override { forward(&EthDevPamBundleActivitySm::handleScheduledPktDelivery); }
};

EthDevPamBundleActivitySm::EthDevPamBundleActivitySm(Vorn::Ptr<Vorn::ActivityConfig> const & activityConfig,
                                                     EthDevPamManager * manager)
    : activityConfig_(activityConfig), manager_(manager) {
  deliveryClock_ = Vorn::reactorNew<VornDeliveryClock>(this, nullptr);
  deliveryClock_->activityIs(Vorn::vornActivitySmFor(activityConfig_).ptr());
  deliveryClock_->notifierIs(activityConfig_->clock());
}

EthDevPamBundleActivitySm::~EthDevPamBundleActivitySm() {
  if (bundleReactor_) Vorn::reactorRetire(*bundleReactor_);
  deliveryClock_->timeMinIs(Vorn::Clock::never);
  Vorn::reactorRetire(*deliveryClock_);
}

void EthDevPamBundleActivitySm::ethDevPamBundleIs(Vorn::Ptr<EthDevPamBundle> const & bundle) {
  if (bundle == ethDevPamBundle_) return;
  if (bundleReactor_) Vorn::reactorRetire(*bundleReactor_);
  bundleReactor_ = nullptr;
  ethDevPamBundle_ = bundle;
  if (bundle) {
    bundleReactor_ = Vorn::reactorNew<VornEthDevPamBundle>(this, bundle);
  }
  notify(&NotifieeConst::onEthDevPamBundle);
}

void EthDevPamBundleActivitySm::handleSchedPktDelivery() {
  deliveryClock_->timeMinIs(Vorn::System::currentTime());  // fires on a later pass, queued on the activity
}

void EthDevPamBundleActivitySm::handleScheduledPktDelivery() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundleActivitySm::handleScheduledPktDelivery()");
  VORN_ASSERT(ethDevPamBundle());
  if (bundleReactor_->notifier() == ethDevPamBundle_ && ethDevPamBundle_->enabled()) {
    ethDevPamBundle_->handleScheduledPktDelivery();
  }
}

}  // namespace Interface
