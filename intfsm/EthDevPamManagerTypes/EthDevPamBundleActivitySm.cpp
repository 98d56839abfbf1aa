#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleActivitySm.h"

#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Assert.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

namespace {
Intfsm::TypeRegistration registration("Interface::EthDevPamBundleActivitySm", nullptr, {"ethDevPamBundle"});
}  // namespace

class EthDevPamBundleActivitySm::VornEthDevPamBundle : public Vorn::Reactor<EthDevPamBundleActivitySm, EthDevPamBundle> {
 public:
  using Reactor::Reactor;
  void onSchedPktDelivery() override { forward(&EthDevPamBundleActivitySm::handleScheduledPktDelivery); }
};

EthDevPamBundleActivitySm::EthDevPamBundleActivitySm(Vorn::Ptr<Vorn::ActivityConfig> const & activityConfig,
                                                     EthDevPamManager * manager)
    : activityConfig_(activityConfig), manager_(manager) {}

EthDevPamBundleActivitySm::~EthDevPamBundleActivitySm() {
  if (bundleReactor_) Vorn::reactorRetire(*bundleReactor_);
}

void EthDevPamBundleActivitySm::ethDevPamBundleIs(Vorn::Ptr<EthDevPamBundle> const & bundle) {
  if (bundle == ethDevPamBundle_) return;
  if (bundleReactor_) Vorn::reactorRetire(*bundleReactor_);
  bundleReactor_ = nullptr;
  ethDevPamBundle_ = bundle;
  if (bundle) {
    // Bound to the activity before it watches anything, so that no call is ever delivered in place.
    bundleReactor_ = Vorn::reactorNew<VornEthDevPamBundle>(this, nullptr);
    bundleReactor_->activityIs(Vorn::vornActivitySmFor(activityConfig_).ptr());
    bundleReactor_->notifierIs(bundle);
  }
  notify(&NotifieeConst::onEthDevPamBundle);
}

void EthDevPamBundleActivitySm::handleScheduledPktDelivery() {
  EDPM_TRACE(8, "void Interface::EthDevPamBundleActivitySm::handleScheduledPktDelivery()");
  VORN_ASSERT(ethDevPamBundle());
  if (bundleReactor_->notifier() == ethDevPamBundle_ && ethDevPamBundle_->enabled()) {
    ethDevPamBundle_->handleScheduledPktDelivery();
  }
}

}  // namespace Interface
