// Turns readiness of one bundle socket into reads: the bundle makes one per open socket (on its
// "edpm" and "edpmTap" descriptors) and drops it when it closes the socket.
//
//   fdSm = new EthDevPamBundleFdSm(bundle->fileDesc(), bundle.ptr());
//   // the socket becomes readable: bundle->currActiveSd() is the socket during bundle->doGetRxPkt(),
//   // and -1 again afterwards; writable: bundle->writableCountInc(1)
//
// Threading: one loop thread, nothing locked. The nested reactor holds a reference to the descriptor
// it watches (a bound notifiee keeps its notifier alive); the bundle owns this state machine and
// outlives it, except while a read that it started runs, during which both are kept alive.
#pragma once

#include "intfsm/foundation/vorn/FileDescriptor.h"
#include "intfsm/foundation/vorn/Notifier.h"
#include "intfsm/foundation/vorn/Ptr.h"

namespace Interface {

class EthDevPamBundle;

class EthDevPamBundleFdSm : public Vorn::Notifier {
 public:
  EthDevPamBundleFdSm(Vorn::Ptr<Vorn::FileDescriptor const> const & fileDesc, EthDevPamBundle * bundle);
  ~EthDevPamBundleFdSm() override;

  char const * vornTypeName() const { return "Interface::EthDevPamBundleFdSm"; }
  Vorn::Ptr<Vorn::FileDescriptor const> fileDesc() const;
  EthDevPamBundle * bundle() const { return bundle_; }

  void handleReadable();
  void handleWriteable();

 private:
  class VornFileDesc;

  EthDevPamBundle * bundle_;
  Vorn::Ptr<VornFileDesc> fileDescReactor_;
};

}  // namespace Interface
