#include "intfsm/EthDevPamManagerTypes/EthDevPamBundleFdSm.h"

#include "intfsm/EthDevPamManagerTypes/EthDevPamBundle.h"
#include "intfsm/EthDevPamManagerTypes/internal/Trace.h"
#include "intfsm/LibraryTypes.h"
#include "intfsm/foundation/vorn/Reactor.h"

namespace Interface {

namespace {
Vorn::AttributeTableOf<EthDevPamBundleFdSm> const attributes("Interface::EthDevPamBundleFdSm", [](auto & t) {
  t.scalar("fileDesc", &EthDevPamBundleFdSm::fileDesc).scalar("bundle", &EthDevPamBundleFdSm::bundle);
});
Intfsm::TypeRegistration registration("Interface::EthDevPamBundleFdSm", nullptr, attributes);
}  // namespace

class EthDevPamBundleFdSm::VornFileDesc : public Vorn::Reactor<EthDevPamBundleFdSm, Vorn::FileDescriptor> {
 public:
  using Reactor::Reactor;
  void onReadableCount() override { forward(&EthDevPamBundleFdSm::handleReadable); }
  void onWritableCount() override { forward(&EthDevPamBundleFdSm::handleWriteable); }
};

EthDevPamBundleFdSm::EthDevPamBundleFdSm(Vorn::Ptr<Vorn::FileDescriptor const> const & fileDesc,
                                         EthDevPamBundle * bundle)
    : bundle_(bundle), fileDescReactor_(Vorn::reactorNew<VornFileDesc>(this, fileDesc)) {}

EthDevPamBundleFdSm::~EthDevPamBundleFdSm() { Vorn::reactorRetire(*fileDescReactor_); }

Vorn::Ptr<Vorn::FileDescriptor const> EthDevPamBundleFdSm::fileDesc() const { return fileDescReactor_->notifier(); }

void EthDevPamBundleFdSm::handleReadable() {
  // A reader may disable the bundle, which drops this state machine and may drop the bundle.
  Vorn::Ptr<EthDevPamBundleFdSm> keepSelf(references() ? this : nullptr);
  Vorn::Ptr<EthDevPamBundle> keepBundle(bundle_->references() ? bundle_ : nullptr);
  Vorn::Ptr<Vorn::FileDescriptor const> const fd = fileDesc();
  EDPM_TRACE(8, "void Interface::EthDevPamBundleFdSm::handleReadable() sd: " << (fd ? fd->descriptor() : -1));
  if (!fd) return;
  bundle_->currActiveSdIs(fd->descriptor());
  bundle_->doGetRxPkt();
  bundle_->currActiveSdIs(-1);
}

void EthDevPamBundleFdSm::handleWriteable() { bundle_->writableCountInc(1); }

}  // namespace Interface
