// The bytes of a packet: one buffer, reference counted, that several packets may share.
//
// A frame read once can be handed to more than one holder (a Pam's receive queue, a second reader)
// without copying: each holder gets its own Pkt, and the Pkts share one PktHeadData. The buffer goes
// back to its PktManager's pool when the last packet lets go of it.
//
// Only Pkt and PktManager handle head data; users see it through Pkt (data(), maxData(),
// headDataShared()).
#pragma once

#include <cstdint>

#include "intfsm/foundation/vorn/Ptr.h"

namespace Ovel {

class PktManager;

class PktHeadData : public Vorn::PtrInterface {
 public:
  uint8_t * bytes() const noexcept { return bytes_; }
  uint32_t capacity() const noexcept { return capacity_; }
  // Held by more than one packet.
  bool shared() const noexcept { return references() > 1; }

 private:
  friend class PktManager;
  PktHeadData(PktManager * manager, uint32_t capacity);
  ~PktHeadData() override;
  void onZeroReferences() const override;

  PktManager * const manager_;
  uint8_t * const bytes_;
  uint32_t const capacity_;
  PktHeadData * nextFree_ = nullptr;  // the manager's pool of this size
};

}  // namespace Ovel
